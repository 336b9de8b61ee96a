#!/bin/sh
# The styles and the variations on every Python that tools/matrix.sh knows, each with the wheel of
# these sources and the newest NumPy, and their tables side by side:
#
#   benchmarks/bench_pythons.sh [version...]
#
# An interpreter from Debian has its own folder, and its figures lie there.
set -eu

cd "$(dirname "$0")/.."
here=build/bench
there=${MATRIX_ROOT:-/var/tmp/quorvane-debian}/source/$here
rm -f "$here"/python-*.json "$there"/python-*.json

status=0
MATRIX_NUMPY=newest MATRIX_RUN=benchmarks/bench_one_python.sh tools/matrix.sh "$@" || status=$?

set --
for file in "$here"/python-*.json "$there"/python-*.json; do
    [ ! -e "$file" ] || set -- "$@" "$file"
done
[ $# -gt 0 ] || { echo "No Python has been measured" >&2; exit 1; }
echo
python3 benchmarks/compare_pythons.py "$@"
exit "$status"
