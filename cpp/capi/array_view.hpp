#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include "capi/numpy.hpp"
#include "capi/objects.hpp"

namespace quorvane::capi {

template <class T>
inline constexpr int type_number_of = NPY_NOTYPE;
template <>
inline constexpr int type_number_of<double> = NPY_DOUBLE;

// A one-dimensional array as it lies in memory. It is valid until the next Python code runs: code
// can resize or drop the array, so views are made right before the loop that uses them.
template <class T>
class VectorView {
public:
    VectorView() = default;
    VectorView(char* data, npy_intp size, npy_intp stride)
        : data_(data), size_(size), stride_(stride) {}

    [[nodiscard]] npy_intp size() const noexcept { return size_; }
    [[nodiscard]] bool contiguous() const noexcept {
        return stride_ == static_cast<npy_intp>(sizeof(T)) || size_ <= 1;
    }
    // Whether entries share memory, so that the order in which they are written counts.
    [[nodiscard]] bool overlaps_itself() const noexcept {
        constexpr auto width = static_cast<npy_intp>(sizeof(T));
        return size_ > 1 && -width < stride_ && stride_ < width;
    }
    T& operator[](npy_intp index) const noexcept {
        return *reinterpret_cast<T*>(data_ + index * stride_);
    }
    // Only of a contiguous view.
    [[nodiscard]] std::span<T> span() const noexcept {
        return {reinterpret_cast<T*>(data_), static_cast<std::size_t>(size_)};
    }
    explicit operator bool() const noexcept { return data_ != nullptr; }

    // The bytes from the first to the last entry, whatever lies between them.
    [[nodiscard]] std::span<const char> extent() const noexcept {
        if (size_ == 0) return {};
        const npy_intp last = (size_ - 1) * stride_;
        const auto length = static_cast<std::size_t>(last < 0 ? -last : last) + sizeof(T);
        return {last < 0 ? data_ + last : data_, length};
    }

private:
    char* data_ = nullptr;
    npy_intp size_ = 0;
    npy_intp stride_ = 0;
};

// Whether two pieces of memory have a byte in common.
template <class Left, class Right>
bool overlap(std::span<Left> left, std::span<Right> right) noexcept {
    // Of pointers into different objects, only these have a defined order.
    const std::less<const void*> before;
    return before(left.data(), right.data() + right.size()) &&
           before(right.data(), left.data() + left.size());
}

// False only when no entry of one view can be part of the other.
template <class Left, class Right>
bool may_share_memory(const VectorView<Left>& left, const VectorView<Right>& right) noexcept {
    return overlap(left.extent(), right.extent());
}

inline PyArrayObject* as_array(PyObject* object) noexcept {
    return reinterpret_cast<PyArrayObject*>(object);
}

namespace detail {

template <class T>
VectorView<T> view_of(PyObject* object, int type_number, int flags) noexcept {
    if (!PyArray_CheckExact(object)) return {};
    PyArrayObject* array = as_array(object);
    if (PyArray_NDIM(array) != 1 || PyArray_TYPE(array) != type_number ||
        (PyArray_FLAGS(array) & flags) != flags || !PyArray_ISNOTSWAPPED(array)) {
        return {};
    }
    return {PyArray_BYTES(array), PyArray_DIM(array, 0), PyArray_STRIDE(array, 0)};
}

}  // namespace detail

// The view of an exact, one-dimensional, aligned, native array of T; empty for anything else.
template <class T>
VectorView<const T> readable_vector(PyObject* object) noexcept {
    return detail::view_of<const T>(object, type_number_of<T>, NPY_ARRAY_ALIGNED);
}

// True of what np.broadcast_arrays gives: writing to it still works, with a warning. NumPy keeps
// this in the highest bit of the flags and gives the bit no public name.
inline bool warns_on_write(PyArrayObject* array) noexcept { return PyArray_FLAGS(array) < 0; }

// The same, and it can be written without NumPy having anything to say about it.
template <class T>
VectorView<T> writable_vector(PyObject* object) noexcept {
    if (PyArray_CheckExact(object) && warns_on_write(as_array(object))) return {};
    return detail::view_of<T>(object, type_number_of<T>, NPY_ARRAY_ALIGNED | NPY_ARRAY_WRITEABLE);
}

// A mask of bytes: a one-dimensional array of bool or uint8.
inline VectorView<const npy_uint8> readable_mask(PyObject* object) noexcept {
    if (const auto bytes = detail::view_of<const npy_uint8>(object, NPY_UINT8, NPY_ARRAY_ALIGNED)) {
        return bytes;
    }
    return detail::view_of<const npy_uint8>(object, NPY_BOOL, NPY_ARRAY_ALIGNED);
}

}  // namespace quorvane::capi
