#pragma once

#include "rotations/boilerplate/state.hpp"

namespace quorvane::rotations::boilerplate {

// The day's inputs as a tuple of float64 arrays, not copied where they are that already. An input
// from the second on that has no float64 form stays the object that it is.
Ref to_inputs(const State& state, PyObject* self, PyObject* args);

// Columns of the first input: its last axis.
Py_ssize_t width_of_first(const State& state, PyObject* self, PyObject* inputs);

// Whether an input is a float64 array with one entry per column in its last axis.
bool is_per_column(PyObject* input, Py_ssize_t N);

// The inputs with NaN where the row is 0, those per column as copies.
Ref leave_out(PyObject* inputs, PyObject* row, Py_ssize_t N);

// One byte array of N entries per input, the same objects from day to day while they fit.
Ref mask_buffers(const State& state, PyObject* self, Py_ssize_t count, Py_ssize_t N);

// Marks the NaN of every input that is per column in its mask, clears the other masks, and marks in
// `combined` what any of them marks. All arrays are as mask_buffers() makes them.
void mark_nan(PyObject* inputs, PyObject* masks, PyObject* combined, Py_ssize_t N);

}  // namespace quorvane::rotations::boilerplate
