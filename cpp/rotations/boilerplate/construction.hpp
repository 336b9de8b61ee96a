#pragma once

#include "rotations/boilerplate/state.hpp"

namespace quorvane::rotations::boilerplate {

// self._output_buf and self._combined_nan_buf become new arrays: NaN, and all clear.
void make_buffers(const State& state, PyObject* self, Py_ssize_t size);

extern const capi::FunctionDef init_def;
extern const capi::FunctionDef resize_def;
extern const capi::FunctionDef repr_def;

}  // namespace quorvane::rotations::boilerplate
