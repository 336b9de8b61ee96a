"""Small tables and structures, and the command run in this process or in one of its own."""

import os
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

import quorvane
from quorvane.cli import main

PRICES = """\
Date,KO,PEP,XOM,CVX
2020-01-02,54.0,136.0,70.0,121.0
2020-01-03,53.5,135.5,69.5,120.5
2020-01-06,53.25,136.25,70.25,120.0
2020-01-07,52.75,,69.75,118.5
2020-01-08,53.0,134.75,68.5,117.25
2020-01-09,54.0,136.5,69.0,117.0
2020-01-10,54.25,136.0,68.5,116.0
"""

STRUCTURES = """\
["KO/PEP"]
KO = 1.0
PEP = -1.0

["XOM/CVX"]
XOM = 1.0
CVX = -1.0

["drinks/oil"]
KO = 0.5
PEP = 0.5
XOM = -1
"""


@dataclass
class Outcome:
    """How a command ended and what it said."""

    status: int
    out: str
    err: str


@pytest.fixture
def prices(tmp_path):
    """The path of a CSV of seven days of four instruments, one cell missing."""
    return written(tmp_path / "prices.csv", PRICES)


@pytest.fixture
def structures(tmp_path):
    """The path of a TOML file of three structures over them."""
    return written(tmp_path / "structures.toml", STRUCTURES)


@pytest.fixture
def write(tmp_path):
    """Write a text file into the test's folder and return its path."""

    def write(name, text):
        return written(tmp_path / name, text)

    return write


@pytest.fixture
def command(capsys):
    """Run `quorvane` with the given arguments in this process."""

    def command(*arguments):
        capsys.readouterr()
        status = main([str(argument) for argument in arguments])
        said = capsys.readouterr()
        return Outcome(status, said.out, said.err)

    return command


@pytest.fixture
def replay(command, prices, structures, tmp_path):
    """Run `quorvane replay` on the small files; keywords replace or add options, None drops one."""

    def replay(*flags, table=prices, **options):
        chosen = {"structures": structures, "output": tmp_path / "output.csv", **options}
        arguments = [
            text
            for name, value in chosen.items()
            if value is not None
            for text in ("--" + name.replace("_", "-"), value)
        ]
        return command("replay", table, *arguments, *flags)

    return replay


@pytest.fixture
def process(tmp_path):
    """Start `python -m <module>` with the given arguments and return the finished process."""

    def process(*arguments, module="quorvane", **options):
        return subprocess.run(
            [sys.executable, "-m", module, *map(str, arguments)],
            cwd=tmp_path,
            env=environment(),
            capture_output=True,
            text=True,
            timeout=120,
            **options,
        )

    return process


@pytest.fixture
def start(tmp_path):
    """Start `python -m quorvane` and return the running process; it is killed at the end."""
    started = []

    def start(*arguments):
        running = subprocess.Popen(
            [sys.executable, "-m", "quorvane", *map(str, arguments)],
            cwd=tmp_path,
            env=environment(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        started.append(running)
        return running

    yield start
    for running in started:
        running.kill()
        running.communicate()


def environment():
    """This process's environment, with the package under test importable from any folder."""
    # Not resolved: the files of a development tree are links into the sources.
    root = Path(quorvane.__file__).absolute().parents[1]
    return {**os.environ, "PYTHONPATH": str(root), "PYTHONIOENCODING": "utf-8"}


def written(path, text):
    path.write_text(text, encoding="utf-8")
    return path
