"""What once took the interpreter down, each in an interpreter of its own; sanitizers see more."""

import os
import subprocess
import sys

import pytest

CASES = {}
CASES["qualified_name_deleted_then_shown"] = r"""
from quorvane.functions.rotations.virtualization import base
f = base.VirtualizationBase.compute
try:
    del f.__qualname__
except (TypeError, AttributeError):
    pass
repr(f)
"""

CASES["qualified_name_deleted_then_called"] = r"""
from quorvane.functions.rotations.virtualization import base
f = base.VirtualizationBase.compute
try:
    del f.__qualname__
except (TypeError, AttributeError):
    pass
try:
    f(1)
except TypeError:
    pass
"""

CASES["qualified_name_deleted_then_copied"] = r"""
import copy
from quorvane.functions.rotations.virtualization import base
f = base.VirtualizationBase.compute
try:
    del f.__qualname__
except (TypeError, AttributeError):
    pass
copy.copy(f)
"""

CASES["qualified_name_that_is_no_string"] = r"""
from quorvane.functions.rotations.virtualization import base
f = base.VirtualizationBase.compute
try:
    f.__qualname__ = 5
except TypeError:
    pass
try:
    f(1)
except TypeError:
    pass
repr(f)
"""

CASES["class_kept_from_a_failed_import"] = r'''
"""A hook keeps a class of a module whose initialisation then fails."""
import sys, types, gc
stash = []
class Base:
    def __init_subclass__(cls, **kw):
        stash.append(cls)
        raise ValueError("no")
fake = types.ModuleType("quorvane.functions.rotations._boilerplate"); fake.RotationBase = Base
sys.modules[fake.__name__] = fake
import importlib
try: importlib.import_module("quorvane.functions.rotations.virtualization.base")
except ValueError as e: print("import failed:", e)
C = stash[0]
gc.collect()
o = C.__new__(C)
try: print(o.stateful)
except BaseException as e: print(type(e), e)
try: print(o.get_state())
except BaseException as e: print(type(e), e)
'''

CASES["dataclass_that_makes_no_class"] = r"""
import dataclasses
dataclasses.dataclass = lambda cls: 5
import quorvane.functions.rotations.virtualization.base as b
print(b.VirtualStructure)
"""

CASES["numpy_that_is_no_module"] = r"""
import sys, types, numpy
class Proxy:
    def __getattr__(self, name): return getattr(numpy, name)
sys.modules["numpy"] = Proxy()
import quorvane.functions.rotations.virtualization.base as b
print(b.np)
"""

CASES["metaclass_that_drops_the_class_cell"] = r"""
import sys, types, gc
class Meta(type):
    def __new__(m, n, b, ns, **kw):
        ns = dict(ns); ns.pop("__classcell__", None)
        return super().__new__(m, n, b, ns, **kw)
class Base(metaclass=Meta):
    def __init__(self, **kw): pass
    def __call__(self, *a, context=None): return None
fake = types.ModuleType("quorvane.functions.rotations._boilerplate"); fake.RotationBase = Base
sys.modules[fake.__name__] = fake
import importlib
b = importlib.import_module("quorvane.functions.rotations.virtualization.base")
o = b.VirtualizationBase.__new__(b.VirtualizationBase); o._n_alloc = 3
try: o([1.0])
except BaseException as e: print(type(e), e)
"""

CASES["table_replaced_by_a_key_of_the_instance"] = r"""
import sys, gc, numpy as np
from quorvane.functions.rotations.virtualization import base
class V(base.VirtualizationBase):
    def _refresh_active_structures(self, *a): return []
v = V(max_structures=3, transformation_expression="none", N_alloc=4)
class Evil(str):
    armed = False
    def __hash__(self): return hash("max_structures")
    def __eq__(self, other):
        if Evil.armed:
            Evil.armed = False
            v._legs_by_slot = {0: ((0, 1.0),)}
            gc.collect()
            junk = [dict() for _ in range(50)]
        return False
cap = v.__dict__.pop("max_structures")
v.__dict__[Evil("x")] = 1
v.__dict__["max_structures"] = cap
v._legs_by_slot = {0: ((0, 1.0),), 1: ((1, 2.0),)}
out = np.zeros(4)
Evil.armed = True
v._unmap(np.array([1.0, 2.0, 3.0]), out, 4)
print(out)
"""

CASES["dictionary_replaced_by_a_key_of_the_instance"] = r"""
import sys, gc, numpy as np
from quorvane.functions.rotations.virtualization import base
class V(base.VirtualizationBase):
    def _refresh_active_structures(self, *a): return []
v = V(max_structures=3, transformation_expression="none", N_alloc=4)
class Evil:
    armed = False
    def __hash__(self): return hash("max_structures")
    def __eq__(self, other):
        if Evil.armed:
            Evil.armed = False
            v.__dict__ = dict(saved)
            gc.collect()
        return False
cap = v.__dict__.pop("max_structures")
v.__dict__[Evil()] = 1
v.__dict__["max_structures"] = cap
saved = dict(v.__dict__)
out = np.zeros(4)
Evil.armed = True
v._unmap(np.array([1.0, 2.0, 3.0]), out, 4)
print(out)
"""

