"""The pipeline's file asks for what there is. That it runs at all is seen by running it."""

import re
import shlex

import pytest

from release.programs import ROOT

pytestmark = pytest.mark.plain_python

FILE = ROOT / ".github/workflows/release.yml"


@pytest.fixture(scope="module")
def pipeline():
    yaml = pytest.importorskip("yaml")
    if not FILE.exists():
        pytest.skip("an sdist has no pipeline")
    return yaml.safe_load(FILE.read_text())


def commands(pipeline):
    steps = [step for job in pipeline["jobs"].values() for step in job["steps"]]
    return [step["run"] for step in steps if "run" in step]


def test_a_tag_is_enough(pipeline):
    # YAML takes the word `on` for a truth value.
    assert pipeline[True]["push"] == {"tags": ["v*"]}


def test_every_program_that_is_run_is_there(pipeline):
    paths = re.findall(r"\btools/\S+", "\n".join(commands(pipeline)))
    assert {"tools/wheels/ready.py", "tools/wheels/sdist.py", "tools/wheels/contents.py"} == set(
        paths
    )
    assert all((ROOT / path).is_file() for path in paths)


def test_what_a_job_takes_another_has_made_before(pipeline):
    jobs = pipeline["jobs"]
    for name, job in jobs.items():
        needs = job.get("needs", [])
        assert set([needs] if isinstance(needs, str) else needs) <= jobs.keys() - {name}
    assert jobs["wheels"]["needs"] == "sdist"
    assert jobs["check"]["needs"] == ["sdist", "wheels"]


def test_systems_on_which_nothing_was_ever_built_keep_no_release_from_being_made(pipeline):
    kinds = pipeline["jobs"]["wheels"]["strategy"]["matrix"]["include"]
    tried_out = {kind["name"] for kind in kinds if kind["tried_out"]}
    assert tried_out == {kind["name"] for kind in kinds if "linux" not in kind["name"]}


def test_wheels_are_tested_with_files_that_there_are():
    tomllib = pytest.importorskip("tomllib")
    settings = tomllib.loads((ROOT / "pyproject.toml").read_text())["tool"]["cibuildwheel"]
    for command in (settings["test-command"], settings["windows"]["test-command"]):
        named = [word for word in shlex.split(command) if word.startswith("tests/")]
        assert named
        assert all((ROOT / word).is_dir() for word in named)
    assert all((ROOT / name).exists() for name in settings["test-sources"])
