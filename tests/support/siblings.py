"""Stand-in sibling modules, and loading the module under test upon them.

The module stands on whatever siblings it finds, so the tests choose them:

    siblings = Siblings()                          # plain-Python stand-ins, recording
    with installed_base("native", siblings) as base:
        ...                                        # base.VirtualizationBase, base._VirtualContext

`kind` is "native" (a fresh instance of the built extension) or "twin" (the plain-Python module of
tests/support/twin.py). Every call makes a fresh module, so rebinding its globals harms no one.
"""

import contextlib
import functools
import importlib
import importlib.machinery
import importlib.util
import sys
import types
from pathlib import Path

import numpy as np

BASE_NAME = "quorvane.functions.rotations.virtualization.base"
HOOKS_NAME = "quorvane.functions._abstract_hooks"
BOILERPLATE_NAME = "quorvane.functions.rotations._boilerplate"
REGISTRY_NAME = "quorvane.functions._registry"

_TWIN_PATH = Path(__file__).with_name("twin.py")
_PACKAGE_NAMES = [
    "quorvane",
    "quorvane.functions",
    "quorvane.functions.rotations",
    "quorvane.functions.rotations.virtualization",
]


def plain_rotation_base():
    """Make a fresh plain-Python RotationBase that keeps the framework's contract.

    `init_calls` of the class lists the keyword dicts of its initialiser, oldest first.
    """

    calls = []

    class RotationBase:
        """Plain stand-in for the framework's rotation base."""

        _name = "rotation_base"
        arity = 1
        init_calls = calls

        def __init__(self, *, N_alloc=None, **parameters):
            calls.append({"N_alloc": N_alloc, **parameters})
            self._n_alloc = N_alloc
            self._output_buf = np.full(N_alloc or 0, np.nan, dtype=np.float64)
            self._combined_nan_buf = np.zeros(N_alloc or 0, dtype=np.uint8)
            self.parameters = parameters

        def __call__(self, *args, context=None):
            inputs = tuple(np.asarray(value, dtype=np.float64) for value in args)
            N = inputs[0].shape[-1]
            if self._n_alloc is None and self._output_buf.shape[0] < N:
                self._output_buf = np.full(N, np.nan, dtype=np.float64)
                self._combined_nan_buf = np.zeros(N, dtype=np.uint8)
            if self._output_buf.shape[0] < N:
                raise ValueError(f"input width {N} exceeds N_alloc {self._n_alloc}")
            nan_masks = tuple(
                np.isnan(value).astype(np.uint8)
                if value.shape == (N,)
                else np.zeros(N, dtype=np.uint8)
                for value in inputs
            )
            combined = self._combined_nan_buf[:N]
            combined[:] = 0
            for mask in nan_masks:
                combined |= mask
            result = self.compute(inputs, nan_masks, combined, self._output_buf, N)
            if result != 0:
                raise RuntimeError(f"compute returned {result!r}, expected 0")
            return np.array(self._output_buf[:N], dtype=np.float64, copy=True)

    return RotationBase


def recording_registry(log):
    """Make a StaticFunctionRegistry class that writes every event into the list `log`.

    Events are ("registry", N_alloc) and ("create", registry_name, params); what `create_instance`
    returns is a RegistryChild that holds these and passes values through unchanged.
    """

    class StaticFunctionRegistry:
        def __init__(self, *, N_alloc):
            log.append(("registry", N_alloc))
            self.N_alloc = N_alloc

        def create_instance(self, registry_name, **params):
            log.append(("create", registry_name, params))
            return RegistryChild(registry_name, params, self.N_alloc)

    return StaticFunctionRegistry


class RegistryChild:
    """Child made by the recording registry: the identity, with the request kept."""

    def __init__(self, registry_name, params, N_alloc):
        self.registry_name = registry_name
        self.params = params
        self.N_alloc = N_alloc

    def __call__(self, values, *, context):
        return np.array(values, copy=True)


