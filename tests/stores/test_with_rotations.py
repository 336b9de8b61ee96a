"""Rotations that are stopped and go on from a store."""

import contextlib
import warnings

import numpy as np
import pytest

import quorvane as qv
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.stores import DamagedRecordWarning, DirectoryStore, MemoryStore
from stores.support.samples import exactly_equal

INSTRUMENTS = 6
SLOTS = 9
EXPRESSIONS = [
    "none",
    "ewma(5)",
    "zscore",
    "rank",
    "sigmoid",
    "ewma(3);rank",
    "zscore;sigmoid",
    "ewma(2);ewma(7)",
    "ewma(4);zscore;rank;sigmoid",
]


def random_baskets():
    generator = np.random.default_rng(3)
    for number in range(SLOTS - 1):
        ids = generator.choice(INSTRUMENTS, size=1 + number % 3, replace=False)
        yield ("basket", number), tuple((int(i), float(generator.normal())) for i in ids)


BASKETS = list(random_baskets())


def new_rotation(base, expression, policy="proportional"):
    """Make a rotation whose baskets the second input switches on and off."""

    class Switched(base.VirtualizationBase):
        _name = "switched"
        arity = 2

        def _refresh_active_structures(self, values, inputs, masks, combined, N):
            for active, (key, legs) in zip(inputs[0], BASKETS, strict=True):
                if active:
                    value = sum(values[i] * weight for i, weight in legs)
                    yield {"key": key, "legs": legs, "value": value, "metadata": {"day": value}}

    return Switched(
        max_structures=SLOTS,
        transformation_expression=expression,
        N_alloc=INSTRUMENTS,
        unmap_policy=policy,
    )


def random_days(count):
    generator = np.random.default_rng(11)
    values = generator.normal(size=(count, INSTRUMENTS))
    values[generator.random(values.shape) < 0.1] = np.nan
    # Baskets turn up one after another, and come and go.
    started = np.arange(count)[:, None] >= 4 * np.arange(SLOTS - 1)
    active = (generator.random((count, SLOTS - 1)) < 0.7) & started
    return list(zip(values, active.astype(float), strict=True))


def run(rotation, days):
    with np.errstate(all="ignore"):
        return [rotation(values, active).tobytes() for values, active in days]


@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_stopping_after_every_day_changes_no_bit(real_base, expression):
    days = random_days(250)
    uninterrupted = run(new_rotation(real_base, expression), days)
    place = MemoryStore()
    outputs = []
    for day in days:
        rotation = new_rotation(real_base, expression)
        assert rotation.recover(place) is bool(outputs)
        outputs += run(rotation, [day])
        rotation.checkpoint(place)
    assert outputs == uninterrupted


@pytest.mark.parametrize("expression", ["ewma(3);rank", "ewma(4);zscore;rank;sigmoid"])
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
def test_stopping_once_changes_no_bit_and_no_later_state(real_base, expression, policy, durable):
    days = random_days(60)
    uninterrupted = new_rotation(real_base, expression, policy)
    expected = run(uninterrupted, days)
    before = new_rotation(real_base, expression, policy)
    for k in range(0, 61, 6):
        before.checkpoint(durable)
        after = new_rotation(real_base, expression, policy)
        assert after.recover(durable) is True
        assert exactly_equal(after.get_state(), before.get_state())
        assert run(after, days[k:]) == expected[k:]
        assert exactly_equal(after.get_state(), uninterrupted.get_state())
        run(before, days[k : k + 6])


def test_a_key_that_equals_only_itself_recovers(real_base, store):
    # The two maps are each other's inverse only as long as they share the not-a-number.
    rotation = new_rotation(real_base, "none")
    rotation.slot_by_key = {("a", float("nan")): 0, ("b",): 1}
    rotation.key_by_slot = {slot: key for key, slot in rotation.slot_by_key.items()}
    rotation.checkpoint(store)
    assert new_rotation(real_base, "none").recover(store) is True


def test_an_empty_store_recovers_nothing(real_base, store):
    rotation = new_rotation(real_base, "ewma(5)")
    before = rotation.get_state()
    assert rotation.recover(store) is False
    assert exactly_equal(rotation.get_state(), before)


def test_the_record_does_not_follow_the_rotation(real_base, store):
    days = random_days(30)
    rotation = new_rotation(real_base, "ewma(5)")
    run(rotation, days[:20])
    rotation.checkpoint(store)
    expected = run(rotation, days[20:])
    assert rotation.recover(store) is True
    assert run(rotation, days[20:]) == expected


