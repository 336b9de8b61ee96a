"""The optional record of each day."""

import collections

import numpy as np
import pytest

from support.fakes import (
    ConstantChild,
    Context,
    RaisingSink,
    RecordingSink,
    make_rotation,
    structure,
)

KEYS = [
    "day_index",
    "slot_by_key",
    "key_by_slot",
    "metadata_by_slot",
    "txi_input",
    "txi_output",
    "txn_output",
]


def traced(base, *days, **constructor):
    """Run one call per entry of `days` (lists of items) and return the rotation and its trace."""
    trace = []
    rotation = make_rotation(base, days, trace_sink=trace, **constructor)
    for _ in days:
        rotation(np.arange(6.0))
    return rotation, trace


def recorded(rotation, N=3):
    """Record one day directly and return the record."""
    rotation.trace_sink = []
    assert rotation._record_trace(np.arange(6.0), N) is None
    (record,) = rotation.trace_sink
    return record


PAIR = structure(("a", "b"), [(0, 1.0), (1, -1.0)], 2.0)


def test_without_a_sink_nothing_is_read_or_recorded(base):
    rotation = make_rotation(base)
    for name in ["_current_parent_context", "slot_by_key", "key_by_slot", "_txi_input"]:
        delattr(rotation, name)
    assert rotation._record_trace(None, None) is None


def test_one_record_is_appended_per_day(base):
    _, trace = traced(base, [PAIR], [], [PAIR])
    assert [type(record) for record in trace] == [dict, dict, dict]


def test_record_has_exactly_the_documented_keys_in_order(base):
    _, trace = traced(base, [PAIR])
    assert list(trace[0]) == KEYS


def test_record_holds_the_days_bookkeeping_and_rows(base):
    _, (record,) = traced(base, [PAIR], max_structures=2)
    assert record["slot_by_key"] == {("a", "b"): 0}
    assert record["key_by_slot"] == {0: ("a", "b")}
    assert record["metadata_by_slot"] == [
        {"key": ("a", "b"), "legs": ((0, 1.0), (1, -1.0)), "slot": 0, "active": True},
        {"active": False},
    ]
    np.testing.assert_array_equal(record["txi_input"], [2.0, np.nan])
    np.testing.assert_array_equal(record["txi_output"], [2.0, np.nan])
    np.testing.assert_array_equal(record["txn_output"], [2.0, -2.0] + [np.nan] * 4)


def test_chain_output_is_recorded_apart_from_the_input(base):
    _, (record,) = traced(base, [PAIR], child_rotations=[ConstantChild(np.full(4, 5.0))])
    assert record["txi_input"][0] == 2.0
    assert record["txi_output"].tolist() == [5.0] * 4


@pytest.mark.parametrize("name", ["slot_by_key", "key_by_slot"])
def test_slot_maps_are_recorded_as_plain_dict_copies(base, name):
    rotation = make_rotation(base)
    live = collections.OrderedDict({("a",): 0})
    setattr(rotation, name, live)
    copied = recorded(rotation)[name]
    assert type(copied) is dict
    live.clear()
    assert copied == {("a",): 0}


def test_metadata_is_recorded_as_a_list_of_plain_dict_copies(base):
    rotation = make_rotation(base)
    live = [collections.OrderedDict(active=True), {"active": False}]
    rotation._metadata_by_slot = tuple(live)
    copied = recorded(rotation)["metadata_by_slot"]
    live[0].clear()
    assert type(copied) is list
    assert [type(entry) for entry in copied] == [dict, dict]
    assert copied == [{"active": True}, {"active": False}]


def test_metadata_entries_that_are_pairs_become_dicts(base):
    rotation = make_rotation(base)
    rotation._metadata_by_slot = [[("active", 1)]]
    assert recorded(rotation)["metadata_by_slot"] == [{"active": 1}]


def test_metadata_values_and_keys_are_shared(base):
    value, key = [1], ("a",)
    _, (record,) = traced(base, [structure(key, [(0, 1.0)], metadata={"note": value})])
    assert record["metadata_by_slot"][0]["note"] is value
    assert next(iter(record["slot_by_key"])) is key


