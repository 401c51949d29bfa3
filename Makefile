# Every habit of the house, a line each in `make help`.

BUILD ?= build
REPO ?= .
# Of another version, clang-format lays out other lines and clang-tidy finds other faults.
CLANG = 19
SHELL := /bin/sh
export PYTHONDONTWRITEBYTECODE := 1

# What a command needs beyond the build, named before anything is built.
needs_lint = clang-format-$(CLANG) clang-tidy-$(CLANG) nm=binutils git
needs_wheel = module:pip=python3-pip \
    module:scikit_build_core.build,packaging,pathspec=python3-scikit-build-core

# Found when a recipe first needs it, once.
python = $(eval python := $$(shell tools/find_python.sh "$(PYTHON)"))$(python)

.PHONY: help needs build test demo quality bench lint format sanitize memcheck soak wheel clean

help: ## this list
	@sed -n 's/^\([a-z]*\):.*## /\1\t/p' $(MAKEFILE_LIST) | awk -F'\t' '{printf "make %-10s %s\n", $$1, $$2}'

needs:
	@PYTHON="$(PYTHON)" tools/require.sh $(if $(filter default,$(origin CXX)),c++=g++) cmake python \
	    $(foreach goal,$(MAKECMDGOALS) $(FOR),$(needs_$(goal)))

build: needs ## configure and build; leaves an importable tree in build/python
	@test -n "$(python)"
	@PYTHON="$(python)" tools/build.sh "$(BUILD)" $(CMAKE_OPTIONS)

test: build ## build, then run every test
	@ctest --test-dir "$(BUILD)" --output-on-failure --no-tests=error --parallel 2 $(if $(TESTS),-R '$(TESTS)')

demo: build ## build the wiki of this repository (or REPO=...), ask it (or QUESTION=...), write its pages
	@BUILD="$(BUILD)" tools/demo.sh "$(REPO)" "$(QUESTION)"

quality: build ## how often the demo finds the right file; TREES=... is the folder of more trees
	@"$(python)" -P tools/quality.py $(if $(TREES),--trees "$(TREES)") "$(BUILD)/wiki"

bench: build ## the speed tables: native against plain Python, the ranking, the import
	@PYTHONPATH="$(BUILD)/python:." "$(python)" -P -m benchmarks $(BENCH)

lint: build ## layout, clang-tidy, exported symbols, house rules
	@BUILD="$(BUILD)" CLANG="$(CLANG)" tools/lint.sh

format: ## lay out the C++ sources
	@tools/require.sh clang-format-$(CLANG) git
	@clang-format-$(CLANG) -i $$(git ls-files '*.cpp' '*.h')

sanitize: ## every test under AddressSanitizer and UndefinedBehaviorSanitizer
	@$(MAKE) --no-print-directory build BUILD=$(BUILD)-sanitize CMAKE_OPTIONS=-DTESSALY_SANITIZE=ON
	@ctest --test-dir "$(BUILD)-sanitize" --output-on-failure --no-tests=error --parallel 2 $(if $(TESTS),-R '$(TESTS)')

memcheck: build ## the store's tests under valgrind, where it is installed (slow)
	@BUILD="$(BUILD)" PYTHON="$(python)" tools/memcheck.sh

soak: build ## the long versions of the tests of threads and of random data
	@TESSALY_SOAK=1 ctest --test-dir "$(BUILD)" --output-on-failure -R 'store_(concurrency|json)'

wheel: needs ## the module, its stub and py.typed as a wheel in dist/ (needs scikit-build-core)
	@test -n "$(python)"
	@"$(python)" -m pip --disable-pip-version-check wheel --no-build-isolation --no-deps -w dist .

clean: ## remove what was built
	rm -rf "$(BUILD)" "$(BUILD)-sanitize" dist
