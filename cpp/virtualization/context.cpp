#include "virtualization/context.hpp"

#include "capi/array_view.hpp"
#include "virtualization/guards/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter context_parameters[] = {
    positional("self"),
    positional("universe_mask"),
    positional("current_day_index", "0"),
};
constexpr Parameter mask_parameters[] = {positional("self"), positional("rows"), positional("row")};
constexpr Parameter item_parameters[] = {positional("self"), positional("item")};

Ref init_context(State& state, PyObject* const* values) {
    set_attr(values[0], state.names.universe_mask, values[1]);
    set_attr(values[0], state.names.current_day_index, values[2]);
    return capi::none();
}

Ref first_of(PyObject* sequence, const State& state) { return item(sequence, state.zero.get()); }

Ref init_mask(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Names& names = state.names;
    const Ref rows = capi::to_int(values[1]);
    const Ref columns = capi::to_int(first_of(attr(values[2], names.shape).get(), state).get());
    set_attr(self, names.shape, capi::make_tuple(rows.get(), columns.get()).get());
    set_attr(self, names.row, values[2]);
    return capi::none();
}

// A read-only view whose rows are all the stored row: no matrix of days is ever built.
Ref selected_rows(const State& state, PyObject* self, PyObject* slice) {
    const Names& names = state.names;
    const Ref indices = attr(slice, names.indices);
    const Ref rows = first_of(attr(self, names.shape).get(), state);
    const Ref bounds = call(indices.get(), rows.get());
    const Ref range =
        require(PyObject_CallObject(reinterpret_cast<PyObject*>(&PyRange_Type), bounds.get()));
    const Ref count = capi::make_int(capi::length(range.get()));
    const Ref broadcast_to = state.numpy(names.broadcast_to);
    const Ref row = attr(self, names.row);
    const Ref columns = item(attr(self, names.shape).get(), state.one.get());
    return call(broadcast_to.get(), row.get(), capi::make_tuple(count.get(), columns.get()).get());
}

Ref single_row(const State& state, PyObject* self, PyObject* index) {
    const Names& names = state.names;
    Ref row = capi::to_int(index);
    PyObject* zero = state.zero.get();
    if (capi::compare(row.get(), zero, Py_LT)) {
        const Ref rows = first_of(attr(self, names.shape).get(), state);
        row = require(PyNumber_Add(row.get(), rows.get()));
    }
    if (capi::compare(row.get(), zero, Py_LT) ||
        capi::compare(row.get(), first_of(attr(self, names.shape).get(), state).get(), Py_GE)) {
        capi::raise(PyExc_IndexError, row.get());
    }
    return attr(self, names.row);
}

// The same for an exact int within the rows of a mask of the module's own; empty for others.
Ref plain_row(const State& state, PyObject* self, PyObject* index) {
    const Py_ssize_t row = plain_size(index);
    if (row < 0 || !state.mask_class.is(state, reinterpret_cast<PyObject*>(Py_TYPE(self)))) {
        return {};
    }
    const Ref shape = capi::optional_attr(self, state.names.shape);
    if (!shape || !PyTuple_CheckExact(shape.get()) || PyTuple_GET_SIZE(shape.get()) == 0 ||
        row >= plain_size(PyTuple_GET_ITEM(shape.get(), 0))) {
        return {};
    }
    return attr(self, state.names.row);
}

Ref get_item(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    PyObject* index = values[1];
    if (Ref row = plain_row(state, self, index)) return row;
    if (capi::is_instance(index, PyTuple_Type)) {
        const capi::Pair keys = capi::unpack_pair(index);
        const Ref rows = item(self, keys.first.get());
        return item(rows.get(), keys.second.get());
    }
    if (capi::is_instance(index, PySlice_Type)) return selected_rows(state, self, index);
    return single_row(state, self, index);
}

const capi::FunctionDef init_context_def{"__init__", context_parameters,
                                         capi::body_of<State, init_context>};
const capi::FunctionDef init_mask_def{"__init__", mask_parameters, capi::body_of<State, init_mask>};
const capi::FunctionDef get_item_def{"__getitem__", item_parameters,
                                     capi::body_of<State, get_item>};

}  // namespace

Ref make_context_class(State& state, const capi::FunctionHome& home) {
    Ref made = capi::ClassBuilder(home, "_VirtualContext").method(init_context_def).build();
    state.context_class.remember(made, init_context_def, state.names.universe_mask,
                                 state.names.current_day_index);
    return made;
}

Ref make_mask_class(State& state, const capi::FunctionHome& home) {
    Ref made = capi::ClassBuilder(home, "_AllOnesVirtualMask")
                   .doc("Shape-compatible all-in-universe mask without dense TxI row history.")
                   .attribute("ndim", capi::make_int(2).get())
                   .method(init_mask_def)
                   .method(get_item_def)
                   .build();
    state.mask_class.remember(made, init_mask_def, state.names.shape, state.names.row);
    return made;
}

Ref make_context(const State& state, PyObject* context_class, PyObject* universe_mask,
                 PyObject* day) {
    if (state.context_class.is(state, context_class)) {
        return state.context_class.make(universe_mask, day);
    }
    return call_with_keywords(context_class, state.current_day_index_keyword.get(), universe_mask,
                              day);
}

Ref make_mask(const State& state, PyObject* mask_class, PyObject* rows, PyObject* row) {
    const bool plain = PyArray_CheckExact(row) && PyArray_NDIM(capi::as_array(row)) > 0;
    if (!plain) return call(mask_class, rows, row);
    const Ref columns = capi::make_int(PyArray_DIM(capi::as_array(row), 0));
    const Ref shape = capi::make_tuple(rows, columns.get());
    // Only now: making the tuple may collect garbage, and that may run code.
    if (!state.mask_class.is(state, mask_class)) return call(mask_class, rows, row);
    return state.mask_class.make(shape.get(), row);
}

}  // namespace quorvane::virtualization
