#!/bin/sh
# Every method and every way in which one can fail, again and again on an interpreter that counts
# all references: neither they nor the allocated blocks may grow.
#
#   tools/refleaks.sh [debug interpreter]     by default python3-dbg or python3.<n>-dbg
#
# NumPy is compiled for that interpreter too: a reference that compiled code gives up without counting
# it would look like one that is lost. It is compiled without optimising, which takes minutes rather
# than half an hour, and pip keeps it for the next checkout.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
venv=$root/build/refleaks-venv
build=$root/build/refleaks
jobs=${JOBS:-1}

counts() {
    "$1" -c 'import sys; sys.gettotalrefcount()' 2>/dev/null
}

python=${1:-}
for candidate in python3.15-dbg python3.14-dbg python3.13-dbg python3.12-dbg python3.11-dbg \
    python3-dbg; do
    [ -z "$python" ] || break
    ! counts "$candidate" || python=$candidate
done
counts "$python" || {
    echo "There is no interpreter here that counts its references." >&2
    echo "Debian, Ubuntu: apt install python3-dbg python3-venv." >&2
    exit 1
}

if [ ! -e "$venv/.ready" ]; then
    "$python" -m venv --clear "$venv"
    "$venv/bin/python" -m pip install -q -U pip
    "$venv/bin/python" -m pip install -q cmake ninja pytest
    echo "Compiling NumPy for $("$python" -V), debug ..."
    "$venv/bin/python" -m pip install -q --no-binary numpy numpy \
        -Csetup-args=-Dallow-noblas=true -Csetup-args=-Ddisable-optimization=true \
        -Csetup-args=-Doptimization=0 -Ccompile-args=-j"$jobs"
    touch "$venv/.ready"
fi
# Debian's headers of the debug interpreter are links to the ordinary ones but for pyconfig.h. GCC
# would follow them, find the ordinary pyconfig.h beside, and compile code that counts nothing.
flags=
! c++ -fno-canonical-system-headers -E -x c++ /dev/null >/dev/null 2>&1 ||
    flags=-fno-canonical-system-headers
"$venv/bin/cmake" --preset dev -B "$build" -G Ninja -DQUORVANE_TESTS=OFF -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_MAKE_PROGRAM="$venv/bin/ninja" -DPython_EXECUTABLE="$venv/bin/python"
"$venv/bin/cmake" --build "$build" -j "$jobs"
PYTHONPATH=$build/python "$venv/bin/python" -m pytest -q -p no:cacheprovider \
    tests/safety/test_reference_leaks.py tests/safety/test_crashes.py
"$venv/bin/python" -c 'import platform, numpy
print(f"Nothing grows on Python {platform.python_version()} with NumPy {numpy.__version__}, debug.")'
