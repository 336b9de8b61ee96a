#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

extern const capi::FunctionDef parse_transformation_expression_def;

}  // namespace quorvane::virtualization
