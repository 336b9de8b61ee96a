#!/bin/sh
# Builds the wheel for every Python that this machine has, runs the tests on it with the newest NumPy,
# and with the oldest those in which NumPy's version can make a difference (not how processes end or
# files survive, what hostile Python does, or the tests' own plain twin alone), with all the extras, and
# prints a table. What runs next to nothing but plain Python is left to the oldest and the newest
# Python, and what tells nothing of either, power cuts and pages, to `make test`.
#
#   tools/matrix.sh [version...]              by default 3.11 3.12 3.13 3.14 3.15
#
#   MATRIX_TESTS="tests/safety tests/stores"  what is run; everything by default
#   MATRIX_MARK="not plain_python"            which of them, by their marks
#   MATRIX_NUMPY=newest                       only the newest NumPy, or only the oldest
#   MATRIX_RUN=path                           a program that is run on each instead of the tests
#   MATRIX_PACKAGES=valgrind                  what that needs of Debian besides
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
. tools/pythons.sh
[ $# -gt 0 ] || set -- 3.11 3.12 3.13 3.14 3.15

# The oldest NumPy that each Python has a wheel of; the package itself allows 1.24. Those of 3.14 and
# 3.15 are so near to the newest that they say nothing more.
oldest_numpy() {
    case $1 in
        3.11) echo 1.24.0 ;;
        3.12) echo 1.26.0 ;;
        3.13) echo 2.1.0 ;;
        *) ;;
    esac
}

# What else must be older for it: pyarrow 26 needs NumPy 2, which pip is not told.
companions_of() {
    case $1 in
        numpy==1.*) echo "pyarrow<26" ;;
        *) echo pyarrow ;;
    esac
}

row() {
    printf '%-8s %-8s %-8s %s\n' "$@" | tee -a "$table"
}

# The last line of a pytest run, without its frame.
summary() {
    tail -n 1 "$1" | sed 's/^=* *//; s/ *=*$//'
}

# A failure, told in the columns of a row.
failed() {
    row "$@"
    status=1
}

build_wheel() {
    rm -rf "$build/dist"
    PATH=$venv/bin:$PATH "$venv/bin/python" -m pip wheel -q . --no-build-isolation --no-deps \
        --wheel-dir "$build/dist" --config-settings=build-dir="$build" &&
        "$venv/bin/python" -m pip install -q --no-deps --force-reinstall "$build"/dist/*.whl
}

# The wheel's extras with NumPy as $1 says. What has no wheel for this Python is not compiled here.
install_extras() {
    # Of the many modules only some are imported: those are compiled then. All others are as new as can
    # be with this NumPy, whatever an earlier run has left here.
    "$venv/bin/python" -m pip install -q -U --upgrade-strategy eager --no-compile --only-binary :all: "$1" \
        "$(companions_of "$1")" "$(echo "$build"/dist/*.whl)[test]" &&
        # Prices of the demo and of tests, without what computes with them.
        "$venv/bin/python" -m pip install -q --no-deps skfolio bokeh_sampledata
}

# The tests, or what is run in their place.
check() {
    if [ -n "${MATRIX_RUN:-}" ]; then
        "$MATRIX_RUN" "$venv/bin/python"
        return
    fi
    folders="powercut docs benchmarks branches contributing mutants release"
    mark=${MATRIX_MARK:-not on_twin}
    case $version in
        3.11 | 3.15) ;;
        *) folders="$folders cli stores sweeping scikit_learn evaluation/report" ;;
    esac
    if [ "$1" = oldest ]; then
        folders="$folders safety fuzz stores cli sweeping"
        mark=${MATRIX_MARK:-not on_twin and not hostile}
    fi
    left_out=
    if [ "$tests" = tests ]; then
        for folder in $folders; do left_out="$left_out --ignore=tests/$folder"; done
    fi
    # shellcheck disable=SC2086 # several folders
    "$venv/bin/python" -m pytest -q -p no:cacheprovider -n "$jobs" -m "$mark" $left_out $tests
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
    if ! make_build_venv "$venv" "$python" >"$log" 2>&1; then
        failed "$version" - - "COULD NOT BE INSTALLED, see $log"
        return
    fi
    if ! build_wheel >"$log" 2>&1; then
        cat "$log"
        failed "$version" - - "BUILD FAILED, see $log"
        return
    fi
    for age in ${MATRIX_NUMPY:-oldest newest}; do
        [ "$age" = oldest ] && [ -z "$(oldest_numpy "$version")" ] || run_numpy "$age"
    done
}

run_numpy() {
    wanted=numpy
    [ "$1" = newest ] || wanted=numpy==$(oldest_numpy "$version")
    full=$("$venv/bin/python" -c 'import platform; print(platform.python_version())')
    log=$work/tests-$version-$1.log
    if ! install_extras "$wanted" >"$log" 2>&1; then
        failed "$full" "$wanted" - "COULD NOT BE INSTALLED, see $log"
        return
    fi
    numpy=$("$venv/bin/python" -c 'import numpy; print(numpy.__version__)')
    if check "$1" >"$log" 2>&1; then
        [ -z "${MATRIX_RUN:-}" ] || cat "$log"
        row "$full" "$numpy" passed "$(summary "$log")"
    else
        cat "$log"
        failed "$full" "$numpy" FAILED "$(summary "$log")"
    fi
}

run_in_debian() {
    version=$1
    if ! can_have_debian; then
        row "$version" - - "not run: no such Python here"
        return
    fi
    log=$work/debian.log
    # shellcheck disable=SC2086 # several packages
    if ! tools/debian_root.sh "$debian" "python$version" "python$version-dev" \
        "python$version-venv" g++ make ${MATRIX_PACKAGES:-} >"$log" 2>&1; then
        tail -n 5 "$log"
        row "$version" - - "not run: not to be had from Debian, see $log"
        return
    fi
    echo "Python $version runs in Debian's own folder, $debian ..."
    copy_sources "$debian/source"
    in_debian "$debian" JOBS="$jobs" MATRIX_TESTS="$tests" MATRIX_MARK="${MATRIX_MARK:-}" \
        MATRIX_NUMPY="${MATRIX_NUMPY:-}" MATRIX_RUN="${MATRIX_RUN:-}" MATRIX_INSIDE=1 \
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
