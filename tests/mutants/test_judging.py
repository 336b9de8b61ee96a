"""A mutant is judged on its own code, by tests that pass without it."""

import subprocess

import pytest

from mutants import building, judging
from mutants.judging import (
    CAUGHT,
    SAME_CODE,
    SURVIVED,
    UNREACHED,
    UNVIABLE,
    Worker,
    WrongVerdict,
)
from mutants.mutant import Mutant, Source
from mutants.order import Order
from mutants.suite import FAILS, HANGS, Answer, Test

TEST = Test("tests/test_a.py")
TEXTS = {"cpp/a.cpp": b"a < b;\n", "src/quorvane/a.py": b"a < b\n"}
PASSED = Answer(True, "", "", 1.0)


def caught(how=FAILS):
    return Answer(False, f"{TEST.name}::test_it", how, 1.0)


@pytest.fixture
def root(tmp_path):
    root = tmp_path / "root"
    for path, text in TEXTS.items():
        (root / path).parent.mkdir(parents=True)
        (root / path).write_bytes(text)
    subprocess.run(["git", "init", "-q"], cwd=root, check=True)
    return root


@pytest.fixture
def worker(root, tmp_path, monkeypatch):
    """A worker whose compiler copies the source, and whose tests answer what `answers` has."""

    def configure(folder, preset):
        modules = folder / "build" / preset / "python"
        modules.mkdir(parents=True)
        (modules / "a.so").write_bytes(TEXTS["cpp/a.cpp"])
        return modules.parent

    def builds(build):
        text = (build.parents[1] / "cpp" / "a.cpp").read_bytes()
        (build / "python" / "a.so").write_bytes(text.replace(b" ", b""))
        return b"!" not in text

    def ask(folder, preset, tests, usual, *, options=()):
        sources = {path: (folder / path).read_bytes() for path in TEXTS}
        worker.asked.append((tests, options, sources != TEXTS))
        return worker.answers.pop(0)

    monkeypatch.setattr(building, "configure", configure)
    monkeypatch.setattr(building, "builds", builds)
    monkeypatch.setattr(judging, "ask", ask)
    worker = Worker(root, tmp_path / "place", 1)
    worker.asked, worker.answers = [], [PASSED]
    return worker


def judge(worker, after=b"<=", path="src/quorvane/a.py", tests=frozenset({TEST})):
    mutant = Mutant(Source(path, TEXTS[path]), 2, 3, after, "boundary", ())
    verdict = worker.judge(mutant, tests, Order({TEST: 1.0}), 100)
    assert (worker.folder / path).read_bytes() == TEXTS[path]
    built = worker.build / "python" / "a.so"
    assert built.read_bytes() == TEXTS["cpp/a.cpp"]
    return verdict


@pytest.mark.parametrize("path", TEXTS)
def test_a_mutant_that_all_tests_pass_survives(worker, path):
    assert judge(worker, path=path).status == SURVIVED
    assert worker.asked[0][2]


def test_a_mutant_is_caught_by_the_test_that_tells(worker):
    worker.answers = [caught()]
    verdict = judge(worker)
    assert (verdict.status, verdict.by) == (CAUGHT, f"{TEST.name}::test_it")


def test_only_compiled_code_is_not_asked_of_the_plain_twin(worker):
    worker.answers = [PASSED, PASSED]
    judge(worker, path="cpp/a.cpp")
    judge(worker)
    assert [("plain_python" in " ".join(options)) for _, options, _ in worker.asked] == [
        True,
        False,
    ]


@pytest.mark.parametrize("path", TEXTS)
def test_what_cannot_be_compiled_is_not_judged(worker, path):
    assert judge(worker, b"!", path).status == UNVIABLE
    assert worker.asked == []


def test_what_compiles_to_the_same_is_not_judged(worker, monkeypatch):
    monkeypatch.setattr(building, "builds", lambda build: True)
    assert judge(worker, path="cpp/a.cpp").status == SAME_CODE
    assert worker.asked == []


def test_what_no_test_reaches_is_not_caught(worker):
    assert judge(worker, tests=frozenset()).status == UNREACHED
    assert judge(worker, b"!", tests=frozenset()).status == UNVIABLE


def test_a_catch_is_looked_at_again_without_the_mutant(worker, monkeypatch):
    monkeypatch.setattr(judging, "CHECKED", 2)
    worker.answers = [caught(), caught(), PASSED]
    assert judge(worker).status == judge(worker).status == CAUGHT
    assert [changed for _, _, changed in worker.asked] == [True, True, False]


def test_a_hang_is_always_looked_at_again(worker):
    worker.answers = [caught(HANGS), PASSED]
    assert judge(worker).how == HANGS
    assert [changed for _, _, changed in worker.asked] == [True, False]


def test_a_test_that_fails_without_the_mutant_catches_nothing(worker, monkeypatch):
    monkeypatch.setattr(judging, "CHECKED", 1)
    worker.answers = [caught(), caught()]
    with pytest.raises(WrongVerdict, match="::test_it fails, too") as wrong:
        judge(worker)
    assert wrong.value.test == TEST


def test_same_products_are_the_same_modules_and_programs(tmp_path):
    for build in ("old", "new"):
        for path in ("python/a/b.so", "cpp/tests/test_a", "other.o"):
            (tmp_path / build / path).parent.mkdir(parents=True, exist_ok=True)
            (tmp_path / build / path).write_text("1")
    old, new = tmp_path / "old", tmp_path / "new"
    (new / "other.o").write_text("2")
    assert building.same_products(new, old)
    (new / "cpp" / "tests" / "test_a").write_text("2")
    assert not building.same_products(new, old)


def test_sources_that_cannot_be_built_are_told(tmp_path):
    with pytest.raises(building.BuildError, match="cmake --preset mutants"):
        building.configure(tmp_path, "mutants")
