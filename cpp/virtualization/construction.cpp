#include "virtualization/construction.hpp"

#include "capi/gc_pause.hpp"

namespace quorvane::virtualization {

namespace {

using capi::keyword_only;
using capi::Parameter;
using capi::positional;

constexpr Parameter init_parameters[] = {
    positional("self"),
    keyword_only("max_structures", "None"),
    keyword_only("transformation_expression", "None"),
    keyword_only("N_alloc", "None"),
    keyword_only("unmap_policy", "\"proportional\""),
    keyword_only("child_factories", "None"),
    keyword_only("child_rotations", "None"),
    keyword_only("trace_sink", "None"),
    capi::var_keyword("kwargs"),
};

// list(argument or [])
Ref list_or_empty(PyObject* argument) {
    return capi::truth(argument) ? capi::to_list(argument) : capi::make_list();
}

// super().__init__(N_alloc=N_alloc, **kwargs)
void initialise_base(const State& state, PyObject* self, PyObject* N_alloc, PyObject* kwargs) {
    const Ref keywords = capi::make_dict();
    require(PyDict_SetItem(keywords.get(), state.names.N_alloc, N_alloc));
    require(PyDict_Update(keywords.get(), kwargs));
    const Ref initialiser = state.super_attr(self, state.names.init);
    require(PyObject_Call(initialiser.get(), capi::make_tuple().get(), keywords.get()));
}

// Explicit children first, then the factories', then the expression's.
void extend_children(const State& state, PyObject* self, PyObject* expression) {
    const Names& names = state.names;
    capi::Iteration factories(attr(self, names.child_factories).get());
    Ref factory;
    while (factories.next(factory)) {
        const Ref append = attr(attr(self, names.child_rotations).get(), names.append);
        const Ref child = call_with_keywords(factory.get(), state.N_alloc_keyword.get(),
                                             attr(self, names.max_structures).get());
        call(append.get(), child.get());
    }
    const Ref extend = attr(attr(self, names.child_rotations).get(), names.extend);
    const Ref parsed = call_method(self, names.parse_transformation_expression, expression);
    call(extend.get(), parsed.get());
}

// One separate {"active": False} per slot.
Ref inactive_metadata(const State& state, PyObject* self) {
    const Ref count = attr(self, state.names.max_structures);
    const Ref range = call(reinterpret_cast<PyObject*>(&PyRange_Type), count.get());
    const Py_ssize_t slots = capi::length(range.get());
    const capi::GcPause no_collection;  // nothing here can be garbage, and there may be a million
    Ref metadata = capi::make_list(slots);
    for (Py_ssize_t slot = 0; slot < slots; ++slot) {
        Ref inactive = capi::make_dict();
        require(PyDict_SetItem(inactive.get(), state.names.active, Py_False));
        PyList_SET_ITEM(metadata.get(), slot, inactive.release());
    }
    return metadata;
}

// np.full(self.max_structures, np.nan, dtype=np.float64)
Ref nan_row(const State& state, PyObject* self) {
    const Names& names = state.names;
    const Ref full = state.numpy(names.full);
    const Ref size = attr(self, names.max_structures);
    const Ref nan = state.numpy(names.nan);
    return call_with_keywords(full.get(), state.dtype_keyword.get(), size.get(), nan.get(),
                              state.numpy(names.float64).get());
}

void create_bookkeeping(const State& state, PyObject* self) {
    const Names& names = state.names;
    set_attr(self, names.slot_by_key, capi::make_dict().get());
    set_attr(self, names.key_by_slot, capi::make_dict().get());
    set_attr(self, names.legs_by_slot, capi::make_dict().get());
    set_attr(self, names.metadata_by_slot, inactive_metadata(state, self).get());
    set_attr(self, names.txi_input, nan_row(state, self).get());
    set_attr(self, names.txi_output, nan_row(state, self).get());
    const Ref ones = state.numpy(names.ones);
    const Ref size = attr(self, names.max_structures);
    const Ref universe_row = call_with_keywords(ones.get(), state.dtype_keyword.get(), size.get(),
                                                state.numpy(names.uint8).get());
    set_attr(self, names.txi_universe_row, universe_row.get());
}

Ref init(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    PyObject* max_structures = values[1];
    PyObject* expression = values[2];
    PyObject* N_alloc = values[3];
    PyObject* unmap_policy = values[4];
    const Names& names = state.names;

    call_method(self, names.validate_constructor, max_structures, expression, N_alloc,
                unmap_policy);
    initialise_base(state, self, N_alloc, values[8]);
    set_attr(self, names.max_structures, capi::to_int(max_structures).get());
    set_attr(self, names.transformation_expression, expression);
    set_attr(self, names.unmap_policy, unmap_policy);
    set_attr(self, names.child_factories, list_or_empty(values[5]).get());
    set_attr(self, names.child_rotations, list_or_empty(values[6]).get());
    extend_children(state, self, expression);
    create_bookkeeping(state, self);
    set_attr(self, names.current_parent_context, Py_None);
    set_attr(self, names.structure_N_limit, attr(self, names.n_alloc).get());
    set_attr(self, names.trace_sink, values[7]);
    return capi::none();
}

constexpr Parameter validate_parameters[] = {
    positional("max_structures"),
    positional("transformation_expression"),
    positional("N_alloc"),
    positional("unmap_policy"),
};

// `name` must be an int, not a bool, from 1 to the structure limit as it is now.
void check_capacity(const State& state, const char* name, PyObject* value) {
    const auto not_positive = [&](PyObject* type) {
        Message().text(name).text(" must be a positive integer").raise(type);
    };
    if (!capi::is_integer(value)) not_positive(PyExc_TypeError);
    if (capi::compare(value, state.zero.get(), Py_LE)) not_positive(PyExc_ValueError);
    const Ref limit = state.global(state.names.MAX_VIRTUAL_STRUCTURES);
    if (capi::compare(value, limit.get(), Py_GT)) {
        const Ref shown = state.global(state.names.MAX_VIRTUAL_STRUCTURES);
        Message().text(name).text(" must be <= ").str(shown.get()).raise(PyExc_ValueError);
    }
}

bool is_blank(const State& state, PyObject* text) {
    return !capi::truth(call_method(text, state.names.strip).get());
}

bool differs(PyObject* value, const char* text) {
    return capi::compare(value, capi::make_str(text).get(), Py_NE);
}

Ref validate_constructor(State& state, PyObject* const* values) {
    PyObject* expression = values[1];
    PyObject* unmap_policy = values[3];
    check_capacity(state, "max_structures", values[0]);
    check_capacity(state, "N_alloc", values[2]);
    if (!capi::is_instance(expression, PyUnicode_Type) || is_blank(state, expression)) {
        capi::raise(PyExc_ValueError, "transformation_expression must be a non-empty string");
    }
    if (differs(unmap_policy, "proportional") && differs(unmap_policy, "equal_split")) {
        capi::raise(PyExc_ValueError, "unmap_policy must be one of: proportional, equal_split");
    }
    return capi::none();
}

}  // namespace

const capi::FunctionDef init_def{
    "__init__", init_parameters, capi::body_of<State, init>,
    R"(Build the rotation, its children and the buffers of its child space.

Parameters
----------
max_structures : int
    Number of slots of the child space, from 1 to MAX_VIRTUAL_STRUCTURES. Required.
transformation_expression : str
    The child chain, for example ``ewma(20);rank``, or an identity expression such as ``none``.
    Required.
N_alloc : int
    Number of instruments to allocate for, from 1 to MAX_VIRTUAL_STRUCTURES. Required.
unmap_policy : {"proportional", "equal_split"}
    How a slot's output is spread over the legs of its structure.
child_factories : iterable of callable, optional
    Each is called as ``factory(N_alloc=max_structures)`` and gives one child.
child_rotations : iterable, optional
    Children made by the caller; they run first, before the factories' and the expression's.
trace_sink : object with ``append``, optional
    Gets one record per computed day.
**kwargs
    Handed on to RotationBase.

Raises
------
TypeError
    When max_structures or N_alloc is not an integer.
ValueError
    When a number is out of range, the expression is blank or wrong, or the policy is unknown.
)"};

const capi::FunctionDef validate_constructor_def{"_validate_constructor", validate_parameters,
                                                 capi::body_of<State, validate_constructor>};

}  // namespace quorvane::virtualization
