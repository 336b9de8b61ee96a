"""Make a folder against which the system's g++ builds for an older C library than the system's own.

    python tools/wheels/old_glibc.py FOLDER VERSION        for example 2.28

The headers and the libraries to link with come from the package ``ziglang``, which has those of
every version of glibc; of its compiler nothing is used but that it puts them in place. The compiler
stays the system's own, so that the code is what the tests and benchmarks know, with a version of
each loop for each generation of processors.

The standard C++ library stays a shared one, which an exception that goes from one module to another
needs, and so must be old as well: what GCC 12's headers ask of it that GCC 8's has not is compiled
into the modules. FOLDER/flags.sh sets CXXFLAGS and LDFLAGS accordingly.
"""

import argparse
import os
import platform
import re
import shutil
import subprocess
import sys
from pathlib import Path

# Called where an array is to have more items than memory has bytes.
MISSING = """\
#include <new>
namespace std {
[[noreturn]] void __throw_bad_array_new_length() { throw bad_array_new_length(); }
}  // namespace std
"""

# Link names of the libraries that the package has by the names under which they are loaded.
LINK_NAMES = {
    "libm.so": "libm.so.6",
    "libpthread.so": "libpthread.so.0",
    "libdl.so": "libdl.so.2",
    "librt.so": "librt.so.1",
}
# The loader has the thread-local variables' function.
LIBC = "GROUP ( libc.so.6 libc_nonshared.a AS_NEEDED ( libld.so.2 ) )\n"


def zig(folder: Path, target: str, *arguments: str) -> str:
    """What the package's C compiler says, with all that it makes in a folder of its own."""
    cache = str(folder / "cache")
    environment = os.environ | {"ZIG_GLOBAL_CACHE_DIR": cache, "ZIG_LOCAL_CACHE_DIR": cache}
    command = [sys.executable, "-m", "ziglang", "cc", "-target", target, *arguments]
    done = subprocess.run(
        command,
        cwd=folder,
        env=environment,
        capture_output=True,
        text=True,
        stdin=subprocess.DEVNULL,
    )
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
    return done.stderr


def header_folders(folder: Path, target: str) -> list[Path]:
    """The folders of the C library's and the kernel's headers, the first to be searched first."""
    said = zig(folder, target, "-v", "-E", "-x", "c", os.devnull)
    listed = re.findall(r"^ (/.*/lib/libc/include/.*)$", said, re.MULTILINE)
    if not listed:
        sys.exit(f"ziglang names no headers of {target}:\n{said}")
    return [Path(found) for found in listed]


def make_headers(folder: Path, root: Path, target: str) -> None:
    """Lay the folders of headers over one another, and Debian's headers of Python beside them."""
    for headers in reversed(header_folders(folder, target)):
        shutil.copytree(headers, root / "usr/include", dirs_exist_ok=True)
    # It ends every compilation, while a library of headers only asks whether it is there.
    if tuple(map(int, target.rpartition("gnu.")[2].split("."))) < (2, 32):
        (root / "usr/include/sys/single_threaded.h").unlink()
    triplet = f"{platform.machine()}-linux-gnu"
    for own in Path("/usr/include", triplet).glob("python3*"):
        place = root / "usr/include" / triplet
        place.mkdir(exist_ok=True)
        (place / own.name).symlink_to(own)


def make_libraries(folder: Path, root: Path, target: str) -> None:
    """Put the libraries to link with in place, and what they lack."""
    (folder / "nothing.c").write_text("int nothing(void) { return 0; }\n")
    zig(folder, target, "-shared", "-o", "nothing.so", "nothing.c", "-lm", "-lpthread")
    library = root / "usr/lib"
    library.mkdir(parents=True)
    libc = next(folder.glob("cache/o/*/libc.so.6"))
    for found in [*libc.parent.glob("*.so.*"), next(folder.glob("cache/o/*/libc_nonshared.a"))]:
        shutil.copy(found, library)
    for name, loaded in LINK_NAMES.items():
        (library / name).symlink_to(loaded)
    (library / "libc.so").write_text(LIBC)
    (folder / "missing.cpp").write_text(MISSING)
    compiler = os.environ.get("CXX", "c++")
    subprocess.run(
        [compiler, "-O2", "-fPIC", "-c", "missing.cpp", "-o", "missing.o"], cwd=folder, check=True
    )


def main() -> None:
    """Make the folder anew."""
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=Path)
    parser.add_argument("version", help="of glibc, such as 2.28")
    options = parser.parse_args()
    folder = options.folder.resolve()
    shutil.rmtree(folder, ignore_errors=True)
    root = folder / "root"
    (root / "usr").mkdir(parents=True)
    target = f"{platform.machine()}-linux-gnu.{options.version}"
    make_headers(folder, root, target)
    make_libraries(folder, root, target)
    minor = options.version.partition(".")[2]
    # The compiler looks beside itself before it looks below --sysroot, so the libraries are named.
    # This system's C++ library may ask for more of the C library than the old one has.
    (folder / "flags.sh").write_text(
        f'export CXXFLAGS="--sysroot={root} -D__GLIBC_MINOR__={minor}"\n'
        f'export LDFLAGS="--sysroot={root} -L{root}/usr/lib {folder}/missing.o'
        ' -Wl,--allow-shlib-undefined"\n'
    )
    shutil.rmtree(folder / "cache")


if __name__ == "__main__":
    main()
