"""Structures files: both formats, and each fault with its place."""

from pathlib import Path

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
    assert structures.latest == {
        "KO/PEP": {"KO": 1.0, "PEP": -1.0},
        "oil.3": {"XOM": 0.5, "BRK.B": 0.2},
    }
    assert structures.keys == ("KO/PEP", "oil.3")
    assert not structures.book.is_dated


def test_a_structure_may_be_an_inline_table(write):
    path = write("s.toml", 'a = { KO = 1, PEP = -1 }\n"" = { KO = 1 }\n'.replace('""', '"b c"'))
    assert read_structures(path, NAMES).keys == ("a", "b c")


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
                       r"\.toml, \.csv or \.parquet"):  # fmt: skip
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
    place = "named_rows" if limit.endswith("BYTES") else "structures"
    monkeypatch.setattr(f"quorvane.cli.{place}.{limit}", 1)
    with pytest.raises(DataError, match=message):
        read_structures(write("s.toml", TOML), NAMES)


@pytest.mark.parametrize(("name", "text"), [("s.toml", TOML), ("s.csv", CSV)])
def test_a_byte_order_mark_does_not_matter(write, name, text):
    assert read_structures(write(name, "\ufeff" + text), NAMES).keys == ("KO/PEP", "oil.3")


@pytest.mark.parametrize(
    "text",
    [
        "[a]\nKO = " + "1" * 5000,
        "a = 0x" + "f" * 5000,
        "[a]\nKO = 0x" + "f" * 5000,
        "a = " + "[" * 50_000,
        "a = " + "[" * 900 + "]" * 900,
        "[a]\nKO = " + "{b = " * 900 + "1" + "}" * 900,
        "a = '" + "x" * 100_000 + "'",
        "[" + "a" * 900 + "]\n" + "K" * 100_000 + " = 1",
        "[" + "a" * 100_000 + "]\nKO = 1",
        "[a]\n" + "KO" * 50_000 + ".x = 1",
    ],
    ids=lambda text: text[:16],
)
def test_a_fault_in_toml_is_one_short_line(write, text):
    with pytest.raises(DataError, match=r"s\.toml") as raised:
        read_structures(write("s.toml", text + "\n"), NAMES)
    assert len(str(raised.value)) < 1000


@pytest.mark.parametrize("row", ["a,KO,{}", "a,{},1", "{},KO,x", "{},KO,1", "a,KO,1,{}"])
def test_a_fault_in_csv_is_one_short_line(write, row):
    text = CSV.splitlines()[0] + "\n" + row.format("x" * 100_000) + "\n"
    with pytest.raises(DataError, match=r"s\.csv, line 2") as raised:
        read_structures(write("s.csv", text), NAMES)
    assert len(str(raised.value)) < 1000


@pytest.mark.parametrize("weight", ["1_000", "\u0661\u0662", "0x10"])
def test_a_weight_has_the_digits_of_a_table_s_numbers(write, weight):
    path = write("s.csv", f"key,instrument,weight\na,KO,{weight}\n")
    with pytest.raises(DataError, match="line 2, column 'weight': expected a number, got"):
        read_structures(path, NAMES)


@pytest.mark.parametrize(
    ("name", "text"), [("s.toml", "[{}]\nKO = 1\n"), ("s.csv", "key,instrument,weight\n{},KO,1\n")]
)
def test_a_key_has_a_longest_length(write, name, text):
    key = "a" * 1000
    assert read_structures(write(name, text.format(key)), NAMES).keys == (key,)
    with pytest.raises(DataError, match="a key of 1001 characters, at most 1000 are allowed"):
        read_structures(write(name, text.format(key + "a")), NAMES)


def test_a_row_has_a_longest_length(write, monkeypatch):
    monkeypatch.setattr("quorvane.cli.limits.MAX_ROW_LENGTH", 100)
    path = write("s.csv", "key,instrument,weight\n" + '"\n",' * 1000)
    with pytest.raises(DataError, match="a row of more than 100 characters"):
        read_structures(path, NAMES)


@pytest.mark.skipif(not Path("/proc/self/mem").exists(), reason="needs a file that cannot be read")
@pytest.mark.parametrize("name", ["s.toml", "s.csv"])
def test_a_failure_to_read_an_open_file_is_named(tmp_path, name):
    (tmp_path / name).symlink_to("/proc/self/mem")
    with pytest.raises(DataError, match="cannot be read: Input/output error"):
        read_structures(tmp_path / name, NAMES)
