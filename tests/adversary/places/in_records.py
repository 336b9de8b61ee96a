"""Places in a record that the rotation's own step made, and that is nothing like the usual ones."""

from adversary.places.in_items import LEGS
from adversary.places.names import names_of
from adversary.values.containers import Parts
from adversary.values.items import Thing
from adversary.values.numbers import Comparing, TruthOf
from adversary.values.triggers import firing, watched


def give_record(rotation, make):
    def _normalize_structure(raw):
        record = type(rotation)._normalize_structure(rotation, raw)
        return make(record) if record.key == ("b",) else record

    rotation._normalize_structure = _normalize_structure


def record_property(trigger, name):
    def make(record):
        fields = vars(record)
        result = fields.pop(name)

        def read(self):
            trigger.fire()
            return result

        return type("Record", (), {**fields, name: property(read)})()

    return make


def record_with(**changed):
    return lambda record: Thing(**{**vars(record), **changed})


def place_record_key(rotation, trigger):
    give_record(rotation, record_property(trigger, "key"))


def place_record_legs(rotation, trigger):
    give_record(rotation, record_property(trigger, "legs"))


def place_record_value(rotation, trigger):
    give_record(rotation, record_property(trigger, "value"))


def place_record_metadata(rotation, trigger):
    give_record(rotation, record_property(trigger, "metadata"))


def place_record_metadata_truth(rotation, trigger):
    give_record(rotation, record_with(metadata=TruthOf(trigger, False)))


def place_record_legs_iteration(rotation, trigger):
    give_record(rotation, record_with(legs=Parts(trigger, LEGS)))


def place_record_leg_id_comparison(rotation, trigger):
    legs = ((0, 1.0), (watched(Comparing, trigger, 1), 0.5))
    give_record(rotation, record_with(legs=legs))


def place_record_leg_id_index(rotation, trigger):
    class Id:
        def __index__(self):
            trigger.fire()
            return 1

        def __lt__(self, other):
            return other > 1

        def __ge__(self, other):
            return other <= 1

    give_record(rotation, record_with(legs=((0, 1.0), (Id(), 0.5))))


def place_record_value_test(rotation, trigger):
    value = firing(trigger, __array_ufunc__=True, __float__=2.0)
    give_record(rotation, record_with(value=value))


def place_record_value_conversion(rotation, trigger):
    class Value(float):
        def __float__(self):
            trigger.fire()
            return 2.0

    give_record(rotation, record_with(value=Value(1.0)))


RECORD_PLACES = names_of("place_", globals())
