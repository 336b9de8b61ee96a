#include "virtualization/shortcuts/quick_item.hpp"

#include <cmath>

#include "capi/array_view.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

// Whether a mask flags the instrument; unknown when only Python can tell.
Verdict judge_mask(PyObject* mask, npy_intp instrument) noexcept {
    const auto view = capi::readable_mask(mask);
    if (!view || instrument >= view.size()) return Verdict::unknown;
    return view[instrument] != 0 ? Verdict::invalid : Verdict::valid;
}

Verdict judge_instrument(const DayMasks& masks, npy_intp instrument) noexcept {
    Verdict verdict = judge_mask(masks.combined_nan_mask, instrument);
    if (!PyTuple_CheckExact(masks.nan_masks)) return Verdict::unknown;
    for (Py_ssize_t i = 0; verdict == Verdict::valid && i < PyTuple_GET_SIZE(masks.nan_masks);
         ++i) {
        verdict = judge_mask(PyTuple_GET_ITEM(masks.nan_masks, i), instrument);
    }
    return verdict;
}

// Stops at the first leg that fails, as the validity step does.
Verdict judge_legs(PyObject* legs, const DayMasks& masks) noexcept {
    const Py_ssize_t N = plain_size(masks.N);
    if (N < 0) return Verdict::unknown;
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

// dict(metadata or {}) with "key" and "legs" set where they are not; empty when the metadata's own
// entries could make that run Python code.
Ref normalized_metadata(const State& state, PyObject* own, PyObject* key, PyObject* legs) {
    if (own != nullptr && !is_plain_record(own)) return {};
    Ref metadata = own != nullptr ? require(PyDict_Copy(own)) : capi::make_dict();
    set_default(metadata.get(), state.names.key, key);
    set_default(metadata.get(), state.names.legs, legs);
    return metadata;
}

}  // namespace

bool normalize_quickly(const State& state, PyObject* raw, QuickItem& quick) {
    ItemEntries entries;
    if (!read_inert_entries(state, raw, entries) || !is_inert_key(entries.key)) return false;
    const std::optional<double> value = inert_float(entries.value);
    if (!value) return false;
    // Making the legs may collect garbage and so run finalizers: from here on everything is owned.
    quick.key = Ref::borrow(entries.key);
    quick.raw_value = Ref::borrow(entries.value);
    quick.value = *value;
    const Ref own_legs = Ref::borrow(entries.legs);
    const Ref own_metadata = Ref::borrow(entries.metadata);
    quick.legs = inert_legs(own_legs.get());
    if (!quick.legs) return false;
    quick.metadata =
        normalized_metadata(state, own_metadata.get(), quick.key.get(), quick.legs.get());
    return static_cast<bool>(quick.metadata);
}

Verdict judge_quickly(const QuickItem& quick, const DayMasks& masks) noexcept {
    const Verdict verdict = judge_legs(quick.legs.get(), masks);
    if (verdict != Verdict::valid) return verdict;
    return std::isfinite(quick.value) ? Verdict::valid : Verdict::invalid;
}

Ref make_record(const State& state, const QuickItem& quick) {
    const Names& names = state.names;
    const Ref value = capi::to_float(quick.raw_value.get());
    Ref record = state.pristine.new_structure();
    const Ref fields = require(PyObject_GenericGetDict(record.get(), nullptr));
    require(PyDict_SetItem(fields.get(), names.key, quick.key.get()));
    require(PyDict_SetItem(fields.get(), names.legs, quick.legs.get()));
    require(PyDict_SetItem(fields.get(), names.value, value.get()));
    require(PyDict_SetItem(fields.get(), names.metadata, quick.metadata.get()));
    return record;
}

}  // namespace quorvane::virtualization
