#!/bin/sh
# The tests, or INPUTS random inputs, under the address, undefined-behaviour and leak sanitizers:
#
#   tools/asan.sh [python]
#   INPUTS=1000000 [SEED=...] tools/asan.sh [python]
#
# The interpreter must have the test dependencies; by default it is the checkout's own .venv.
# JOBS=2 builds and tests with two jobs; ONLY=suite and ONLY=leaks take one part of the tests.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
python=${1:-$root/.venv/bin/python}
jobs=${JOBS:-1}

cmake --preset asan -DPython_EXECUTABLE="$python"
cmake --build --preset asan -j "$jobs"
ctest --preset asan

# pytest keeps what is written to the standard error: the reports go to files.
reports=$root/build/asan/${INPUTS:+fuzz-}reports
rm -rf "$reports"
mkdir -p "$reports"
failures=$reports/failed
status=0

# sanitized <more options for the address sanitizer> <arguments of the interpreter...>
#
# The interpreter is not instrumented, so the runtime is loaded before it, and with it libstdc++,
# whose throw it intercepts. Allocations that fail are NULL, as they are without the sanitizer.
# Interpreters that are started from it inherit all of it.
sanitized() {
    instrumented "$@" && return
    # The leak check itself dies when another library's thread ends while it looks at all threads.
    # Then nothing was found wrong and nothing was looked for: once more.
    died=$(grep -ls "LeakSanitizer has encountered a fatal error" "$reports"/asan.*) || died=
    if [ -n "$died" ]; then
        rm $died
        instrumented "$@" && return
    fi
    shift
    echo "$*" >>"$failures"
}

instrumented() {
    options=$1
    shift
    env LD_PRELOAD="$(c++ -print-file-name=libasan.so) $(c++ -print-file-name=libstdc++.so)" \
        ASAN_OPTIONS="allocator_may_return_null=1:log_path=$reports/asan:$options" \
        UBSAN_OPTIONS="print_stacktrace=1:log_path=$reports/ubsan" \
        LSAN_OPTIONS="suppressions=$root/tools/asan.supp:print_suppressions=0" \
        PYTHONMALLOC=malloc \
        PYTHONPATH="$root/build/asan/python" \
        "$python" "$@"
}

# Stacks are followed by the frame pointers, which only our code has: a leak of ours is known by
# our code in its stack, one of another library has no name that could be suppressed and is left out
# by `keep_ours`. So a leak does not end the program badly here, all else does.
FAST_STACKS=abort_on_error=1:exitcode=0:detect_leaks=1

# Of leaks only the paragraphs that name our code are kept, of anything else the whole report.
keep_ours() {
    for report in "$reports"/*san.*; do
        [ -e "$report" ] || continue
        if grep -q "LeakSanitizer: detected" "$report"; then
            awk -v RS= -v ours="quorvane::|$root/cpp/|build/asan/python/quorvane" \
                '/leak of/ && $0 ~ ours' "$report" >"$report.ours"
            mv "$report.ours" "$report"
            [ -s "$report" ] || rm "$report"
        fi
    done
}

# One process, without pytest-xdist: its workers leave without the exit at which leaks are looked
# for.
run_tests() {
    options=$1
    shift
    QUORVANE_REPEATS="${QUORVANE_REPEATS:-10}" \
        sanitized "$options" -m pytest -q -p no:cacheprovider -m "not plain_python" "$@"
}

# The tests of the compiled code; what surrounds it runs none of it that these do not, and random
# inputs have a run of their own.
SOME="tests/virtualization --ignore=tests/virtualization/fast"
OTHERS="tests/virtualization/fast tests/rotations tests/safety tests/baskets tests/tables"
OTHERS="$OTHERS tests/expressions tests/evaluation --ignore=tests/evaluation/report"
OTHERS="$OTHERS tests/test_abstract_hooks.py"

suite() {
    # shellcheck disable=SC2086 # several folders
    if [ "$jobs" -gt 1 ]; then
        run_tests "$FAST_STACKS" $SOME &
        run_tests "$FAST_STACKS" $OTHERS
        wait
    else
        run_tests "$FAST_STACKS" $SOME
        run_tests "$FAST_STACKS" $OTHERS
    fi
    keep_ours
}

# Every method and every way in which one can fail, with stacks that are unwound whole, which is
# slow: here every leak counts but for those suppressed by the function that makes them.
leaks() {
    QUORVANE_REPEATS=1 run_tests detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=40 \
        tests/safety/test_reference_leaks.py tests/safety/test_crashes.py
}

# Each job takes a stretch of the same inputs: the seed and an input's number make it again.
fuzz() {
    seed=${SEED:-$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}
    share=$(((INPUTS + jobs - 1) / jobs))
    for job in $(seq 2 "$jobs"); do
        sanitized "$FAST_STACKS" -m tests.fuzz --seed "$seed" --inputs "$share" \
            --first $(((job - 1) * share)) &
    done
    sanitized "$FAST_STACKS" -m tests.fuzz --seed "$seed" --inputs "$share"
    wait
    keep_ours
}

if [ -n "${INPUTS:-}" ]; then
    fuzz
else
    [ "${ONLY:-suite}" != suite ] || suite
    [ "${ONLY:-leaks}" != leaks ] || leaks
fi

for report in "$reports"/*; do
    [ -e "$report" ] || continue
    cat "$report"
    status=1
done
[ "$status" = 1 ] || echo "No report of the sanitizers."
exit "$status"
