"""The programs of tools/wheels, imported as modules."""

import importlib.util
from pathlib import Path

ROOT = Path(__file__).parents[2]


def program(name):
    """The module of one of them."""
    spec = importlib.util.spec_from_file_location(name, ROOT / f"tools/wheels/{name}.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module
