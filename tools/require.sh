#!/bin/sh
# Sees to it that all that is needed is there: as root on Debian what is missing gets installed,
# elsewhere it is named, all of it at once.
# usage: PYTHON=[INTERPRETER] tools/require.sh NEED...
# A NEED is COMMAND[=PACKAGE], or python, or, after it, module:NAMES=PACKAGE of that interpreter.
# shellcheck disable=SC2086  # a list of packages is words
set -u

say() { printf '%s\n' "$*" >&2; }

missing='' lacking='' python='' search=''
for need in "$@"; do
    name=${need%%=*} package=${need##*=}
    case $name in
    python)
        if answer=$(tools/find_python.sh "${PYTHON:-}" 2>&1); then
            python=$answer
            continue
        fi
        if [ -n "${PYTHON:-}" ]; then
            say "$answer"
            exit 1
        fi
        search=$answer package=python3.13-dev
        ;;
    module:*)
        if [ -n "$python" ]; then
            "$python" -c "import ${name#module:}" 2>/dev/null && continue
            case $python in
            /usr/bin/*) ;;
            *)
                lacking="$lacking ${package#python3-}"
                continue
                ;;
            esac
        fi
        ;;
    *) command -v "$name" >/dev/null 2>&1 && continue ;;
    esac
    missing="$missing $package"
done
[ -z "$missing$lacking" ] && exit 0

log=$(mktemp) || exit 1
trap 'rm -f "$log"' EXIT
debian() { command -v apt-get >/dev/null 2>&1; }
apt() { LC_ALL=C DEBIAN_FRONTEND=noninteractive apt-get "$@" >>"$log" 2>&1 </dev/null; }
listed() { LC_ALL=C apt-cache policy 2>/dev/null | grep -q Packages; }
# Whether Debian has, as far as its lists are here, a Python that is not installed but needed.
offered() {
    [ -z "$search" ] && return
    listed || return 0
    apt-cache show python3.13-dev >/dev/null 2>&1 && ! dpkg -s python3.13-dev >/dev/null 2>&1
}

if debian && [ "$(id -u)" = 0 ] && [ -z "$lacking" ]; then
    listed || { say "Reading what apt-get has ..." && apt update; }
    if offered; then
        size=$(LC_ALL=C apt-get install --no-install-recommends --assume-no $missing 2>/dev/null |
            sed -n 's/^After this operation, \(.*\) of add.*/, \1 on the disk/p')
        say "Needed and not installed:$missing; apt-get installs this$size ..."
        apt update
        apt install --no-install-recommends -y $missing && exit 0
        cat "$log" >&2
        say "apt-get could not install$missing; what it said stands above."
        exit 1
    fi
fi

if [ -n "$search" ] && { ! debian || ! offered; }; then
    say "$search"
    missing=$(printf '%s' "$missing" | sed 's/ python3\.13-dev//')
fi
if [ -n "$missing" ] && debian; then
    listed && update='' || update='apt-get update && '
    say "Needed and not installed; as root: ${update}apt-get install$missing"
elif [ -n "$missing" ]; then
    say "Needed and not installed:$missing"
fi
if [ -n "$lacking" ]; then
    say "Not installed for $python:$lacking; needed, for example by" \
        "$python -m venv env && env/bin/pip install$lacking, then PYTHON=env/bin/python"
fi
exit 1
