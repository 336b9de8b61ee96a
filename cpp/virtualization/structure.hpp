#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The dataclass VirtualStructure.
Ref make_structure_class(const State& state, const capi::FunctionHome& home);

extern const capi::FunctionDef normalize_structure_def;

}  // namespace quorvane::virtualization
