#!/bin/sh
# Every static check: layout, clang-tidy, exported symbols, house rules. What `make lint` runs.
# usage: BUILD=build CLANG=19 tools/lint.sh
set -u
failed=0
complain() {
    printf '%s\n' "$*" >&2
    failed=1
}

cpp=$(git ls-files '*.cpp' '*.h') || exit 1
# shellcheck disable=SC2086
"clang-format-$CLANG" --dry-run --Werror $cpp ||
    complain "lint: run make format (clang-format $CLANG lays out the lines above otherwise)"

# The headers are checked through the sources that include them.
git ls-files '*.cpp' | xargs -P "$(nproc)" -n 1 "clang-tidy-$CLANG" --quiet -p "$BUILD" \
    --extra-arg=-Wno-unknown-warning-option 2>"$BUILD/clang-tidy.log" ||
    complain "lint: clang-tidy $CLANG found what stands above"

for module in repository_wiki _vector_index; do
    symbols=$(nm -D --defined-only "$BUILD"/python/tessaly/storage/$module.*.so | awk '{print $3}')
    [ "$symbols" = "PyInit_$module" ] ||
        complain "lint: $module must export PyInit_$module alone, not: $symbols"
done

# rule PATTERN WHY FILE...: no line of the files matches.
rule() {
    pattern=$1 why=$2
    shift 2
    # shellcheck disable=SC2068
    if grep -nE "$pattern" $@ /dev/null; then complain "lint: $why"; fi
}
# shellcheck disable=SC2086
{
    rule 'Py_(X?DECREF|CLEAR|SETREF)\(' 'references are counted in python/py/reference.h alone' \
        $(printf '%s\n' $cpp | grep -v '^python/py/reference\.h$')
    rule '^(static |inline |thread_local )*(PyObject|PyTypeObject)\>[^()]*[=;{]' \
        'no Python object at namespace scope: state hangs on the module' $cpp
    rule 'static (PyObject|PyTypeObject)' 'no static Python object: state hangs on the module' $cpp
    rule '^[^"/]*[^_[:alnum:]](new [[:alnum:]_:<>]+[({;[]|delete [[:alnum:]_]+;)' 'no naked new or delete' $cpp
    rule '(TO[D]O|FIX[M]E|X[X]X)' 'finish it or leave it out' $cpp $(git ls-files '*.py' '*.sh' Makefile)
    rule '#include "\.\./' 'includes are named from the root of their component' $cpp
}
# Each arrow points down. Headers are named as they are included.
headers() { git ls-files "$@" | sed 's|^storage/||' | paste -s -d '|'; }
# shellcheck disable=SC2046,SC2086
{
    rule "#include \"($(headers 'storage/*.h'))\"" \
        'python/ and reference_host/ are below storage/' $(git ls-files python reference_host)
    rule '#include "wiki/' 'storage/host/ is below storage/wiki/' $(git ls-files storage/host)
    rule "#include \"($(headers ':(glob)storage/*.h' ':!storage/call.h'))\"" \
        'storage/wiki/ includes wiki/, host/, py/ and call.h alone' $(git ls-files storage/wiki)
    rule '\<Py[A-Z_]|<Python\.h>' 'storage/wiki/ does not call the C API' \
        $(git ls-files storage/wiki)
    rule '\<(_Py[A-Z]\w*|Py_SET_SIZE|(ma|tp)_version_tag|ob_item|ob_digit)\>' \
        'this is private to the interpreter' $cpp
    rule '(->|\)\.)(allocated|exc_info|(co|func|ma)_\w+)|\<Py(Dict|List|Tuple)Object\>' \
        'the fields of the interpreter'"'s structures are private to it" $cpp
    long=$(wc -l $(git ls-files python storage) | awk '$1 > 250 && $2 != "total"')
}
[ -z "$long" ] || complain "$long
lint: these files have more than 250 lines"

[ $failed = 0 ] && echo "lint: nothing to complain of"
exit $failed
