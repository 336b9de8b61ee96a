"""Both modules, for tests that play the same days on each."""

import pytest

from support.siblings import Siblings, installed_base


@pytest.fixture(scope="module")
def modules():
    with (
        installed_base("native", Siblings()) as native,
        installed_base("twin", Siblings()) as twin,
    ):
        yield native, twin
