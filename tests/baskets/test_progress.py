"""A bar for whoever watches, and nothing for anybody else."""

import io
import sys
import time
import types

import pytest

from quorvane.baskets import progress
from quorvane.baskets.progress import progress_bar


class Terminal(io.StringIO):
    def isatty(self):
        return True


def test_nobody_watches_a_file(monkeypatch):
    monkeypatch.setattr(sys, "stderr", io.StringIO())
    with progress_bar("x") as tell:
        assert tell is None


def test_a_program_without_standard_error_has_no_bar(monkeypatch):
    monkeypatch.setattr(sys, "stderr", None)
    with progress_bar("x") as tell:
        assert tell is None


def test_a_terminal_shows_how_many_days_are_done(monkeypatch):
    pytest.importorskip("tqdm")
    terminal = Terminal()
    monkeypatch.setattr(sys, "stderr", terminal)
    monkeypatch.setattr(progress, "PATIENCE", 0)
    with progress_bar("signals") as tell:
        tell(3, 10)
        time.sleep(0.2)  # the library shows changes ten times a second
        tell(10, 10)
    assert "signals" in terminal.getvalue()
    assert "10/10" in terminal.getvalue()


def test_without_the_library_there_is_no_bar(monkeypatch):
    monkeypatch.setattr(sys, "stderr", Terminal())
    monkeypatch.setitem(sys.modules, "tqdm.auto", None)
    with progress_bar("x") as tell:
        assert tell is None


@pytest.mark.parametrize("shell", [None, object()])
def test_a_notebook_watches(monkeypatch, shell):
    monkeypatch.setattr(sys, "stderr", io.StringIO())
    interactive = types.SimpleNamespace(get_ipython=lambda: shell)
    monkeypatch.setitem(sys.modules, "IPython", interactive)
    assert progress._has_watcher() is (shell is not None)
