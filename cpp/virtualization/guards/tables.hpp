#pragma once

#include "capi/python.hpp"

namespace quorvane::virtualization {

// A rotation's tables as its dictionary holds them; borrowed.
struct Tables {
    PyObject* slot_by_key = nullptr;
    PyObject* key_by_slot = nullptr;
    PyObject* legs_by_slot = nullptr;
    PyObject* metadata_by_slot = nullptr;
    Py_ssize_t max_structures = 0;
};

}  // namespace quorvane::virtualization
