#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef compute_def;

}  // namespace quorvane::virtualization
