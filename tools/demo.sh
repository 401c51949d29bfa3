#!/bin/sh
# Builds the wiki of a tree and asks it: what `make demo` runs.
# usage: BUILD=build PYTHON=python3.13 tools/demo.sh [TREE] [QUESTION]
set -eu

tree=${1:-.}
mkdir -p "$BUILD/demo"
name=$(cd "$tree" 2>/dev/null && basename "$PWD") || name=missing  # which the demo then says
database="$BUILD/demo/$name.db"
demo() { PYTHONPATH="$BUILD/python" "$PYTHON" -P -m demo "$@"; }
ask() {
    echo
    demo search "$1" --repo "$tree" --db "$database" --top 3
}

demo build "$tree" --db "$database"
if [ -n "${2:-}" ]; then
    ask "$2"
else
    while read -r question; do ask "$question"; done <tools/questions.txt
fi
echo
demo status "$tree" --db "$database"
