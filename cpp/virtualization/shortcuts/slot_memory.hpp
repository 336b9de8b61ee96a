#pragma once

#include <cstdint>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The slot maps as they were last seen: every key inert, every slot an exact int. The item at a
// position of the day's report mostly has the very key that it had yesterday, and so its slot.
class SlotMemory {
public:
    struct Found {
        PyObject* slot = nullptr;  // borrowed from the map; null when the key has no slot
        std::size_t index = 0;
    };

    // True when both maps are known, after looking through them if they have changed.
    bool knows(PyObject* slot_by_key, PyObject* key_by_slot, Py_ssize_t max_structures);

    // The slot of an inert key, reported at this position of the day.
    Found find(PyObject* slot_by_key, std::size_t position, PyObject* key);

    // What changes whenever another map, or the same one with other contents, is known.
    [[nodiscard]] std::uint64_t version() const noexcept { return slots_version_; }

    // Gives the next slot to an inert key that has none; null when somebody else has put that slot
    // into the map already, and replacing what is there might run code.
    Found add(PyObject* slot_by_key, PyObject* key_by_slot, PyObject* key);

private:
    struct Memo {
        Ref key;  // owned, so that its address is not given to another tuple
        Found found;
    };

    std::vector<Memo> memos_;
    std::uint64_t slots_version_ = 0;
    std::uint64_t keys_version_ = 0;
    Py_ssize_t max_structures_ = -1;
};

}  // namespace quorvane::virtualization
