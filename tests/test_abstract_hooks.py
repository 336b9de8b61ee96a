import pytest

from quorvane.functions._abstract_hooks import abstract_method_required


def test_raises_naming_the_method_and_what_to_do():
    with pytest.raises(NotImplementedError, match=r"^Spread\.compute is abstract: a subclass must"):
        abstract_method_required("Spread.compute")
