"""Check that wheels hold the package whole, nothing else, and modules that run wherever they may.

    python tools/wheels/contents.py SOURCES WHEEL...

SOURCES is the folder that the wheels were built from. Needs pyelftools.
"""

import argparse
import base64
import csv
import hashlib
import io
import re
import sys
import zipfile
from collections.abc import Iterator
from email import message_from_bytes
from pathlib import Path
from typing import Any

# What a source file of the package may be.
KNOWN = re.compile(r".*(\.pyi?|\.css|/py\.typed)")
EXTENSION = re.compile(r"quorvane_extension\(NAME (\S+)\s+PACKAGE (\S+)")
WHEEL_NAME = re.compile(r"quorvane-(.+?)-cp3(\d+)-cp3\2-(\S+)\.whl")
DIST_INFO = {"METADATA", "WHEEL", "RECORD", "entry_points.txt", "licenses/LICENSE"}

# The libraries that every system of the wheel's kind has.
LIBRARIES = {
    "gnu": re.compile(
        r"(libc|libm|libpthread|libdl|librt|libgcc_s|libstdc\+\+|ld-linux-.*)\.so\.\d+"
    ),
    "musl": re.compile(r"libc\.musl-\w+\.so\.1"),
}
# Where musl is, the C++ library may be missing: auditwheel adds it to the wheel, for all modules.
ADDED = re.compile(r"(quorvane\.libs/)?lib(stdc\+\+|gcc_s)-[0-9a-f]{8}\.so\.[\d.]+")

# A name without a version may be in no library of an older system, and nobody would tell.
UNVERSIONED = ("VER_NDX_LOCAL", "VER_NDX_GLOBAL")


def package_files(sources: Path) -> dict[str, bytes]:
    """What of the wheel are copies of sources, by name."""
    root = sources / "src"
    found = sorted(path for path in root.rglob("*") if path.is_file())
    return {
        path.relative_to(root).as_posix(): path.read_bytes()
        for path in found
        if "__pycache__" not in path.parts
    }


def modules(sources: Path) -> dict[str, str]:
    """The compiled modules, each the path it has without its ending, and its name."""
    listed = EXTENSION.findall((sources / "cpp/CMakeLists.txt").read_text())
    return {f"quorvane/{package}/{name}": name for name, package in listed}


def names_at_fault(
    files: set[str], copies: dict[str, bytes], compiled: dict[str, str], minor: str, info: str
) -> Iterator[str]:
    """Say what is missing and what is there without need."""
    endings = {path.partition(".cpython-")[0]: path for path in files if path.endswith(".so")}
    for stem in compiled.keys() - endings.keys():
        yield f"the compiled module {stem} is missing"
    for stem in compiled:
        if f"{stem}.pyi" not in copies:
            yield f"the compiled module {stem} has no stub"
    for stem, path in endings.items():
        if stem in compiled and not re.fullmatch(
            rf"{stem}\.cpython-3{minor}-\w+-linux-(gnu|musl)\.so", path
        ):
            yield f"{path} is not named for Python 3.{minor}"
    expected = copies.keys() | {f"{info}/{name}" for name in DIST_INFO}
    expected |= {path for stem, path in endings.items() if stem in compiled}
    yield from (f"{name} is missing" for name in sorted(expected - files))
    musl = any(path.endswith("-musl.so") for path in files)
    expected |= {path for path in files if musl and ADDED.fullmatch(path)}
    yield from (f"{name} has no business there" for name in sorted(files - expected))
    yield from (f"{name} is of no known kind" for name in copies if not KNOWN.fullmatch(name))


def record_at_fault(wheel: zipfile.ZipFile, info: str) -> Iterator[str]:
    """Compare each file with the hash that the wheel itself has of it."""
    rows = csv.reader(io.StringIO(wheel.read(f"{info}/RECORD").decode()))
    hashes = {name: value for name, value, _ in rows}
    files = {name for name in wheel.namelist() if not name.endswith("/")}
    for name in files - {f"{info}/RECORD"}:
        digest = base64.urlsafe_b64encode(hashlib.sha256(wheel.read(name)).digest())
        if hashes.get(name) != "sha256=" + digest.decode().rstrip("="):
            yield f"{name} is not what RECORD says"


