#!/bin/sh
# Compiles the core with every compiler that it promises to build with, optimised as in the wheel
# (but not at link time, which would double the minutes), warnings being errors; runs the C++ kernel
# tests of each build, compares the bits that all kernels give from build to build, and prints a
# table.
#
#   tools/compilers.sh [compiler...]
#
#   COMPILERS_ROOT=folder   where Debian's newest is, or is made
#   PYTHON=path             a Python with NumPy, whose headers are used; python3 by default
#   JOBS=2                  jobs of the builds and of the tests
#
# A compiler is the name of a program, such as g++-14 or clang++-14; clang++-newest is the newest of
# Debian's. One for another processor, such as aarch64-linux-gnu-g++-16, has its tests run under
# qemu. What is not on PATH comes from Debian, where this runs as root and has debootstrap: into a
# folder of its own, in which the same script is run.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
work=$root/build/compilers
table=$work/table.txt
python=${PYTHON:-python3}
jobs=${JOBS:-1}
debian=${COMPILERS_ROOT:-/var/tmp/quorvane-debian}
. tools/pythons.sh
[ $# -gt 0 ] || set -- g++-12 g++-13 g++-14 g++-15 g++-16 clang++-14 clang++-newest \
    aarch64-linux-gnu-g++-16

row() {
    printf '%-26s %-9s %-9s %-20s %s\n' "$@" | tee -a "$table"
}

failed() {
    row "$@"
    status=1
}

# Options of CMake for a compiler that compiles for another processor. Its Python is Debian's, whose
# headers find those of the processor by themselves.
cross_options() {
    processor=${1%%-linux-gnu-*}
    [ "$processor" != "$1" ] || return 0
    include=$("$python" -c 'import sysconfig; print(sysconfig.get_path("include"))')
    numpy=$("$python" -c 'import numpy; print(numpy.get_include())')
    echo "-DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=$processor" \
        "-DCMAKE_CROSSCOMPILING_EMULATOR=qemu-$processor;-L;/usr/$processor-linux-gnu" \
        "-DPython_INCLUDE_DIR=$include -DPython_NumPy_INCLUDE_DIR=$numpy"
}

configure() {
    # shellcheck disable=SC2046 # several options
    cmake -G Ninja -S . -B "$build" -DCMAKE_CXX_COMPILER="$1" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_CXX_FLAGS_RELEASE="-O3 -DNDEBUG" -DQUORVANE_WERROR=ON \
        -DPython_EXECUTABLE="$python" $(cross_options "$1")
}

# What kernel_bits prints, by way of ctest's own emulator where there is one.
print_bits() {
    emulator=$(sed -n 's/^CMAKE_CROSSCOMPILING_EMULATOR:[A-Z]*=//p' "$build/CMakeCache.txt")
    # shellcheck disable=SC2046 # a program and its options
    $(echo "$emulator" | tr ';' ' ') "$build/cpp/tests/kernel_bits"
}

compile() {
    build=$work/$1
    log=$work/$1.log
    version="$1 $("$1" -dumpfullversion 2>/dev/null || "$1" -dumpversion)"
    if ! configure "$1" >"$log" 2>&1; then
        tail -n 20 "$log"
        failed "$version" - - - "COULD NOT BE CONFIGURED, see $log"
        return
    fi
    # Every source, so that all warnings are counted.
    if ! cmake --build "$build" -j "$jobs" -- -k 0 >>"$log" 2>&1; then
        grep -E '(warning|error):' "$log" | sort -u
        failed "$version" "$(grep -E '(warning|error):' "$log" | sort -u | wc -l)" - - \
            "DID NOT COMPILE, see $log"
        return
    fi
    if ! ctest --test-dir "$build" -j "$jobs" --output-on-failure >"$log.tests" 2>&1; then
        cat "$log.tests"
        failed "$version" none FAILED - "see $log.tests"
        return
    fi
    print_bits >"$work/$1.bits"
    ran=$(sed -n 's/.* out of \([0-9]*\)$/\1/p' "$log.tests")
    row "$version" none "$ran passed" "$(bits_of "$1")" "in $work/$1.bits"
}

bits_of() {
    sha256sum <"$work/$1.bits" | cut -c 1-16
}

# The name of the newest compiler of Debian's that is called so, and of the package it is in.
newest_in_debian() {
    chroot "$debian" apt-cache pkgnames "$1-" | grep -E "^$1-[0-9]+$" | sort -V | tail -n 1
}
package_of() {
    case $1 in
        *-linux-gnu-g++-*) echo "g++-${1##*-}-${1%-g++-*} qemu-user" ;;
        clang++-*) echo "clang-${1##*-} llvm-${1##*-} lld-${1##*-}" ;;
        *) echo "$1" ;;
    esac
}

compile_in_debian() {
    compiler=$1
    if ! can_have_debian; then
        row "$compiler" - - - "not run: no such compiler here"
        return
    fi
    log=$work/debian.log
    packages="cmake ninja-build python3-dev python3-numpy"
    # shellcheck disable=SC2086,SC2046 # several packages
    if ! {
        tools/debian_root.sh "$debian" $packages &&
            compiler=$(newest_if_asked "$compiler") &&
            add_processor "$compiler" &&
            tools/debian_root.sh "$debian" $(package_of "$compiler") $(headers_for "$compiler")
    } >"$log" 2>&1; then
        tail -n 5 "$log"
        row "$compiler" - - - "not run: not to be had from Debian's newest, see $log"
        return
    fi
    copy_sources "$debian/compilers"
    in_debian "$debian" JOBS="$jobs" COMPILERS_INSIDE=1 PYTHON=/usr/bin/python3 \
        /compilers/tools/compilers.sh "$compiler" || status=1
    cat "$debian/compilers/build/compilers/table.txt" >>"$table"
    cp "$debian/compilers/build/compilers/$compiler".* "$work"
}

newest_if_asked() {
    case $1 in
        clang++-newest) newest_in_debian clang | sed 's/^clang/clang++/' ;;
        *) echo "$1" ;;
    esac
}

# Debian has other processors' headers of Python under the name that it has for the processor.
debian_name() {
    case $1 in
        aarch64-*) echo arm64 ;;
        riscv64-*) echo riscv64 ;;
        s390x-*) echo s390x ;;
    esac
}
add_processor() {
    name=$(debian_name "$1")
    [ -z "$name" ] || chroot "$debian" dpkg --add-architecture "$name"
}
headers_for() {
    name=$(debian_name "$1")
    [ -z "$name" ] || echo "libpython3-dev:$name"
}

mkdir -p "$work"
status=0
: >"$table"
[ -n "${COMPILERS_INSIDE:-}" ] || row compiler warnings tests bits ""
for compiler; do
    case $compiler in
        # A cross compiler needs the other processor's headers of Python too, which Debian has.
        *-linux-gnu-*) [ -n "${COMPILERS_INSIDE:-}" ] && here=yes || here= ;;
        *) command -v "$compiler" >/dev/null && here=yes || here= ;;
    esac
    if [ -n "$here" ]; then compile "$compiler"; else compile_in_debian "$compiler"; fi
done
[ -z "${COMPILERS_INSIDE:-}" ] || exit "$status"

echo
cat "$table"
kinds=$(sed -n 's/.* passed *\([0-9a-f]*\) .*/\1/p' "$table" | sort -u | wc -l)
if [ "$kinds" -gt 1 ]; then
    echo "THE BITS DIFFER, see $work/*.bits"
    status=1
fi
exit "$status"
