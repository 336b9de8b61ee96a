#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The two small classes that children are handed: the day's context and its universe mask.
Ref make_context_class(const capi::FunctionHome& home);
Ref make_mask_class(const capi::FunctionHome& home);

}  // namespace quorvane::virtualization
