#include "virtualization/shortcuts/quick_state.hpp"

#include <cmath>

#include "capi/gc_pause.hpp"
#include "virtualization/shortcuts/inert.hpp"
#include "virtualization/shortcuts/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

// The next entry of an exact dict; walking it makes nothing and so runs nothing.
struct Walk {
    PyObject* dict;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;

    bool next() noexcept { return PyDict_Next(dict, &position, &key, &value) != 0; }
};

// True when both maps hold the same pairs, of the very same keys, in the same order, and no slot
// twice (the second map's keys are unique). Then copies of both are what the checks would build.
bool are_inverse_in_order(PyObject* raw_slot_by_key, PyObject* raw_key_by_slot,
                          Py_ssize_t max_structures) noexcept {
    if (PyDict_Size(raw_slot_by_key) != PyDict_Size(raw_key_by_slot)) return false;
    Walk slots{raw_slot_by_key};
    Walk keys{raw_key_by_slot};
    while (slots.next() && keys.next()) {
        const Py_ssize_t slot = plain_size(slots.value);
        if (slot < 0 || slot >= max_structures || slot != plain_size(keys.key)) return false;
        if (slots.key != keys.value || !is_inert_key(slots.key)) return false;
    }
    return true;
}

bool are_legs_within(PyObject* legs, Py_ssize_t limit) noexcept {
    if (!PyTuple_CheckExact(legs)) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        PyObject* leg = PyTuple_GET_ITEM(legs, i);
        if (!is_normal_leg(leg)) return false;
        const Py_ssize_t id = plain_size(PyTuple_GET_ITEM(leg, 0));
        if (id < 0 || id >= limit) return false;
        if (!std::isfinite(PyFloat_AS_DOUBLE(PyTuple_GET_ITEM(leg, 1)))) return false;
    }
    return true;
}

}  // namespace

QuickSlotMaps quick_slot_maps(PyObject* raw_slot_by_key, PyObject* raw_key_by_slot,
                              Py_ssize_t max_structures) {
    if (!PyDict_CheckExact(raw_slot_by_key) || !PyDict_CheckExact(raw_key_by_slot) ||
        !are_inverse_in_order(raw_slot_by_key, raw_key_by_slot, max_structures)) {
        return {};
    }
    const capi::GcPause no_finalizers;  // which could change what has just been checked
    return {require(PyDict_Copy(raw_slot_by_key)), require(PyDict_Copy(raw_key_by_slot))};
}

Ref quick_legs_by_slot(PyObject* raw_legs_by_slot, PyObject* key_by_slot, Py_ssize_t limit) {
    if (!PyDict_CheckExact(raw_legs_by_slot)) return {};
    Walk walk{raw_legs_by_slot};
    while (walk.next()) {
        if (!PyLong_CheckExact(walk.key) || !are_legs_within(walk.value, limit)) return {};
        if (capi::dict_peek(key_by_slot, walk.key) == nullptr) return {};
    }
    const capi::GcPause no_finalizers;
    return require(PyDict_Copy(raw_legs_by_slot));
}

Ref quick_metadata_list(PyObject* raw, Py_ssize_t max_structures) {
    if (!PyList_CheckExact(raw) || PyList_GET_SIZE(raw) != max_structures) return {};
    const capi::GcPause no_finalizers;  // which could change the list
    Ref copies = capi::make_list(max_structures);
    for (Py_ssize_t i = 0; i < max_structures; ++i) {
        PyObject* entry = PyList_GET_ITEM(raw, i);
        if (!PyDict_CheckExact(entry)) return {};
        PyList_SET_ITEM(copies.get(), i, require(PyDict_Copy(entry)).release());
    }
    return copies;
}

}  // namespace quorvane::virtualization
