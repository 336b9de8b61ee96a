#pragma once

#include "rotations/boilerplate/state.hpp"

namespace quorvane::rotations::boilerplate {

// The row of context.universe_mask for context.current_day_index as an array of at least N bytes,
// 0 where the instrument is left out. Empty when there is no context or mask, and when everybody
// is in.
//
// A one-dimensional mask is the row of every day. A day index that is not there counts as 0.
// ValueError for a row shorter than N; the mask's own error for a day that it does not have.
Ref universe_row(const State& state, PyObject* self, PyObject* context, Py_ssize_t N);

}  // namespace quorvane::rotations::boilerplate
