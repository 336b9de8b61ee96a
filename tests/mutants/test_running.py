"""A run ends when it has to, and leaves nobody behind."""

import signal
import sys
import time
from pathlib import Path

from mutants.running import run

DETACHED = """
import os, sys, time
if os.fork():
    sys.exit()
os.setsid()
print(os.getpid(), flush=True)
time.sleep(600)
"""


def python(code, limit=60.0, folder="."):
    return run([sys.executable, "-c", code], folder, {"SAID": "hello"}, limit)


def test_what_a_run_says_and_how_it_ends_is_told(tmp_path):
    ended = python(
        "import os; print(os.environ['SAID'], os.getcwd()); os._exit(3)", folder=tmp_path
    )
    assert (ended.status, ended.output) == (3, f"hello {tmp_path}\n")
    assert 0 < ended.seconds < 60


def test_a_crash_is_told_by_its_signal():
    assert (
        python("import os, signal; os.kill(os.getpid(), signal.SIGSEGV)").status == -signal.SIGSEGV
    )


def test_a_run_that_does_not_end_is_ended():
    begun = time.monotonic()
    assert python("while True: pass", limit=0.5).status is None
    assert time.monotonic() - begun < 30


def test_a_process_that_has_gone_its_own_way_is_ended_too():
    process = Path("/proc") / python(DETACHED).output.strip()
    # Whether it is buried yet is its new parent's business.
    assert not process.exists() or " Z " in (process / "stat").read_text()


def test_memory_without_an_end_is_refused():
    assert "MemoryError" in python("x = bytearray(1 << 34)").output


def test_files_for_the_moment_do_not_stay():
    ended = python("import tempfile; print(tempfile.mkdtemp())")
    assert not Path(ended.output.strip()).exists()
