"""The daily job of the examples: killed at any moment, it is started again and nothing is lost."""

import random
import subprocess
import sys
import time
from pathlib import Path

import pytest

pytest.importorskip("pandas")
pytest.importorskip("msgpack")

ROOT = Path(__file__).parents[2]
JOB = ROOT / "examples/daily_job.py"
PRICES = ROOT / "examples/prices.csv"
KILLS = 3


def command(folder):
    return [sys.executable, JOB, PRICES, folder / "states.db", folder / "signals"]


def run_to_its_end(folder):
    done = subprocess.run(command(folder), capture_output=True, text=True, check=True)
    assert done.stderr == ""
    return done.stdout


def signals(folder):
    return {path.name: path.read_text() for path in (folder / "signals").glob("*.csv")}


def kill_after(folder, files, seconds):
    """Kill a job some time after it has written so many files; whether it was still at it."""
    job = subprocess.Popen(command(folder), stdout=subprocess.DEVNULL)
    while len(list(folder.glob("signals/*"))) < files and job.poll() is None:
        time.sleep(0.001)
    time.sleep(seconds)
    job.kill()
    return job.wait() == -9


def test_a_job_that_is_killed_and_started_again_gives_what_an_undisturbed_one_gives(tmp_path):
    undisturbed, killed = tmp_path / "undisturbed", tmp_path / "killed"
    undisturbed.mkdir()
    start = time.perf_counter()
    assert run_to_its_end(undisturbed) == "250 new days\n"
    life = time.perf_counter() - start
    generator = random.Random(4)
    caught = 0
    for number in range(KILLS):
        folder = killed / str(number)
        folder.mkdir(parents=True)
        caught += kill_after(folder, 0, 0.9 * life * generator.random())
        caught += kill_after(folder, generator.randrange(1, 200), 0.0)
        run_to_its_end(folder)
        assert signals(folder) == signals(undisturbed)
        assert run_to_its_end(folder) == "0 new days\n"
    # The moments were well chosen: most of the jobs were still at it.
    assert caught >= KILLS


def test_the_page_shows_the_job_as_it_is():
    page = (ROOT / "docs/how_to/daily_job.md").read_text(encoding="utf-8")
    assert f"```python\n{JOB.read_text(encoding='utf-8')}```\n" in page
