#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef checkpoint_def;
extern const capi::FunctionDef recover_def;
extern const capi::FunctionDef resize_def;

}  // namespace quorvane::virtualization
