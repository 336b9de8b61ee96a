"""The module and its plain twin, both standing on the package's real siblings."""

import functools

from support.days import day_rotation_class
from support.siblings import installed_real_base


@functools.cache
def both_modules():
    """Load the two modules, once."""
    modules = []
    for kind in ["native", "twin"]:
        with installed_real_base(kind) as base:
            modules.append(base)
    return modules


@functools.cache
def usual_class(base):
    """Concrete subclass that reports `self.items`, for inputs that leave classes as they are.

    Steps that are overridden in the middle of a day note their calls in the class's `log`.
    """
    made = day_rotation_class(base)
    made.log = []
    return made
