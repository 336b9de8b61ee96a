#pragma once

#include <optional>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Reading without running anybody's code. Each function knows only exact builtin types and NumPy's
// own scalars, whose conversions cannot be overridden, and answers "no" for anything else.

// A tuple whose elements hash and compare without side effects.
bool is_inert_key(PyObject* key) noexcept;

// float(object)
std::optional<double> inert_float(PyObject* object) noexcept;

// An exact tuple of an exact int and an exact float.
bool is_normal_leg(PyObject* leg) noexcept;

// An exact tuple of such legs: it cannot change, and nothing runs when it goes.
bool are_normal_legs(PyObject* legs) noexcept;

// The legs as normalisation would make them; empty when that needs Python. A tuple of exact
// (int, float) tuples cannot change and is kept as it is.
Ref inert_legs(PyObject* legs);

// What an item says, borrowed; null where it says nothing.
struct ItemEntries {
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    PyObject* value = nullptr;
    PyObject* metadata = nullptr;  // null also for None and for an empty dict
};

// The entries of an exact dict, or of a record that is known to be plain. False when a key of the
// dict is no exact string, or when the key, the legs or the value are not there.
bool read_inert_entries(const State& state, PyObject* raw, ItemEntries& entries) noexcept;

// An exact dict whose keys are all exact strings, so that looking things up compares only strings.
bool is_plain_record(PyObject* dict) noexcept;

}  // namespace quorvane::virtualization
