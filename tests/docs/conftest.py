"""The whole site, built once however many workers there are."""

import contextlib
import fcntl
import os
import shutil
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

from docs.pages import MADE, ROOT

NEEDED = ("sphinx", "pydata_sphinx_theme", "myst_parser", "sphinx_gallery", "sklearn", "pandas")


@dataclass(frozen=True)
class Site:
    """What `make docs` makes, with no gallery's program run: the folder, and what was said."""

    folder: Path
    said: str
    status: int


@pytest.fixture(scope="session")
def site(tmp_path_factory):
    for library in NEEDED:
        pytest.importorskip(library, reason="no site is built here: pip install 'quorvane[docs]'")
    base = tmp_path_factory.getbasetemp()
    # Each worker has a folder of its own beside those of the others.
    shared = base.parent if "PYTEST_XDIST_WORKER" in os.environ else base
    built = shared / "site"
    with _alone(shared / "site.lock"):
        if not built.is_dir():
            _build(built)
    said, status = (built / "said").read_text(), int((built / "status").read_text())
    return Site(built / "html", said, status)


@contextlib.contextmanager
def _alone(lock):
    with lock.open("w") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield


def _build(built):
    """From a copy, since the gallery writes its pages beside the others."""
    source = built / "source"
    shutil.copytree(ROOT / "docs", source / "docs", ignore=shutil.ignore_patterns(MADE.name))
    for path in ROOT.iterdir():
        if path.is_file():
            # No link: a page that is shown within another is where it really stands.
            shutil.copy(path, source)
        elif path.name not in ("docs", "build") and not path.name.startswith("."):
            (source / path.name).symlink_to(path)
    done = subprocess.run(
        [
            *(sys.executable, "-m", "sphinx", "-W", "--keep-going", "-q"),
            *("-D", "plot_gallery=0", "-b", "html", source / "docs", built / "html"),
        ],
        env={**os.environ, "NO_COLOR": "1"},
        capture_output=True,
        text=True,
        check=False,
        timeout=600,
    )
    (built / "said").write_text(done.stdout + done.stderr)
    (built / "status").write_text(str(done.returncode))
