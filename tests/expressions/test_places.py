"""The groups of slots: one array for each label, which follows whoever has the slots."""

import numpy as np
import pytest

from quorvane.expressions import Places

LABELS = {"kind": {"a": "x", "b": "y", "c": "x"}, "size": {"a": 1}}


def test_slots_are_in_no_group_until_they_are_somebodys():
    places = Places(3, LABELS)
    assert not places.has_groups
    groups = places.groups("kind")
    assert places.has_groups
    np.testing.assert_array_equal(groups, [-1, -1, -1])
    assert groups.dtype == np.int64


def test_one_array_for_each_label_follows_the_slots():
    places = Places(3, LABELS)
    kinds, sizes = places.groups("kind"), places.groups("size")
    assert places.groups("kind") is kinds
    for slot, structure in enumerate("cba"):
        places.assign(slot, structure)
    np.testing.assert_array_equal(kinds, [0, 1, 0])
    np.testing.assert_array_equal(sizes, [-1, -1, 0])
    places.assign(2, "b")
    np.testing.assert_array_equal(kinds, [0, 1, 1])
    np.testing.assert_array_equal(sizes, [-1, -1, -1])


def test_labels_are_required_of_what_functions_go_by_alone():
    places = Places(3, LABELS)
    places.require_labels("abcd")
    places.groups("kind")
    places.require_labels("abc")
    with pytest.raises(ValueError, match=r"labels: 'kind' has none for 'd', 'e'$"):
        places.require_labels("abcde")
    with pytest.raises(ValueError, match=r"labels: 'kind' has none for .* and 5 more$"):
        places.require_labels(range(15))


@pytest.mark.parametrize("by", [3, True, ("kind",), b"kind"])
def test_a_label_is_named_by_a_text(by):
    with pytest.raises(TypeError, match="by must be the name of a label, got"):
        Places(1, LABELS).groups(by)


@pytest.mark.parametrize(
    ("labels", "hint"),
    [
        (LABELS, "did you mean 'kind'?"),
        ({"size": {}, "x": {}}, "known are 'size', 'x'"),
        ({}, "none are given"),
    ],
)
def test_a_misspelt_label_gets_a_hint(labels, hint):
    with pytest.raises(ValueError, match="labels") as caught:
        Places(1, labels).groups("knid")
    assert str(caught.value) == f"labels: there is no 'knid'; {hint}"
