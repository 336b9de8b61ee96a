#include "rotations/boilerplate/construction.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

#include "rotations/arguments.hpp"
#include "rotations/buffers.hpp"

namespace quorvane::rotations::boilerplate {

namespace {

using capi::keyword_only;
using capi::Parameter;
using capi::positional;
using capi::set_attr;

constexpr Parameter init_parameters[] = {
    positional("self"),
    keyword_only("N_alloc", "None"),
    capi::var_keyword("parameters"),
};

Ref init(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    const bool grows = capi::is_none(values[1]);
    const Ref N_alloc =
        grows ? capi::none() : positive_int("N_alloc", values[1], "None or a positive int");
    const Py_ssize_t size = grows ? 0 : column_count("N_alloc", N_alloc.get());
    set_attr(self, names.n_alloc, N_alloc.get());
    make_buffers(state, self, size);
    set_attr(self, names.nan_mask_bufs, capi::make_tuple().get());
    set_attr(self, names.parameters, values[2]);
    return capi::none();
}

constexpr Parameter resize_parameters[] = {positional("self"), positional("new_N_alloc")};

Ref resize(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Ref N_alloc = positive_int("new_N_alloc", values[1], "a positive int");
    const Py_ssize_t size = column_count("new_N_alloc", N_alloc.get());
    // The buffers first: when there is no memory for them, nothing has changed.
    make_buffers(state, self, size);
    set_attr(self, state.names.n_alloc, N_alloc.get());
    return capi::none();
}

constexpr Parameter repr_parameters[] = {positional("self")};

void append_keyword(capi::Message& text, const char* separator, PyObject* name, PyObject* value) {
    text.text(separator).str(name).text("=").repr(value);
}

// Also of an object whose initialiser has not run yet, as a debugger may ask for it.
Ref repr(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    auto* type = reinterpret_cast<PyObject*>(Py_TYPE(self));
    capi::Message text;
    text.str(attr(type, capi::Interned("__name__")).get()).text("(");
    const char* separator = "";
    const Ref parameters = capi::optional_attr(self, state.names.parameters);
    if (parameters && PyDict_Check(parameters.get())) {
        // A copy: a value's __repr__ may change the dict.
        const Ref copy = require(PyDict_Copy(parameters.get()));
        PyObject *name = nullptr, *value = nullptr;
        for (Py_ssize_t position = 0; PyDict_Next(copy.get(), &position, &name, &value) != 0;) {
            append_keyword(text, separator, name, value);
            separator = ", ";
        }
    }
    if (const Ref N_alloc = capi::optional_attr(self, state.names.n_alloc)) {
        append_keyword(text, separator, capi::make_str("N_alloc").get(), N_alloc.get());
    }
    text.text(")");
    return Ref::borrow(text.get());
}

}  // namespace

void make_buffers(const State& state, PyObject* self, Py_ssize_t size) {
    const Ref output = new_vector(size, NPY_DOUBLE);
    const auto numbers = writable_doubles(output.get()).span();
    std::ranges::fill(numbers, std::numeric_limits<double>::quiet_NaN());
    const Ref combined = new_vector(size, NPY_UINT8);
    const auto bytes = writable_bytes(combined.get()).span();
    std::ranges::fill(bytes, npy_uint8{0});
    set_attr(self, state.names.output_buf, output.get());
    set_attr(self, state.names.combined_nan_buf, combined.get());
}

const capi::FunctionDef init_def{"__init__", init_parameters, capi::body_of<State, init>,
                                 R"(Allocate the buffers of a rotation.

Parameters
----------
N_alloc : int, optional
    The most columns that a day may have, a positive int. With None the buffers grow with the days.
**parameters
    Kept in ``parameters``, by which the rotation shows itself.

Raises
------
TypeError
    When N_alloc is neither None nor an int, or is a bool.
ValueError
    When N_alloc is not positive.
)"};

const capi::FunctionDef resize_def{
    "resize", resize_parameters, capi::body_of<State, resize>,
    R"(Change the number of columns that the rotation is allocated for.

The buffers are made anew.

Parameters
----------
new_N_alloc : int
    A positive int.

Raises
------
TypeError
    When it is not an int, or is a bool.
ValueError
    When it is not positive, or no array could have so many columns.
MemoryError
    When there is no room for the buffers. Nothing changes then.
)"};

const capi::FunctionDef repr_def{"__repr__", repr_parameters, capi::body_of<State, repr>};

}  // namespace quorvane::rotations::boilerplate
