#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Unmapping without running any Python code: the legs are laid out flat and added up by a kernel.
// False, with nothing written, when the tables are not plain, a leg is not an exact (int, float)
// pair inside the output, or the arithmetic is such that NumPy would have something to say.
bool unmap_fast(const State& state, PyObject* self, PyObject* txi_output, PyObject* output_buf,
                PyObject* N);

}  // namespace quorvane::virtualization
