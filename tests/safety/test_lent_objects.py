"""Objects that callers only lend, and let go of in the middle of the call.

A function written in Python owns its arguments in its frame. functools.partial, the iterators over
a callable and over __getitem__, and lists that the collector gives away do not keep what they have
lent when code that runs meanwhile makes them let go of it.
"""

import textwrap

import pytest

from support.isolated import run_isolated

# A key that has the hash of a name, is equal to none, and acts when it is compared.
SETUP = """
    import functools
    base = load_base(kind, Siblings())

    class R(base.VirtualizationBase):
        items = [{"key": ("a",), "legs": ((0, 1.0),), "value": 1.0}]

        def _refresh_active_structures(self, *day):
            return self.items

    def make(**more):
        return R(**{"max_structures": 2, "transformation_expression": "none", "N_alloc": 4, **more})

    class Odd(str):
        act = None

        def __hash__(self):
            return hash(str(self)[:-1])

        def __eq__(self, other):
            act, Odd.act = Odd.act, None
            if act is not None:
                act()
            return False

    def let_go(partial):
        partial.__setstate__((len, ((),), {}, None))
        gc.collect()
"""

CASES = {
    "an item of a partial": """
        class Item:
            def __init__(self):
                self.value = 3.0
            @property
            def key(self):
                let_go(partial)
                return ("k",)
            legs = ()
        partial = functools.partial(make()._normalize_structure, Item())
        print(partial())
        """,
    "a rotation of an iterator over its method": """
        class Sentinel:
            met = False
            def __eq__(self, other):
                return self.met
        class Exhausting(R):
            armed = False
            @property
            def max_structures(self):
                if Exhausting.armed:
                    Exhausting.armed, sentinel.met = False, True
                    list(iterator)
                    sentinel.met = False
                    gc.collect()
                return 2
            @max_structures.setter
            def max_structures(self, size):
                pass
        sentinel = Sentinel()
        rotation = Exhausting(max_structures=2, transformation_expression="none", N_alloc=4)
        iterator = iter(rotation.get_state, sentinel)
        del rotation
        Exhausting.armed = True
        try:
            print(next(iterator, "nothing"))
        except SystemError:
            # Python before 3.11.3 asks the sentinel that it has let go of.
            print("nothing")
        """,
    "a mask of an iterator over its rows": """
        class Mask(base._AllOnesVirtualMask):
            armed = ended = False
            @property
            def shape(self):
                if Mask.armed:
                    Mask.armed, Mask.ended = False, True
                    list(iterator)
                    Mask.ended = False
                    gc.collect()
                return (0 if Mask.ended else 5, 3)
            @shape.setter
            def shape(self, shape):
                pass
        iterator = iter(Mask(5, np.ones(3)))
        Mask.armed = True
        print(next(iterator))
        """,
    "the name of a function": """
        function = base.VirtualizationBase.__init__
        function.__qualname__ = "".join(["long"] * 50)
        class Keyword(str):
            armed = False
            def __hash__(self):
                if Keyword.armed:
                    function.__qualname__ = "".join(["sh", "ort"])
                return str.__hash__(self)
        keywords = {Keyword("more"): 1}
        Keyword.armed = True
        try:
            function(**keywords)
        except TypeError as error:
            print(error)
        """,
    "the dictionary of an instance": """
        rotation = make()
        rotation(np.ones(4))
        state = rotation.get_state()
        names = vars(base)
        numpy = names.pop("np")
        names[Odd("np~")] = 1
        names["np"] = numpy
        def act():
            rotation.__dict__ = dict(rotation.__dict__)
            gc.collect()
        Odd.act = act
        rotation.set_state(state)
        print(rotation.slot_by_key, Odd.act)
        """,
    "the children of an expression": """
        class Registry:
            def __init__(self, *, N_alloc):
                pass
            @property
            def create_instance(self):
                for found in gc.get_objects():
                    if type(found) is list and found and type(found[0]) is tuple:
                        if found[0][0] == "longitudinal_ewma_67301c":
                            found.clear()
                gc.collect()
                return lambda name, **more: print
        from support.siblings import installed_base
        with installed_base(kind, Siblings(StaticFunctionRegistry=Registry)) as base:
            for _ in range(20):
                rotation = base.VirtualizationBase(
                    max_structures=4, transformation_expression="ewma(3)", N_alloc=4
                )
            print(len(rotation.child_rotations))
        """,
    "the matrices of a batch": """
        matrix = np.ones((3, 4))
        class Given:
            def __array__(self, dtype=None, copy=None):
                return matrix
        class Context:
            @property
            def universe_mask(self):
                global matrix
                for found in gc.get_objects():
                    if type(found) is list and len(found) == 1 and found[0] is matrix:
                        found.clear()
                matrix = None
        try:
            print(make().batch_reference(Given(), context=Context()))
        except IndexError as error:
            print(error)
        """,
}

