#include "virtualization/call.hpp"

namespace quorvane::virtualization {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter call_parameters[] = {
    positional("self"),
    capi::var_positional("args"),
    capi::keyword_only("context", "None"),
};

// The width of an input: the last entry of its shape, or its length when it has no shape.
Ref width_of(const State& state, PyObject* input) {
    const Ref shape = capi::optional_attr(input, state.names.shape);
    if (shape && !capi::is_none(shape.get()) && capi::length(shape.get()) > 0) {
        return capi::to_int(item(shape.get(), capi::make_int(-1).get()).get());
    }
    return capi::make_int(capi::length(input));
}

// Without an allocation nothing else bounds the instruments; the child space's limit does.
void check_width(const State& state, PyObject* self, PyObject* input) {
    const Ref width = width_of(state, input);
    const Ref limit = state.global(state.names.MAX_VIRTUAL_STRUCTURES);
    if (!capi::compare(width.get(), limit.get(), Py_GT)) return;
    message_of(state, self)
        .text(": input width must be <= ")
        .value(state.global(state.names.MAX_VIRTUAL_STRUCTURES))
        .raise(PyExc_ValueError);
}

// super().__call__(*args, context=context)
Ref call_base(const State& state, PyObject* self, PyObject* args, PyObject* context) {
    constexpr Py_ssize_t most_on_stack = 6;
    const Py_ssize_t count = PyTuple_GET_SIZE(args);
    if (count > most_on_stack) {
        const Ref base_call = state.super_attr(self, state.names.call);
        const Ref keywords = capi::make_dict();
        require(PyDict_SetItem(keywords.get(), state.names.context, context));
        return require(PyObject_Call(base_call.get(), args, keywords.get()));
    }
    const Method base_call = state.super_method(self, state.names.call);
    PyObject* stack[most_on_stack + 2] = {};
    for (Py_ssize_t i = 0; i < count; ++i) stack[i + 1] = PyTuple_GET_ITEM(args, i);
    stack[count + 1] = context;
    return base_call.call(stack, static_cast<std::size_t>(count), state.context_keyword.get());
}

Ref call_day(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* args = values[1];
    if (capi::is_none(attr(self, names.n_alloc).get()) && PyTuple_GET_SIZE(args) > 0) {
        check_width(state, self, PyTuple_GET_ITEM(args, 0));
    }
    set_attr(self, names.current_parent_context, values[2]);
    Ref result;
    try {
        result = call_base(state, self, args, values[2]);
    } catch (const capi::PythonError&) {
        capi::HandledError handled;
        set_attr(self, names.current_parent_context, Py_None);
        handled.rethrow();
    }
    set_attr(self, names.current_parent_context, Py_None);
    return result;
}

}  // namespace

const capi::FunctionDef call_def{"__call__", call_parameters, capi::body_of<State, call_day>,
                                 R"(Run one day.

Parameters
----------
*args : array_like
    The day's inputs; the first has one number per instrument.
context : object, optional
    May have ``universe_mask`` and ``current_day_index``.

Returns
-------
ndarray of float64, shape (N,)
    One number per instrument, NaN where no structure contributed.

Raises
------
ValueError
    When the rotation has no allocation and the first input is wider than MAX_VIRTUAL_STRUCTURES.
)"};

}  // namespace quorvane::virtualization