@pytest.mark.parametrize("name", ["_txi_input", "_txi_output"])
def test_rows_are_recorded_as_float64_copies(base, name):
    rotation = make_rotation(base)
    live = np.array([1, 2, 3], dtype=np.int32)
    setattr(rotation, name, live)
    copied = recorded(rotation)[name.strip("_")]
    live[:] = 0
    assert copied.dtype == np.float64
    assert copied.tolist() == [1.0, 2.0, 3.0]


def test_rows_may_be_whatever_converts_to_an_array(base):
    rotation = make_rotation(base)
    rotation._txi_input = [1, 2]
    assert recorded(rotation)["txi_input"].tolist() == [1.0, 2.0]


def test_instrument_output_has_the_live_length(base):
    record = recorded(make_rotation(base), N=3)
    assert record["txn_output"].tolist() == [0.0, 1.0, 2.0]


def test_later_change_of_the_output_buffer_does_not_reach_the_record(base):
    rotation = make_rotation(base, trace_sink=[])
    buffer = np.arange(6.0)
    rotation._record_trace(buffer, 2)
    buffer[:] = 9.0
    assert rotation.trace_sink[0]["txn_output"].tolist() == [0.0, 1.0]


def test_later_days_do_not_change_a_record(base):
    other = structure(("c",), [(2, 1.0)], 7.0)
    rotation = make_rotation(base, [[PAIR], [other], []], trace_sink=[])
    rotation(np.arange(6.0))
    first = {
        key: value.copy() if hasattr(value, "copy") else value
        for key, value in rotation.trace_sink[0].items()
    }
    first["metadata_by_slot"] = [dict(entry) for entry in first["metadata_by_slot"]]
    rotation(np.arange(6.0))
    rotation(np.arange(6.0))
    np.testing.assert_equal(rotation.trace_sink[0], first)


def test_trace_is_recorded_after_unmapping(base):
    _, (record,) = traced(base, [PAIR])
    assert record["txn_output"][0] == 2.0


def test_trace_is_recorded_when_the_chain_is_skipped(base):
    _, trace = traced(base, [PAIR], [], attributes={"_call_child_on_empty": False})
    assert len(trace) == 2
    assert np.isnan(trace[1]["txi_output"]).all()
    assert np.isnan(trace[1]["txn_output"]).all()


# The day index


def day_index(base, context):
    rotation = make_rotation(base)
    rotation._current_parent_context = context
    return recorded(rotation)["day_index"]


def test_day_index_is_zero_without_a_context(base):
    assert day_index(base, None) == 0


def test_day_index_is_zero_for_a_context_without_one(base):
    assert day_index(base, Context()) == 0


@pytest.mark.parametrize("day", ["5", 5, 5.9, np.int64(5), b"5"])
def test_day_index_is_converted_with_int(base, day):
    index = day_index(base, Context(current_day_index=day))
    assert index == 5
    assert type(index) is int


def test_day_index_that_int_cannot_convert_passes_the_error_on(base):
    with pytest.raises(ValueError, match="invalid literal"):
        day_index(base, Context(current_day_index="x"))


def test_day_index_property_error_other_than_attribute_error_propagates(base):
    class Failing:
        @property
        def current_day_index(self):
            raise LookupError("day")

    with pytest.raises(LookupError, match="day"):
        day_index(base, Failing())


def test_false_context_is_still_a_context(base):
    class False_(Context):
        def __bool__(self):
            return False

    assert day_index(base, False_(current_day_index=4)) == 4


def test_day_index_of_a_call_is_that_of_its_context(base):
    rotation = make_rotation(base, trace_sink=[])
    rotation(np.zeros(6), context=Context(current_day_index=3, universe_mask=np.ones((4, 6))))
    assert rotation.trace_sink[0]["day_index"] == 3


# The sink


