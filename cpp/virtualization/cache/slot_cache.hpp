#pragma once

#include <cstdint>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The slot maps as they were last seen: every slot an exact int, and nearly always every key plain.
// The item at a position of the day's report mostly has the very key that it had yesterday, and so
// its slot.
class SlotCache {
public:
    struct Found {
        PyObject* slot = nullptr;  // borrowed from the map; null when the key has no slot
        std::size_t index = 0;
    };

    explicit SlotCache(const capi::DictWatcher& watcher) : watcher_(watcher) {}

    // True when both maps are known, after looking through them if others have changed them.
    bool refresh(PyObject* slot_by_key, PyObject* key_by_slot, Py_ssize_t max_structures);

    // True when nobody else has changed them since the last look.
    [[nodiscard]] bool is_current(PyObject* slot_by_key, PyObject* key_by_slot) const noexcept;
    // Of current maps: looking up a plain key could compare it with one that runs code.
    [[nodiscard]] bool have_odd_keys() const noexcept { return have_odd_keys_; }

    // How many slots the maps were seen to be for; -1 when they are not known.
    [[nodiscard]] Py_ssize_t max_structures() const noexcept { return max_structures_; }

    // Takes over maps of which somebody else has found that all they hold is plain.
    void adopt(PyObject* slot_by_key, PyObject* key_by_slot, Py_ssize_t max_structures) noexcept;

    // The slot of a plain key, reported at this position of the day; null also where looking it up
    // could run code. What has been found in another way can be remembered.
    Found find(PyObject* slot_by_key, std::size_t position, PyObject* key);
    void remember(std::size_t position, PyObject* key, const Found& found);

    // Gives the next slot to a plain key that has none; null when somebody else has put that slot
    // into the map already, and replacing what is there might run code.
    Found add(PyObject* slot_by_key, PyObject* key_by_slot, PyObject* key);

    // map[key] = value of a new slot, in one of the maps if it is current and nothing can run
    // meanwhile, as replacing a value could; false otherwise, with nothing done.
    bool set_item(PyObject* map, PyObject* key, PyObject* value);

    // Changes whenever other maps, or the same ones as others have changed them, are known.
    [[nodiscard]] std::uint64_t generation() const noexcept { return generation_; }

private:
    struct Memo {
        Ref key;  // owned, so that its address is not given to another tuple
        Found found;
    };

    const capi::DictWatcher& watcher_;
    std::vector<Memo> memos_;
    capi::DictStamp slots_stamp_;
    capi::DictStamp keys_stamp_;
    std::uint64_t generation_ = 0;
    Py_ssize_t max_structures_ = -1;
    bool have_odd_keys_ = false;
};

}  // namespace quorvane::virtualization
