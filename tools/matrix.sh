#!/bin/sh
# Builds the wheel for every Python that this machine has, runs the tests on it with the newest NumPy,
# and with the oldest those in which NumPy's version can make a difference (not how processes end or
# files survive), all with all the extras, and prints a table:
#
#   tools/matrix.sh [version...]              by default 3.11 3.12 3.13 3.14
#
#   MATRIX_TESTS="tests/safety tests/stores"  what is run; everything by default
#   MATRIX_NUMPY=newest                       only the newest NumPy, or only the oldest
#   JOBS=2                                    jobs of the builds and of the tests
#
# An interpreter is python<version> on PATH, one of pyenv's, or one that uv has or can install. What
# is not found there comes from Debian, where this runs as root and has debootstrap: into a folder of
# its own (MATRIX_ROOT), in which the same script is run.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
work=$root/build/matrix
table=$work/table.txt
tests=${MATRIX_TESTS:-tests}
jobs=${JOBS:-1}
debian=${MATRIX_ROOT:-/var/tmp/quorvane-debian}
[ $# -gt 0 ] || set -- 3.11 3.12 3.13 3.14

# The oldest NumPy that each Python has a wheel of; the package itself allows 1.24.
oldest_numpy() {
    case $1 in
        3.11) echo 1.24.0 ;;
        3.12) echo 1.26.0 ;;
        3.13) echo 2.1.0 ;;
        *) echo 2.3.2 ;;
    esac
}

# What else must be older for it: pyarrow 26 needs NumPy 2, which pip is not told.
companions_of() {
    case $1 in
        numpy==1.*) echo "pyarrow<26" ;;
        *) echo pyarrow ;;
    esac
}

find_python() {
    for candidate in "python$1" "$HOME/.pyenv/versions/$1".*/bin/python \
        "$(uv python find "$1" 2>/dev/null || true)"; do
        # A name that pyenv has on PATH but not switched on does not run.
        if [ -n "$candidate" ] && "$candidate" -c 'import venv, ensurepip' 2>/dev/null; then
            command -v "$candidate"
            return
        fi
    done
    uv python install -q "$1" 2>/dev/null && uv python find "$1"
}

row() {
    printf '%-8s %-8s %-8s %s\n' "$@" | tee -a "$table"
}

# The last line of a pytest run, without its frame.
summary() {
    tail -n 1 "$1" | sed 's/^=* *//; s/ *=*$//'
}

run_version() {
    version=$1
    if ! python=$(find_python "$version"); then
        run_in_debian "$version"
        return
    fi
    venv=$work/venv-$version
    build=$work/build-$version
    log=$work/build-$version.log
    # The build is against the newest NumPy, as a published wheel's is: it must run on the oldest too.
    if ! {
        [ -x "$venv/bin/python" ] || "$python" -m venv "$venv"
        "$venv/bin/python" -m pip install -q -U numpy "scikit-build-core>=0.10" cmake ninja
        rm -rf "$build/dist"
        PATH=$venv/bin:$PATH "$venv/bin/python" -m pip wheel -q . --no-build-isolation --no-deps \
            --wheel-dir "$build/dist" --config-settings=build-dir="$build"
        "$venv/bin/python" -m pip install -q --no-deps --force-reinstall "$build"/dist/*.whl
        # The prices of the demo, without what computes with them.
        "$venv/bin/python" -m pip install -q --no-deps skfolio
    } >"$log" 2>&1; then
        row "$version" - - "BUILD FAILED, see $log"
        status=1
        return
    fi
    processes_and_files="--ignore=tests/safety --ignore=tests/powercut --ignore=tests/fuzz"
    full=$("$venv/bin/python" -c 'import platform; print(platform.python_version())')
    for age in ${MATRIX_NUMPY:-oldest newest}; do
        wanted=numpy
        [ "$age" = newest ] || wanted=numpy==$(oldest_numpy "$version")
        log=$work/tests-$version-$age.log
        # Of the many modules only some are imported: those are compiled then.
        "$venv/bin/python" -m pip install -q -U --no-compile "$wanted" \
            "$(companions_of "$wanted")" "$(echo "$build"/dist/*.whl)[test]" >"$log" 2>&1 || {
            row "$full" "$wanted" - "COULD NOT BE INSTALLED, see $log"
            status=1
            continue
        }
        numpy=$("$venv/bin/python" -c 'import numpy; print(numpy.__version__)')
        result=passed
        left_out=
        [ "$age" = newest ] || left_out=$processes_and_files
        # shellcheck disable=SC2086 # several folders
        "$venv/bin/python" -m pytest -q -p no:cacheprovider -n "$jobs" $left_out $tests >"$log" 2>&1 ||
            { result=FAILED; status=1; }
        row "$full" "$numpy" "$result" "$(summary "$log")"
    done
}

run_in_debian() {
    version=$1
    if [ "$(id -u)" != 0 ] || ! command -v debootstrap >/dev/null; then
        row "$version" - - "not run: no such Python here"
        return
    fi
    log=$work/debian.log
    if ! tools/debian_root.sh "$debian" "python$version" "python$version-dev" \
        "python$version-venv" g++ make >"$log" 2>&1; then
        row "$version" - - "not run: not to be had from Debian, see $log"
        return
    fi
    echo "Python $version runs in Debian's own folder, $debian ..."
    # A copy: whoever deletes that folder must not delete this one.
    mkdir -p "$debian/source"
    tar -C "$root" --exclude='./build' --exclude='./.venv*' --exclude='./.git' -cf - . |
        tar -C "$debian/source" -xf -
    chroot "$debian" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin JOBS="$jobs" \
        MATRIX_TESTS="$tests" MATRIX_NUMPY="${MATRIX_NUMPY:-}" MATRIX_INSIDE=1 \
        /source/tools/matrix.sh "$version" || status=1
    cat "$debian/source/build/matrix/table.txt" >>"$table"
}

mkdir -p "$work"
status=0
: >"$table"
[ -n "${MATRIX_INSIDE:-}" ] || row Python NumPy result "tests: $tests"
for version; do run_version "$version"; done
if [ -z "${MATRIX_INSIDE:-}" ]; then
    echo
    cat "$table"
fi
exit "$status"
