"""A wrong call is refused in the very words with which Python refuses it.

The twin's methods are Python functions; every function of the native module must say what the
interpreter says of its namesake, whatever is missing, too much, unknown or given twice.
"""

import functools
import inspect
import itertools

import pytest

from support.fakes import make_rotation
from support.siblings import Siblings, load_base

OWNERS = ["VirtualizationBase", "_VirtualContext", "_AllOnesVirtualMask"]
UNKNOWN = ["surplus", "naïve", "", "with space", "\udc80", "Self", "KEY"]


@functools.cache
def modules():
    """Load both modules once, on the same siblings."""
    siblings = Siblings()
    return load_base("native", siblings), load_base("twin", siblings)


def function_paths():
    """List the dotted paths of all functions of the module's classes, as the twin has them."""
    paths = []
    for owner in OWNERS:
        for name, member in vars(getattr(modules()[1], owner)).items():
            if inspect.isfunction(plain(member)):
                paths.append(f"{owner}.{name}")
    return paths


def plain(member):
    return getattr(member, "fget", None) or getattr(member, "__func__", None) or member


def function_at(base, path):
    owner, name = path.split(".")
    return plain(vars(getattr(base, owner))[name])


def wrong_calls(signature):
    """Yield the positional arguments and keywords of calls that the signature does not allow."""
    names = list(signature.parameters)
    keyword_sets = [
        {},
        *({name: None} for name in UNKNOWN),
        *({name: 1} for name in names),
        *({first: 1, second: 2} for first, second in itertools.permutations(names, 2)),
        *({"surplus": 1, name: 2} for name in names),
        *({name: 1, "surplus": 2} for name in names),
        dict.fromkeys(names),
        dict.fromkeys(names[1:]),
        dict.fromkeys(reversed(names)),
        dict.fromkeys([*names, "one", "two"]),
        dict.fromkeys(["two", "one", *names]),
    ]
    for count in range(len(names) + 4):
        for keywords in keyword_sets:
            try:
                signature.bind(*range(count), **keywords)
            except TypeError:
                yield range(count), keywords


def refusal(function, arguments, keywords):
    """Return the error's type and text, up to the guess of what was meant that 3.13 adds."""
    try:
        function(*arguments, **keywords)
    except Exception as error:
        return type(error), str(error).partition(". Did you mean")[0]
    return "accepted", ""


def compare(find, signature):
    """Make every wrong call of what `find(base)` returns, and compare the words of both."""
    native, twin = (find(base) for base in modules())
    count = 0
    for arguments, keywords in wrong_calls(signature):
        expected = refusal(twin, arguments, keywords)
        assert expected[0] is TypeError
        assert refusal(native, arguments, keywords) == expected, (list(arguments), keywords)
        count += 1
    return count


@pytest.mark.parametrize("path", function_paths())
def test_wrong_call_of_a_function_reads_as_pythons(path):
    signature = inspect.signature(function_at(modules()[1], path))
    assert compare(lambda base: function_at(base, path), signature) > 0


BOUND = [path.split(".")[1] for path in function_paths() if path.startswith(OWNERS[0])]
BOUND.remove("stateful")


@pytest.mark.parametrize("name", BOUND)
def test_wrong_call_of_a_bound_method_counts_the_instance(name):
    def find(base):
        return getattr(make_rotation(base), name)

    signature = inspect.signature(find(modules()[1]))
    assert compare(find, signature) > 0


@pytest.mark.parametrize("owner", OWNERS)
def test_wrong_call_of_a_class_reads_as_that_of_its_initialiser(owner):
    signature = inspect.signature(getattr(modules()[1], owner))
    assert compare(lambda base: getattr(base, owner), signature) > 0


def test_wrong_call_of_a_rotation_reads_as_that_of_its_call():
    for keywords in [{"contxt": 1}, {"self": 1}, {"args": 1}, {"context": 1, "N": 2}]:
        native, twin = (refusal(make_rotation(base), (1,), keywords) for base in modules())
        assert native == twin
        assert "VirtualizationBase.__call__() got" in native[1]


@pytest.mark.parametrize("name", BOUND)
def test_keywords_must_be_strings(name):
    native, twin = (
        refusal(getattr(base.VirtualizationBase, name), (), {1: 2}) for base in modules()
    )
    assert native == twin == (TypeError, "keywords must be strings")


def test_getter_called_wrongly_reads_as_pythons(base):
    getter = vars(base.VirtualizationBase)["stateful"].fget
    with pytest.raises(TypeError) as caught:
        getter()
    assert str(caught.value) == (
        "VirtualizationBase.stateful() missing 1 required positional argument: 'self'"
    )


def test_missing_arguments_are_listed_with_and_and_comma(base):
    compute = base.VirtualizationBase.compute
    endings = [
        "missing 1 required positional argument: 'N'",
        "missing 2 required positional arguments: 'output_buf' and 'N'",
        "missing 3 required positional arguments: 'combined_nan_mask', 'output_buf', and 'N'",
    ]
    for count, ending in zip([5, 4, 3], endings, strict=True):
        with pytest.raises(TypeError) as caught:
            compute(*range(count))
        assert str(caught.value) == f"VirtualizationBase.compute() {ending}"


def test_surplus_beside_keyword_only_arguments_counts_both(base):
    with pytest.raises(TypeError) as caught:
        base.VirtualizationBase(1, 2, max_structures=2, N_alloc=3)
    assert str(caught.value) == (
        "VirtualizationBase.__init__() takes 1 positional argument but 3 positional arguments "
        "(and 2 keyword-only arguments) were given"
    )


def test_renamed_function_refuses_under_its_new_name(base):
    compute = vars(base.VirtualizationBase)["compute"]
    compute.__qualname__ = "Elsewhere.day"
    with pytest.raises(TypeError) as caught:
        compute(*range(5))
    assert str(caught.value) == "Elsewhere.day() missing 1 required positional argument: 'N'"


class Text(str):
    """Keyword of a class of its own, equal to the plain text."""

    __slots__ = ()


@pytest.mark.parametrize("name", BOUND)
def test_keyword_may_be_a_text_of_a_class_of_its_own(name):
    def keywords(function):
        names = [*inspect.signature(function).parameters, "surplus"]
        return [{Text(first): 1} for first in names]

    native, twin = (getattr(base.VirtualizationBase, name) for base in modules())
    for further in keywords(twin):
        expected = refusal(twin, (), further)
        if expected[0] is TypeError:
            assert refusal(native, (), further) == expected
