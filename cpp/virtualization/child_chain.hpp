#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef make_child_context_def;
extern const capi::FunctionDef run_child_chain_def;

}  // namespace quorvane::virtualization
