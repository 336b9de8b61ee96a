#pragma once

#include <vector>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Checking the parts of a state without running any Python code. Each question is answered with
// "no" as soon as something is not an exact builtin object or would be refused; then the checks are
// made one by one after all. After "yes" a copy of the part is what the checks would have built.

// The slots that have a key; false in every place beyond.
using SlotSet = std::vector<bool>;

// Both maps hold the same pairs of a plain key and a slot below max_structures, in the same order.
// Adds the slots to the set, which must be empty.
bool are_inverse_maps(PyObject* raw_slot_by_key, PyObject* raw_key_by_slot,
                      Py_ssize_t max_structures, SlotSet& slots);

// The slots of a map that the checks have built.
SlotSet slots_of(PyObject* key_by_slot, Py_ssize_t max_structures);

// Legs of slots in the set, with ids below the limit and finite weights.
bool are_legs_of_slots(PyObject* raw_legs_by_slot, const SlotSet& slots, Py_ssize_t limit) noexcept;

// A list of copies of exact dicts; empty when one of them is none.
Ref copy_metadata_list(PyObject* raw, Py_ssize_t max_structures);

}  // namespace quorvane::virtualization
