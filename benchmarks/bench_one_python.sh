#!/bin/sh
# What `make bench-pythons` measures on one of them; tools/matrix.sh runs it:
#
#   benchmarks/bench_one_python.sh PYTHON
set -eu
version=$("$1" -c 'import platform; print(platform.python_version())')
"$1" "$(dirname "$0")/bench_days.py" --only styles variations \
    --json "$(dirname "$0")/../build/bench/python-$version.json"
