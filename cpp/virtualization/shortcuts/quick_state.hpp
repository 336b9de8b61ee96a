#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Checking the parts of a state without running any Python code. Each function answers with what
// the checks, made one by one, would have built; it answers empty as soon as something is not an
// exact builtin object or would be refused, and then the checks are made one by one after all.

struct QuickSlotMaps {
    Ref slot_by_key, key_by_slot;
    explicit operator bool() const noexcept { return static_cast<bool>(key_by_slot); }
};

// Of a bijection of inert keys and the slots below max_structures.
QuickSlotMaps quick_slot_maps(PyObject* raw_slot_by_key, PyObject* raw_key_by_slot,
                              Py_ssize_t max_structures);

// Of legs of known slots, with ids below the limit and finite weights.
Ref quick_legs_by_slot(PyObject* raw_legs_by_slot, PyObject* key_by_slot, Py_ssize_t limit);

// A list of copies of exact dicts.
Ref quick_metadata_list(PyObject* raw, Py_ssize_t max_structures);

}  // namespace quorvane::virtualization
