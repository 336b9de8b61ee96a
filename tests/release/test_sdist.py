"""An sdist is compared with what git tracks, and every difference is told."""

import io
import shutil
import subprocess
import tarfile
import tomllib

import pytest

from release.programs import ROOT, program

pytestmark = [
    pytest.mark.plain_python,
    pytest.mark.skipif(shutil.which("git") is None, reason="there is no git"),
]


@pytest.fixture(scope="module")
def sdist():
    return program("sdist")


@pytest.fixture
def checkout(tmp_path):
    """A checkout of four files, one of them a program and one that is left out."""
    root = tmp_path / "checkout"
    for name in ("a.py", "folder/b.txt", "run.sh", ".ci/run"):
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(f"{name}\n")
    (root / "run.sh").chmod(0o755)
    for command in (["init", "-q"], ["add", "-A"]):
        subprocess.run(["git", *command], cwd=root, check=True)
    (root / "untracked").write_text("")
    return root


def packed(checkout, *, without=(), more=(), changed=(), plain=()):
    """The sdist of a checkout, with these differences."""
    path = checkout.parent / "thing-1.tar.gz"
    names = {"a.py", "folder/b.txt", "run.sh", "PKG-INFO", *more} - set(without)
    with tarfile.open(path, "w:gz") as archive:
        for name in sorted(names):
            content = f"{name}\n".encode() + (b"more" if name in changed else b"")
            member = tarfile.TarInfo(f"thing-1/{name}")
            member.size = len(content)
            member.mode = 0o755 if name == "run.sh" and name not in plain else 0o644
            archive.addfile(member, io.BytesIO(content))
    return path


def test_an_sdist_of_all_that_is_tracked_is_right(sdist, checkout):
    assert list(sdist.faults(packed(checkout), checkout)) == []


@pytest.mark.parametrize(
    ("difference", "told"),
    [
        ({"without": ["a.py"]}, "a.py is tracked and not in it"),
        ({"without": ["PKG-INFO"]}, "PKG-INFO is not in it"),
        ({"more": ["untracked"]}, "untracked is in it and not tracked"),
        ({"more": [".ci/run"]}, ".ci/run is in it and not tracked"),
        ({"changed": ["folder/b.txt"]}, "folder/b.txt is not what the checkout has"),
        ({"plain": ["run.sh"]}, "run.sh has lost or got the right to be run"),
    ],
)
def test_every_difference_is_told(sdist, checkout, difference, told):
    assert list(sdist.faults(packed(checkout, **difference), checkout)) == [told]


def test_what_is_left_out_is_what_the_build_leaves_out(sdist):
    settings = tomllib.loads((ROOT / "pyproject.toml").read_text())["tool"]["scikit-build"]
    assert sorted(settings["sdist"]["exclude"]) == sorted(sdist.LEFT_OUT)
    assert all(sdist.LEFT_OUT.values())


def test_nothing_that_is_tracked_is_ignored():
    if not (ROOT / ".git").exists():
        pytest.skip("this is no checkout")
    command = ["git", "ls-files", "--cached", "--ignored", "--exclude-standard"]
    done = subprocess.run(command, cwd=ROOT, check=True, capture_output=True, text=True)
    assert done.stdout == ""
