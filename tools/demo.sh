#!/bin/sh
# Builds the wiki of a tree, asks it and writes its pages: what `make demo` runs. The wiki is kept
# where the command keeps it, so that a search afterwards finds it.
# usage: BUILD=build tools/demo.sh [TREE] [QUESTION]
set -eu

tree=${1:-.}
ask() {
    printf '\n? %s\n' "$1"
    "$BUILD/wiki" search "$1" --repo "$tree" --top 3
}

"$BUILD/wiki" build "$tree"
if [ -n "${2:-}" ]; then
    ask "$2"
else
    while read -r question; do ask "$question"; done <tools/demo.questions
fi
echo
"$BUILD/wiki" export "$BUILD/demo/$(basename "$(realpath "$tree")")" --repo "$tree"
