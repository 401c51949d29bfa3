# Every habit of the house, a line each in `make help`.

BUILD ?= build
REPO ?= .
SHELL := /bin/sh
export PYTHONDONTWRITEBYTECODE := 1

# Found when a recipe first needs it, once.
python = $(eval python := $$(shell tools/find_python.sh "$(PYTHON)"))$(python)
need_python = @test -n "$(python)"
run_python = PYTHONPATH="$(BUILD)/python" "$(python)"
sources = $(shell git ls-files 'storage/*.cpp' 'storage/*.h' 'host/*.cpp' 'host/*.h')

.PHONY: help build test demo bench lint format sanitize memcheck soak wheel install clean

help: ## this list
	@sed -n 's/^\([a-z]*\):.*## /\1\t/p' $(MAKEFILE_LIST) | awk -F'\t' '{printf "make %-10s %s\n", $$1, $$2}'

build: ## configure and build; leaves an importable tree in build/python
	$(need_python)
	@tools/require.sh c++=g++ cmake
	@cmake -S . -B "$(BUILD)" $(if $(wildcard $(BUILD)/CMakeCache.txt),,$(if $(shell command -v ninja),-G Ninja)) \
	    -DPython_EXECUTABLE="$(python)" $(CMAKE_OPTIONS) >"$(BUILD).log" 2>&1 || { cat "$(BUILD).log" >&2; rm -f "$(BUILD).log"; exit 1; }
	@rm -f "$(BUILD).log"
	@cmake --build "$(BUILD)" --parallel

test: build ## build, then run every test
	@ctest --test-dir "$(BUILD)" --output-on-failure --parallel 2 $(if $(TESTS),-R '$(TESTS)')

demo: build ## build the wiki of this repository (or REPO=...) and ask it (or QUESTION=...)
	@BUILD="$(BUILD)" PYTHON="$(python)" tools/demo.sh "$(REPO)" "$(QUESTION)"

bench: build ## the speed tables: native against plain Python, and the ranking
	@PYTHONPATH="$(BUILD)/python:." "$(python)" -P -m benchmarks $(BENCH)

wheel: ## the module, its stub and py.typed as a wheel in dist/ (needs scikit-build-core)
	$(need_python)
	@"$(python)" -c 'import packaging, pathspec, scikit_build_core.build' 2>/dev/null || { \
	    echo "make wheel: $(python) cannot import scikit-build-core, pathspec and packaging" >&2; exit 1; }
	@"$(python)" -m pip --disable-pip-version-check wheel --no-build-isolation --no-deps -w dist .

clean: ## remove what was built
	rm -rf "$(BUILD)" build-sanitize dist