class Siblings:
    """The three sibling modules that a base module is built on.

    Any of the three may be given; the others are recording stand-ins. `registry_log` holds the
    stand-in registry's events, `hook_calls` the names that the stand-in hook was called with.
    """

    def __init__(
        self, *, RotationBase=None, abstract_method_required=None, StaticFunctionRegistry=None
    ):
        self.registry_log = []
        self.hook_calls = []
        self.RotationBase = RotationBase or plain_rotation_base()
        self.abstract_method_required = abstract_method_required or self._record_and_raise
        self.StaticFunctionRegistry = StaticFunctionRegistry or recording_registry(
            self.registry_log
        )

    def _record_and_raise(self, name):
        self.hook_calls.append(name)
        raise NotImplementedError(name)

    def modules(self):
        """Return fresh module objects by full name: the packages and the three siblings."""
        modules = {}
        for name in _PACKAGE_NAMES:
            modules[name] = types.ModuleType(name)
            modules[name].__path__ = []
        for name, member in [
            (HOOKS_NAME, "abstract_method_required"),
            (BOILERPLATE_NAME, "RotationBase"),
            (REGISTRY_NAME, "StaticFunctionRegistry"),
        ]:
            modules[name] = types.ModuleType(name)
            setattr(modules[name], member, getattr(self, member))
        for name, module in modules.items():
            parent, _, child = name.rpartition(".")
            if parent:
                setattr(modules[parent], child, module)
        return modules

    @contextlib.contextmanager
    def installed(self):
        """Put the stand-ins into sys.modules in place of the whole quorvane package.

        While it lasts nothing of the real package can be imported; afterwards sys.modules is as it
        was. Yields the dict of the installed modules.
        """
        replaced = {name: module for name, module in sys.modules.items() if _is_ours(name)}
        for name in replaced:
            del sys.modules[name]
        modules = self.modules()
        sys.modules.update(modules)
        try:
            yield modules
        finally:
            for name in [name for name in sys.modules if _is_ours(name)]:
                del sys.modules[name]
            sys.modules.update(replaced)


def load_base(kind, siblings):
    """Return a fresh base module of `kind` built on `siblings`; sys.modules is left as it was.

    The registry is imported when an expression is parsed, so a test that builds children needs
    the siblings installed at that time too: use `installed_base` there.
    """
    with installed_base(kind, siblings) as base:
        return base


@functools.cache
def both_modules():
    """The native module and its twin on the same stand-in siblings, loaded once."""
    siblings = Siblings()
    return load_base("native", siblings), load_base("twin", siblings)


@contextlib.contextmanager
def installed_base(kind, siblings):
    """Yield a fresh base module of `kind`, itself and `siblings` installed in sys.modules."""
    location = base_location(kind)
    with siblings.installed() as modules:
        base = _execute(location)
        modules["quorvane.functions.rotations.virtualization"].base = base
        yield base


@contextlib.contextmanager
def installed_real_base(kind):
    """Yield the base module of `kind` on the package's real siblings, installed in sys.modules.

    The native module is the package's own, imported in the ordinary way; the twin takes its place
    while the context lasts.
    """
    package = importlib.import_module("quorvane.functions.rotations.virtualization")
    native = importlib.import_module(BASE_NAME)
    if kind == "native":
        yield native
        return
    try:
        package.base = _execute(base_location(kind))
        yield package.base
    finally:
        sys.modules[BASE_NAME] = native
        package.base = native


def base_location(kind):
    """Return the path of the file that holds the base module of `kind`.

    Raises FileNotFoundError when the native extension has not been built.
    """
    if kind == "twin":
        return _TWIN_PATH
    roots = _package_folders()
    for root in roots:
        folder = Path(root, "functions", "rotations", "virtualization")
        for suffix in importlib.machinery.EXTENSION_SUFFIXES:
            if (folder / f"base{suffix}").exists():
                return folder / f"base{suffix}"
    raise FileNotFoundError(f"the native extension {BASE_NAME} is not built; looked in {roots}")


def _package_folders():
    """Return the real package's folders, also while stand-ins cover it in sys.modules."""
    for finder in sys.meta_path:
        spec = finder.find_spec("quorvane", None)
        if spec is not None:
            return list(spec.submodule_search_locations)
    return []


def _execute(location):
    """Execute the file as a fresh module of the base's name, registered in sys.modules."""
    spec = importlib.util.spec_from_file_location(BASE_NAME, location)
    module = importlib.util.module_from_spec(spec)
    sys.modules[BASE_NAME] = module
    try:
        if location == _TWIN_PATH:
            exec(_twin_code(), vars(module))
        else:
            spec.loader.exec_module(module)
    except BaseException:
        sys.modules.pop(BASE_NAME, None)
        raise
    return module


@functools.cache
def _twin_code():
    """The twin's code, compiled once for the thousands of modules that are made of it."""
    return compile(_TWIN_PATH.read_bytes(), str(_TWIN_PATH), "exec")


def _is_ours(name):
    return name == "quorvane" or name.startswith("quorvane.")
