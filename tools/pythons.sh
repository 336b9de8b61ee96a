# What tools/matrix.sh, tools/wheels.sh and tools/compilers.sh have in common, to be read in with `.`:
# where a Python is, and a folder with Debian's newest for what this machine does not have.

# The path of python<version> on PATH, of one of pyenv's, or of one that uv has or can install.
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

# make_build_venv FOLDER PYTHON: an environment with what a build needs. The build is against the newest
# NumPy, as a published wheel's is: it must run on the oldest too.
make_build_venv() {
    [ -x "$1/bin/python" ] || "$2" -m venv "$1" || return
    "$1/bin/python" -m pip install -q -U numpy "scikit-build-core>=0.10" cmake ninja
}

can_have_debian() {
    [ "$(id -u)" = 0 ] && command -v debootstrap >/dev/null
}

# copy_sources FOLDER: this checkout's files into FOLDER, in which the build folder of an earlier copy
# stays. A copy, because whoever deletes Debian's folder must not delete the checkout.
copy_sources() {
    mkdir -p "$1"
    find "$1" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
    tar --exclude='./build' --exclude='./.venv*' --exclude='./.git' -cf - . | tar -C "$1" -xf -
}

# in_debian FOLDER [NAME=value...] program [argument...]: runs it there, with no other environment.
in_debian() {
    debian_folder=$1
    shift
    chroot "$debian_folder" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}
