"""Tables of every kind with the same content, and what they hold as plain Python."""

import datetime

import numpy as np
import pytest

NAN = float("nan")
DAYS = [datetime.date(2024, 1, day) for day in (2, 3, 5)]


class Frames:
    """Makes frames of one kind: dates in the index of pandas, in the first column elsewhere."""

    def __init__(self, kind):
        self.kind = kind
        self.library = pytest.importorskip(kind)
        if kind != "pandas":
            pytest.importorskip("narwhals")

    def plain(self, columns):
        if self.kind == "pyarrow":
            return self.library.table(columns)
        if self.kind == "polars":
            return self.library.DataFrame(columns, strict=False)
        return self.library.DataFrame(columns)

    def dated(self, columns, days=DAYS):
        if self.kind != "pandas":
            return self.plain({"day": list(days), **columns})
        try:
            index = self.library.DatetimeIndex(days, name="day")
        except self.library.errors.OutOfBoundsDatetime:
            # Before its third version, pandas thought of nanoseconds alone unless told otherwise.
            index = self.library.DatetimeIndex(np.array(days, "M8[us]"), name="day")
        return self.library.DataFrame(columns, index=index)

    def days(self, days):
        """A column of dates: pandas would keep them as objects."""
        return self.library.to_datetime(days) if self.kind == "pandas" else days

    def content(self, frame):
        """Columns as lists; missing numbers are None, whichever way the kind marks them."""
        if self.kind == "pyarrow":
            return frame.to_pydict()
        if self.kind == "polars":
            return frame.to_dict(as_series=False)
        numbers = frame.reset_index() if frame.index.name == "day" else frame
        return {name: [None if x != x else x for x in numbers[name].tolist()] for name in numbers}

    def dates(self, frame):
        """The frame's own dates."""
        if self.kind == "pandas":
            return frame.index.date.tolist()
        return self.content(frame)["day"]


@pytest.fixture(params=["pandas", "polars", "pyarrow"])
def frames(request):
    return Frames(request.param)


@pytest.fixture
def same():
    def same(found, expected):
        assert found.dtype == np.float64
        assert found.flags.c_contiguous
        np.testing.assert_array_equal(found, np.array(expected, dtype=float))

    return same
