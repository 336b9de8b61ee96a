#include "virtualization/cache/live_instruments.hpp"

#include "kernels/nan_mask.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

std::span<PyObject* const> elements_of(PyObject* sequence) noexcept {
    return {PySequence_Fast_ITEMS(sequence),
            static_cast<std::size_t>(PySequence_Fast_GET_SIZE(sequence))};
}

// Whether a mask flags the instrument; unknown when only Python can tell.
Verdict judge_mask(PyObject* mask, npy_intp instrument) noexcept {
    const auto view = capi::readable_mask(mask);
    if (!view || instrument >= view.size()) return Verdict::unknown;
    return view[instrument] != 0 ? Verdict::invalid : Verdict::valid;
}

Verdict judge_instrument(const DayMasks& masks, npy_intp instrument) noexcept {
    Verdict verdict = judge_mask(masks.combined_nan_mask, instrument);
    for (PyObject* mask : elements_of(masks.nan_masks)) {
        if (verdict != Verdict::valid) break;
        verdict = judge_mask(mask, instrument);
    }
    return verdict;
}

}  // namespace

// Stops at the first leg that fails, as the validity step does.
Verdict judge_legs(PyObject* legs, const DayMasks& masks) noexcept {
    const Py_ssize_t N = plain_size(masks.N);
    if (N < 0 || !is_plain_sequence(masks.nan_masks)) return Verdict::unknown;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        int overflow = 0;
        const long long id =
            PyLong_AsLongLongAndOverflow(PyTuple_GET_ITEM(PyTuple_GET_ITEM(legs, i), 0), &overflow);
        if (overflow != 0) return Verdict::unknown;
        if (id < 0 || id >= N) return Verdict::invalid;
        const Verdict verdict = judge_instrument(masks, static_cast<npy_intp>(id));
        if (verdict != Verdict::valid) return verdict;
    }
    return Verdict::valid;
}

bool LiveInstruments::see(const DayMasks& masks, const capi::VectorView<double>& row) {
    const Py_ssize_t N = plain_size(masks.N);
    if (N < 0 || !is_plain_sequence(masks.nan_masks)) return false;
    // The first mask is looked at before anything is as long as N says.
    const auto first = capi::readable_mask(masks.combined_nan_mask);
    if (!first || first.size() < N) return false;
    dead_.assign(static_cast<std::size_t>(N), 0);
    if (!add(masks.combined_nan_mask, row)) return false;
    for (PyObject* mask : elements_of(masks.nan_masks)) {
        if (!add(mask, row)) return false;
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
