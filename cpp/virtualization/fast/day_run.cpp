#include "virtualization/fast/day_run.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "capi/gc_pause.hpp"
#include "virtualization/fast/known_columns.hpp"
#include "virtualization/fast/plain_legs.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

// Slots are remembered in 32 bits.
constexpr Py_ssize_t most_slots = std::numeric_limits<std::int32_t>::max();

}  // namespace

DayRun::DayRun(const State& state, RotationGuard& guard, const DayMasks& masks,
               const Report& report, TableCache& cache)
    : state_(state), guard_(guard), masks_(masks), report_(report), cache_(cache) {}

bool DayRun::is_possible() {
    if (report_.count() <= 0 || !guard_.holds() || !guard_.own_steps().all()) return false;
    tables_ = guard_.tables();
    txi_input_ = capi::writable_vector<double>(guard_.txi_input());
    const Py_ssize_t width = tables_.max_structures;
    return txi_input_ && txi_input_.size() >= width && width <= most_slots &&
           PyList_GET_SIZE(tables_.metadata_by_slot) == width &&
           cache_.live.see(masks_, txi_input_) && !report_.may_change_with(txi_input_) &&
           cache_.refresh(tables_);
}

// What stands in the list may be one of the tables, which is then known as the one or the other.
bool DayRun::settle() {
    return cache_.metadata.settle(state_, tables_.metadata_by_slot) && cache_.is_current(tables_);
}

bool DayRun::adopt_reset() {
    return cache_.metadata.adopt_reset(state_, tables_.metadata_by_slot) &&
           cache_.is_current(tables_);
}

Py_ssize_t DayRun::record() {
    const capi::GcPause no_finalizers;
    if (record_known_columns()) return report_.count();
    const Py_ssize_t recorded = record_each();
    remember_columns(recorded);
    return recorded;
}

bool DayRun::record_known_columns() {
    const columns::Columns* columns = report_.columns();
    return columns != nullptr && cache_.columns.knows(*columns, cache_.metadata) &&
           virtualization::record_known_columns(state_, tables_.metadata_by_slot, *columns, cache_,
                                                txi_input_);
}

Py_ssize_t DayRun::record_each() {
    cache_.metadata.begin_day(tables_.metadata_by_slot);
    Py_ssize_t recorded = 0;
    try {
        recorded = record_blocks();
    } catch (...) {
        end_failed_day();
        throw;
    }
    cache_.metadata.end_day(state_);
    return recorded;
}

Py_ssize_t DayRun::record_blocks() {
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
Py_ssize_t DayRun::read_block(Py_ssize_t start) {
    const Py_ssize_t count = report_.count();
    const Py_ssize_t end = std::min(start + block_size, count);
    const Py_ssize_t next_end = std::min(end + block_size, count);
    for (Py_ssize_t next = end; next < next_end; ++next) report_.prefetch(next);
    Py_ssize_t read = 0;
    for (Py_ssize_t position = start; position < end; ++position, ++read) {
        FoundItem& found = block_[read];
        if (!report_.read(position, found.item)) break;
        found.made_key = tuple_of_list(found.item.key);
        if (found.made_key) found.item.key = found.made_key.get();
        found.position = static_cast<std::size_t>(position);
        found.slot = cache_.slots.find(tables_.slot_by_key, found.position, found.item.key);
        if (has_same_legs(found)) continue;
        __builtin_prefetch(found.item.legs);
        if (found.slot.slot != nullptr) cache_.metadata.prefetch(found.slot.index);
    }
    return read;
}

// The legs that are to be looked into, and the metadata that is to be given them.
void DayRun::fetch_new_legs(Py_ssize_t read) const noexcept {
    constexpr Py_ssize_t most = 4;
    for (const FoundItem& found : std::span(block_).first(static_cast<std::size_t>(read))) {
        PyObject* legs = found.item.legs;
        if (has_same_legs(found) || !PyTuple_CheckExact(legs)) continue;
        for (Py_ssize_t i = 0; i < std::min(most, PyTuple_GET_SIZE(legs)); ++i) {
            __builtin_prefetch(PyTuple_GET_ITEM(legs, i));
        }
        if (found.slot.slot != nullptr) cache_.metadata.prefetch_contents(found.slot.index);
    }
}

void DayRun::remember_columns(Py_ssize_t recorded) {
    const columns::Columns* columns = report_.columns();
    if (columns != nullptr && recorded == report_.count()) {
        cache_.columns.remember(*columns, cache_.metadata);
    } else {
        cache_.columns.forget();
    }
}

// Memory has run out. The slots that were to be reset still are, as far as that is possible.
void DayRun::end_failed_day() const {
    const capi::KeptError error;
    try {
        cache_.metadata.end_day(state_);
    } catch (const capi::PythonError&) {
        PyErr_Clear();
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the first failure is raised
    }
}

// Everything that can need Python is found out before the first change.
DayRun::Outcome DayRun::record_item(const FoundItem& found) {
    const ReportedItem& item = found.item;
    const bool same_legs = has_same_legs(found);
    const Ref legs = same_legs ? Ref::borrow(item.legs) : legs_to_store(cache_, found.slot, item);
    if (!legs) return Outcome::needs_python;
    const SlotCache::Found slot = found.slot.slot != nullptr ? found.slot : slot_now(found);
    if (slot.slot == nullptr) return Outcome::needs_python;

    if (!cache_.legs.holds(slot.index, legs.get())) {
        cache_.legs.store(tables_.legs_by_slot, slot.slot, slot.index, legs.get());
    }
    const bool valid = are_legs_live(slot.index) && std::isfinite(item.value);
    cache_.metadata.report(state_,
                           {slot.slot, slot.index, item.key, legs.get(), item.own_metadata, valid});
    if (valid) txi_input_[static_cast<npy_intp>(slot.index)] = item.value;
    return Outcome::recorded;
}

bool DayRun::has_same_legs(const FoundItem& found) const noexcept {
    return found.slot.slot != nullptr && cache_.legs.holds(found.slot.index, found.item.legs);
}

// The slot of a key that had none when it was read: an item before may have got it one since. Null
// when it cannot be given one here: that could run code, the maps are full, or normalisation makes
// one tuple for the slot and another for the metadata.
SlotCache::Found DayRun::slot_now(const FoundItem& found) {
    PyObject* key = found.item.key;
    if (const SlotCache::Found known = cache_.slots.find(tables_.slot_by_key, found.position, key);
        known.slot != nullptr) {
        return known;
    }
    if (found.made_key || cache_.slots.have_odd_keys() || !is_plain_key(key) ||
        PyDict_Size(tables_.slot_by_key) >= tables_.max_structures) {
        return {};
    }
    return cache_.slots.add(tables_.slot_by_key, tables_.key_by_slot, key);
}

bool DayRun::are_legs_live(std::size_t slot) const noexcept {
    if (cache_.legs.is_odd(slot)) return false;
    const kernels::LegPlace& place = cache_.legs.places()[slot];
    const std::uint32_t* ids = cache_.legs.flat().ids.data() + place.begin;
    return std::all_of(ids, ids + place.count,
                       [&](std::uint32_t id) { return cache_.live.is_live(id); });
}

}  // namespace quorvane::virtualization
