#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The two small classes that children are handed: the day's context and its universe mask.
Ref make_context_class(State& state, const capi::FunctionHome& home);
Ref make_mask_class(State& state, const capi::FunctionHome& home);

// context_class(universe_mask, current_day_index=day), whatever the class is
Ref make_context(const State& state, PyObject* context_class, PyObject* universe_mask,
                 PyObject* day);

// mask_class(rows, row), whatever the class is; rows is an exact int
Ref make_mask(const State& state, PyObject* mask_class, PyObject* rows, PyObject* row);

}  // namespace quorvane::virtualization
