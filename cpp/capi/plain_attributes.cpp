#include "capi/plain_attributes.hpp"

namespace quorvane::capi {

bool has_text_keys(PyObject* dict) noexcept {
    if (dict == nullptr || !PyDict_CheckExact(dict)) return false;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    while (PyDict_Next(dict, &position, &key, nullptr) != 0) {
        if (!PyUnicode_CheckExact(key)) return false;
    }
    return true;
}

}  // namespace quorvane::capi
