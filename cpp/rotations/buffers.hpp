#pragma once

#include "capi/array_view.hpp"

namespace quorvane::rotations {

using capi::VectorView;

// A new one-dimensional array with undefined contents.
inline capi::Ref new_vector(Py_ssize_t size, int type_number) {
    npy_intp shape[] = {size};
    return capi::require(PyArray_SimpleNew(1, shape, type_number));
}

// The view of a writable, contiguous, one-dimensional array of uint8; empty for anything else.
inline VectorView<npy_uint8> writable_bytes(PyObject* object) noexcept {
    const auto view = capi::detail::view_of<npy_uint8>(object, NPY_UINT8, NPY_ARRAY_WRITEABLE);
    return view.contiguous() ? view : VectorView<npy_uint8>();
}

// The same of float64, aligned.
inline VectorView<double> writable_doubles(PyObject* object) noexcept {
    const auto view = capi::writable_vector<double>(object);
    return view.contiguous() ? view : VectorView<double>();
}

// np.asarray(object, dtype=np.float64), and whatever else the flags ask for.
inline capi::Ref as_float64(PyObject* object, int flags = 0) {
    PyArray_Descr* float64 = PyArray_DescrFromType(NPY_DOUBLE);
    constexpr int asarray = NPY_ARRAY_ALIGNED | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST;
    return capi::require(PyArray_FromAny(object, float64, 0, 0, asarray | flags, nullptr));
}

}  // namespace quorvane::rotations
