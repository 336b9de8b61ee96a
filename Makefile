# Everything below sets itself up in $(VENV) on first use:
#
#   make demo        decades of daily prices through the package, with a picture
#   make docs        the documentation as a site in build/docs: open index.html; no network is asked
#   make cluster-demo    200 configurations over these prices on a cluster of two processes
#   make test        build, format, lint, type and stub checks, C++ tests, Python tests
#   make format      rewrite the sources as `make test` wants to see them
#   make coverage    branches of the C++ that no test takes, report in build/coverage/report
#   make mutants     small changes of the sources, drawn by chance, that the tests should tell; takes
#                    an hour or MINUTES, and some minutes before it; see tests/mutants/README.md
#   make asan        the tests under the address, undefined-behaviour and leak sanitizers
#   make valgrind    a part of the tests under memcheck
#   make refleaks    every method on an interpreter that counts references
#   make matrix      the tests on every Python with the oldest and the newest NumPy
#   make newest      the tests of the compiled code and of tables on the newest Python to be had
#   make wheels      the sdist and a wheel for every Python, as users get them, and checks of all
#   make compilers   the core and its tests with every compiler that it promises to build with
#   make long        the safety tests with their long repetitions
#   make fuzz        random inputs of each kind under the sanitizers, a million or INPUTS of them
#   make trust       asan, valgrind, refleaks, matrix, long and a shorter fuzz, with a table of
#                    what each gave, as docs/trust.md shows it
#   make tidy        clang-tidy over the C++
#   make bench       every promise about speed and memory, measured: table, JSON and picture
#   make bench-pythons   what depends on the interpreter, on every Python, side by side
#   make bench-instructions   instructions per structure, counted by callgrind, against the recorded
#   make dist-test   build and test with the distribution's Python and NumPy, without pip
#   make clean       remove what was built; `make distclean` removes $(VENV) too
#
# PYTHONS="3.12 3.15" chooses for `make matrix`, `make wheels` and `make bench-pythons`,
# COMPILERS="g++-14 clang++-newest" for `make compilers`, DEBUG_PYTHON=python3.11-dbg for
# `make refleaks`.
# PYTHON=python3.12 chooses the interpreter (with VENV=.venv312 beside the usual one).

VENV ?= .venv
PYTHON ?=

PY := $(CURDIR)/$(VENV)/bin/python
WHEEL_BUILD := build/wheel-$(patsubst .%,%,$(VENV))
DIST := $(WHEEL_BUILD)/dist

# cmake, ninja and the linters come from the environment; tests must see the installed wheel only.
export PATH := $(CURDIR)/$(VENV)/bin:$(PATH)
export PIP_DISABLE_PIP_VERSION_CHECK := 1
export CMAKE_GENERATOR ?= Ninja
unexport PYTHONPATH

TOOLS_READY := $(VENV)/.ready-tools
WHEEL_READY := $(VENV)/.ready-wheel
DEMO_READY := $(VENV)/.ready-demo
CLUSTER_READY := $(VENV)/.ready-cluster
DOCS_READY := $(VENV)/.ready-docs
TEST_READY := $(VENV)/.ready-test
BENCH_READY := $(VENV)/.ready-bench

# Folders are listed too: their time changes when a file is added or removed.
SOURCES := CMakeLists.txt README.md LICENSE \
    $(shell find cmake cpp src -name __pycache__ -prune -o \( -type d -o -type f \) -print)
CXX_SOURCES = $(shell find cpp -name '*.cpp' -o -name '*.hpp')
STUBBED = $(subst /,.,$(patsubst src/%.pyi,%,$(shell find src -name '*.pyi')))

.PHONY: set-up demo cluster-demo docs test lint types check format coverage mutants trust asan \
    valgrind refleaks matrix newest wheels compilers long fuzz tidy bench bench-pythons \
    bench-instructions dist-test clean distclean python-matches
.DELETE_ON_ERROR:

set-up: $(WHEEL_READY) $(TEST_READY)

demo: $(WHEEL_READY) $(DEMO_READY)
	$(PY) -m quorvane.cli.demo

cluster-demo: $(WHEEL_READY) $(DEMO_READY) $(CLUSTER_READY)
	$(PY) -m quorvane.cli.cluster_demo

# Afresh, so that nothing stays of pages that are gone; the gallery's programs are run.
docs: $(WHEEL_READY) $(DOCS_READY)
	rm -rf build/docs build/docs-doctrees docs/examples
	$(PY) -m sphinx -W --keep-going -q -b html -d build/docs-doctrees docs build/docs
	@echo "The site is build/docs/index.html"

