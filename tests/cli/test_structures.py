"""Structures files: both formats, and each fault with its place."""

import pytest

from quorvane.cli.errors import DataError, UsageError
from quorvane.cli.structures import read_structures

pytestmark = pytest.mark.plain_python

NAMES = ("KO", "PEP", "XOM", "BRK.B")

TOML = """\
["KO/PEP"]
KO = 1.0
PEP = -1

["oil.3"]
XOM = 0.5
"BRK.B" = 2e-1
"""

CSV = """\
key,instrument,weight
KO/PEP,KO,1.0
KO/PEP,PEP,-1

oil.3, XOM , 0.5
oil.3,BRK.B,2e-1
"""


@pytest.mark.parametrize(("name", "text"), [("s.toml", TOML), ("s.csv", CSV)])
def test_both_formats_say_the_same(write, name, text):
    structures = read_structures(write(name, text), NAMES)
    assert structures == {"KO/PEP": {"KO": 1.0, "PEP": -1.0}, "oil.3": {"XOM": 0.5, "BRK.B": 0.2}}
    assert list(structures) == ["KO/PEP", "oil.3"]
    assert all(type(w) is float for legs in structures.values() for w in legs.values())


def test_a_structure_may_be_an_inline_table(write):
    path = write("s.toml", 'a = { KO = 1, PEP = -1 }\n"" = { KO = 1 }\n'.replace('""', '"b c"'))
    assert list(read_structures(path, NAMES)) == ["a", "b c"]


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("", "s.toml: no structures, expected one or more"),
        ("[a]\nKOO = 1.0\n", "s.toml, structure 'a': unknown instrument 'KOO', expected one of "
         "the table's columns; did you mean 'KO'?"),
        ("[a]\n", "s.toml, structure 'a': no legs, expected instrument = weight"),
        ("a = 3\n", "s.toml, structure 'a': expected a table of instrument = weight, got 3"),
        ("[a]\nKO = nan\n", "s.toml, structure 'a': weight of 'KO' must be finite, got nan"),
        ("[a]\nKO = '1'\n", "s.toml, structure 'a': weight of 'KO' must be a number, got '1'"),
        ("[a]\nKO = true\n", "s.toml, structure 'a': weight of 'KO' must be a number, got True"),
        ("[a]\nBRK.B = 1.0\n", "s.toml, structure 'a': weight of 'BRK' must be a number, got a "
         "table; a name that holds a dot must stand in quotes"),
        ("[''] \nKO = 1\n", "s.toml, structure '': empty key, expected a structure's name"),
    ],
)  # fmt: skip
def test_a_fault_in_toml_is_named_with_its_structure(write, text, message):
    path = write("s.toml", text)
    with pytest.raises(DataError) as raised:
        read_structures(path, NAMES)
    assert str(raised.value) == f"{path.parent}/{message}"


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("[a]\nKO = 1.0\n[a]\nPEP = 1.0\n", r"s\.toml: duplicate key: .*line 3"),
        ("[a]\nKO = 1.0\nKO = 2.0\n", r"s\.toml: duplicate key: .*line 3"),
        ("[a]\nKO 1.0\n", r"s\.toml: not valid TOML: .*line 2"),
    ],
)
def test_a_fault_of_the_toml_itself_is_named_with_its_line(write, text, message):
    with pytest.raises(DataError, match=message):
        read_structures(write("s.toml", text), NAMES)


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("", "s.csv, line 1: expected the header key,instrument,weight, got ''"),
        ("k,i,w\n", "s.csv, line 1: expected the header key,instrument,weight, got 'k,i,w'"),
        ("key,instrument,weight\n", "s.csv: no structures, expected one or more"),
        ("key,instrument,weight\na,KO\n", "s.csv, line 2: 2 cells, expected 3 as in the header"),
        ("key,instrument,weight\n,KO,1\n", "s.csv, line 2: empty key, expected a structure's name"),
        ("key,instrument,weight\na,KOO,1\n", "s.csv, line 2: unknown instrument 'KOO', expected "
         "one of the table's columns; did you mean 'KO'?"),
        ("key,instrument,weight\na,KO,one\n", "s.csv, line 2, column 'weight': expected a number, "
         "got 'one'"),
        ("key,instrument,weight\na,KO,inf\n", "s.csv, line 2: weight of 'KO' must be finite, "
         "got inf"),
        ("key,instrument,weight\na,KO,1\na,KO,2\n", "s.csv, line 3: structure 'a' names "
         "instrument 'KO' twice"),
        ("key,instrument,weight\na,KO,1\nb,KO,1\na,PEP,1\n", "s.csv, line 4: duplicate key 'a', "
         "expected each key once"),
    ],
)  # fmt: skip
def test_a_fault_in_csv_is_named_with_its_line(write, text, message):
    path = write("s.csv", text)
    with pytest.raises(DataError) as raised:
        read_structures(path, NAMES)
    assert str(raised.value) == f"{path.parent}/{message}"


@pytest.mark.parametrize("name", ["s.toml", "s.csv"])
def test_bytes_that_are_not_text_are_refused(tmp_path, name):
    path = tmp_path / name
    path.write_bytes(b"key,instrument,weight\n\xff,KO,1\n")
    with pytest.raises(DataError, match="expected UTF-8 text"):
        read_structures(path, NAMES)


def test_a_missing_file_and_another_ending_are_refused(tmp_path):
    with pytest.raises(DataError, match=r"none\.toml: no such file, expected a structures file"):
        read_structures(tmp_path / "none.toml", NAMES)
    with pytest.raises(UsageError, match=r"unsupported ending for a structures file, expected "
                       r"\.toml or \.csv"):  # fmt: skip
        read_structures(tmp_path / "s.yaml", NAMES)


@pytest.mark.parametrize(
    ("limit", "message"),
    [
        ("MAX_STRUCTURES", r"structure 'oil\.3': more than 1 structures"),
        ("MAX_LEGS", r"structure 'KO/PEP': more than 1 legs"),
        ("MAX_STRUCTURES_FILE_BYTES", "the file is larger than 1 bytes"),
    ],
)
def test_files_beyond_the_limits_are_refused(write, monkeypatch, limit, message):
    monkeypatch.setattr(f"quorvane.cli.structures.{limit}", 1)
    with pytest.raises(DataError, match=message):
        read_structures(write("s.toml", TOML), NAMES)


def test_toml_before_python_3_11_names_the_extra(write, monkeypatch):
    monkeypatch.setattr("sys.version_info", (3, 10, 0))
    monkeypatch.setitem(__import__("sys").modules, "tomli", None)
    with pytest.raises(DataError, match=r'needs the library tomli.*pip install "quorvane\[cli\]"'):
        read_structures(write("s.toml", TOML), NAMES)
