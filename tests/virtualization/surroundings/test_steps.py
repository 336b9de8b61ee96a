"""Steps put in place of others."""

import types

import pytest

from support.siblings import Siblings, load_base, plain_rotation_base
from virtualization.surroundings.helpers import OtherNumpy, a_day, both, steady

STEPS = ["_normalize_structure", "_slot_for_key", "_structure_is_valid"]
OTHERS = [*STEPS, "compute", "get_state", "resize", "_unmap", "_validate_child_states"]


@pytest.mark.parametrize("step", STEPS)
@pytest.mark.parametrize("other", OTHERS)
@pytest.mark.parametrize("place", ["class", "subclass", "instance"])
def test_step_that_is_another_native_function_is_called_as_it_is(step, other, place):
    def scenario(base):
        rotation = steady(base)
        log = [a_day(rotation)]
        function = vars(base.VirtualizationBase)[other]
        owners = {"class": base.VirtualizationBase, "subclass": type(rotation)}
        setattr(owners.get(place, rotation), step, function)
        return [*log, a_day(rotation), a_day(rotation)]

    both(scenario)


@pytest.mark.parametrize("step", STEPS)
def test_step_may_be_replaced_while_the_class_is_being_made(step):
    class Base(plain_rotation_base()):
        def __init_subclass__(cls, **further):
            super().__init_subclass__(**further)
            if cls.__name__ == "VirtualizationBase":
                setattr(cls, step, cls.compute)

    both(lambda base: a_day(steady(base)), RotationBase=Base)


@pytest.mark.parametrize("step", STEPS)
def test_step_of_another_import_goes_by_that_imports_globals(step):
    def scenario(base, kinds):
        other = load_base(kinds[base.__file__.endswith("twin.py")], Siblings())
        other.np = OtherNumpy(isfinite=lambda value: False)
        other.VirtualStructure = lambda key, legs, value, metadata: types.SimpleNamespace(
            key=key, legs=legs, value=value + 1, metadata=metadata
        )
        rotation = steady(base)
        log = [a_day(rotation)]
        setattr(type(rotation), step, vars(other.VirtualizationBase)[step])
        return [*log, a_day(rotation), a_day(rotation)]

    both(scenario, ["native", "twin"])
