"""After a power cut at any moment, a store has the last acknowledged state or the one in flight."""

import os

import pytest

from powercut.exploring import Findings, explore, outcome_of, some_images
from powercut.recording import record
from powercut.subjects import is_acknowledged_or_in_flight, recover_directory, recover_sqlite

pytestmark = pytest.mark.plain_python

LONG = bool(os.environ.get("QUORVANE_LONG"))
RECOVER = {
    "directory_store": recover_directory,
    "sqlite_store": recover_sqlite,
    "sqlite_store_beside_a_reader": recover_sqlite,
}
# How many points, and images of each kind at a point, by the writer and the sizes of its records.
SHARES = {
    ("directory_store", "SIZES"): (None, 150 if LONG else 8),
    ("directory_store", "LARGE_SIZES"): (None, 30 if LONG else 2),
    ("sqlite_store", "SIZES"): (None, 15) if LONG else (80, 3),
    ("sqlite_store", "LARGE_SIZES"): (150, 4) if LONG else (5, 1),
    ("sqlite_store_beside_a_reader", "SIZES"): (None, 10) if LONG else (30, 3),
    ("sqlite_store_beside_a_reader", "LARGE_SIZES"): (150, 4) if LONG else (5, 1),
}
CUT_TWICE = 12 if LONG else 2
CUT_AGAIN = {"points": None, "images": 4} if LONG else {"points": 15, "images": 2}


@pytest.mark.parametrize(("writer", "sizes"), SHARES)
def test_a_store_has_the_last_acknowledged_state_or_the_one_in_flight(
    preloaded, work, writer, sizes
):
    recording = record(preloaded, work, writer, sizes)
    points, images = SHARES[writer, sizes]
    findings = explore(
        recording,
        work,
        RECOVER[writer],
        is_acknowledged_or_in_flight,
        points=points,
        images=images,
    )
    assert not findings.faults, findings.faults[:5]
    print(f"{writer}, {sizes}: {findings}")


@pytest.mark.parametrize("writer", ["directory_store", "sqlite_store"])
def test_the_power_may_fail_again_while_a_store_recovers(preloaded, work, writer):
    """What was there after the first cut is there after the second, or what was written since."""
    recording = record(preloaded, work / "first", writer)
    findings = Findings()
    for number, image in enumerate(some_images(recording, CUT_TWICE)):
        writes = max(outcome_of(image, work, RECOVER[writer]))
        again = record(
            preloaded, work / f"again {number}", writer, "FEW_SIZES", writes + 1, before=image
        )

        def allowed(said, outcome, writes=writes):
            return is_acknowledged_or_in_flight(writes + said, outcome)

        findings.add(explore(again, work, RECOVER[writer], allowed, **CUT_AGAIN))
    assert not findings.faults, findings.faults[:5]
    print(f"{writer}, cut twice: {findings}")
