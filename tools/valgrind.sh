#!/bin/sh
# A part of the tests under valgrind's memcheck:
#
#   tools/valgrind.sh [python [pytest arguments...]]
#
# The interpreter must have the test dependencies; by default it is the checkout's own .venv. By
# default every method and every way in which one can fail runs six times, then two child rotations
# and the unmapping.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
python=${1:-$root/.venv/bin/python}
[ $# -eq 0 ] || shift
[ $# -gt 0 ] || set -- tests/safety/test_reference_leaks.py tests/rotations/test_ewma.py \
    tests/rotations/test_rank.py tests/virtualization/test_unmap.py -m "not plain_python"

command -v valgrind >/dev/null || {
    echo "There is no valgrind on PATH. Debian, Ubuntu: apt install valgrind." >&2
    exit 1
}
cmake --preset dev -DPython_EXECUTABLE="$python"
cmake --build --preset dev -j "${JOBS:-1}"

report=$root/build/valgrind.txt
rm -f "$report"
status=0
# The interpreter's own allocator would hide every object from memcheck. Lost memory counts where no
# pointer to it is left at all and our code is in the stack that made it: the interpreter, NumPy and
# readline lose some of their own, once per import. Values that were
# never set are not looked for: Python chooses its small integers by a product of zero and such a
# value, and memcheck follows what it takes for the consequences through the whole interpreter.
PYTHONMALLOC=malloc PYTHONPATH=$root/build/dev/python QUORVANE_REPEATS=1 \
    valgrind --tool=memcheck --undef-value-errors=no --num-callers=40 --error-exitcode=99 \
    --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=none \
    --suppressions="$root/tools/valgrind.supp" --log-file="$report" \
    "$python" -m pytest -q -p no:cacheprovider -p no:faulthandler "$@" || status=$?
lost=$root/build/valgrind.ours.txt
awk -v RS='==[0-9]+== \n' '/definitely lost in/ && /quorvane/' "$report" >"$lost"
cat "$lost"
grep -E "Invalid|ERROR SUMMARY" "$report" || true
[ ! -s "$lost" ] || status=98
[ "$status" != 0 ] || echo "No invalid access, and nothing of ours is lost."
exit "$status"
