#!/bin/sh
# The tests under the address, undefined-behaviour and leak sanitizers:
#
#   tools/asan.sh [python]
#
# The interpreter must have the test dependencies; by default it is the checkout's own .venv.
# JOBS=2 builds with two jobs; LEAKS_ONLY=1 leaves out the run of the whole suite.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
python=${1:-$root/.venv/bin/python}

cmake --preset asan -DPython_EXECUTABLE="$python"
cmake --build --preset asan -j "${JOBS:-1}"
ctest --preset asan

# pytest keeps what is written to the standard error: the reports go to files.
reports=$root/build/asan/reports
rm -rf "$reports"
mkdir -p "$reports"
status=0

# run <more options for the address sanitizer> <pytest arguments...>
#
# The interpreter is not instrumented, so the runtime is loaded before it, and with it libstdc++,
# whose throw it intercepts. Allocations that fail are NULL, as they are without the sanitizer.
run() {
    options=$1
    shift
    env LD_PRELOAD="$(c++ -print-file-name=libasan.so) $(c++ -print-file-name=libstdc++.so)" \
        ASAN_OPTIONS="allocator_may_return_null=1:log_path=$reports/asan:$options" \
        UBSAN_OPTIONS="print_stacktrace=1:log_path=$reports/ubsan" \
        LSAN_OPTIONS="suppressions=$root/tools/asan.supp:print_suppressions=0" \
        PYTHONMALLOC=malloc \
        PYTHONPATH="$root/build/asan/python" \
        "$python" -m pytest -q -p no:cacheprovider "$@" || status=$?
}

[ -n "${LEAKS_ONLY:-}" ] || run detect_leaks=0

# The suppressions name functions that stand far up in the stack, and the interpreter keeps no frame
# pointers: the whole stack has to be unwound, which is slow. So these are the tests that use every
# method and every way in which one can fail.
run detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=30 tests/safety

for report in "$reports"/*; do
    [ -e "$report" ] || continue
    cat "$report"
    status=1
done
exit "$status"
