"""A short run of every target, and how a failure is told."""

import os

import numpy as np
import pytest

from fuzz import campaign
from support import frozen

LONG = bool(os.environ.get("QUORVANE_LONG"))
INPUTS = {
    "expressions": 6000,
    "items": 1500,
    "states": 1500,
    "records": 4000,
    "masks": 6000,
    "columns": 1500,
}


@pytest.mark.parametrize("target", campaign.TARGETS)
def test_random_inputs(target):
    if target == "records":
        pytest.importorskip("msgpack")
    inputs = INPUTS[target] * (20 if LONG else 1)
    count, failure = campaign.run(target, seed=1, inputs=inputs)
    assert failure is None, str(failure)
    assert count == inputs


@pytest.mark.parametrize("target", sorted(set(campaign.TARGETS) - {"records"}))
def test_inputs_are_neither_all_accepted_nor_all_refused(target):
    module = campaign.module_of(target)
    native = module.subjects()[0]
    logs = [module.play(campaign.random_of(target, 1, index), native) for index in range(300)]
    outcomes = [entry for log in logs for entry in log if type(entry) is tuple]
    ends = [entry[0] for entry in outcomes]
    assert 0.1 < ends.count("raised") / (ends.count("raised") + ends.count("returned")) < 0.9


def test_records_are_neither_all_read_nor_all_refused():
    pytest.importorskip("msgpack")
    records = campaign.module_of("records")
    ends = [records.play(campaign.random_of("records", 1, index), None)[0] for index in range(1000)]
    assert 0.05 < ends.count("read") / len(ends) < 0.9


class Differing:
    """Target whose two subjects let different things be seen now and then."""

    @staticmethod
    def subjects():
        return [0.1, 0.2]

    @staticmethod
    def play(random, subject):
        return [random.random() < subject]


def test_a_difference_is_told_with_the_command_that_shows_it_again(monkeypatch):
    monkeypatch.setattr(campaign, "module_of", lambda target: Differing)
    count, failure = campaign.run("items", seed=5, inputs=1000)
    assert count == failure.index < 1000
    assert f"--only items --seed 5 --first {count} --inputs 1" in str(failure)
    assert campaign.run("items", seed=5, first=count, inputs=1) == (0, failure)
    assert "native: ...[False]" in str(failure)


def test_an_exception_out_of_a_target_is_a_failure(monkeypatch):
    class Raising(Differing):
        @staticmethod
        def play(random, subject):
            raise LookupError("not of the target's")

    monkeypatch.setattr(campaign, "module_of", lambda target: Raising)
    _, failure = campaign.run("items", seed=5, inputs=1)
    assert "LookupError: not of the target's" in str(failure)


def test_addresses_and_the_sign_of_a_nan_are_no_difference():
    def log(number, place):
        return [frozen.freeze(np.array([number])), f"<object at {place}>"]

    assert campaign.first_difference([log(np.nan, "0x7f1"), log(-np.nan, "0x9a")]) is None
    assert campaign.first_difference([log(0.0, "0x7f1"), log(-0.0, "0x7f1")]) is not None
    assert campaign.first_difference([log(np.nan, "0x7f1"), log(np.inf, "0x7f1")]) is not None
