"""A process that may crash, hang, eat memory, or leave others behind, run to its certain end."""

import os
import secrets
import shutil
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

# By this variable all processes are found that a run has started, however they were detached.
MARK = "QUORVANE_MUTANTS_RUN"

# Nothing that the tests do needs as much; a loop that has lost its end shall not take the machine.
DATA_KIB = 6 * 1024 * 1024


@dataclass(frozen=True)
class Ended:
    """How a run ended: its exit status, None when it was out of time, and what it printed."""

    status: int | None
    seconds: float
    output: str


def run(command, folder, environment, limit):
    """Run `command` (texts) in `folder` for at most `limit` seconds, and end all that it began."""
    mark = secrets.token_hex(8)
    # Short, because the paths of sockets must be.
    scratch = tempfile.mkdtemp(prefix="qm-")
    environment = {**os.environ, **environment, "TMPDIR": scratch, MARK: mark}
    limited = ["sh", "-c", f'ulimit -d {DATA_KIB}; ulimit -c 0; exec "$@"', "sh", *command]
    begun = time.monotonic()
    try:
        with tempfile.TemporaryFile() as output:
            process = subprocess.Popen(
                limited,
                cwd=folder,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                start_new_session=True,
            )
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = None
            finally:
                end_all(mark)
                process.wait()
            seconds = time.monotonic() - begun
            output.seek(0)
            return Ended(status, seconds, output.read().decode(errors="replace"))
    finally:
        shutil.rmtree(scratch, ignore_errors=True)


def end_all(mark):
    """End every process with the mark; again, until there is none that was started meanwhile."""
    while marked := [process for process in processes() if has_mark(process, mark)]:
        for process in marked:
            try:
                os.kill(int(process.name), signal.SIGKILL)
            except ProcessLookupError:
                continue
        time.sleep(0.01)


def processes():
    return [entry for entry in Path("/proc").iterdir() if entry.name.isdecimal()]


def has_mark(process, mark):
    """Whether a living process of ours has the mark; those that have ended have no environment."""
    try:
        return f"{MARK}={mark}".encode() in (process / "environ").read_bytes().split(b"\0")
    except OSError:
        return False
