#pragma once

// The one gate to NumPy's headers. Each extension imports NumPy's table of functions once, with
// import_numpy() while its module is being made.

#include "capi/python.hpp"

#ifndef NPY_NO_DEPRECATED_API
#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#endif
#define PY_ARRAY_UNIQUE_SYMBOL quorvane_numpy_api
#ifndef QUORVANE_DEFINES_NUMPY_API
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>
#include <numpy/arrayscalars.h>

namespace quorvane::capi {

void import_numpy();

}  // namespace quorvane::capi
