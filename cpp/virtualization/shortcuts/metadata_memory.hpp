#pragma once

#include <cstdint>
#include <span>

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
    [[nodiscard]] bool describes(PyObject* metadata_by_slot) noexcept;

    void forget() noexcept { versions_.clear(); }

    // Takes over a list of dicts that all say only that their slot is inactive; false otherwise,
    // and when one of them does not count its changes.
    bool adopt(const State& state, PyObject* metadata_by_slot);

    // A day: begin, report each structure, end. Until end() the dicts of slots that were active
    // yesterday still say so; no Python code may run in between.
    void begin_day(PyObject* metadata_by_slot) noexcept;
    void report(const State& state, PyObject* slot_object, std::size_t slot, PyObject* key,
                PyObject* legs, bool valid);
    void end_day(const State& state);

    // During a day: start fetching a slot's dict, and then what it says.
    void prefetch(std::size_t slot) const noexcept { __builtin_prefetch(dict_of(slot)); }
    void prefetch_contents(std::size_t slot) const noexcept;

    // The slots that the last day reported, each once, in the order in which they came.
    [[nodiscard]] std::span<const std::uint32_t> reported() const noexcept { return active_; }
    // Changes with every day but those that report the same again.
    [[nodiscard]] std::uint32_t day() const noexcept { return day_; }

    // A day that describes(), in which nobody else holds a dict, and which reports the same keys
    // and legs: only the validity of the reported slots, by position, can be new. Which are so is
    // found first; nothing but that needs memory.
    [[nodiscard]] bool are_alone() const noexcept { return alone_; }
    void find_changed(std::span<const std::uint8_t> valid);
    void report_again(const State& state, PyObject* metadata_by_slot,
                      std::span<const std::uint8_t> valid);

private:
    // The entries of a dict that was made here; the dict keeps them alive while it is unchanged.
    struct Entries {
        PyObject* key = nullptr;  // null: the dict says only inactive
        PyObject* legs = nullptr;
        std::uint32_t day = 0;
    };

    void renew(const State& state, PyObject* dict, std::size_t slot, PyObject* key, PyObject* legs,
               bool valid);
    void replace(const State& state, PyObject* slot_object, std::size_t slot, PyObject* key,
                 PyObject* legs, bool valid);
    void remember(std::size_t slot, PyObject* dict, PyObject* key, PyObject* legs,
                  bool valid) noexcept;
    void deactivate(const State& state, std::size_t slot);
    [[nodiscard]] PyObject* dict_of(std::size_t slot) const noexcept {
        return PyList_GET_ITEM(list_, static_cast<Py_ssize_t>(slot));
    }

    std::vector<std::uint64_t> versions_;
    std::vector<Entries> entries_;
    std::vector<std::uint8_t> valid_;
    std::vector<std::uint32_t> active_, active_before_;
    std::vector<std::uint32_t> changed_;  // positions, between the two steps of a day
    std::uint32_t day_ = 0;
    bool alone_ = false;        // nobody else held any of the dicts when they were last looked at
    PyObject* list_ = nullptr;  // borrowed, during a day
};

}  // namespace quorvane::virtualization
