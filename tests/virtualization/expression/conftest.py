"""A fresh rotation that parses."""

import pytest

from support.fakes import make_rotation


@pytest.fixture
def rotation(base):
    return make_rotation(base)
