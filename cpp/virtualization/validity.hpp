#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef structure_is_valid_def;

}  // namespace quorvane::virtualization
