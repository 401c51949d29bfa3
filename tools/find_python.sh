#!/bin/sh
# Prints the path of a CPython 3.13 that starts and has its headers, or says what was tried.
# usage: tools/find_python.sh [PYTHON]
set -u

tried=

# usable CANDIDATE ORIGIN: prints its path and ends the search when it serves; else notes why not.
usable() {
    # What it says on standard error is a reason only if it fails.
    said=$(mktemp) || exit 1
    answer=$("$1" -c '
import os, sys, sysconfig
if sys.implementation.name != "cpython" or sys.version_info[:2] != (3, 13):
    sys.exit("it is %s %s" % (sys.implementation.name, sys.version.split()[0]))
if sysconfig.get_config_var("Py_GIL_DISABLED"):
    sys.exit("it is free-threaded, and the store needs the interpreter lock")
header = os.path.join(sysconfig.get_path("include"), "Python.h")
if not os.path.exists(header):
    sys.exit("its headers are missing: no " + header)
print(sys.executable)' 2>"$said" </dev/null)
    why=$(head -n 1 "$said")
    rm -f "$said"
    if [ -x "$answer" ]; then
        printf '%s\n' "$answer"
        exit 0
    fi
    tried="$tried
  - $2 ($1): ${why:-it does not answer as Python does}"
}

found() { command -v "$1" >/dev/null 2>&1; }

if [ -n "${1:-}" ]; then
    usable "$1" PYTHON
    echo "No usable CPython 3.13:${tried#*-}" >&2
    exit 1
fi

if found python3.13; then usable python3.13 "python3.13 on PATH"; fi

for manager in pyenv "${PYENV_ROOT:-$HOME/.pyenv}/bin/pyenv"; do
    found "$manager" || continue
    for version in $("$manager" versions --bare 2>/dev/null | grep -E '^3\.13(\.[0-9]+)?$' | sort -t. -k3 -rn); do
        prefix=$("$manager" prefix "$version" 2>/dev/null) && usable "$prefix/bin/python3.13" "pyenv $version"
    done
    break
done

for name in python3 python; do
    if found "$name"; then usable "$name" "$name on PATH"; fi
done

cat >&2 <<TEXT
No usable CPython 3.13 was found. Tried:${tried:-
  - nothing answered}
Provide one in any of these ways:
  - make PYTHON=/path/to/python3.13 ...
  - put a python3.13 with its headers on PATH (Debian 13: apt-get install python3.13-dev)
  - with a version manager: pyenv install 3.13
TEXT
exit 1
