#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef call_def;

}  // namespace quorvane::virtualization
