#pragma once

#include <cstdint>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// True of an exact dict that is {"active": False}: emptying it and saying so again changes nothing.
bool says_only_inactive(const State& state, PyObject* dict);

// What each slot's metadata dict was left saying. A dict whose version has not changed need not be
// looked into, and one that says today's truth already, and that nobody else holds, need not be
// made again: a new dict with the same entries could not be told from it.
class MetadataMemory {
public:
    // True when every dict of the list is as it was left.
    [[nodiscard]] bool describes(PyObject* metadata_by_slot) const noexcept;

    // Takes over a list of dicts that all say only that their slot is inactive; false otherwise.
    bool adopt(const State& state, PyObject* metadata_by_slot);

    // A day: begin, report each structure, end. Until end() the dicts of slots that were active
    // yesterday still say so; no Python code may run in between.
    void begin_day(PyObject* metadata_by_slot) noexcept;
    void report(const State& state, PyObject* slot_object, std::size_t slot, PyObject* key,
                PyObject* legs, bool valid);
    void end_day(const State& state);

private:
    // The entries of a dict that was made here; the dict keeps them alive while it is unchanged.
    struct Entries {
        PyObject* key = nullptr;  // null: the dict says only inactive
        PyObject* legs = nullptr;
        bool valid = false;
        std::uint32_t day = 0;
    };

    void renew(const State& state, PyObject* dict, Entries& entries, PyObject* key, PyObject* legs,
               bool valid);
    void replace(const State& state, PyObject* slot_object, std::size_t slot, PyObject* key,
                 PyObject* legs, bool valid);
    void deactivate(const State& state, std::size_t slot);
    [[nodiscard]] PyObject* dict_of(std::size_t slot) const noexcept;

    std::vector<std::uint64_t> versions_;
    std::vector<Entries> entries_;
    std::vector<std::size_t> active_, active_before_;
    std::uint32_t day_ = 0;
    PyObject* list_ = nullptr;  // borrowed, during a day
};

}  // namespace quorvane::virtualization
