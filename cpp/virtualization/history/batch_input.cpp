#include "virtualization/history/batch_input.hpp"

#include <utility>

#include "capi/array_view.hpp"

namespace quorvane::virtualization {

namespace {

using capi::as_array;

bool is_mask_type(int type) noexcept { return type == NPY_UINT8 || type == NPY_BOOL; }

// The bytes from the first to the last entry, whatever lies between them.
std::span<const char> extent_of(PyArrayObject* array) noexcept {
    if (PyArray_SIZE(array) == 0) return {};
    const char* first = PyArray_BYTES(array);
    const char* last = first + PyArray_ITEMSIZE(array);
    for (int axis = 0; axis < PyArray_NDIM(array); ++axis) {
        const npy_intp reach = (PyArray_DIM(array, axis) - 1) * PyArray_STRIDE(array, axis);
        (reach < 0 ? first : last) += reach;
    }
    return {first, static_cast<std::size_t>(last - first)};
}

// One row for all days, or a row for each.
std::optional<kernels::StridedMatrix<std::uint8_t>> universe_in(PyObject* object, npy_intp days,
                                                                npy_intp instruments) {
    if (!PyArray_CheckExact(object)) return std::nullopt;
    PyArrayObject* array = as_array(object);
    const int axes = PyArray_NDIM(array);
    if (!is_mask_type(PyArray_TYPE(array)) || axes < 1 || axes > 2 ||
        PyArray_DIM(array, axes - 1) < instruments || (axes == 2 && PyArray_DIM(array, 0) < days)) {
        return std::nullopt;
    }
    return kernels::StridedMatrix<std::uint8_t>{PyArray_BYTES(array),
                                                axes == 2 ? PyArray_STRIDE(array, 0) : 0,
                                                PyArray_STRIDE(array, axes - 1)};
}

}  // namespace

std::optional<BatchInput> BatchInput::of(PyObject* arrays, PyObject* universe) {
    if (PyList_GET_SIZE(arrays) != 1) return std::nullopt;
    BatchInput input;
    input.matrix_ = Ref::borrow(PyList_GET_ITEM(arrays, 0));
    input.universe_ = Ref::borrow(universe);
    if (!input.look_again()) return std::nullopt;
    input.pin(input.matrix_.get());
    if (input.universe_) input.pin(input.universe_.get());
    return input;
}

bool BatchInput::look_again() {
    if (!PyArray_CheckExact(matrix_.get())) return false;
    PyArrayObject* array = as_array(matrix_.get());
    if (PyArray_NDIM(array) != 2 || PyArray_TYPE(array) != NPY_DOUBLE ||
        !PyArray_ISBEHAVED_RO(array)) {
        return false;
    }
    const npy_intp days = PyArray_DIM(array, 0), instruments = PyArray_DIM(array, 1);
    // The days of a batch are counted when it begins.
    if (!extents_.empty() && std::cmp_not_equal(days, days_)) return false;
    days_ = static_cast<std::size_t>(days);
    numbers_.instruments = static_cast<std::size_t>(instruments);
    numbers_.values = {PyArray_BYTES(array), PyArray_STRIDE(array, 0), PyArray_STRIDE(array, 1)};
    extents_.assign(1, extent_of(array));
    if (!universe_) return true;
    const auto mask = universe_in(universe_.get(), days, instruments);
    if (!mask) return false;
    numbers_.universe = *mask;
    extents_.push_back(extent_of(as_array(universe_.get())));
    return true;
}

// NumPy resizes no array that somebody has a weak reference to, whatever it is told not to check.
void BatchInput::pin(PyObject* array) {
    for (PyObject* owner = array; owner != nullptr && PyArray_Check(owner);
         owner = PyArray_BASE(as_array(owner))) {
        pins_.push_back(Ref::borrow(owner));
        pins_.push_back(require(PyWeakref_NewRef(owner, nullptr)));
    }
}

}  // namespace quorvane::virtualization
