#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef record_trace_def;

}  // namespace quorvane::virtualization
