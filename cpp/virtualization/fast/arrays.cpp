#include "virtualization/fast/arrays.hpp"

#include <algorithm>

#include "capi/array_view.hpp"

namespace quorvane::virtualization {

namespace {

// An exact array that has the very dtype np.float64 stands for.
bool is_float64_array(PyObject* object) noexcept {
    if (!PyArray_CheckExact(object)) return false;
    const capi::Ref float64 =
        capi::Ref::steal(reinterpret_cast<PyObject*>(PyArray_DescrFromType(NPY_DOUBLE)));
    return reinterpret_cast<PyObject*>(PyArray_DESCR(capi::as_array(object))) == float64.get();
}

// A copy of an exact float64 array as NumPy makes it; the usual one is a row.
Ref copy_of(PyObject* source) {
    const auto row = capi::readable_vector<double>(source);
    if (!row || !row.contiguous()) {
        return require(PyArray_NewCopy(capi::as_array(source), NPY_KEEPORDER));
    }
    npy_intp shape[] = {row.size()};
    Ref copy = require(PyArray_SimpleNew(1, shape, NPY_DOUBLE));
    std::ranges::copy(row.span(), capi::writable_vector<double>(copy.get()).span().begin());
    return copy;
}

// The rows below each other; empty unless they are float64 rows of one width.
Ref stack_plain_rows(PyObject* rows) {
    const Py_ssize_t count = PyList_GET_SIZE(rows);
    if (count == 0) return {};
    const npy_intp width = capi::readable_vector<double>(PyList_GET_ITEM(rows, 0)).size();
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (!is_float64_row(PyList_GET_ITEM(rows, i), width)) return {};
    }
    npy_intp shape[] = {count, width};
    Ref matrix = require(PyArray_SimpleNew(2, shape, NPY_DOUBLE));
    auto* place = static_cast<double*>(PyArray_DATA(capi::as_array(matrix.get())));
    for (Py_ssize_t i = 0; i < count; ++i) {
        const auto row = capi::readable_vector<double>(PyList_GET_ITEM(rows, i));
        place = std::ranges::copy(row.span(), place).out;
    }
    return matrix;
}

}  // namespace

bool is_float64_row(PyObject* object, npy_intp width) noexcept {
    const auto row = capi::readable_vector<double>(object);
    return row && row.contiguous() && row.size() == width && is_float64_array(object);
}

Ref stack_rows(const State& state, PyObject* rows) {
    if (state.module_guard.numpy_holds(state)) {
        if (Ref matrix = stack_plain_rows(rows)) return matrix;
    }
    return call(state.numpy(state.names.vstack).get(), rows);
}

Ref as_float64(const State& state, PyObject* argument) {
    if (is_float64_array(argument) && state.module_guard.numpy_holds(state)) {
        return Ref::borrow(argument);
    }
    return state.numpy_with_dtype(state.names.asarray, argument, state.names.float64);
}

Ref find_array_function(const State& state) {
    return state.module_guard.numpy_holds(state) ? Ref() : state.numpy(state.names.array);
}

Ref call_copying(const State& state, const Ref& array, PyObject* source) {
    if (!array && is_float64_array(source) && state.module_guard.numpy_holds(state)) {
        return copy_of(source);
    }
    const Ref function = array ? array.share() : state.module_guard.own(state.names.array);
    return call_with_keywords(function.get(), state.dtype_and_copy_keywords.get(), source,
                              state.numpy(state.names.float64).get(), Py_True);
}

}  // namespace quorvane::virtualization