# A dict with gaps, two keys of which have one hash: copying it compares them.
SPARSE = """
    class Key:
        act = None
        def __hash__(self):
            return 5
        def __eq__(self, other):
            act, Key.act = Key.act, None
            if act is not None:
                act()
                gc.collect()
            return self is other

    def sparse():
        entries = {number: number for number in range(20)}
        entries[Key()] = entries[Key()] = 1
        for number in range(20):
            del entries[number]
        return entries

    rotation = make(max_structures=64)
    rotation(np.ones(4))
    given = [sparse() for _ in range(64)]
    state = {**rotation.get_state(), "structure_metadata_by_slot": given}
"""
ACTS = {
    "emptied": "lambda: rotation._metadata_by_slot.clear()",
    "replaced": "lambda: setattr(rotation, '_metadata_by_slot', [])",
    "given emptied": "lambda: given.clear()",
    "state emptied": "lambda: state.clear()",
    "map deleted": "lambda: delattr(rotation, 'slot_by_key')",
}
CALLS = {
    "restore": "rotation.set_state(state)",
    "validate": "given = rotation._validate_state_components(state)[3]",
}


def outcomes(*parts):
    script = "".join(map(textwrap.dedent, (SETUP, *parts)))
    return [run_isolated(kind, script) for kind in ("twin", "native")]


@pytest.mark.parametrize("name", CASES)
def test_what_a_call_was_lent_lives_as_long_as_the_call(name):
    twin, native = outcomes(CASES[name])
    assert twin
    assert native == twin


@pytest.mark.parametrize("act", ACTS)
@pytest.mark.parametrize("call", CALLS)
def test_metadata_that_acts_while_it_is_copied_finds_what_it_would_in_python(call, act):
    use = f"""
    Key.act = {ACTS[act]}
    {CALLS[call]}
    print(Key.act, len(given), len(rotation._metadata_by_slot), vars(rotation).get("slot_by_key"))
    """
    twin, native = outcomes(SPARSE, use)
    assert twin.startswith("None")
    assert native == twin


def test_columns_live_as_long_as_a_call_of_theirs():
    script = """
    from quorvane.functions.rotations.virtualization.columns import StructureColumns

    columns = StructureColumns([("a",)], [0, 1], [0], [1.0], [1.0])

    class Numbers:
        def __array__(self, dtype=None, copy=None):
            let_go(partial)
            return np.full(1, 7.0)

    for method in ("with_values", "weighted_sums"):
        partial = functools.partial(getattr(columns.with_values([2.0]), method), Numbers())
        print(partial())

    class Exhausting:
        def __init__(self):
            self.itself = self
        def __del__(self):
            list(iterator)

    for threshold in range(1, 60):
        gc.disable()
        iterator = iter(columns.with_values([2.0]))
        Exhausting()
        gc.set_threshold(threshold)
        gc.enable()
        next(iterator, None)
        gc.set_threshold(700)
    """
    printed = run_isolated("native", SETUP + script)
    assert printed == "<StructureColumns of 1 structures with 1 legs>\n[7.]\n"
