#include "virtualization/shortcuts/quick_item.hpp"

#include <cmath>

#include "capi/array_view.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

// The item's four entries; empty where it has none.
struct Entries {
    Ref key, legs, value, metadata;
};

bool read_dict_entries(const State& state, PyObject* raw, Entries& entries) {
    const Names& names = state.names;
    if (!is_plain_record(raw)) return false;
    entries.key = capi::dict_get(raw, names.key);
    entries.legs = capi::dict_get(raw, names.legs);
    entries.value = capi::dict_get(raw, names.value);
    entries.metadata = capi::dict_get(raw, names.metadata);
    return true;
}

// Only the module's own record: its class is known to read attributes from the instance.
bool read_record_entries(const State& state, PyObject* raw, Entries& entries) {
    const Names& names = state.names;
    PyObject* dict = instance_dict(raw);
    if (!Py_IS_TYPE(raw, state.pristine.structure_class()) || dict == nullptr) return false;
    if (!is_plain_record(dict)) return false;
    entries.key = capi::dict_get(dict, names.key);
    entries.legs = capi::dict_get(dict, names.legs);
    entries.value = capi::dict_get(dict, names.value);
    entries.metadata = capi::dict_get(dict, names.metadata);
    return true;
}

bool has_no_metadata(const Ref& metadata) {
    return !metadata || metadata.get() == Py_None ||
           (PyDict_CheckExact(metadata.get()) && PyDict_Size(metadata.get()) == 0);
}

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
Ref normalized_metadata(const State& state, const Ref& own, PyObject* key, PyObject* legs) {
    Ref metadata;
    if (has_no_metadata(own)) {
        metadata = capi::make_dict();
    } else if (is_plain_record(own.get())) {
        metadata = require(PyDict_Copy(own.get()));
    } else {
        return {};
    }
    set_default(metadata.get(), state.names.key, key);
    set_default(metadata.get(), state.names.legs, legs);
    return metadata;
}

}  // namespace

bool normalize_quickly(const State& state, PyObject* raw, QuickItem& quick) {
    Entries entries;
    const bool read = PyDict_CheckExact(raw) ? read_dict_entries(state, raw, entries)
                                             : read_record_entries(state, raw, entries);
    if (!read || !entries.key || !entries.legs || !entries.value) return false;
    if (!is_inert_key(entries.key.get())) return false;
    const std::optional<double> value = inert_float(entries.value.get());
    if (!value) return false;
    quick.legs = inert_legs(entries.legs.get());
    if (!quick.legs) return false;
    quick.metadata =
        normalized_metadata(state, entries.metadata, entries.key.get(), quick.legs.get());
    if (!quick.metadata) return false;
    quick.key = std::move(entries.key);
    quick.raw_value = std::move(entries.value);
    quick.value = *value;
    return true;
}

Verdict judge_quickly(const QuickItem& quick, const DayMasks& masks) noexcept {
    const Verdict verdict = judge_legs(quick.legs.get(), masks);
    if (verdict != Verdict::valid) return verdict;
    return std::isfinite(quick.value) ? Verdict::valid : Verdict::invalid;
}

Ref make_record(const State& state, const QuickItem& quick) {
    const Ref value = capi::to_float(quick.raw_value.get());
    return call(state.global(state.names.VirtualStructure).get(), quick.key.get(), quick.legs.get(),
                value.get(), quick.metadata.get());
}

}  // namespace quorvane::virtualization
