#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef get_state_def;

}  // namespace quorvane::virtualization
