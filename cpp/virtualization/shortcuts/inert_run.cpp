#include "virtualization/shortcuts/inert_run.hpp"

#include <cmath>

#include "capi/gc_pause.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

InertRun::InertRun(const State& state, PlainRotation& plain, const DayMasks& masks,
                   PyObject* structures, std::shared_ptr<DayMemory> memory)
    : state_(state),
      plain_(plain),
      masks_(masks),
      structures_(structures),
      memory_(std::move(memory)) {}

bool InertRun::is_possible() {
    if (memory_ == nullptr || item_count() <= 0 || !plain_.holds() || !see_masks()) return false;
    txi_input_ = capi::writable_vector<double>(plain_.txi_input());
    const Py_ssize_t width = plain_.max_structures();
    if (!txi_input_ || txi_input_.size() < width ||
        PyList_GET_SIZE(plain_.metadata_by_slot()) != width) {
        return false;
    }
    if (!memory_->slots.knows(plain_.slot_by_key(), plain_.key_by_slot(), width)) return false;
    return memory_->legs.describes(plain_.legs_by_slot()) ||
           memory_->legs.load(plain_.legs_by_slot(), width);
}

bool InertRun::may_postpone_reset() const {
    return memory_->metadata.describes(plain_.metadata_by_slot());
}

bool InertRun::adopt_reset_slots() const {
    return memory_->metadata.adopt(state_, plain_.metadata_by_slot());
}

Py_ssize_t InertRun::record() {
    const capi::GcPause no_finalizers;
    MetadataMemory& metadata = memory_->metadata;
    metadata.begin_day(plain_.metadata_by_slot());
    Py_ssize_t recorded = 0;
    try {
        const Py_ssize_t count = item_count();
        for (; recorded < count; ++recorded) {
            PyObject* raw = PySequence_Fast_GET_ITEM(structures_, recorded);
            const auto position = static_cast<std::size_t>(recorded);
            if (record_item(position, raw) == Outcome::needs_python) break;
        }
    } catch (...) {
        end_failed_day(metadata);
        throw;
    }
    metadata.end_day(state_);
    return recorded;
}

// Memory has run out. The slots that were to be reset still are, as far as that is possible.
void InertRun::end_failed_day(MetadataMemory& metadata) const {
    const capi::KeptError error;
    try {
        metadata.end_day(state_);
    } catch (const capi::PythonError&) {
        PyErr_Clear();
    }
}

// Everything that can need Python is found out before the first change.
InertRun::Outcome InertRun::record_item(std::size_t position, PyObject* raw) {
    ItemEntries entries;
    if (!read_inert_entries(state_, raw, entries) || entries.metadata != nullptr) {
        return Outcome::needs_python;
    }
    const std::optional<double> value = inert_float(entries.value);
    if (!value) return Outcome::needs_python;
    SlotMemory::Found slot = memory_->slots.find(plain_.slot_by_key(), position, entries.key);
    const bool same_legs = slot.slot != nullptr && memory_->legs.holds(slot.index, entries.legs);
    const Ref legs = same_legs ? Ref::borrow(entries.legs) : inert_legs(entries.legs);
    if (!legs || (!same_legs && !LegMemory::accepts(legs.get()))) return Outcome::needs_python;
    if (slot.slot == nullptr) slot = new_slot(entries.key);
    if (slot.slot == nullptr) return Outcome::needs_python;

    if (!same_legs) remember_legs(slot, legs.get());
    const bool valid = are_legs_live(slot.index) && std::isfinite(*value);
    memory_->metadata.report(state_, slot.slot, slot.index, entries.key, legs.get(), valid);
    if (valid) txi_input_[static_cast<npy_intp>(slot.index)] = *value;
    return Outcome::recorded;
}

// Null when the key cannot be given a slot here: it may not be inert, or the maps are full.
SlotMemory::Found InertRun::new_slot(PyObject* key) {
    if (!is_inert_key(key) || PyDict_Size(plain_.slot_by_key()) >= plain_.max_structures()) {
        return {};
    }
    return memory_->slots.add(plain_.slot_by_key(), plain_.key_by_slot(), key);
}

void InertRun::remember_legs(const SlotMemory::Found& slot, PyObject* legs) {
    memory_->legs.describes_nothing();
    memory_->legs.store(slot.index, legs);
    require(PyDict_SetItem(plain_.legs_by_slot(), slot.slot, legs));
    memory_->legs.now_describes(plain_.legs_by_slot());
}

bool InertRun::are_legs_live(std::size_t slot) const noexcept {
    const LegMemory::Place& place = memory_->legs.place(slot);
    const std::vector<std::size_t>& ids = memory_->legs.flat().ids;
    for (std::size_t leg = place.begin; leg < place.begin + place.count; ++leg) {
        if (ids[leg] >= live_instruments_) return false;
        for (const auto& mask : mask_views_) {
            if (mask[static_cast<npy_intp>(ids[leg])] != 0) return false;
        }
    }
    return true;
}

bool InertRun::see_masks() {
    const Py_ssize_t N = plain_size(masks_.N);
    if (N < 0 || !PyTuple_CheckExact(masks_.nan_masks)) return false;
    live_instruments_ = static_cast<std::size_t>(N);
    mask_views_.clear();
    const auto see = [&](PyObject* mask) {
        const auto view = capi::readable_mask(mask);
        mask_views_.push_back(view);
        return view && view.size() >= N;
    };
    bool all_wide = see(masks_.combined_nan_mask);
    for (Py_ssize_t i = 0; all_wide && i < PyTuple_GET_SIZE(masks_.nan_masks); ++i) {
        all_wide = see(PyTuple_GET_ITEM(masks_.nan_masks, i));
    }
    return all_wide;
}

// The length of an exact list or tuple; -1 of anything else.
Py_ssize_t InertRun::item_count() const noexcept {
    if (PyList_CheckExact(structures_)) return PyList_GET_SIZE(structures_);
    return PyTuple_CheckExact(structures_) ? PyTuple_GET_SIZE(structures_) : -1;
}

}  // namespace quorvane::virtualization
