#!/bin/sh
# Configures a build folder, silently unless that fails, and builds it.
# usage: PYTHON=python3.13 tools/build.sh FOLDER [CMAKE_OPTION...]
set -eu

folder=$1
shift
# The generator and the compiler can be chosen only once.
[ -f "$folder/CMakeCache.txt" ] && begun=yes || begun=
if [ -z "$begun" ] && command -v ninja >/dev/null 2>&1; then
    set -- -G Ninja "$@"
fi
# Another make below this one is not to report its every step.
unset MAKEFLAGS MFLAGS MAKELEVEL
mkdir -p "$folder"
if ! cmake -S . -B "$folder" -DPython_EXECUTABLE="$PYTHON" "$@" >"$folder/configure.log" 2>&1; then
    cat "$folder/configure.log" >&2
    [ -n "$begun" ] || rm -rf "$folder/CMakeCache.txt" "$folder/CMakeFiles"
    echo "CMake cannot configure $folder for ${CXX:-c++} and $PYTHON: see above." >&2
    exit 1
fi
exec cmake --build "$folder" --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
