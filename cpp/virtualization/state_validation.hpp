#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef validate_state_components_def;

}  // namespace quorvane::virtualization
