#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef validate_child_states_def;
extern const capi::FunctionDef snapshot_child_states_def;
extern const capi::FunctionDef restore_child_snapshots_def;

}  // namespace quorvane::virtualization
