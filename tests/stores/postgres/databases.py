"""What is looked at in a database."""

import pytest

from quorvane.stores import (
    DamagedRecord,
    DamagedRecordWarning,
    RecordDamagedError,
    StoreFormatError,
)


def numbers(store):
    return [entry.version for entry in store.versions("rotation")]


def assert_damaged(store, name="rotation"):
    with pytest.warns(DamagedRecordWarning):
        assert isinstance(store.read(name), DamagedRecord)
    with pytest.raises((RecordDamagedError, StoreFormatError)):
        store.load(name)
