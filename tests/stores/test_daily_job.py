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
DAYS = 250
KILLS = 5


def command(folder):
    return [sys.executable, JOB, PRICES, folder / "states.db", folder / "signals"]


def run_to_its_end(folder):
    done = subprocess.run(command(folder), capture_output=True, text=True, check=True)
    assert done.stderr == ""
    return done.stdout


def signals(folder):
    return {path.name: path.read_text() for path in (folder / "signals").glob("*.csv")}


def kill_at(folder, files, seconds):
    """Kill a job some time after it has begun so many files; whether it was still at it."""
    job = subprocess.Popen(command(folder), stdout=subprocess.DEVNULL)
    while len(list(folder.glob("signals/*"))) < files and job.poll() is None:
        time.sleep(0.001)
    time.sleep(seconds)
    job.kill()
    return job.wait() == -9


def test_a_job_that_is_killed_and_started_again_gives_what_an_undisturbed_one_gives(tmp_path):
    undisturbed, killed = tmp_path / "undisturbed", tmp_path / "killed"
    undisturbed.mkdir()
    killed.mkdir()
    assert run_to_its_end(undisturbed) == f"{DAYS} new days\n"
    generator = random.Random(4)
    moments = [generator.randrange(1, DAYS) for _ in range(KILLS)]
    # Each job begins anew, since none before it came to keeping its state.
    caught = [kill_at(killed, files, 0.01 * generator.random()) for files in sorted(moments)]
    assert sum(caught) > KILLS // 2
    run_to_its_end(killed)
    assert signals(killed) == signals(undisturbed)
    assert run_to_its_end(killed) == "0 new days\n"


def test_the_page_shows_the_job_as_it_is():
    page = (ROOT / "docs/how_to/daily_job.md").read_text(encoding="utf-8")
    assert f"```python\n{JOB.read_text(encoding='utf-8')}```\n" in page
