#pragma once

#include <optional>

#include "capi/plain_attributes.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Reading without running anybody's code. Each function knows only exact builtin types and NumPy's
// own scalars, whose conversions cannot be overridden, and answers "no" for anything else.

// An exact list or tuple: walking through it runs nothing.
bool is_plain_sequence(PyObject* object) noexcept;

// A tuple whose elements hash and compare without side effects.
bool is_plain_key(PyObject* key) noexcept;

// float(object)
std::optional<double> plain_float(PyObject* object) noexcept;

// An exact tuple of an exact int and an exact float.
bool is_plain_leg(PyObject* leg) noexcept;

// An exact tuple of such legs: it cannot change, and nothing runs when it goes.
bool are_plain_legs(PyObject* legs) noexcept;

// Dropping it runs no code, nor does anything that it holds.
bool is_plain_value(PyObject* object) noexcept;

// The legs as normalisation would make them; empty when that needs Python. A tuple of exact
// (int, float) tuples cannot change and is kept as it is.
Ref to_plain_legs(PyObject* legs);

// What an item says, borrowed; null where it says nothing.
struct ItemEntries {
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    PyObject* value = nullptr;
    PyObject* metadata = nullptr;  // null also for None and for an empty dict
};

// The entries of an exact dict, or of a record that is known to be plain. False when a key of the
// dict is no exact string, or when the key or the legs are not there. Of metadata it is not said
// what it is.
bool read_plain_entries(const State& state, PyObject* raw, ItemEntries& entries) noexcept;

using capi::has_text_keys;

// The same, and all its values are plain.
bool has_plain_entries(PyObject* dict) noexcept;

// True of an exact dict that is {"active": False}: emptying it and saying so again changes nothing.
bool says_only_inactive(const State& state, PyObject* dict);

}  // namespace quorvane::virtualization
