#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The slot of a tuple; a new one for a key that has none yet, ValueError when all are taken.
Ref slot_of_key(const State& state, PyObject* self, PyObject* key);

extern const capi::FunctionDef stateful_def;
extern const capi::FunctionDef refresh_active_structures_def;
extern const capi::FunctionDef slot_for_key_def;

}  // namespace quorvane::virtualization
