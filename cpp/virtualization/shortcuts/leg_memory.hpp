#pragma once

#include <cstdint>

#include "kernels/unmap.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The legs last stored for each slot, flat beside the very tuples they were read from. A tuple of
// exact (int, float) tuples cannot change, so the same tuple has the same legs.
class LegMemory {
public:
    // True when the slot's legs are this very tuple.
    [[nodiscard]] bool holds(std::size_t slot, PyObject* legs) const noexcept {
        return slot < legs_.size() && legs_[slot].get() == legs;
    }

    // A tuple of exact (int, float) tuples whose ids can be indices.
    [[nodiscard]] static bool accepts(PyObject* legs) noexcept;

    // Lays out an accepted tuple for the slot.
    void store(std::size_t slot, PyObject* legs);

    // Takes over a whole table; false when it is not plain.
    bool load(PyObject* legs_by_slot, Py_ssize_t max_structures);

    // True when the table is as it was last seen, and so every slot's legs are known.
    [[nodiscard]] bool describes(PyObject* legs_by_slot) const noexcept;
    void now_describes(PyObject* legs_by_slot) noexcept;
    // Until it is said again: the table and the memory are about to be changed one after the other.
    void describes_nothing() noexcept { version_ = 0; }

    // What changes whenever another table, or the same one with other contents, is known.
    [[nodiscard]] std::uint64_t version() const noexcept { return version_; }

    // By slot; a slot without legs has a place of no legs.
    [[nodiscard]] std::span<const kernels::LegPlace> places() const noexcept { return places_; }
    [[nodiscard]] const kernels::FlatLegs& flat() const noexcept { return flat_; }
    // Every id is below this.
    [[nodiscard]] std::size_t id_bound() const noexcept { return id_bound_; }

private:
    void clear() noexcept;
    std::uint32_t grow(std::size_t count);
    void compact();

    std::vector<Ref> legs_;  // owned, so that an address is not given to another tuple
    std::vector<kernels::LegPlace> places_;
    kernels::FlatLegs flat_;
    std::size_t live_ = 0;  // entries of flat_ that some slot still uses
    std::size_t id_bound_ = 0;
    std::uint64_t version_ = 0;
};

}  // namespace quorvane::virtualization
