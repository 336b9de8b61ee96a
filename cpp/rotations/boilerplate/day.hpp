#pragma once

#include "rotations/boilerplate/state.hpp"

namespace quorvane::rotations::boilerplate {

extern const capi::FunctionDef call_def;
extern const capi::FunctionDef compute_def;

}  // namespace quorvane::rotations::boilerplate
