#pragma once

#include <algorithm>
#include <span>

#include "capi/names.hpp"
#include "capi/plain_attributes.hpp"
#include "rotations/buffers.hpp"

namespace quorvane::rotations {

// An array of its own memory, which no other array shares unless it is a view of this one.
inline bool owns_memory(PyObject* array) noexcept {
    return PyArray_CheckExact(array) && PyArray_BASE(capi::as_array(array)) == nullptr &&
           PyArray_CHKFLAGS(capi::as_array(array), NPY_ARRAY_OWNDATA);
}

// The same, and nobody holds it but its instance and one that has seen it there.
inline bool is_alone(PyObject* array) noexcept {
    return owns_memory(array) && Py_REFCNT(array) == 2;
}

// No byte of the view lies in any of the inputs.
template <class T>
bool is_apart(const VectorView<T>& view, std::span<const std::span<const char>> inputs) {
    return std::ranges::none_of(
        inputs, [&](std::span<const char> input) { return capi::overlap(input, view.extent()); });
}

// What the framework's day finds in an instance: the methods and the arrays that it writes to.
class FrameworkDay {
public:
    const capi::Interned call{"__call__"}, compute{"compute"};

    // Whether a day of one input and `width` columns converts nothing in the arrays, and changes
    // none of `inputs` through them.
    bool has_plain_buffers(capi::SeenInstance& seen, Py_ssize_t width,
                           std::span<const std::span<const char>> inputs) const {
        PyObject* allocated = seen.look(n_alloc_);
        if (allocated == nullptr || !(capi::is_none(allocated) || PyLong_CheckExact(allocated))) {
            return false;
        }
        PyObject* output_buf = seen.look(output_buf_);
        PyObject* combined_buf = seen.look(combined_nan_buf_);
        PyObject* masks = seen.look(nan_mask_bufs_);
        if (output_buf == nullptr || combined_buf == nullptr || masks == nullptr ||
            !owns_memory(output_buf) || !owns_memory(combined_buf)) {
            return false;
        }
        const auto output = writable_doubles(output_buf);
        const auto combined = writable_bytes(combined_buf);
        if (!output || output.size() < width || !is_apart(output, inputs) || !combined ||
            combined.size() < width || !is_apart(combined, inputs) || !PyTuple_CheckExact(masks) ||
            PyTuple_GET_SIZE(masks) != 1) {
            return false;
        }
        const auto mask = writable_bytes(PyTuple_GET_ITEM(masks, 0));
        return mask && mask.size() == width && owns_memory(PyTuple_GET_ITEM(masks, 0)) &&
               is_apart(mask, inputs);
    }

private:
    const capi::Interned n_alloc_{"_n_alloc"};
    const capi::Interned output_buf_{"_output_buf"};
    const capi::Interned combined_nan_buf_{"_combined_nan_buf"};
    const capi::Interned nan_mask_bufs_{"_nan_mask_bufs"};
};

}  // namespace quorvane::rotations
