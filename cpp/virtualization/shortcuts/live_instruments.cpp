#include "virtualization/shortcuts/live_instruments.hpp"

#include "kernels/nan_mask.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

bool LiveInstruments::see(const DayMasks& masks, const capi::VectorView<double>& row) {
    const Py_ssize_t N = plain_size(masks.N);
    if (N < 0 || !PyTuple_CheckExact(masks.nan_masks)) return false;
    // The first mask is looked at before anything is as long as N says.
    const auto first = capi::readable_mask(masks.combined_nan_mask);
    if (!first || first.size() < N) return false;
    dead_.assign(static_cast<std::size_t>(N), 0);
    if (!add(masks.combined_nan_mask, row)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(masks.nan_masks); ++i) {
        if (!add(PyTuple_GET_ITEM(masks.nan_masks, i), row)) return false;
    }
    return true;
}

bool LiveInstruments::add(PyObject* mask, const capi::VectorView<double>& row) {
    const auto view = capi::readable_mask(mask);
    if (!view || static_cast<std::size_t>(view.size()) < dead_.size() ||
        capi::may_share_memory(view, row)) {
        return false;
    }
    if (view.contiguous()) {
        kernels::merge_mask(view.span().first(dead_.size()), dead_);
        return true;
    }
    for (std::size_t i = 0; i < dead_.size(); ++i) dead_[i] |= view[static_cast<npy_intp>(i)];
    return true;
}

}  // namespace quorvane::virtualization
