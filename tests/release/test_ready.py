"""A tag becomes a release only when nothing is left to be filled in."""

import pytest

from release.programs import ROOT, program

pytestmark = pytest.mark.plain_python

PROJECT = """\
[project]
authors = [{{ name = "Us", email = "us@{host}" }}]
[project.urls]
Homepage = "https://{host}/"
"""


def project(folder, *, host="real.org", date="2027-01-31", version="0.2.0"):
    """A checkout that has no more than what is looked at."""
    source = folder / "src/quorvane/__init__.py"
    source.parent.mkdir(parents=True)
    source.write_text(f'"""Text."""\n\n__version__ = "{version}"\n')
    (folder / "CHANGELOG.md").write_text(f"# Changes\n\n## 0.2.0 ({date})\n\n- All.\n")
    (folder / "pyproject.toml").write_text(PROJECT.format(host=host))
    return folder


def faults(folder, tag):
    return list(program("ready").faults(folder, tag))


def test_a_dated_version_with_real_addresses_is_ready(tmp_path):
    assert faults(project(tmp_path), "v0.2.0") == []


@pytest.mark.parametrize("tag", ["0.2.0", "v0.2", "v0.2.0rc1", "v0.3.0", ""])
def test_a_tag_is_the_version_with_a_v_before_it(tmp_path, tag):
    [fault] = faults(project(tmp_path), tag)
    assert repr(tag) in fault
    assert "'v0.2.0'" in fault


def test_a_version_without_a_section_is_not_ready(tmp_path):
    [fault] = faults(project(tmp_path, version="0.3.0"), "v0.3.0")
    assert "no section '## 0.3.0 (date)'" in fault


@pytest.mark.parametrize("date", ["not released yet", "2027-1-31", "31.01.2027"])
def test_a_version_without_a_day_is_not_ready(tmp_path, date):
    [fault] = faults(project(tmp_path, date=date), "v0.2.0")
    assert repr(date) in fault


def test_every_address_that_is_nobodys_is_named(tmp_path):
    home, mail = faults(project(tmp_path, host="quorvane.example"), "v0.2.0")
    assert "'https://quorvane.example/'" in home
    assert "'us@quorvane.example'" in mail


def test_the_checkout_has_what_is_looked_at():
    assert all(
        "pyproject.toml has" in fault or "CHANGELOG.md has" in fault
        for fault in faults(ROOT, f"v{program('ready').version(ROOT)}")
    )