def metadata_at_fault(text: bytes, version: str) -> Iterator[str]:
    """Compare what the wheel says of itself with what it must say."""
    fields = message_from_bytes(text)
    expected = {
        "Name": "quorvane",
        "Version": version,
        "License-Expression": "MIT",
        "License-File": "LICENSE",
    }
    for name, value in expected.items():
        if fields[name] != value:
            yield f"METADATA has {name} {fields[name]}, not {value}"


def symbols_at_fault(path: str, name: str, module: Any, library: str) -> Iterator[str]:
    """Look at the names that a compiled module gives to others and wants of others."""
    symbols = module.get_section_by_name(".dynsym")
    versions = module.get_section_by_name(".gnu.version")
    # The interpreter's have no version, and musl's neither; the last three may be there or not.
    free = "" if library == "musl" else r"$|_?Py|_ITM_|__gmon_start__$|__cxa_finalize$"
    for index, symbol in enumerate(symbols.iter_symbols()):
        if symbol["st_info"]["bind"] == "STB_LOCAL":
            continue
        if symbol["st_shndx"] != "SHN_UNDEF":
            if symbol.name != f"PyInit_{name}" and symbol["st_shndx"] != "SHN_ABS":
                yield f"{path} shows {symbol.name}"
        elif not re.match(free, symbol.name) and versions.get_symbol(index)["ndx"] in UNVERSIONED:
            yield f"{path} asks for {symbol.name}, of no version"


def module_at_fault(path: str, name: str, content: bytes) -> Iterator[str]:
    """Look at what a compiled module shows and at what it asks for."""
    from elftools.elf.elffile import ELFFile

    module = ELFFile(io.BytesIO(content))
    library = "musl" if path.endswith("-musl.so") else "gnu"
    yield from symbols_at_fault(path, name, module, library)
    for tag in module.get_section_by_name(".dynamic").iter_tags():
        if tag.entry.d_tag == "DT_NEEDED" and not (
            LIBRARIES[library].fullmatch(tag.needed)
            or (library == "musl" and ADDED.fullmatch(tag.needed))
        ):
            yield f"{path} needs {tag.needed}"
        if tag.entry.d_tag in ("DT_RPATH", "DT_RUNPATH") and library == "gnu":
            yield f"{path} looks for libraries in places of its own"
    stacks = [part for part in module.iter_segments() if part["p_type"] == "PT_GNU_STACK"]
    if not stacks or stacks[0]["p_flags"] & 1:
        yield f"{path} wants a stack that can be run"
    if module.get_section_by_name(".symtab") is not None:
        yield f"{path} still has the symbols that only a debugger reads"


def faults(sources: Path, path: Path) -> Iterator[str]:
    """All that is wrong with a wheel."""
    matched = WHEEL_NAME.fullmatch(path.name)
    if matched is None:
        yield f"{path.name} is no name of a wheel of quorvane"
        return
    version, minor, _ = matched.groups()
    info = f"quorvane-{version}.dist-info"
    copies, compiled = package_files(sources), modules(sources)
    with zipfile.ZipFile(path) as wheel:
        files = {name for name in wheel.namelist() if not name.endswith("/")}
        yield from names_at_fault(files, copies, compiled, minor, info)
        yield from record_at_fault(wheel, info)
        yield from metadata_at_fault(wheel.read(f"{info}/METADATA"), version)
        for name in files & copies.keys():
            if wheel.read(name) != copies[name]:
                yield f"{name} is not what the sources have"
        for name in sorted(files):
            if name.endswith(".so"):
                stem = name.partition(".cpython-")[0]
                yield from module_at_fault(name, compiled.get(stem, "?"), wheel.read(name))


def main() -> int:
    """Print what is wrong with each wheel; the status is 1 where anything is."""
    parser = argparse.ArgumentParser()
    parser.add_argument("sources", type=Path)
    parser.add_argument("wheels", type=Path, nargs="+")
    options = parser.parse_args()
    status = 0
    for path in options.wheels:
        for fault in faults(options.sources, path):
            print(f"{path.name}: {fault}")
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
