#!/bin/sh
# Instructions per structure of the cases that must not grow, counted by callgrind. Fails when one has
# grown beyond what instructions.json allows this Python.
#
#   benchmarks/count_instructions.sh [PYTHON]
#
# quorvane must be importable by PYTHON (default: python3). Needs valgrind with its headers
# (Debian: apt-get install valgrind) and a C compiler. The profiles stay in $OUT, one for each
# case, to be read with callgrind_annotate.
set -eu
python=${1:-python3}
here=$(cd "$(dirname "$0")" && pwd)
out=${OUT:-$here/../build/bench/callgrind}

command -v valgrind >/dev/null || { echo "valgrind is missing: apt-get install valgrind" >&2; exit 1; }
mkdir -p "$out"
rm -f "$out"/profile.*
${CC:-cc} -O2 -shared -fPIC -o "$out/switch.so" "$here/daybench/callgrind_switch.c"

# A fixed hash seed and no address randomisation: the same collisions in every run. Modules that are
# still to be compiled would lie elsewhere, so all are imported once before.
export PYTHONHASHSEED=0 OPENBLAS_NUM_THREADS=1
"$python" "$here/count_instructions.py" "$out"
setarch "$(uname -m)" -R \
    valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$out/profile" \
    --log-file="$out/log" \
    "$python" "$here/count_instructions.py" "$out" || { tail -20 "$out/log" >&2; exit 1; }
"$python" "$here/count_instructions.py" --report "$out"
