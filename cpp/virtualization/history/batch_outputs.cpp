#include "virtualization/history/batch_outputs.hpp"

#include <algorithm>

#include "capi/array_view.hpp"
#include "virtualization/fast/arrays.hpp"

namespace quorvane::virtualization {

BatchOutputs::BatchOutputs(Py_ssize_t days) : days_(days) {}

void BatchOutputs::append(const State& state, PyObject* row) {
    if (matrix_ && (!state.module_guard.numpy_holds(state) || !copy_to_matrix(row))) {
        return_to_rows();
    }
    if (!matrix_) capi::append(rows_.get(), row);
    ++filled_;
}

bool BatchOutputs::copy_to_matrix(PyObject* row) {
    PyArrayObject* matrix = capi::as_array(matrix_.get());
    const npy_intp width = PyArray_DIM(matrix, 1);
    if (!is_float64_row(row, width)) return false;
    const auto numbers = capi::readable_vector<double>(row).span();
    std::ranges::copy(numbers, static_cast<double*>(PyArray_DATA(matrix)) + filled_ * width);
    return true;
}

double* BatchOutputs::place_of_rows(Py_ssize_t width) {
    if (!matrix_) {
        npy_intp shape[] = {days_, width};
        const Ref rows = std::exchange(rows_, capi::make_list());
        matrix_ = require(PyArray_SimpleNew(2, shape, NPY_DOUBLE));
        filled_ = 0;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows.get()); ++i, ++filled_) {
            if (copy_to_matrix(PyList_GET_ITEM(rows.get(), i))) continue;
            rows_ = rows.share();
            filled_ = PyList_GET_SIZE(rows.get());
            matrix_ = Ref();
            return nullptr;
        }
    }
    PyArrayObject* matrix = capi::as_array(matrix_.get());
    if (PyArray_DIM(matrix, 1) != width) return nullptr;
    return static_cast<double*>(PyArray_DATA(matrix));
}

void BatchOutputs::return_to_rows() {
    const Ref matrix = std::exchange(matrix_, Ref());
    for (Py_ssize_t day = 0; day < filled_; ++day) {
        const Ref row = require(PySequence_GetItem(matrix.get(), day));
        capi::append(rows_.get(), row.get());
    }
}

Ref BatchOutputs::stacked(const State& state) {
    if (matrix_ && state.module_guard.numpy_holds(state)) return matrix_.share();
    if (matrix_) return_to_rows();
    return stack_rows(state, rows_.get());
}

}  // namespace quorvane::virtualization
