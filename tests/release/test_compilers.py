"""`make compilers`: warnings, failing tests and other bits are told; every compiler is tried."""

import os
import shutil
import subprocess

import pytest

from release.programs import ROOT

pytestmark = pytest.mark.plain_python

COMPILER = "#!/bin/sh\necho 9.1.0\n"

# Stands in for the build: g++-bad has a warning, and the bits of g++-odd are others.
CMAKE = """\
#!/bin/sh
case "$*" in
    --build*g++-bad*) echo "rank.cpp:7: error: unused variable [-Werror]"; exit 1 ;;
    --build*) exit 0 ;;
esac
while [ "$1" != -B ]; do shift; done
mkdir -p "$2/cpp/tests"
touch "$2/CMakeCache.txt"
bits=0123; case "$2" in *g++-odd) bits=4567 ;; esac
printf '#!/bin/sh\\necho "zscore %s"\\n' "$bits" >"$2/cpp/tests/kernel_bits"
chmod +x "$2/cpp/tests/kernel_bits"
"""
CTEST = """\
#!/bin/sh
case "$*" in *g++-failing*) echo "1 tests failed out of 12"; exit 8 ;; esac
echo "100% tests passed, 0 tests failed out of 12"
"""
# Without the rights of root nothing comes from Debian.
ID = "#!/bin/sh\necho 1000\n"


@pytest.fixture
def compile_with(tmp_path):
    """Run it with these compilers on PATH; the status, and what it printed."""
    (tmp_path / "tools").mkdir()
    (tmp_path / "bin").mkdir()
    for name in ("compilers.sh", "pythons.sh"):
        shutil.copy(ROOT / "tools" / name, tmp_path / "tools")

    def run(*compilers, asked=()):
        programs = {"cmake": CMAKE, "ctest": CTEST, "id": ID} | dict.fromkeys(compilers, COMPILER)
        for name, text in programs.items():
            (tmp_path / "bin" / name).write_text(text)
            (tmp_path / "bin" / name).chmod(0o755)
        environment = os.environ | {"PATH": f"{tmp_path / 'bin'}:{os.environ['PATH']}"}
        done = subprocess.run(
            [tmp_path / "tools/compilers.sh", *compilers, *asked],
            env=environment,
            capture_output=True,
            text=True,
        )
        assert done.stderr == ""
        return done.returncode, done.stdout.rpartition("\n\n")[2]

    return run


def test_compilers_without_warnings_that_give_the_same_bits_pass(compile_with):
    status, told = compile_with("g++-one", "g++-two")
    assert status == 0
    rows = [line.split() for line in told.splitlines()[1:]]
    assert [row[:5] for row in rows] == [
        [name, "9.1.0", "none", "12", "passed"] for name in ("g++-one", "g++-two")
    ]
    assert rows[0][5] == rows[1][5]


def test_other_bits_are_told_and_fail(compile_with):
    status, told = compile_with("g++-one", "g++-odd", "g++-two")
    assert status == 1
    assert told.splitlines()[-1].startswith("THE BITS DIFFER")


def test_warnings_are_counted_and_fail_and_the_others_are_tried(compile_with):
    status, told = compile_with("g++-bad", "g++-one")
    assert status == 1
    bad, good = told.splitlines()[1:]
    assert bad.split()[:3] == ["g++-bad", "9.1.0", "1"]
    assert "DID NOT COMPILE" in bad
    assert "12 passed" in good


def test_failing_tests_fail_and_the_others_are_tried(compile_with):
    status, told = compile_with("g++-failing", "g++-one")
    assert status == 1
    bad, good = told.splitlines()[1:]
    assert bad.split()[:4] == ["g++-failing", "9.1.0", "none", "FAILED"]
    assert "12 passed" in good


def test_a_compiler_that_cannot_be_had_is_told_and_no_failure(compile_with):
    status, told = compile_with("g++-one", asked=["g++-none"])
    assert status == 0
    assert told.splitlines()[-1].endswith("not run: no such compiler here")
