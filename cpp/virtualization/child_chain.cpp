#include "virtualization/child_chain.hpp"

#include "capi/array_view.hpp"
#include "virtualization/context.hpp"
#include "virtualization/fast/arrays.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/rotation_guard.hpp"

namespace quorvane::virtualization {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter context_parameters[] = {
    positional("self"),
    positional("parent_context"),
    positional("day_index"),
};
constexpr Parameter chain_parameters[] = {
    positional("self"),
    positional("txi_values"),
    positional("child_context"),
};

// The universe as the children see it: day d has d + 1 rows and every slot is in. The parent's
// context is not looked at: children see only the virtual universe and the day index.
Ref make_child_context(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* day_index = values[2];
    const Ref day = capi::to_int(day_index);
    Ref rows = require(PyNumber_Add(day.get(), state.one.get()));
    if (capi::compare(rows.get(), state.one.get(), Py_LT)) rows = state.one.share();
    const Ref mask_class = state.global(names.AllOnesVirtualMask);
    const Ref universe_row = attr(self, names.txi_universe_row);
    const Ref mask = make_mask(state, mask_class.get(), rows.get(), universe_row.get());
    const Ref context_class = state.global(names.VirtualContext);
    return make_context(state, context_class.get(), mask.get(), day_index);
}

[[noreturn]] void raise_wrong_shape(const State& state, PyObject* self, PyObject* current) {
    const Names& names = state.names;
    message_of(state, self)
        .text(": child rotation returned shape ")
        .value(attr(current, names.shape))
        .text(", expected (")
        .value(attr(self, names.max_structures))
        .text(",)")
        .raise(PyExc_ValueError);
}

// True only for an exact array of one axis with max_structures entries; false says nothing.
bool is_plain_row(const State& state, PyObject* self, PyObject* current) {
    const Py_ssize_t width = plain_size(plain_attribute(self, state.names.max_structures).get());
    return PyArray_CheckExact(current) && PyArray_NDIM(capi::as_array(current)) == 1 &&
           PyArray_DIM(capi::as_array(current), 0) == width;
}

void check_shape(const State& state, PyObject* self, PyObject* current) {
    const Names& names = state.names;
    if (is_plain_row(state, self, current)) return;
    const Ref shape = attr(current, names.shape);
    const Ref expected = capi::make_tuple(attr(self, names.max_structures).get());
    if (capi::compare(shape.get(), expected.get(), Py_NE)) {
        raise_wrong_shape(state, self, current);
    }
}

Ref run_child_chain(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* child_context = values[2];
    Ref output, child;  // as variables of a loop do, each lives until the next one is there
    Ref current = as_float64(state, values[1]);
    capi::Iteration children(attr(self, names.child_rotations).get());
    while (children.next(child)) {
        output = Method::called_by(child.get(), names.call)
                     .with_keywords(state.context_keyword.get(), current.get(), child_context);
        current = as_float64(state, output.get());
        check_shape(state, self, current.get());
    }
    return copy_as_float64(state, [&] { return current.share(); });
}

}  // namespace

const capi::FunctionDef make_child_context_def{"_make_child_context", context_parameters,
                                               capi::body_of<State, make_child_context>};

const capi::FunctionDef run_child_chain_def{"_run_child_chain", chain_parameters,
                                            capi::body_of<State, run_child_chain>};

}  // namespace quorvane::virtualization
