"""The list of open branches is held to the measurement both ways."""

from collections import Counter

import pytest

from branches import measured, open_list
from branches.measured import Branches, Line

SOURCE = "if (a) {\n    b();\n} else if (c) d();\n"
REASONS = '[reasons]\nnever = "It never happens."\n'


def branch(count, *, throw=False):
    return {"count": count, "throw": throw}


def line(number, *branches):
    return {"line_number": number, "branches": list(branches)}


@pytest.fixture
def read(tmp_path):
    """Read what gcov may say of SOURCE."""

    def read_lines(*lines, name="a.cpp"):
        source = tmp_path / "cpp" / name
        source.parent.mkdir(parents=True, exist_ok=True)
        source.write_text(SOURCE)
        files = [{"file": f"../cpp/{name}", "lines": lines}]
        said = {"current_working_directory": str(tmp_path / "build"), "files": files}
        return measured.read([said], tmp_path)

    return read_lines


@pytest.fixture
def listed(tmp_path):
    """Read a list with the given tables."""

    def read_list(text, reasons=REASONS):
        path = tmp_path / "open.toml"
        path.write_text(reasons + text)
        return open_list.read(path)

    return read_list


def test_both_ways_of_a_decision_count(read):
    branches = read(line(1, branch(3), branch(0)))
    assert branches.total == {Line("cpp/a.cpp", "if (a) {"): 2}
    assert branches.untaken == {Line("cpp/a.cpp", "if (a) {"): 1}
    assert branches.share_taken() == 50


def test_the_return_and_the_throw_of_a_call_do_not_count(read):
    call = branch(3), branch(0, throw=True)
    assert not read(line(2, *call)).total
    assert read(line(1, *call, branch(3), branch(0), *call)).total.total() == 2


def test_what_is_decided_at_a_brace_does_not_count(read):
    assert read(line(1, branch(1), branch(1)), line(3, branch(1), branch(0))).total.total() == 4
    assert measured.NO_SOURCE.fullmatch("};")
    assert not measured.NO_SOURCE.fullmatch("} else if (c) d();")


def test_tests_and_others_sources_do_not_count(read):
    decision = line(1, branch(1), branch(0))
    assert not read(decision, name="tests/a.cpp").total
    assert not read(decision, name="../elsewhere/a.hpp").total
    assert read(decision, name="kernels/a.hpp").total


def test_copies_of_a_line_are_added_up(read):
    taken, other = line(1, branch(1), branch(0)), line(1, branch(0), branch(2))
    assert +read(taken, other).untaken == {}
    assert read(taken, taken).untaken.total() == 1


def test_copies_that_decide_otherwise_stay_apart(read):
    two = line(1, branch(1), branch(1), branch(0), branch(1))
    assert read(line(1, branch(1), branch(0)), two).untaken.total() == 2


def test_a_list_that_fits_is_silent(listed):
    one = Line("a.cpp", "if (a) {")
    fits = listed('["a.cpp"]\n"if (a) {" = { open = 1, reason = "never" }\n')
    assert list(open_list.complaints(Branches(Counter({one: 2}), Counter({one: 1})), fits)) == []
    assert fits.by_reason() == {"never": 1}


@pytest.mark.parametrize(
    ("total", "untaken", "entries", "part"),
    [
        (2, 1, "", "1 branches that no test takes, 0 are listed"),
        (2, 2, '"x" = { open = 1, reason = "never" }', "2 branches that no test takes, 1 are"),
        (2, 0, '"x" = { open = 1, reason = "never" }', "takes, but 1 are listed"),
        (0, 0, '"x" = { open = 1, reason = "never" }', "no such line decides anything"),
        (2, 1, '"x" = { open = 1, reason = "whim" }', "unknown reason 'whim'"),
    ],
)
def test_every_difference_is_told(listed, total, untaken, entries, part):
    one = Line("a.cpp", "x")
    branches = Branches(+Counter({one: total}), Counter({one: untaken}))
    told = list(open_list.complaints(branches, listed(f'["a.cpp"]\n{entries}\n')))
    assert any(part in text for text in told), told
