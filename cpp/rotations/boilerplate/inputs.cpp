#include "rotations/boilerplate/inputs.hpp"

#include <algorithm>

#include "kernels/nan_mask.hpp"
#include "rotations/buffers.hpp"

namespace quorvane::rotations::boilerplate {

namespace {

bool is_float64(PyObject* input) {
    return PyArray_CheckExact(input) && PyArray_TYPE(capi::as_array(input)) == NPY_DOUBLE &&
           PyArray_ISBEHAVED_RO(capi::as_array(input));
}

bool conversion_failed() {
    return PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
           PyErr_ExceptionMatches(PyExc_OverflowError);
}

Ref to_input(PyObject* argument, bool may_stay) {
    if (is_float64(argument)) return Ref::borrow(argument);
    try {
        return as_float64(argument);
    } catch (const capi::PythonError&) {
        if (!may_stay || !conversion_failed()) throw;
        const capi::FetchedError discarded;
        return Ref::borrow(argument);
    }
}

// Calls visit(row) for every row along the last axis.
template <class Visit>
void for_each_row(PyArrayObject* array, Visit visit) {
    const int outer = PyArray_NDIM(array) - 1;
    const auto size = static_cast<std::size_t>(PyArray_DIM(array, outer));
    const npy_intp stride = PyArray_STRIDE(array, outer);
    if (std::ranges::count(PyArray_DIMS(array), PyArray_DIMS(array) + outer, 0) != 0) return;

    npy_intp index[NPY_MAXDIMS] = {};
    char* data = PyArray_BYTES(array);
    while (true) {
        visit(kernels::StridedRow{reinterpret_cast<double*>(data), stride, size});
        int axis = outer - 1;
        for (; axis >= 0; --axis) {
            data += PyArray_STRIDE(array, axis);
            if (++index[axis] < PyArray_DIM(array, axis)) break;
            data -= index[axis] * PyArray_STRIDE(array, axis);
            index[axis] = 0;
        }
        if (axis < 0) return;
    }
}

void mark_input(PyArrayObject* input, std::span<npy_uint8> mask) {
    if (PyArray_NDIM(input) == 1) {
        for_each_row(input, [&](kernels::StridedRow row) { kernels::mark_nan(row, mask); });
        return;
    }
    std::ranges::fill(mask, npy_uint8{0});
    for_each_row(input, [&](kernels::StridedRow row) { kernels::add_nan(row, mask); });
}

bool fits(PyObject* masks, Py_ssize_t count, Py_ssize_t N) {
    if (!PyTuple_CheckExact(masks) || PyTuple_GET_SIZE(masks) != count) return false;
    for (Py_ssize_t i = 0; i < count; ++i) {
        const auto mask = writable_bytes(PyTuple_GET_ITEM(masks, i));
        if (!mask || mask.size() != N) return false;
    }
    return true;
}

}  // namespace

Ref to_inputs(const State& state, PyObject* self, PyObject* args) {
    const Py_ssize_t count = PyTuple_GET_SIZE(args);
    if (count == 0) {
        message_of(state, self)
            .text("at least one input is needed, got none")
            .raise(PyExc_TypeError);
    }
    PyObject* const* arguments = &PyTuple_GET_ITEM(args, 0);
    if (std::all_of(arguments, arguments + count, is_float64)) return Ref::borrow(args);

    Ref inputs = require(PyTuple_New(count));
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyTuple_SET_ITEM(inputs.get(), i, to_input(arguments[i], i > 0).release());
    }
    return inputs;
}

Py_ssize_t width_of_first(const State& state, PyObject* self, PyObject* inputs) {
    PyArrayObject* first = capi::as_array(PyTuple_GET_ITEM(inputs, 0));
    const int axes = PyArray_NDIM(first);
    if (axes > 0) return PyArray_DIM(first, axes - 1);
    message_of(state, self)
        .text("the first input must have an axis of columns, got the scalar ")
        .str(PyTuple_GET_ITEM(inputs, 0))
        .raise(PyExc_ValueError);
}

bool is_per_column(PyObject* input, Py_ssize_t N) {
    if (!is_float64(input)) return false;
    PyArrayObject* array = capi::as_array(input);
    const int axes = PyArray_NDIM(array);
    return axes > 0 && PyArray_DIM(array, axes - 1) == N;
}

Ref leave_out(PyObject* inputs, PyObject* row, Py_ssize_t N) {
    const Py_ssize_t count = PyTuple_GET_SIZE(inputs);
    Ref copies = require(PyTuple_New(count));
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* input = PyTuple_GET_ITEM(inputs, i);
        Ref copy = is_per_column(input, N)
                       ? require(PyArray_NewCopy(capi::as_array(input), NPY_CORDER))
                       : Ref::borrow(input);
        PyTuple_SET_ITEM(copies.get(), i, copy.release());
    }
    // Only now: making objects can run code, and code can change the row.
    const auto universe = capi::readable_mask(row);
    if (!universe.contiguous() || universe.size() < N) {
        capi::raise(PyExc_ValueError, "universe_mask was changed during the call");
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* copy = PyTuple_GET_ITEM(copies.get(), i);
        if (!is_per_column(copy, N) || copy == PyTuple_GET_ITEM(inputs, i)) continue;
        for_each_row(capi::as_array(copy), [&](kernels::StridedRow values) {
            kernels::leave_out(universe.span(), {const_cast<double*>(values.first), values.size});
        });
    }
    return copies;
}

Ref mask_buffers(const State& state, PyObject* self, Py_ssize_t count, Py_ssize_t N) {
    Ref kept = attr(self, state.names.nan_mask_bufs);
    if (fits(kept.get(), count, N)) return kept;
    Ref masks = require(PyTuple_New(count));
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyTuple_SET_ITEM(masks.get(), i, new_vector(N, NPY_UINT8).release());
    }
    capi::set_attr(self, state.names.nan_mask_bufs, masks.get());
    return masks;
}

void mark_nan(PyObject* inputs, PyObject* masks, PyObject* combined, Py_ssize_t N) {
    const auto all_bytes = writable_bytes(combined);
    if (!fits(masks, PyTuple_GET_SIZE(inputs), N) || !all_bytes || all_bytes.size() != N) {
        capi::raise(PyExc_ValueError, "a mask buffer was changed during the call");
    }
    const auto all = all_bytes.span();
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(inputs); ++i) {
        PyObject* input = PyTuple_GET_ITEM(inputs, i);
        const auto mask = writable_bytes(PyTuple_GET_ITEM(masks, i)).span();
        const bool per_column = is_per_column(input, N);
        if (per_column) {
            mark_input(capi::as_array(input), mask);
        } else {
            std::ranges::fill(mask, npy_uint8{0});
        }
        if (i == 0) {
            std::ranges::copy(mask, all.begin());
        } else if (per_column) {
            kernels::merge_mask(mask, all);
        }
    }
}

}  // namespace quorvane::rotations::boilerplate
