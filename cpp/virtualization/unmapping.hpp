#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef unmap_def;

}  // namespace quorvane::virtualization
