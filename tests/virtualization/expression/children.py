"""Expressions parsed by a fresh rotation, and what is asked of the registry."""

import pytest

EWMA = "longitudinal_ewma_67301c"
ZSCORE = "latitudinal_normalize_092871"
RANK = "latitudinal_rank_688068"


def requests(siblings):
    """Return the (registry name, params) that the stand-in registry was asked for."""
    return [event[1:] for event in siblings.registry_log if event[0] == "create"]


def failure(rotation, expression):
    """Parse the expression, which must be a ValueError, and return the error."""
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        rotation._parse_transformation_expression(expression)
    return caught.value
