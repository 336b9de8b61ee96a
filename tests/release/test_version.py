"""The version stands in one place, and the changelog begins with it."""

import re
import tomllib
from importlib import metadata

import pytest

import quorvane
from release.programs import ROOT, program

pytestmark = pytest.mark.plain_python

CHANGELOG = ROOT / "CHANGELOG.md"


def test_the_build_and_the_release_read_the_version_that_the_package_has():
    settings = tomllib.loads((ROOT / "pyproject.toml").read_text())
    source = settings["tool"]["scikit-build"]["metadata"]["version"]["input"]
    assert source == program("ready").VERSION_FILE
    assert program("ready").version(ROOT) == quorvane.__version__


def test_no_other_file_of_the_build_has_a_version_of_its_own():
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    assert project["dynamic"] == ["version"]
    assert "version" not in project
    declared = re.search(r"^project\((.*?)\)", (ROOT / "CMakeLists.txt").read_text(), re.M | re.S)
    assert "VERSION" not in declared[1]


def test_an_installed_package_says_the_same_version():
    try:
        installed = metadata.version("quorvane")
    except metadata.PackageNotFoundError:
        pytest.skip("quorvane is imported from a build folder, not installed")
    assert installed == quorvane.__version__


def test_the_changelog_begins_with_the_version():
    sections = re.findall(r"^## (.*)$", CHANGELOG.read_text(encoding="utf-8"), re.MULTILINE)
    dated = program("ready").dated_versions(CHANGELOG.read_text(encoding="utf-8"))
    assert len(dated) == len(sections)
    assert next(iter(dated)) == quorvane.__version__


def test_the_versions_of_the_changelog_are_dated_but_for_the_newest_that_may_be_to_come():
    dates = list(program("ready").dated_versions(CHANGELOG.read_text(encoding="utf-8")).values())
    for date in [*dates[1:], *(dates[:1] if dates[0] != "not released yet" else [])]:
        assert re.fullmatch(r"\d{4}-\d{2}-\d{2}", date)


def test_every_version_says_what_it_gives():
    for text in re.split(r"^## .*$", CHANGELOG.read_text(encoding="utf-8"), flags=re.MULTILINE)[1:]:
        assert re.search(r"^- \S", text, re.MULTILINE)


@pytest.mark.parametrize("text", ["", '__version__ = "1"\n__version__ = "2"\n'])
def test_a_source_without_one_version_is_refused(tmp_path, text):
    source = tmp_path / program("ready").VERSION_FILE
    source.parent.mkdir(parents=True)
    source.write_text(text)
    with pytest.raises(ValueError, match="versions, not one"):
        program("ready").version(tmp_path)