def test_sink_needs_nothing_but_append_and_its_result_is_ignored(base):
    rotation = make_rotation(base, trace_sink=RecordingSink())
    assert rotation._record_trace(np.zeros(6), 6) is None
    assert len(rotation.trace_sink.records) == 1


def test_false_sink_is_still_a_sink(base):
    rotation = make_rotation(base)
    rotation.trace_sink = []
    rotation._record_trace(np.zeros(6), 6)
    assert len(rotation.trace_sink) == 1


def test_list_subclass_appends_with_its_own_method(base):
    class Sink(list):
        def append(self, record):
            super().append("own")

    rotation = make_rotation(base, trace_sink=Sink())
    rotation._record_trace(np.zeros(6), 6)
    assert rotation.trace_sink == ["own"]


def test_sink_without_append_fails(base):
    rotation = make_rotation(base, trace_sink=object())
    with pytest.raises(AttributeError):
        rotation._record_trace(np.zeros(6), 6)


def test_sink_error_propagates_as_the_same_object(base):
    error = LookupError("full")
    rotation = make_rotation(base, trace_sink=RaisingSink(error))
    with pytest.raises(LookupError) as caught:
        rotation(np.zeros(6))
    assert caught.value is error


def test_day_stays_computed_when_the_sink_fails(base):
    rotation = make_rotation(base, [[PAIR]], trace_sink=RaisingSink(LookupError()))
    with pytest.raises(LookupError):
        rotation(np.zeros(6))
    assert rotation._output_buf[0] == 2.0
    assert rotation.slot_by_key == {("a", "b"): 0}


def test_sink_is_read_again_once_the_record_is_built(base):
    rotation = make_rotation(base)
    other = []

    class Pairs:
        def keys(self):
            rotation.trace_sink = other
            return ["active"]

        def __getitem__(self, key):
            return True

    rotation._metadata_by_slot = [Pairs()]
    rotation.trace_sink = first = []
    rotation._record_trace(np.zeros(6), 6)
    assert first == []
    assert len(other) == 1


def test_metadata_entry_that_is_no_dict_passes_the_error_on(base):
    rotation = make_rotation(base, trace_sink=[])
    rotation._metadata_by_slot = [5]
    with pytest.raises(TypeError):
        rotation._record_trace(np.zeros(6), 6)
    assert rotation.trace_sink == []


def test_slot_map_that_is_no_mapping_passes_the_error_on(base):
    rotation = make_rotation(base, trace_sink=[])
    rotation.slot_by_key = 5
    with pytest.raises(TypeError):
        rotation._record_trace(np.zeros(6), 6)


def test_record_is_built_in_the_order_of_its_keys(base):
    order = []

    class Watched:
        """Mapping or row that notes when it is copied."""

        def __init__(self, name):
            self.name = name

        def keys(self):
            order.append(self.name)
            return []

        def __getitem__(self, key):
            raise KeyError(key)

        def __array__(self, dtype=None, copy=None):
            order.append(self.name)
            return np.zeros(2)

    class Day:
        @property
        def current_day_index(self):
            order.append("day_index")
            return 0

    class Buffer:
        def __getitem__(self, item):
            order.append("txn_output")
            return np.zeros(2)

    rotation = make_rotation(base, trace_sink=[])
    rotation._current_parent_context = Day()
    rotation.slot_by_key = Watched("slot_by_key")
    rotation.key_by_slot = Watched("key_by_slot")
    rotation._metadata_by_slot = [Watched("metadata_by_slot")]
    rotation._txi_input = Watched("txi_input")
    rotation._txi_output = Watched("txi_output")
    rotation._record_trace(Buffer(), 2)
    assert list(dict.fromkeys(order)) == KEYS


def test_instance_is_left_unchanged(base):
    rotation = make_rotation(base, trace_sink=[])
    before = dict(vars(rotation))
    rotation._record_trace(np.zeros(6), 6)
    assert list(vars(rotation)) == list(before)
    assert all(vars(rotation)[name] is value for name, value in before.items())
