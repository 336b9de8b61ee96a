#pragma once

#include "columns/columns.hpp"

namespace quorvane::columns {

// Each takes what the constructor was given, checks it and raises what its docstring says.

capi::Ref keys_from(PyObject* keys);
std::shared_ptr<const Layout> layout_from(PyObject* offsets, PyObject* leg_ids, PyObject* weights,
                                          Py_ssize_t structures);
capi::Ref values_from(PyObject* values, Py_ssize_t structures);

// The legs as every structure has them: tuples of (int, float).
capi::Ref make_legs(const Layout& layout);

}  // namespace quorvane::columns
