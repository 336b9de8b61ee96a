"""What the package says of itself is complete, and the same wherever it is said."""

import re
import tomllib

import pytest

from release.programs import ROOT

pytestmark = pytest.mark.plain_python

SETTINGS = tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))
PROJECT = SETTINGS["project"]
PYTHONS = [
    found[1]
    for found in (
        re.fullmatch(r"Programming Language :: Python :: (3\.\d+)", name)
        for name in PROJECT["classifiers"]
    )
    if found
]


def test_the_licence_is_an_expression_with_its_file_and_no_classifier():
    assert PROJECT["license"] == "MIT"
    assert [(ROOT / name).read_text()[:11] for name in PROJECT["license-files"]] == ["MIT License"]
    assert not [name for name in PROJECT["classifiers"] if name.startswith("License")]


def test_every_classifier_is_one_that_there_is():
    known = pytest.importorskip("trove_classifiers").classifiers
    assert set(PROJECT["classifiers"]) <= known


def test_classifiers_keywords_and_versions_are_sorted_and_said_once():
    for listed in (PROJECT["classifiers"], PROJECT["keywords"]):
        plain = [re.sub(r"3\.(\d+)", lambda found: f"3.{int(found[1]):03}", one) for one in listed]
        assert plain == sorted(set(plain))


def test_whoever_reads_the_metadata_is_told_where_to_turn():
    assert {"Homepage", "Documentation", "Source", "Issues", "Changelog"} == set(PROJECT["urls"])
    assert all(address.startswith("https://") for address in PROJECT["urls"].values())
    assert all("@" in author["email"] for author in PROJECT["authors"])
    assert len(PROJECT["description"]) > 30


def test_pythons_are_the_same_in_classifiers_matrix_wheels_and_pipeline():
    assert PROJECT["requires-python"] == f">={PYTHONS[0]}"
    for script in ("matrix", "wheels"):
        text = (ROOT / f"tools/{script}.sh").read_text()
        assert re.search(r"\|\| set -- (3[\d. ]+)$", text, re.MULTILINE)[1].split() == PYTHONS
    identifiers = SETTINGS["tool"]["cibuildwheel"]["build"].split()
    assert identifiers == [f"cp{version.replace('.', '')}-*" for version in PYTHONS]


def test_every_extra_is_told_of_on_the_page_on_building_or_in_the_readme():
    pages = "".join((ROOT / name).read_text() for name in ("README.md", "docs/building.md"))
    for extra in PROJECT["optional-dependencies"]:
        assert f"`{extra}`" in pages or f"[{extra}]" in pages, extra
