#pragma once

#include <cstdint>
#include <limits>

#include "kernels/unmap.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The legs last stored for each slot, flat beside the very tuples they were read from. A tuple of
// exact (int, float) tuples cannot change, so the same tuple has the same legs.
class LegCache {
public:
    explicit LegCache(const capi::DictWatcher& watcher) : watcher_(watcher) {}

    // True when every slot's legs are known and laid out, after looking through the table if others
    // have changed it.
    bool refresh(PyObject* legs_by_slot, Py_ssize_t max_structures);

    // True when the table is as it was last seen, and so all it holds is plain.
    [[nodiscard]] bool is_current(PyObject* legs_by_slot) const noexcept {
        return capi::DictWatcher::has_stamp(legs_by_slot, stamp_);
    }
    // True when in addition every slot's legs are laid out; but odd ones, which cannot be.
    [[nodiscard]] bool is_laid_out(PyObject* legs_by_slot) const noexcept {
        return laid_out_ && is_current(legs_by_slot);
    }
    [[nodiscard]] bool has_odd_slots() const noexcept { return odd_slots_ != 0; }

    // Takes over a table of which somebody else has found that it is plain.
    void adopt(PyObject* legs_by_slot) noexcept;

    // True when the slot's legs are this very tuple.
    [[nodiscard]] bool holds(std::size_t slot, PyObject* legs) const noexcept {
        return slot < legs_.size() && legs_[slot].get() == legs;
    }
    // The tuple that the slot has; null when it has none.
    [[nodiscard]] PyObject* tuple_of(std::size_t slot) const noexcept {
        return slot < legs_.size() ? legs_[slot].get() : nullptr;
    }

    // Puts plain legs into the table and lays them out.
    void store(PyObject* legs_by_slot, PyObject* slot_object, std::size_t slot, PyObject* legs);

    // One of the slot's ids can be no index: it is negative, or too large to be kept in 32 bits.
    [[nodiscard]] bool is_odd(std::size_t slot) const noexcept {
        return places_[slot].begin == odd_place;
    }

    // By slot; a slot without legs has a place of no legs.
    [[nodiscard]] std::span<const kernels::LegPlace> places() const noexcept { return places_; }
    [[nodiscard]] const kernels::FlatLegs& flat() const noexcept { return flat_; }
    // Every id is below this.
    [[nodiscard]] std::size_t id_bound() const noexcept { return id_bound_; }

private:
    static constexpr std::uint32_t odd_place = std::numeric_limits<std::uint32_t>::max();

    void clear() noexcept;
    bool lay_out_table(PyObject* legs_by_slot, Py_ssize_t max_structures);
    void lay_out(std::size_t slot, PyObject* legs);
    void vacate(kernels::LegPlace& place) noexcept;
    std::uint32_t grow(std::size_t count);
    void compact();

    const capi::DictWatcher& watcher_;
    std::vector<Ref> legs_;  // owned, so that an address is not given to another tuple
    std::vector<kernels::LegPlace> places_;
    kernels::FlatLegs flat_;
    std::size_t live_ = 0;  // entries of flat_ that some slot still uses
    std::size_t odd_slots_ = 0;
    std::size_t id_bound_ = 0;
    bool laid_out_ = false;
    capi::DictStamp stamp_;
};

}  // namespace quorvane::virtualization
