"""compute: the chain of children, or not, and the order of the steps."""

import collections

import numpy as np
import pytest

from support.fakes import RaisingChild, RecordingChild, make_rotation, structure
from virtualization.daily.helpers import NAN, PAIR, SINGLE, Log, flagged, one_day


def test_compute_returns_the_integer_zero_with_the_chain(base):
    rotation = make_rotation(base, [[PAIR]])
    result = rotation.compute((np.zeros(6),), (), np.zeros(6), np.zeros(6), 6)
    assert result == 0
    assert type(result) is int


def test_compute_returns_the_integer_zero_without_the_chain(base):
    rotation = make_rotation(base, attributes={"_call_child_on_empty": False})
    result = rotation.compute((np.zeros(6),), (), np.zeros(6), np.zeros(6), 6)
    assert result == 0
    assert type(result) is int


def test_empty_day_runs_the_chain_on_an_all_nan_row(base):
    child = RecordingChild()
    one_day(make_rotation(base, child_rotations=[child]))
    assert len(child.calls) == 1
    assert np.isnan(child.calls[0][1]).all()


@pytest.mark.parametrize("flag", [False, 0, "", None, np.False_])
@pytest.mark.parametrize("items", [[], (), {}])
def test_empty_day_skips_the_chain_when_told_so(base, flag, items):
    child = RecordingChild()
    attributes = {"_call_child_on_empty": flag}
    rotation = make_rotation(base, [items], child_rotations=[child], attributes=attributes)
    rotation._txi_output[:] = 5.0
    row = rotation._txi_output
    assert np.isnan(one_day(rotation)).all()
    assert child.calls == []
    assert rotation._txi_output is row
    assert np.isnan(row).all()


def test_instance_attribute_may_tell_to_skip_the_chain(base):
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child])
    rotation._call_child_on_empty = False
    one_day(rotation)
    assert child.calls == []


def test_true_flag_runs_the_chain_on_an_empty_day(base):
    child = RecordingChild()
    rotation = make_rotation(base, child_rotations=[child])
    rotation._call_child_on_empty = "yes"
    one_day(rotation)
    assert len(child.calls) == 1


def test_day_of_invalid_structures_alone_runs_the_chain(base):
    child = RecordingChild()
    attributes = {"_call_child_on_empty": False}
    items = [structure(("c",), [(2, 1.0)], NAN)]
    one_day(make_rotation(base, [items], child_rotations=[child], attributes=attributes))
    assert len(child.calls) == 1


@pytest.mark.parametrize("make", [lambda *arguments: iter([]), lambda *arguments: (_ for _ in [])])
def test_empty_iterator_counts_as_a_day_with_structures(base, make):
    child = RecordingChild()
    attributes = {"_call_child_on_empty": False}
    one_day(make_rotation(base, [make], child_rotations=[child], attributes=attributes))
    assert len(child.calls) == 1


def test_truth_of_the_items_is_asked_after_they_were_read(base):
    child = RecordingChild()

    def drain(*arguments):
        items = collections.deque([PAIR])

        class Draining:
            def __iter__(self):
                while items:
                    yield items.popleft()

            def __len__(self):
                return len(items)

        return Draining()

    attributes = {"_call_child_on_empty": False}
    rotation = make_rotation(base, [drain], child_rotations=[child], attributes=attributes)
    one_day(rotation)
    assert rotation.slot_by_key == {("a", "b"): 0}
    assert child.calls == []


def test_flag_is_not_asked_on_a_day_with_structures(base):
    def flag(self):
        raise LookupError("asked")

    attributes = {"_call_child_on_empty": property(flag)}
    rotation = make_rotation(base, [[PAIR]], attributes=attributes)
    one_day(rotation)
    with pytest.raises(LookupError, match="asked"):
        one_day(rotation)


def test_flag_whose_property_raises_attribute_error_counts_as_absent(base):
    def flag(self):
        raise AttributeError("hidden")

    child = RecordingChild()
    attributes = {"_call_child_on_empty": property(flag)}
    one_day(make_rotation(base, child_rotations=[child], attributes=attributes))
    assert len(child.calls) == 1


def test_items_whose_truth_fails_pass_the_error_on(base):
    class Items(list):
        def __bool__(self):
            raise LookupError("truth")

    rotation = make_rotation(base, [Items()])
    with pytest.raises(LookupError, match="truth"):
        one_day(rotation)


