#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef batch_reference_def;

}  // namespace quorvane::virtualization
