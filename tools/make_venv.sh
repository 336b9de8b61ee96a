#!/bin/sh
# Makes the virtual environment FOLDER, or keeps the one that is there, after checking that this
# machine has what a build needs. $PYTHON names the interpreter; by default the newest of those
# on PATH that will do, with plain python3 first.
set -eu
folder=$1

fail() {
    echo "quorvane cannot be built on this machine yet:" >&2
    for line in "$@"; do echo "  $line" >&2; done
    exit 1
}

new_enough() {
    "$1" -c 'import sys; sys.exit(sys.version_info < (3, 11))' >/dev/null 2>&1
}

# --- compiler -------------------------------------------------------------------------------------
compiler=
for candidate in "${CXX:-}" c++ g++ clang++; do
    if [ -n "$candidate" ] && command -v "${candidate%% *}" >/dev/null 2>&1; then
        compiler=$candidate
        break
    fi
done
[ -n "$compiler" ] || fail \
    "There is no C++ compiler (looked for \$CXX, c++, g++, clang++)." \
    "Debian, Ubuntu: apt install build-essential. Fedora: dnf install gcc-c++ make."
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
printf '#include <concepts>\n#include <span>\nint main() { return 0; }\n' >"$scratch/probe.cpp"
$compiler -std=c++20 -o "$scratch/probe" "$scratch/probe.cpp" 2>"$scratch/why" || fail \
    "The C++ compiler '$compiler' does not build a C++20 program; g++ 12 does, for example." \
    "It said: $(head -n 1 "$scratch/why")"

# --- interpreter ----------------------------------------------------------------------------------
if [ -x "$folder/bin/python" ]; then
    if [ -n "${PYTHON:-}" ]; then
        version='import sys; print("%d.%d" % sys.version_info[:2])'
        wanted=$("$PYTHON" -c "$version") || fail "PYTHON=$PYTHON does not run."
        present=$("$folder/bin/python" -c "$version")
        [ "$wanted" = "$present" ] || fail \
            "$folder has Python $present, PYTHON=$PYTHON is $wanted." \
            "Remove $folder, or name another one: make ... PYTHON=$PYTHON VENV=.venv$wanted"
    fi
    python=$folder/bin/python
else
    if [ -n "${PYTHON:-}" ]; then
        new_enough "$PYTHON" || fail "PYTHON=$PYTHON is not a Python 3.11 or newer that runs."
        python=$PYTHON
    else
        python=
        for candidate in python3 python3.15 python3.14 python3.13 python3.12 python3.11; do
            if new_enough "$candidate"; then
                python=$candidate
                break
            fi
        done
        [ -n "$python" ] || fail \
            "There is no Python 3.11 or newer on PATH." \
            "Debian, Ubuntu: apt install python3-dev python3-venv. Fedora: dnf install python3-devel." \
            "If it is installed elsewhere, name it: make ... PYTHON=/path/to/python3"
    fi
    "$python" -c 'import ensurepip, venv' >/dev/null 2>&1 || fail \
        "$python has no venv module." \
        "Debian, Ubuntu: apt install python3-venv."
fi
"$python" -c '
import os, sys, sysconfig
sys.exit(not os.path.exists(os.path.join(sysconfig.get_path("include"), "Python.h")))' || fail \
    "$python comes without its C headers (Python.h)." \
    "Debian, Ubuntu: apt install python3-dev. Fedora: dnf install python3-devel."

if [ ! -x "$folder/bin/python" ]; then
    echo "Making $folder with $("$python" -V) ..."
    "$python" -m venv "$folder" || {
        rm -rf "$folder"
        fail "$python -m venv $folder did not work, see above."
    }
fi