test: lint types check

lint: $(TEST_READY)
	ruff format --check .
	ruff check .
	clang-format --dry-run -Werror $(CXX_SOURCES)

types: $(WHEEL_READY) $(TEST_READY)
	mypy
	cd $(WHEEL_BUILD) && $(PY) -m mypy.stubtest $(STUBBED)

check: $(WHEEL_READY) $(TEST_READY)
	ctest --test-dir $(WHEEL_BUILD) --output-on-failure
	$(PY) -m pytest -n 2

format: $(TEST_READY)
	ruff format .
	ruff check --fix .
	clang-format -i $(CXX_SOURCES)

# Left out is what takes no branch that others do not (days by the ten thousand, random inputs, and
# what runs next to none of the compiled code), and what ends processes at random moments. A process
# for some files at a time, two at once: the counters are written at a normal exit, which an ordinary
# process is sure to make.
COVERED = $(sort $(filter-out tests/fuzz/% tests/cli/% tests/stores/% tests/powercut/% \
    tests/safety/test_soak.py tests/safety/test_process_end.py tests/safety/test_objects_at_exit.py \
    tests/safety/test_interrupts.py tests/safety/test_forks.py tests/safety/test_import_at_exit.py \
    tests/test_house.py tests/test_trust_table.py tests/test_newest_python.py \
    tests/test_instruction_gate.py tests/baskets/% tests/tables/% tests/expressions/% \
    tests/evaluation/% tests/sweeping/% tests/scikit_learn/% tests/benchmarks/% tests/docs/% \
    tests/contributing/% tests/mutants/% tests/release/%, \
    $(shell find tests -name 'test_*.py'))) tests/baskets/test_plain_row.py

coverage: $(TEST_READY)
	cmake --preset coverage -DPython_EXECUTABLE=$(PY)
	cmake --build --preset coverage
	find build/coverage -name '*.gcda' -delete
	ctest --preset coverage
	printf '%s\n' $(COVERED) | PYTHONPATH=$(CURDIR)/build/coverage/python xargs -P 2 -n 3 \
	    $(PY) -m pytest -q -m "not plain_python" --hypothesis-seed=0
	mkdir -p build/coverage/report
	gcovr --root . --filter cpp/ --exclude cpp/tests/ --object-directory build/coverage \
	    --exclude-throw-branches --exclude-unreachable-branches --merge-lines \
	    --html-details build/coverage/report/index.html
	$(PY) -m tests.branches build/coverage

# Another SEED draws others. A run that was stopped goes on where it stopped.
SEED ?= 1
MINUTES ?= 60

mutants: $(TEST_READY)
	$(PY) -m tests.mutants --seed $(SEED) --minutes $(MINUTES)

# What docs/trust.md reports on, each by itself; a failure keeps no other from running. INPUTS of
# each kind are as many as take some minutes.
trust: INPUTS = 20000
trust:
	$(or $(PYTHON),python3) tools/trust.py --python $(PY) --inputs $(INPUTS)

asan: $(TEST_READY)
	JOBS=2 tools/asan.sh $(PY)

valgrind: $(TEST_READY)
	JOBS=2 tools/valgrind.sh $(PY)

refleaks:
	JOBS=2 tools/refleaks.sh $(DEBUG_PYTHON)

matrix:
	JOBS=2 tools/matrix.sh $(PYTHONS)

# What a new interpreter or a new library can break: the compiled code, how it lives with the
# interpreter, and tables. Tests that run on the plain twin alone say nothing of any.
NEWEST_TESTS = tests/virtualization tests/rotations tests/fuzz tests/safety tests/baskets \
    tests/tables tests/expressions tests/evaluation tests/test_abstract_hooks.py

newest:
	JOBS=2 MATRIX_TESTS="$(NEWEST_TESTS)" MATRIX_MARK="not plain_python" tools/newest.sh

wheels:
	JOBS=2 tools/wheels.sh $(PYTHONS)

compilers: $(TOOLS_READY)
	JOBS=2 PYTHON=$(PY) tools/compilers.sh $(COMPILERS)

# The safety tests, and all others that have a long form; that of the random inputs is `make fuzz`.
# A worker that has nothing left takes over from the other: some tests take minutes, most nothing.
LONG_TESTS = tests/safety $(filter-out tests/safety/% tests/fuzz/%, \
    $(shell grep -rl --include='test_*.py' QUORVANE_LONG tests))

