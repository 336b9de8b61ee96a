"""What the module imports, in which order, and how an import of it fails."""

import contextlib
import sys

import pytest

from support.siblings import BOILERPLATE_NAME, HOOKS_NAME, REGISTRY_NAME, load_base

IMPORT_ORDER = ["copy", "dataclasses", "re", "numpy", HOOKS_NAME, BOILERPLATE_NAME]


@contextlib.contextmanager
def unavailable(names):
    """Make the modules unimportable: None in sys.modules halts an import."""
    saved = {name: sys.modules[name] for name in names if name in sys.modules}
    sys.modules.update(dict.fromkeys(names))
    try:
        yield
    finally:
        for name in names:
            del sys.modules[name]
        sys.modules.update(saved)


def import_upon(kind, siblings, prepare=None, missing=()):
    """Import the module on siblings that `prepare(modules)` spoiled, some modules missing."""
    spoiled = siblings

    class Spoiled:
        @contextlib.contextmanager
        def installed(self):
            with spoiled.installed() as modules:
                if prepare is not None:
                    prepare(modules)
                with unavailable(missing):
                    yield modules

    return load_base(kind, Spoiled())


@pytest.mark.parametrize("name", IMPORT_ORDER)
def test_missing_import_fails_as_python_says(kind, siblings, name):
    with pytest.raises(ModuleNotFoundError) as caught:
        import_upon(kind, siblings, missing=[name])
    assert caught.value.name == name


@pytest.mark.parametrize("position", range(len(IMPORT_ORDER) - 1))
def test_imports_run_in_their_order(kind, siblings, position):
    with pytest.raises(ModuleNotFoundError) as caught:
        import_upon(kind, siblings, missing=IMPORT_ORDER[position:])
    assert caught.value.name == IMPORT_ORDER[position]


@pytest.mark.parametrize(
    ("module", "member"),
    [(HOOKS_NAME, "abstract_method_required"), (BOILERPLATE_NAME, "RotationBase")],
)
def test_sibling_without_its_member_is_an_import_error(kind, siblings, module, member):
    with pytest.raises(ImportError, match=f"cannot import name '{member}'") as caught:
        import_upon(kind, siblings, lambda modules: delattr(modules[module], member))
    assert type(caught.value) is ImportError
    assert caught.value.name == module


@pytest.mark.parametrize("module", [HOOKS_NAME, BOILERPLATE_NAME])
def test_error_of_a_sibling_propagates_unchanged(kind, siblings, module):
    error = LookupError("sibling is broken")

    def spoil(modules):
        def __getattr__(name):
            if name in ("abstract_method_required", "RotationBase"):
                raise error
            raise AttributeError(name)

        vars(modules[module]).pop("abstract_method_required", None)
        vars(modules[module]).pop("RotationBase", None)
        modules[module].__getattr__ = __getattr__

    with pytest.raises(LookupError) as caught:
        import_upon(kind, siblings, spoil)
    assert caught.value is error


def test_import_needs_no_registry(kind, siblings):
    base = import_upon(kind, siblings, missing=[REGISTRY_NAME])
    assert base.VirtualizationBase._name == "virtualization_base"


def test_sibling_may_answer_through_module_getattr(kind, siblings):
    def move(modules):
        member = vars(modules[HOOKS_NAME]).pop("abstract_method_required")

        def __getattr__(name):
            if name == "abstract_method_required":
                return member
            raise AttributeError(name)

        modules[HOOKS_NAME].__getattr__ = __getattr__

    base = import_upon(kind, siblings, move)
    assert base.abstract_method_required == siblings.abstract_method_required
