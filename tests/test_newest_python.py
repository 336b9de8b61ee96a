"""`make newest`: what cannot be had is told and no failure, what fails is one."""

import shutil
import subprocess
from pathlib import Path

import pytest

PROGRAM = Path(__file__).parents[1] / "tools/newest.sh"

pytestmark = pytest.mark.plain_python

# Stands in for tools/matrix.sh: each version has a row in a file of its own, and fails with FAILED.
MATRIX = """\
#!/bin/sh
mkdir -p build/matrix
echo "$MATRIX_NUMPY" >asked-for
cp "row-$1" build/matrix/table.txt
cat build/matrix/table.txt
! grep -qE 'FAILED|INSTALLED' build/matrix/table.txt
"""

PASSED = "{}.2   2.5.5    passed   9000 passed in 200.00s"
FAILED = "{}.2   2.5.5    FAILED   1 failed, 8999 passed in 200.00s"
BROKEN = "{}     -        -        BUILD FAILED, see build.log"
NO_SUCH = "{}     -        -        not run: no such Python here"
NO_WHEEL = "{}.2   numpy    -        COULD NOT BE INSTALLED, see tests.log"


def run_newest(folder, *rows):
    """Run it where 3.15 and 3.14 give these rows of the matrix; return status and output."""
    (folder / "tools").mkdir()
    shutil.copy(PROGRAM, folder / "tools")
    matrix = folder / "tools/matrix.sh"
    matrix.write_text(MATRIX)
    matrix.chmod(0o755)
    for version, row in zip(["3.15", "3.14"], rows, strict=False):
        (folder / f"row-{version}").write_text(f"{row.format(version)}\n")
    done = subprocess.run([folder / "tools/newest.sh"], capture_output=True, text=True)
    assert (folder / "asked-for").read_text() == "newest\n"
    return done.returncode, done.stdout


@pytest.mark.parametrize(("row", "expected"), [(PASSED, 0), (FAILED, 1), (BROKEN, 1)])
def test_the_newest_decides_where_it_can_be_had(tmp_path, row, expected):
    status, output = run_newest(tmp_path, row)
    assert status == expected
    assert "##" not in output


@pytest.mark.parametrize("why", [NO_SUCH, NO_WHEEL])
@pytest.mark.parametrize(("row", "expected"), [(PASSED, 0), (FAILED, 1)])
def test_the_one_before_is_tested_in_its_place_and_a_banner_ends_the_output(
    tmp_path, why, row, expected
):
    status, output = run_newest(tmp_path, why, row)
    assert status == expected
    told, banner = output.split(row.format("3.14"))
    for text in (told, banner):
        assert "PYTHON 3.15 COULD NOT BE HAD: NOTHING HAS BEEN TESTED ON IT" in text
        assert f"##   {why.format('3.15')}" in text
    assert "PYTHON 3.14 WAS TESTED IN ITS PLACE" in banner
    assert banner.splitlines()[-1] == "#" * 80


def test_that_neither_can_be_had_is_told_and_no_failure(tmp_path):
    status, output = run_newest(tmp_path, NO_SUCH, NO_SUCH)
    assert status == 0
    banner = output.rpartition(NO_SUCH.format("3.14"))[2]
    assert "PYTHON 3.15 COULD NOT BE HAD" in banner
    assert "NOR HAS ANYTHING BEEN TESTED ON AN OLDER ONE IN ITS PLACE" in banner
    assert banner.splitlines()[-1] == "#" * 80
