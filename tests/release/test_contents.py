"""A wheel holds the package whole and nothing else; what differs from that is told."""

import base64
import hashlib
import sys
import zipfile
from importlib import machinery
from pathlib import Path

import pytest

from quorvane.functions.rotations.latitudinal import rank
from release.programs import ROOT, program

pytestmark = pytest.mark.plain_python

INFO = "quorvane-1.0.dist-info"
MODULE = "quorvane/fast/rank.cpython-313-x86_64-linux-gnu.so"
METADATA = "Name: quorvane\nVersion: 1.0\nLicense-Expression: MIT\nLicense-File: LICENSE\n\n"


@pytest.fixture(scope="module")
def contents():
    return program("contents")


@pytest.fixture
def sources(tmp_path):
    """A package of one Python file and one compiled module with its stub."""
    files = {
        "src/quorvane/__init__.py": "",
        "src/quorvane/py.typed": "",
        "src/quorvane/fast/rank.pyi": "",
        "src/quorvane/__pycache__/old.pyc": "",
        "cpp/CMakeLists.txt": "quorvane_extension(NAME rank PACKAGE fast\n    SOURCES rank.cpp)\n",
    }
    for name, text in files.items():
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_text(text)
    return tmp_path


def names_of_a_wheel():
    package = {"quorvane/__init__.py", "quorvane/py.typed", "quorvane/fast/rank.pyi", MODULE}
    info = {"METADATA", "WHEEL", "RECORD", "entry_points.txt", "licenses/LICENSE"}
    return package | {f"{INFO}/{name}" for name in info}


def names_at_fault(contents, sources, names):
    copies, compiled = contents.package_files(sources), contents.modules(sources)
    return list(contents.names_at_fault(names, copies, compiled, "13", INFO))


def test_the_whole_package_is_right(contents, sources):
    assert names_at_fault(contents, sources, names_of_a_wheel()) == []


@pytest.mark.parametrize("name", sorted(names_of_a_wheel()))
def test_whatever_is_missing_is_told(contents, sources, name):
    [fault] = names_at_fault(contents, sources, names_of_a_wheel() - {name})
    assert "is missing" in fault
    assert name.partition(".cpython")[0] in fault


@pytest.mark.parametrize(
    "name",
    ["tests/conftest.py", "quorvane/rank.cpp", "quorvane/other.cpython-313-x86_64-linux-gnu.so"],
)
def test_whatever_is_there_without_need_is_told(contents, sources, name):
    [fault] = names_at_fault(contents, sources, names_of_a_wheel() | {name})
    assert fault == f"{name} has no business there"


def test_a_module_for_another_python_is_told(contents, sources):
    other = MODULE.replace("313", "312")
    [fault] = names_at_fault(contents, sources, names_of_a_wheel() - {MODULE} | {other})
    assert fault == f"{other} is not named for Python 3.13"


def test_a_module_without_a_stub_is_told(contents, sources):
    stub = sources / "src/quorvane/fast/rank.pyi"
    stub.unlink()
    faults = names_at_fault(contents, sources, names_of_a_wheel() - {"quorvane/fast/rank.pyi"})
    assert faults == ["the compiled module quorvane/fast/rank has no stub"]


def test_a_source_of_no_known_kind_is_told(contents, sources):
    (sources / "src/quorvane/notes.txt").write_text("")
    faults = names_at_fault(contents, sources, names_of_a_wheel() | {"quorvane/notes.txt"})
    assert faults == ["quorvane/notes.txt is of no known kind"]


def test_a_file_that_its_record_does_not_know_is_told(contents, tmp_path):
    path = tmp_path / "a.whl"
    digest = base64.urlsafe_b64encode(hashlib.sha256(b"one").digest()).decode().rstrip("=")
    with zipfile.ZipFile(path, "w") as wheel:
        wheel.writestr("one.py", b"one")
        wheel.writestr("two.py", b"two")
        wheel.writestr("folder/", b"")
        rows = [f"one.py,sha256={digest},3", f"two.py,sha256={digest},3", f"{INFO}/RECORD,,"]
        wheel.writestr(f"{INFO}/RECORD", "\n".join(rows))
    with zipfile.ZipFile(path) as wheel:
        assert list(contents.record_at_fault(wheel, INFO)) == ["two.py is not what RECORD says"]


@pytest.mark.parametrize("field", ["Name", "Version", "License-Expression", "License-File"])
def test_metadata_that_say_something_else_are_told(contents, field):
    assert list(contents.metadata_at_fault(METADATA.encode(), "1.0")) == []
    text = METADATA.replace(f"{field}: ", f"{field}: x")
    [fault] = contents.metadata_at_fault(text.encode(), "1.0")
    assert fault.startswith(f"METADATA has {field} x")


def test_every_module_that_the_build_names_is_found_here(contents):
    package = Path(sys.modules["quorvane"].__file__).parents[1]
    for stem in contents.modules(ROOT):
        assert (package / f"{stem}{machinery.EXTENSION_SUFFIXES[0]}").exists(), stem
        assert f"{stem}.pyi" in contents.package_files(ROOT)


def test_a_module_that_shows_more_than_its_own_function_is_told(contents):
    pytest.importorskip("elftools")
    found = list(contents.module_at_fault("rank.so", "other", Path(rank.__file__).read_bytes()))
    assert "rank.so shows PyInit_rank" in found
    own = list(contents.module_at_fault("rank.so", "rank", Path(rank.__file__).read_bytes()))
    assert "rank.so shows PyInit_rank" not in own


def test_wheels_of_the_same_files_are_the_same(tmp_path, monkeypatch, capsys):
    same = program("same")
    paths = [tmp_path / name for name in ("one.whl", "same.whl", "other.whl", "more.whl")]
    for path, files in zip(
        paths,
        [
            {"a": "1", "b": "2"},
            {"b": "2", "a": "1"},
            {"a": "1", "b": "3"},
            {"a": "1", "b": "2", "c": ""},
        ],
        strict=True,
    ):
        with zipfile.ZipFile(path, "w") as wheel:
            for name, text in files.items():
                wheel.writestr(name, text)
            wheel.writestr(f"{INFO}/RECORD", path.name)
    for path, expected in zip(paths[1:], [[], ["b"], ["c"]], strict=True):
        monkeypatch.setattr(sys, "argv", ["same.py", str(paths[0]), str(path)])
        assert same.main() == bool(expected)
        told = capsys.readouterr().out.splitlines()
        assert told[:-1] == [f"differs: {name}" for name in expected]