CASES["row_resized_by_a_key_of_the_module"] = r'''
"""A key in the module's globals, equal in hash to "np", resizes the row that is being filled."""
import numpy as np
from quorvane.functions.rotations.virtualization import base
class V(base.VirtualizationBase):
    def _refresh_active_structures(self, *a): return []
v = V(max_structures=3000, transformation_expression="none", N_alloc=4)
g = vars(base)
class Evil:
    armed = 0
    def __hash__(self): return hash("np")
    def __eq__(self, other):
        if Evil.armed:
            Evil.armed -= 1
            v._txi_input.resize(1, refcheck=False)
        return False
n = g.pop("np"); g[Evil()] = 1; g["np"] = n
Evil.armed = 1
try: print(v([1.0, 2.0, 3.0, 4.0]))
except BaseException as e: print(repr(e))
'''

CASES["step_outlives_its_module"] = r'''
"""The three step functions outlive their dropped module; the dictionary they look into does not."""
import sys, gc, importlib
name = "quorvane.functions.rotations.virtualization.base"
importlib.import_module(name)
del sys.modules[name]
pk = sys.modules["quorvane.functions.rotations.virtualization"]
if hasattr(pk, "base"): del pk.base
gc.collect(); gc.collect()
for f in gc.get_objects():
    if type(f).__name__ == "native_function" and "VirtualizationBase._normalize" in repr(f):
        print(repr(f))
        print(f(None, {"key": (1,), "legs": [], "value": 1.0}))
'''

CASES["child_space_made_smaller"] = r"""
import numpy as np
from quorvane.functions.rotations.virtualization import base
class V(base.VirtualizationBase):
    items = []
    def _refresh_active_structures(self, *a): return self.items
v = V(max_structures=1000, transformation_expression="none", N_alloc=4)
V.items = [{"key": (i,), "legs": ((0, 1.0),), "value": 1.0} for i in range(1000)]
row = np.arange(4.0)
v(row); v(row)
v.max_structures = 2
v._metadata_by_slot = [{"active": False} for _ in range(2)]
v._txi_input = np.zeros(2); v._txi_output = np.zeros(2)
try: print(v(row))
except BaseException as e: print(repr(e))
"""

CASES["memory_forgotten_during_a_day"] = r"""
import numpy as np, weakref, gc
from quorvane.functions.rotations.virtualization import base
class V(base.VirtualizationBase):
    items = [{"key": (i,), "legs": ((0, 1.0),), "value": 1.0} for i in range(3)]
    def _refresh_active_structures(self, *a): return self.items
v = V(max_structures=3, transformation_expression="none", N_alloc=4)
row = np.arange(4.0)
v(row); v(row)
class Entry(dict):
    def clear(self):
        for r in weakref.getweakrefs(v):
            if r.__callback__ is not None: r.__callback__(r)
        super().clear()
v._metadata_by_slot[2] = Entry()
# an entry that is no plain dict keeps the run from being possible, so it goes away again
class Once(dict):
    def clear(self):
        for r in weakref.getweakrefs(v):
            if r.__callback__ is not None: r.__callback__(r)
        v._metadata_by_slot[2] = {"active": False}
        super().clear()
v._metadata_by_slot[2] = Once()
print(v(row))
"""


@pytest.mark.parametrize("name", CASES)
def test_the_interpreter_survives(name):
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", CASES[name]],
        env={
            "PYTHONMALLOC": "debug",
            **os.environ,
            "PYTHONPATH": os.pathsep.join(filter(None, sys.path)),
        },
        capture_output=True,
        text=True,
        timeout=100,
        check=False,
    )
    assert done.returncode in (0, 1), done.stderr[-3000:]
    assert "Sanitizer" not in done.stderr, done.stderr[-3000:]


def test_a_dropped_module_is_freed():
    import gc
    import importlib

    name = "quorvane.functions.rotations.virtualization.base"
    kept = sys.modules.pop(name, None)

    def functions_after_an_import():
        importlib.import_module(name)
        sys.modules.pop(name)
        parent, _, leaf = name.rpartition(".")
        vars(sys.modules[parent]).pop(leaf, None)
        gc.collect()
        gc.collect()
        return sum(type(thing).__name__ == "native_function" for thing in gc.get_objects())

    try:
        first = functions_after_an_import()
        assert functions_after_an_import() == first
    finally:
        if kept is not None:
            sys.modules[name] = kept
            vars(sys.modules[name.rpartition(".")[0]])["base"] = kept
