"""What editors and git are told about the sources is what the checks want."""

import configparser
import re
import tomllib

import pytest

from contributing.worked_example import ROOT

pytestmark = pytest.mark.plain_python


def pyproject():
    return tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))


def test_commits_are_checked_by_the_tools_of_make_lint():
    hooks = (ROOT / ".pre-commit-config.yaml").read_text(encoding="utf-8")
    entries = re.findall(r"^ +entry: (\S+)", hooks, re.M)
    makefile = (ROOT / "Makefile").read_text(encoding="utf-8")
    lint = re.search(r"^lint:.*\n((?:\t.*\n)+)", makefile, re.M)[1]
    assert set(entries) == {line.split()[0] for line in lint.splitlines()}
    assert len(entries) == len(lint.splitlines())


def test_commits_are_checked_by_the_same_versions():
    hooks = (ROOT / ".pre-commit-config.yaml").read_text(encoding="utf-8")
    required = set(re.findall(r'additional_dependencies: \["(.+)"\]', hooks))
    assert len(required) == 2
    assert required <= set(pyproject()["project"]["optional-dependencies"]["dev"])


def test_editors_wrap_and_indent_as_the_formatters_do():
    settings = configparser.ConfigParser()
    settings.read_string("[top]\n" + (ROOT / ".editorconfig").read_text(encoding="utf-8"))
    everywhere = settings["*"]
    assert int(everywhere["max_line_length"]) == pyproject()["tool"]["ruff"]["line-length"]
    clang_format = (ROOT / ".clang-format").read_text(encoding="utf-8")
    assert f"ColumnLimit: {everywhere['max_line_length']}\n" in clang_format
    assert f"IndentWidth: {everywhere['indent_size']}\n" in clang_format


def test_the_files_that_the_page_names_are_there():
    text = (ROOT / "CONTRIBUTING.md").read_text(encoding="utf-8")
    new = set(re.findall(r"^`([^`]+)`, a new file:", text, re.M))
    named = set(
        re.findall(r"`((?:\.ci|cpp|src|tests|docs|tools|benchmarks|examples)/[\w./-]+)`", text)
    )
    assert len(named) > 10
    assert [path for path in sorted(named - new) if not (ROOT / path).exists()] == []
