import subprocess
import sys

import numpy as np
import pytest

from quorvane.functions._registry import StaticFunctionRegistry
from quorvane.functions.rotations._boilerplate import RotationBase
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.numerical.transcendental import Transcendental
from support.series import same_bits

READY_MADE = {
    "latitudinal_normalize_092871": (ZScore, {}),
    "latitudinal_rank_688068": (Rank, {}),
    "longitudinal_ewma_67301c": (Ewma, {"window": 20}),
    "numerical_transcendental_2f4f61": (Transcendental, {}),
}


class Negate(RotationBase):
    _name = "negate"

    def compute(self, args, nan_masks, combined_nan_mask, output_buf, N):
        output_buf[:N] = -args[0]
        return 0


@pytest.fixture
def clean_registry(monkeypatch):
    monkeypatch.setattr(StaticFunctionRegistry, "_registered", {})


@pytest.mark.parametrize("name", READY_MADE)
def test_makes_the_ready_made_rotations(name):
    cls, params = READY_MADE[name]
    rotation = StaticFunctionRegistry(N_alloc=7).create_instance(name, **params)
    assert type(rotation) is cls
    assert rotation._name == name
    assert rotation._n_alloc == 7
    assert rotation.parameters.items() >= params.items()


def test_every_instance_is_new():
    registry = StaticFunctionRegistry(N_alloc=7)
    name = "latitudinal_rank_688068"
    assert registry.create_instance(name) is not registry.create_instance(name)


def test_lists_the_names():
    assert StaticFunctionRegistry.names() == sorted(READY_MADE)


@pytest.mark.usefixtures("clean_registry")
def test_a_rotation_of_ones_own():
    StaticFunctionRegistry.register("my_negate", Negate)
    assert StaticFunctionRegistry(N_alloc=2).names() == sorted([*READY_MADE, "my_negate"])
    rotation = StaticFunctionRegistry(N_alloc=2).create_instance("my_negate", speed=3)
    assert same_bits(rotation([1.0, 2.0]), [-1.0, -2.0])
    assert rotation.parameters == {"speed": 3}


@pytest.mark.usefixtures("clean_registry")
def test_registering_again_replaces():
    StaticFunctionRegistry.register("mine", Negate)
    StaticFunctionRegistry.register("mine", Rank)
    assert type(StaticFunctionRegistry(N_alloc=1).create_instance("mine")) is Rank


@pytest.mark.parametrize("name", ["longitudinal_ewma", "ewma", "longitudinal_ewma_67301d"])
def test_an_unknown_name_lists_the_nearest(name):
    registry = StaticFunctionRegistry(N_alloc=1)
    with pytest.raises(LookupError) as error:
        registry.create_instance(name)
    assert str(error.value).startswith(f"no rotation is registered as {name!r}; the ")
    assert "longitudinal_ewma_67301c" in str(error.value)


@pytest.mark.parametrize("name", [[], None, 5, b"ewma"])
def test_a_name_must_be_a_text(name):
    with pytest.raises(TypeError, match=r"name must be a str, got .* of type"):
        StaticFunctionRegistry(N_alloc=1).create_instance(name)


def test_a_name_like_no_other_lists_all():
    with pytest.raises(LookupError) as error:
        StaticFunctionRegistry(N_alloc=1).create_instance("~~~")
    assert all(name in str(error.value) for name in READY_MADE)


@pytest.mark.parametrize("name", ["", "latitudinal_rank_688068"])
def test_names_that_cannot_be_taken(name):
    with pytest.raises(ValueError, match="name must not be empty or a name of this package"):
        StaticFunctionRegistry.register(name, Negate)


def test_what_cannot_be_registered():
    with pytest.raises(TypeError, match="name must be a str, got 3 of type int"):
        StaticFunctionRegistry.register(3, Negate)
    with pytest.raises(TypeError, match="factory must be callable, got 5"):
        StaticFunctionRegistry.register("five", 5)


@pytest.mark.parametrize(
    ("N_alloc", "error"), [(True, TypeError), (1.0, TypeError), (0, ValueError), (-3, ValueError)]
)
def test_a_bad_allocation(N_alloc, error):
    with pytest.raises(error, match="N_alloc must be None or a positive int, got"):
        StaticFunctionRegistry(N_alloc=N_alloc)


def test_errors_of_a_factory_propagate():
    with pytest.raises(ValueError, match="window must be a positive int, got 0"):
        StaticFunctionRegistry(N_alloc=1).create_instance("longitudinal_ewma_67301c", window=0)
    with pytest.raises(TypeError, match="window"):
        StaticFunctionRegistry(N_alloc=1).create_instance("longitudinal_ewma_67301c")


def test_without_an_allocation_rotations_grow():
    rotation = StaticFunctionRegistry(N_alloc=None).create_instance("latitudinal_rank_688068")
    assert rotation(np.arange(9.0)).shape == (9,)


def test_children_are_imported_when_they_are_asked_for():
    code = (
        "import sys; from quorvane.functions._registry import StaticFunctionRegistry as R;"
        "R(N_alloc=1).names(); assert not any('rotations' in name for name in sys.modules);"
        "R(N_alloc=1).create_instance('latitudinal_rank_688068');"
        "assert not any('ewma' in name for name in sys.modules)"
    )
    subprocess.run([sys.executable, "-c", code], check=True)
