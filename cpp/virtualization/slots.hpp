#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef stateful_def;
extern const capi::FunctionDef refresh_active_structures_def;
extern const capi::FunctionDef slot_for_key_def;

}  // namespace quorvane::virtualization
