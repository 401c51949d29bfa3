#!/bin/sh
# Runs the store's tests under valgrind, one of each kind of call. What `make memcheck` runs.
# usage: BUILD=build PYTHON=python3.13 tools/memcheck.sh
set -eu

if ! command -v valgrind >/dev/null 2>&1; then
    echo "make memcheck: valgrind is not installed" >&2
    exit 1
fi
for tests in test_store_behaviour test_store_faults; do
    PYTHONMALLOC=malloc PYTHONPATH="$BUILD/python:." valgrind --quiet --error-exitcode=99 \
        --leak-check=no \
        "$PYTHON" -P -m unittest "tests.$tests"
done
