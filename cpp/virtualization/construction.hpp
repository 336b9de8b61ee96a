#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef init_def;
extern const capi::FunctionDef validate_constructor_def;

}  // namespace quorvane::virtualization
