#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef set_state_def;

}  // namespace quorvane::virtualization
