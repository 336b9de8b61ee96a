#pragma once

// The one gate to the interpreter's headers: everything else includes this file.

#define PY_SSIZE_T_CLEAN
#include <Python.h>
