"""A copy is what the checkout is, and nothing of a mutant stays in it."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

from mutants.checkout import Checkout, Snapshot, stamp

SOURCE = "src/a.py"
TESTS = Path(__file__).parents[1]


@pytest.fixture
def root(tmp_path):
    """A checkout with one source, an ignored file and a new one."""
    root = tmp_path / "root"
    for path, text in {
        SOURCE: "x = 1\n",
        ".gitignore": "ignored\n",
        "ignored": "",
        "new": "",
    }.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(text)
    subprocess.run(["git", "init", "-q"], cwd=root, check=True)
    subprocess.run(["git", "add", SOURCE, ".gitignore"], cwd=root, check=True)
    os.utime(root / SOURCE, (1_600_000_000, 1_600_000_000))
    return root


@pytest.fixture
def copy(root, tmp_path):
    copy = Checkout(root, tmp_path / "copy")
    copy.update()
    return copy


def test_a_copy_has_what_is_not_ignored_with_its_times(root, copy):
    assert stamp(copy.folder / SOURCE) == stamp(root / SOURCE)
    assert (copy.folder / "new").exists()
    assert not (copy.folder / "ignored").exists()


def test_an_update_takes_over_what_is_other_and_drops_what_is_gone(root, copy):
    (root / SOURCE).write_text("x = 23\n")
    (root / "new").unlink()
    (copy.folder / "build").mkdir()
    (copy.folder / "build" / "a.o").write_text("")
    copy.update()
    assert (copy.folder / SOURCE).read_text() == "x = 23\n"
    assert not (copy.folder / "new").exists()
    assert (copy.folder / "build" / "a.o").exists()


def test_a_change_is_gone_after_its_block_even_if_that_fails(root, copy):
    with pytest.raises(AssertionError), copy.changed(SOURCE, b"x = 2\n"):
        assert (copy.folder / SOURCE).read_bytes() == (root / SOURCE).read_bytes()
    assert (copy.folder / SOURCE).read_bytes() == (root / SOURCE).read_bytes()
    assert stamp(copy.folder / SOURCE) == stamp(root / SOURCE)


def test_bytecode_of_one_change_is_not_taken_for_that_of_another(copy):
    said = []
    for text in (b"x = 2\n", b"x = 3\n"):
        with copy.changed(SOURCE, text):
            command = [sys.executable, "-c", "import a; print(a.x)"]
            folder = copy.folder / "src"
            done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=True)
            said.append(done.stdout)
    assert said == ["2\n", "3\n"]


def test_a_change_that_was_never_undone_is_built_again(root, copy):
    killed = f"""
import os, sys
sys.path.insert(0, {str(TESTS)!r})
from mutants.checkout import Checkout
with Checkout({str(root)!r}, {str(copy.folder)!r}).changed({SOURCE!r}, b"x = 2"):
    os._exit(0)
"""
    subprocess.run([sys.executable, "-c", killed], check=True)
    assert (copy.folder / SOURCE).read_text() == "x = 2"
    copy.update()
    assert (copy.folder / SOURCE).read_bytes() == (root / SOURCE).read_bytes()
    # Newer than anything that was built from the change.
    assert (copy.folder / SOURCE).stat().st_mtime > 1_700_000_000
    copy.update()
    assert stamp(copy.folder / SOURCE) == stamp(root / SOURCE)


def test_examples_of_a_mutant_do_not_stay(copy):
    with copy.changed(SOURCE, b""):
        (copy.folder / ".hypothesis").mkdir()
    assert not (copy.folder / ".hypothesis").exists()


def test_a_build_comes_back_to_its_times(tmp_path):
    build = tmp_path / "build"
    (build / "a").mkdir(parents=True)
    (build / "a" / "old.o").write_text("1")
    (build / "gone.o").write_text("2")
    (build / "link").symlink_to("a/old.o")
    before = stamp(build / "a" / "old.o")
    snapshot = Snapshot(build, tmp_path / "store")
    (build / "a" / "old.o").write_text("3")
    (build / "gone.o").unlink()
    (build / "new.o").write_text("4")
    snapshot.restore()
    assert (build / "a" / "old.o").read_text() == "1"
    assert stamp(build / "a" / "old.o") == before
    assert (build / "gone.o").read_text() == "2"
    assert not (build / "new.o").exists()
    assert (build / "link").is_symlink()
