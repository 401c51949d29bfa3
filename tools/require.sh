#!/bin/sh
# Sees to it that the named tools are there: as root on Debian they are installed, elsewhere the
# missing ones are named.
# usage: tools/require.sh COMMAND[=PACKAGE]...
set -u

missing=
for tool in "$@"; do
    command -v "${tool%%=*}" >/dev/null 2>&1 || missing="$missing ${tool##*=}"
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    apt-get update >&2 && DEBIAN_FRONTEND=noninteractive apt-get install -y $missing >&2 && exit 0
fi
echo "These tools are needed and not installed:$missing" >&2
exit 1
