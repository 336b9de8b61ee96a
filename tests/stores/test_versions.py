"""What the stores promise that keep versions."""

import functools
from datetime import UTC, datetime, timedelta

import numpy as np
import pytest

from quorvane.stores import RecordNotFoundError
from stores.support.samples import durable_store

pytestmark = pytest.mark.plain_python


@pytest.fixture
def opened(versioned_kind, tmp_path):
    """Open the test's store with these options."""
    return functools.partial(durable_store, versioned_kind, tmp_path)


@pytest.fixture
def store(opened):
    return opened()


def numbers(store, name="rotation"):
    return [entry.version for entry in store.versions(name)]


def test_the_last_versions_are_kept_and_listed(opened):
    store = opened(keep=3)
    assert store.versions("rotation") == []
    for number in range(1, 6):
        store.write("rotation", {"number": number})
    assert numbers(store) == [5, 4, 3]
    assert [store.load("rotation", version) for version in (3, 4, 5)] == [
        {"number": number} for number in (3, 4, 5)
    ]
    assert store.load("rotation") == {"number": 5}
    with pytest.raises(RecordNotFoundError, match="holds no version 2 of record 'rotation'"):
        store.load("rotation", 2)


@pytest.mark.parametrize("version", [np.int64(1), np.uint8(1)])
def test_a_version_may_be_any_integer(store, version):
    for number in (1, 2):
        store.write("rotation", {"number": number})
    assert store.load("rotation", version) == {"number": 1}


@pytest.mark.parametrize("version", [True, 1.0, "1", [1], b"1", np.array([1, 2])])
def test_a_version_that_is_no_integer_is_refused(store, version):
    store.write("rotation", {"number": 1})
    with pytest.raises(TypeError, match=r"version must be|only integer"):
        store.load("rotation", version)


@pytest.mark.parametrize("version", [0, -1, 2, 2**63 - 1, 2**63, 2**70, -(2**70)])
def test_a_version_beyond_those_that_are_there_is_not_found(store, version):
    store.write("rotation", {"number": 1})
    with pytest.raises(RecordNotFoundError, match=f"holds no version {version} of"):
        store.load("rotation", version)


def test_a_version_says_when_it_was_written_and_how_large_it_is(store):
    before = datetime.now(UTC) - timedelta(seconds=1)
    store.write("rotation", {"x": b"y" * 5000})
    (entry,) = store.versions("rotation")
    assert before <= entry.written_at <= datetime.now(UTC)
    assert entry.written_at.tzinfo is UTC
    assert 5000 < entry.size < 5200


def test_each_name_and_namespace_has_versions_of_its_own(opened):
    store, other = opened(keep=2), opened(keep=2, namespace="other")
    for number in range(3):
        store.write("rotation", {"number": number})
    store.write("second", {})
    other.write("rotation", {})
    assert (numbers(store), numbers(store, "second"), numbers(other)) == ([3, 2], [1], [1])


@pytest.mark.parametrize("keep", [0, -1, True, 2.0, None, "3"])
def test_keep_is_a_positive_integer(opened, keep):
    with pytest.raises(ValueError, match="keep must be a positive integer"):
        opened(keep=keep)


@pytest.mark.parametrize("timeout", [-1.0, float("nan"), float("inf")])
def test_the_busy_timeout_is_a_number_of_seconds(opened, timeout):
    with pytest.raises(ValueError, match="busy_timeout must be between 0 and 1e6 seconds"):
        opened(busy_timeout=timeout)
