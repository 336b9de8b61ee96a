"""Replays in processes of their own, which can be told to stop at a certain point."""

import os
import signal
import tempfile
from contextlib import redirect_stderr, redirect_stdout
from io import StringIO
from pathlib import Path

import numpy as np

from quorvane.cli import checkpoint, main
from quorvane.cli.commands import replay as replay_command


def warm_up():
    """Replay something once."""
    with tempfile.TemporaryDirectory() as folder:
        files = {name: str(Path(folder) / name) for name in ("t.csv", "s.toml", "o.csv", "o.npz")}
        Path(files["t.csv"]).write_text("Date,A\n2020-01-01,1\n2020-01-02,2\n")
        Path(files["s.toml"]).write_text("[A]\nA = 1.0\n")
        arguments = [files["t.csv"], "--structures", files["s.toml"], "--output", files["o.csv"]]
        arguments += ["--trace", files["o.npz"], "--checkpoint", str(Path(folder) / "c.db")]
        assert replay([*arguments, "--expression", "ewma(5);zscore"])["status"] == 0
        assert np.load(files["o.npz"])["active"].shape == (2, 1)


def replay(arguments, writer=None, stop_at=None):
    """Run the command; `writer` is the token that this process leaves in the checkpoint."""
    if writer is not None:
        leave_token(writer)
    if stop_at is not None:
        stop_once(stop_at)
    out, err = StringIO(), StringIO()
    with redirect_stdout(out), redirect_stderr(err):
        status = main(["replay", *arguments])
    return {"status": status, "out": out.getvalue(), "err": err.getvalue()}


def leave_token(writer):
    class Marked(checkpoint.Checkpoint):
        def __init__(self, *arguments):
            super().__init__(*arguments)
            self._writer = writer

    replay_command.Checkpoint = Marked


def stop_once(place):
    """Let this process stop itself once, as SIGSTOP does."""
    owner, name, time, before = {
        "between check and write": (checkpoint.Checkpoint, "_require_own", 3, False),
        "before an output takes its place": (Path, "replace", 1, True),
    }[place]
    method, calls = getattr(owner, name), []

    def stopping(*arguments):
        calls.append(None)
        result = None if before else method(*arguments)
        if len(calls) == time:
            os.kill(os.getpid(), signal.SIGSTOP)
        return method(*arguments) if before else result

    setattr(owner, name, stopping)