def snapshot(rotation):
    """Return the attributes themselves and a picture of what is in them."""
    pictures = [dict(rotation.slot_by_key), dict(rotation.key_by_slot), rotation.get_state()]
    return dict(vars(rotation)), repr(pictures)


def assert_unchanged(rotation, before):
    attributes, picture = before
    assert list(vars(rotation)) == list(attributes)
    assert all(vars(rotation)[name] is value for name, value in attributes.items())
    assert snapshot(rotation)[1] == picture


@contextlib.contextmanager
def damage_expected():
    with pytest.warns(DamagedRecordWarning, match="is damaged"):
        yield


@pytest.mark.parametrize("way", ["flip", "truncate"])
def test_damage_to_any_byte_fails_to_recover_and_changes_nothing(real_base, tmp_path, way):
    place = DirectoryStore(tmp_path)
    stored = new_rotation(real_base, "ewma(5)")
    run(stored, random_days(3))
    stored.checkpoint(place)
    (file,) = tmp_path.iterdir()
    intact = file.read_bytes()
    rotation = new_rotation(real_base, "ewma(5)")
    run(rotation, random_days(40)[10:])
    before = snapshot(rotation)
    for position in range(len(intact)):
        changed = bytearray(intact)
        changed[position] ^= 1 << position % 8
        file.write_bytes(changed if way == "flip" else intact[:position])
        with damage_expected():
            assert rotation.recover(place) is False
    assert_unchanged(rotation, before)
    file.write_bytes(intact)
    assert rotation.recover(place) is True
    assert exactly_equal(rotation.get_state(), stored.get_state())


def test_a_stored_state_of_another_shape_fails_to_recover_and_changes_nothing(real_base, store):
    rotation = new_rotation(real_base, "ewma(5)")
    run(rotation, random_days(20))
    before = snapshot(rotation)
    for state in ([], None, "text", {"slot_by_key": {(1,): SLOTS}}, {"child_states": [{}, {}]}):
        store.write("switched", state)
        assert rotation.recover(store) is False
        assert_unchanged(rotation, before)


PAIR = {"pair": {"A": 1.0, "B": -1.0}}
OTHERWISE = {
    "another window": (PAIR, {"transformation_expression": "ewma(7)"}),
    "a basket more": ({**PAIR, "B": {"B": 1.0}}, {"transformation_expression": "ewma(5)"}),
    "another size": (PAIR, {"transformation_expression": "ewma(5)", "max_structures": 2}),
}


@pytest.mark.parametrize(("baskets", "options"), OTHERWISE.values(), ids=OTHERWISE)
def test_a_rotation_made_otherwise_recovers_without_a_word_and_set_state_says_why(
    store, baskets, options
):
    before = FixedBaskets(PAIR, ["A", "B"], transformation_expression="ewma(5)")
    before(np.array([0.1, 0.2]))
    before.checkpoint(store)
    rotation = FixedBaskets(baskets, ["A", "B"], **options)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert rotation.recover(store) is False
    with pytest.raises((ValueError, TypeError)) as caught:
        rotation.set_state(store.load("fixed_baskets"))
    assert str(caught.value)


def test_baskets_are_saved_in_every_store_and_go_on_from_it(store):
    weights = {"pair": {"A": 1.0, "B": -1.0}, "mix": {"A": 0.5, "C": 0.5}}
    days = np.random.default_rng(4).normal(size=(20, 3))

    def new():
        return qv.Baskets(weights, "ewma(5);zscore", instruments=["A", "B", "C"])

    whole = new().run(days)
    stopped, later = new(), new()
    first = stopped.run(days[:11])
    stopped.save(store, name="mine")
    later.load(store, name="mine")
    assert np.vstack([first, later.update(days[11:])]).tobytes() == whole.tobytes()
    with pytest.raises(LookupError, match="'other'"):
        new().load(store, name="other")


def test_instances_of_one_class_need_namespaces(real_base, tmp_path):
    days = random_days(10)
    stores = [DirectoryStore(tmp_path, namespace=text) for text in ("first", "second")]
    for count, place in zip((4, 9), stores, strict=True):
        rotation = new_rotation(real_base, "ewma(5)")
        run(rotation, days[:count])
        rotation.checkpoint(place)
    for count, place in zip((4, 9), stores, strict=True):
        expected, back = new_rotation(real_base, "ewma(5)"), new_rotation(real_base, "ewma(5)")
        run(expected, days[:count])
        assert back.recover(place) is True
        assert exactly_equal(back.get_state(), expected.get_state())
