#include "virtualization/shortcuts/inert_run.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "capi/gc_pause.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/known_day.hpp"

namespace quorvane::virtualization {

namespace {

// Slots are remembered in 32 bits.
constexpr Py_ssize_t most_slots = std::numeric_limits<std::int32_t>::max();

}  // namespace

InertRun::InertRun(const State& state, PlainRotation& plain, const DayMasks& masks,
                   const DayReport& report, std::shared_ptr<DayMemory> memory)
    : state_(state), plain_(plain), masks_(masks), report_(report), memory_(std::move(memory)) {}

bool InertRun::is_possible() {
    if (memory_ == nullptr || report_.count() <= 0 || !plain_.holds()) return false;
    txi_input_ = capi::writable_vector<double>(plain_.txi_input());
    const Py_ssize_t width = plain_.max_structures();
    if (!txi_input_ || txi_input_.size() < width || width > most_slots ||
        PyList_GET_SIZE(plain_.metadata_by_slot()) != width) {
        return false;
    }
    if (!memory_->live.see(masks_, txi_input_) || report_.may_change_with(txi_input_)) return false;
    const std::uint64_t known_slots = memory_->slots.version();
    if (!memory_->slots.knows(plain_.slot_by_key(), plain_.key_by_slot(), width)) return false;
    // Equal slots of another map may be other objects, and metadata holds the map's own.
    if (memory_->slots.version() != known_slots) memory_->metadata.forget();
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
    if (record_same_again()) return report_.count();
    const Py_ssize_t recorded = record_each();
    remember_columns(recorded);
    return recorded;
}

bool InertRun::record_same_again() {
    DayMemory& memory = *memory_;
    const columns::Columns* columns = report_.columns();
    return columns != nullptr &&
           memory.columns.knows(*columns, memory.slots, memory.legs, memory.metadata) &&
           record_known_day(state_, plain_, *columns, memory, txi_input_);
}

Py_ssize_t InertRun::record_each() {
    memory_->metadata.begin_day(plain_.metadata_by_slot());
    Py_ssize_t recorded = 0;
    try {
        recorded = record_blocks();
    } catch (...) {
        end_failed_day();
        throw;
    }
    memory_->metadata.end_day(state_);
    return recorded;
}

Py_ssize_t InertRun::record_blocks() {
    Py_ssize_t recorded = 0;
    while (const Py_ssize_t read = read_block(recorded)) {
        fetch_new_legs(read);
        for (Py_ssize_t i = 0; i < read; ++i, ++recorded) {
            if (record_item(block_[i]) == Outcome::needs_python) return recorded;
        }
    }
    return recorded;
}

// How many items from `start` on can be read, at most a block of them.
Py_ssize_t InertRun::read_block(Py_ssize_t start) {
    const Py_ssize_t count = report_.count();
    const Py_ssize_t end = std::min(start + block_size, count);
    const Py_ssize_t next_end = std::min(end + block_size, count);
    for (Py_ssize_t next = end; next < next_end; ++next) report_.prefetch(next);
    Py_ssize_t read = 0;
    for (Py_ssize_t position = start; position < end; ++position, ++read) {
        FoundItem& found = block_[read];
        if (!report_.read(position, found.item)) break;
        found.position = static_cast<std::size_t>(position);
        found.slot = memory_->slots.find(plain_.slot_by_key(), found.position, found.item.key);
        if (has_same_legs(found)) continue;
        __builtin_prefetch(found.item.legs);
        if (found.slot.slot != nullptr) memory_->metadata.prefetch(found.slot.index);
    }
    return read;
}

// The legs that are to be looked into, and the metadata that is to be given them.
void InertRun::fetch_new_legs(Py_ssize_t read) const noexcept {
    constexpr Py_ssize_t most = 4;
    for (const FoundItem& found : std::span(block_).first(static_cast<std::size_t>(read))) {
        PyObject* legs = found.item.legs;
        if (has_same_legs(found) || !PyTuple_CheckExact(legs)) continue;
        for (Py_ssize_t i = 0; i < std::min(most, PyTuple_GET_SIZE(legs)); ++i) {
            __builtin_prefetch(PyTuple_GET_ITEM(legs, i));
        }
        if (found.slot.slot != nullptr) memory_->metadata.prefetch_contents(found.slot.index);
    }
}

void InertRun::remember_columns(Py_ssize_t recorded) {
    const columns::Columns* columns = report_.columns();
    if (columns != nullptr && recorded == report_.count()) {
        memory_->columns.remember(*columns, memory_->slots, memory_->legs, memory_->metadata);
    } else {
        memory_->columns.forget();
    }
}

// Memory has run out. The slots that were to be reset still are, as far as that is possible.
void InertRun::end_failed_day() const {
    const capi::KeptError error;
    try {
        memory_->metadata.end_day(state_);
    } catch (const capi::PythonError&) {
        PyErr_Clear();
    }
}

// Everything that can need Python is found out before the first change.
InertRun::Outcome InertRun::record_item(const FoundItem& found) {
    const ReportedItem& item = found.item;
    const bool same_legs = has_same_legs(found);
    const bool as_they_are = same_legs || LegMemory::accepts(item.legs);
    const Ref legs = as_they_are ? Ref::borrow(item.legs) : inert_legs(item.legs);
    if (!legs || (!as_they_are && !LegMemory::accepts(legs.get()))) return Outcome::needs_python;
    SlotMemory::Found slot =
        found.slot.slot != nullptr ? found.slot : slot_now(found.position, item.key);
    if (slot.slot == nullptr) return Outcome::needs_python;

    if (!same_legs) remember_legs(slot, legs.get());
    const bool valid = are_legs_live(slot.index) && std::isfinite(item.value);
    memory_->metadata.report(state_, slot.slot, slot.index, item.key, legs.get(), valid);
    if (valid) txi_input_[static_cast<npy_intp>(slot.index)] = item.value;
    return Outcome::recorded;
}

bool InertRun::has_same_legs(const FoundItem& found) const noexcept {
    return found.slot.slot != nullptr && memory_->legs.holds(found.slot.index, found.item.legs);
}

// The slot of a key that had none when it was read: an item before may have got it one since. Null
// when it cannot be given one here: it may not be inert, or the maps are full.
SlotMemory::Found InertRun::slot_now(std::size_t position, PyObject* key) {
    if (const SlotMemory::Found known = memory_->slots.find(plain_.slot_by_key(), position, key);
        known.slot != nullptr) {
        return known;
    }
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
    const kernels::LegPlace& place = memory_->legs.places()[slot];
    const std::uint32_t* ids = memory_->legs.flat().ids.data() + place.begin;
    return std::all_of(ids, ids + place.count,
                       [&](std::uint32_t id) { return memory_->live.is_live(id); });
}

}  // namespace quorvane::virtualization
