"""A fresh rotation, and its step that normalises an item."""

import pytest

from support.fakes import make_rotation


@pytest.fixture
def rotation(base):
    return make_rotation(base)


@pytest.fixture
def normalize(rotation):
    return rotation._normalize_structure
