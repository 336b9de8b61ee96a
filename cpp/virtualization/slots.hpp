#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The next slot, given to a key that has none yet; ValueError when all are taken.
Ref new_slot(const State& state, PyObject* self, PyObject* key);

extern const capi::FunctionDef stateful_def;
extern const capi::FunctionDef refresh_active_structures_def;
extern const capi::FunctionDef slot_for_key_def;

}  // namespace quorvane::virtualization
