"""What the compiled objects hold, the garbage collector sees, and it can take all of it away."""

import gc
import weakref

import numpy as np
import pytest

from quorvane.functions.rotations import _boilerplate
from quorvane.functions.rotations.latitudinal import normalize, rank
from quorvane.functions.rotations.longitudinal import ewma
from quorvane.functions.rotations.numerical import transcendental
from quorvane.functions.rotations.virtualization import base
from safety.subjects.rotations import plain_columns
from support.siblings import Siblings, load_base

pytestmark = pytest.mark.usefixtures("all_collected")

ROTATIONS = [
    _boilerplate.RotationBase,
    ewma.Ewma,
    normalize.ZScore,
    rank.Rank,
    transcendental.Transcendental,
    base.VirtualizationBase,
]


def holds(holder, held):
    return any(found is holder for found in gc.get_referrers(held))


class Text(str):
    """String that the collector follows."""


@pytest.mark.parametrize("rotation", ROTATIONS, ids=lambda rotation: rotation.__name__)
def test_function_shows_what_it_holds(rotation):
    function = rotation.__dict__["__init__"]
    doc, module_name = function.__doc__, function.__module__
    try:
        function.__doc__, function.__module__ = Text("doc"), Text("module")
        for held in (
            type(function),
            function.__doc__,
            function.__module__,
            function.__annotations__,
            function.__dict__,
        ):
            assert holds(function, held), held
    finally:
        function.__doc__, function.__module__ = doc, module_name


def test_function_shows_its_module():
    module = load_base("native", Siblings())
    assert holds(module.VirtualizationBase.compute, module)


@pytest.mark.parametrize(
    "module",
    [_boilerplate, ewma, normalize, rank, transcendental, base],
    ids=lambda module: module.__name__,
)
def test_module_shows_the_type_of_its_functions(module):
    rotation = next(each for each in ROTATIONS if each.__module__ == module.__name__)
    assert holds(module, type(rotation.__dict__["__init__"]))


def test_boilerplate_shows_the_hook_it_took():
    from quorvane.functions import _abstract_hooks

    assert holds(_boilerplate, _abstract_hooks.abstract_method_required)


def test_base_shows_what_it_remembers_of_its_import():
    module = load_base("native", Siblings())
    init = module.VirtualStructure.__init__
    for held in (
        vars(module),
        module.VirtualStructure,
        init,
        init.__code__,
        module._VirtualContext,
        module._AllOnesVirtualMask,
    ):
        assert holds(module, held), held


def test_columns_show_what_they_hold():
    columns = plain_columns()
    for held in (type(columns), columns.keys, columns.legs, columns.values):
        assert holds(columns, held), held


def functions_of(module):
    for owner in (module.VirtualizationBase, module._VirtualContext, module._AllOnesVirtualMask):
        yield from (each for each in vars(owner).values() if hasattr(each, "__text_signature__"))


@pytest.mark.parametrize("bare", [False, True])
def test_functions_go_with_a_dropped_module(bare):
    module = load_base("native", Siblings())
    functions = [each for each in functions_of(module) if type(each).__name__ == "native_function"]
    assert len(functions) > 20
    gone = []
    for function in functions:
        function.itself = function
        if bare:
            del function.__doc__, function.__module__, function.__annotations__
    alive = [weakref.ref(function, gone.append) for function in functions]
    del module, functions, function
    gc.collect()
    assert [reference() for reference in alive] == [None] * len(alive)
    assert len(gone) == len(alive)


def test_function_goes_with_its_last_name():
    module, gone = load_base("native", Siblings()), []
    reference = weakref.ref(vars(module.VirtualizationBase)["resize"], gone.append)
    assert reference() is not None
    del module.VirtualizationBase.resize
    assert reference() is None
    assert gone == [reference]


def test_day_survives_the_collection_of_everything_else():
    module = load_base("native", Siblings())
    day = module.VirtualizationBase.compute
    del module
    gc.collect()
    with pytest.raises(AttributeError, match="_refresh_active_structures"):
        day(object(), (np.ones(1),), (), None, None, 1)
