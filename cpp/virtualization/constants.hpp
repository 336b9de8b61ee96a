#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The texts, lower-cased and stripped, that mean "no child rotation".
Ref make_identity_expressions();

// token name -> (registry name, the keyword that an integer argument fills, or None)
Ref make_child_rotation_aliases();

// A name, then optionally an argument text in parentheses.
Ref make_expression_token_pattern(const State& state);

}  // namespace quorvane::virtualization