def test_skipped_chain_reads_no_parent_context(base):
    class Untouchable:
        def __getattribute__(self, name):
            raise AssertionError(name)

    rotation = make_rotation(base, attributes={"_call_child_on_empty": False})
    rotation._current_parent_context = Untouchable()
    one_day(rotation)


def test_skipped_chain_unmaps_the_nan_row_then_records(base):
    log = Log()
    steps = ["_make_child_context", "_run_child_chain", "_unmap", "_record_trace"]
    attributes = {"_call_child_on_empty": False} | {name: log.step(name) for name in steps}
    one_day(make_rotation(base, attributes=attributes))
    assert log == ["_unmap", "_record_trace"]


def test_output_row_is_rebound_to_the_chains_result(base):
    result = np.arange(4.0)
    attributes = {"_run_child_chain": lambda self, values, context: result}
    rotation = make_rotation(base, attributes=attributes)
    before = rotation._txi_output
    one_day(rotation)
    assert rotation._txi_output is result
    assert np.isnan(before).all()


def test_chain_receives_the_input_row_itself(base):
    child = RecordingChild()
    rotation = make_rotation(base, [[PAIR]], child_rotations=[child])
    one_day(rotation)
    assert child.calls[0][0] is rotation._txi_input


def test_failing_chain_keeps_yesterdays_output_row(base):
    rotation = make_rotation(base, [[PAIR], [SINGLE]])
    one_day(rotation)
    before = rotation._txi_output
    rotation.child_rotations = [RaisingChild(LookupError())]
    with pytest.raises(LookupError):
        one_day(rotation)
    assert rotation._txi_output is before
    assert rotation._txi_input[1] == 3.0


def test_steps_run_in_the_documented_order(base):
    log = Log()
    names = [
        "_normalize_structure",
        "_slot_for_key",
        "_structure_is_valid",
        "_make_child_context",
        "_run_child_chain",
        "_unmap",
        "_record_trace",
    ]
    attributes = {name: log.step(name) for name in names}
    one_day(make_rotation(base, [[PAIR, SINGLE]], attributes=attributes))
    assert log == names[:3] * 2 + names[3:]


def test_steps_receive_the_documented_arguments(base):
    calls = {}

    def watch(name):
        def method(self, *args, **kwargs):
            assert kwargs == {}
            calls[name] = args
            return getattr(super(type(self), self), name)(*args)

        return method

    names = ["_normalize_structure", "_slot_for_key", "_structure_is_valid"]
    names += ["_make_child_context", "_run_child_chain", "_unmap", "_record_trace"]
    rotation = make_rotation(base, [[PAIR]], attributes={name: watch(name) for name in names})
    masks, combined, buffer = (flagged(),), flagged(), np.zeros(6)
    rotation.compute((np.zeros(6),), masks, combined, buffer, 6)
    assert calls["_normalize_structure"][0] is PAIR
    assert calls["_slot_for_key"] == (("a", "b"),)
    record, *rest = calls["_structure_is_valid"]
    assert type(record) is base.VirtualStructure
    assert rest[0] is masks
    assert rest[1] is combined
    assert rest[2] == 6
    assert calls["_make_child_context"] == (None, 0)
    assert calls["_run_child_chain"][0] is rotation._txi_input
    assert type(calls["_run_child_chain"][1]) is base._VirtualContext
    assert calls["_unmap"][0] is rotation._txi_output
    assert calls["_unmap"][1] is calls["_record_trace"][0] is buffer
    assert calls["_unmap"][2] == calls["_record_trace"][1] == 6


@pytest.mark.parametrize(
    "name",
    [
        "_normalize_structure",
        "_slot_for_key",
        "_structure_is_valid",
        "_make_child_context",
        "_run_child_chain",
        "_unmap",
        "_record_trace",
    ],
)
def test_step_overridden_on_the_instance_is_used(base, name):
    calls = []
    rotation = make_rotation(base, [[PAIR]], trace_sink=[])
    step = getattr(rotation, name)

    def override(*args):
        calls.append(name)
        return step(*args)

    setattr(rotation, name, override)
    one_day(rotation)
    assert calls == [name]


def test_compute_may_be_overridden(base):
    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = 5.0
        return 0

    rotation = make_rotation(base, attributes={"compute": compute})
    assert rotation(np.zeros(6)).tolist() == [5.0] * 6