long: $(WHEEL_READY) $(TEST_READY)
	QUORVANE_LONG=1 $(PY) -m pytest -n 2 --dist worksteal $(LONG_TESTS)

# Ends with an error when the sanitizers report, or the module and its plain twin differ.
INPUTS ?= 1000000

fuzz: $(TEST_READY)
	INPUTS=$(INPUTS) JOBS=2 tools/asan.sh $(PY)

tidy: $(TEST_READY)
	command -v clang-tidy >/dev/null || $(PY) -m pip install -qq clang-tidy
	cmake --preset tidy -DPython_EXECUTABLE=$(PY)
	cmake --build --preset tidy

bench: $(WHEEL_READY) $(BENCH_READY)
	$(PY) benchmarks/bench_days.py --json build/bench/days.json --picture build/bench/days.png

bench-pythons:
	JOBS=2 benchmarks/bench_pythons.sh $(PYTHONS)

# On the interpreter of $(VENV), and on the newest that can be had here.
bench-instructions: $(WHEEL_READY) $(TEST_READY)
	benchmarks/count_instructions.sh $(PY)
	MATRIX_RUN=benchmarks/count_instructions.sh MATRIX_PACKAGES=valgrind tools/newest.sh

# Nothing of $(VENV) may be seen here, its cmake and ninja included.
dist-test: export PATH := /usr/local/bin:/usr/bin:/bin
dist-test: export CMAKE_GENERATOR := Unix Makefiles
dist-test:
	cmake --preset distro
	cmake --build --preset distro
	ctest --preset distro
	PYTHONPATH=$(CURDIR)/build/distro/python /usr/bin/python3 -m pytest -q

clean:
	rm -rf build docs/examples $(VENV)/.ready-wheel

distclean: clean
	rm -rf $(VENV)

# A PYTHON that was asked for is compared with the environment each time, never silently ignored.
python-matches:
	@PYTHON="$(PYTHON)" tools/make_venv.sh $(VENV)

# The interpreter, and what the wheel is built with.
$(TOOLS_READY): pyproject.toml tools/make_venv.sh | $(if $(PYTHON),python-matches)
	@PYTHON="$(PYTHON)" tools/make_venv.sh $(VENV)
	$(PY) -m pip install -qq "scikit-build-core>=0.10" "numpy>=2.0" cmake ninja
	@touch $@

# The wheel itself, as a user gets it, but with our own warnings as errors and the C++ tests
# beside it. The build folder is kept, so that a second build compiles only what has changed.
$(WHEEL_READY): $(TOOLS_READY) $(SOURCES)
	@echo "Building the wheel (some minutes the first time) ..."
	@rm -rf $(DIST)
	$(PY) -m pip wheel -q . --no-build-isolation --no-deps --wheel-dir $(DIST) \
	    --config-settings=build-dir=$(WHEEL_BUILD) \
	    --config-settings=cmake.define.QUORVANE_WERROR=ON \
	    --config-settings=cmake.define.QUORVANE_TESTS=ON
	$(PY) -m pip install -q --no-deps --force-reinstall $(DIST)/quorvane-*.whl
	@touch $@

# Extras are asked of the wheel, so that what users are promised is what is tested. The prices of
# the demo are in skfolio, whose own many dependencies are not needed to read them.
$(DEMO_READY): pyproject.toml | $(WHEEL_READY)
	$(PY) -m pip install -qq "$$(echo $(DIST)/quorvane-*.whl)[demo]"
	$(PY) -m pip install -qq --no-deps skfolio
	@touch $@

$(CLUSTER_READY): pyproject.toml | $(WHEEL_READY)
	$(PY) -m pip install -qq "$$(echo $(DIST)/quorvane-*.whl)[cluster]"
	@touch $@

$(DOCS_READY): pyproject.toml | $(WHEEL_READY)
	$(PY) -m pip install -qq "$$(echo $(DIST)/quorvane-*.whl)[docs]"
	$(PY) -m pip install -qq --no-deps skfolio
	@touch $@

$(TEST_READY): pyproject.toml | $(WHEEL_READY)
	$(PY) -m pip install -qq "$$(echo $(DIST)/quorvane-*.whl)[test,dev,docs,mutants]"
	$(PY) -m pip install -qq --no-deps skfolio bokeh_sampledata
	@touch $@

# Each by itself: a Python may lack some, and none may replace the NumPy that is measured.
$(BENCH_READY): pyproject.toml benchmarks/install_peers.py | $(WHEEL_READY)
	$(PY) benchmarks/install_peers.py
	@touch $@
