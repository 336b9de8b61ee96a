"""Every place in a day where the user's code can run, meeting every harm that it can do there."""

import pytest

from adversary.actions.in_days import HARMS
from adversary.day import hostile_days
from adversary.places.in_days import DELETIONS, PLACES
from adversary.places.in_items import ITEM_PLACES
from support.siblings import both_modules

pytestmark = pytest.mark.usefixtures("quick_collections")


# What a finalizer raises reaches nobody but the hook for unraisable errors.
CASES = [
    (place, harm)
    for place in sorted([*ITEM_PLACES, *PLACES])
    for harm in HARMS
    if not (place in DELETIONS and harm.startswith("raises"))
]


@pytest.mark.hostile
@pytest.mark.parametrize(("place", "harm"), CASES, ids=map(" ".join, CASES))
def test_harm_in_the_middle_of_a_day(place, harm):
    different = []
    for action in HARMS[harm]:
        native, twin = (hostile_days(base, place, action.__name__) for base in both_modules())
        assert twin[-1] == 1, "the place never ran its action"
        if native != twin:
            different.append(action.__name__)
    assert different == []
