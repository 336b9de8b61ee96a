#pragma once

#include "rotations/boilerplate/state.hpp"

namespace quorvane::rotations::boilerplate {

extern const capi::FunctionDef stateful_def;
extern const capi::FunctionDef get_state_def;
extern const capi::FunctionDef set_state_def;
extern const capi::FunctionDef checkpoint_def;
extern const capi::FunctionDef recover_def;

}  // namespace quorvane::rotations::boilerplate
