"""Every shell session of the pages runs as written, and says what the page says."""

import re
import shlex
from fnmatch import fnmatchcase

import pytest

from docs.pages import ROOT, pages, text_of
from quorvane.cli import main

_SESSION = re.compile(r"^```console\n(.*?)^```\n", re.M | re.S)


def commands_of(session):
    """The commands of a session, each with what it says; ``...`` stands for anything in a line."""
    parts = re.split(r"^\$ (.*)\n", session, flags=re.M)
    assert parts[0] == ""
    return list(zip(parts[1::2], parts[2::2], strict=True))


def sessions():
    return [commands_of(session) for page in pages() for session in _SESSION.findall(text_of(page))]


def test_the_pages_have_sessions():
    assert len(sessions()) >= 2
    assert len(sessions()) == sum(text_of(page).count("```console") for page in pages())


def matches(said, written):
    lines = said.splitlines(), written.splitlines()
    return len(lines[0]) == len(lines[1]) and all(
        fnmatchcase(one, re.sub(r"\[", "[[]", other).replace("...", "*"))
        for one, other in zip(*lines, strict=True)
    )


@pytest.mark.parametrize("session", sessions(), ids=lambda commands: commands[-1][0][:30])
def test_a_session_says_what_the_page_says(session, tmp_path, monkeypatch, capsys):
    pytest.importorskip("msgpack")
    (tmp_path / "examples").symlink_to(ROOT / "examples")
    monkeypatch.chdir(tmp_path)
    for command, written in session:
        program, *arguments = shlex.split(command)
        assert program == "quorvane"
        assert main(arguments) == 0
        said = capsys.readouterr()
        assert said.err == ""
        assert matches(said.out, written), said.out
