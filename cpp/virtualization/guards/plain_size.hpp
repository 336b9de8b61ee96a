#pragma once

#include "capi/python.hpp"

namespace quorvane::virtualization {

// The value of an exact, non-negative int that fits; -1 for anything else, null included.
inline Py_ssize_t plain_size(PyObject* object) noexcept {
    if (object == nullptr || !PyLong_CheckExact(object)) return -1;
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
    return overflow == 0 && value >= 0 ? static_cast<Py_ssize_t>(value) : -1;
}

}  // namespace quorvane::virtualization
