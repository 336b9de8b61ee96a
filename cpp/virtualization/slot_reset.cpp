#include "virtualization/slot_reset.hpp"

namespace quorvane::virtualization {

namespace {

void deactivate(const State& state, PyObject* entry) {
    const Names& names = state.names;
    if (!PyDict_CheckExact(entry)) {
        call_method(entry, names.clear);
        set_item(entry, names.active, Py_False);
    } else if (!says_only_inactive(state, entry)) {
        PyDict_Clear(entry);
        require(PyDict_SetItem(entry, names.active, Py_False));
    }
}

}  // namespace

bool says_only_inactive(const State& state, PyObject* dict) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    return PyDict_Size(dict) == 1 && PyDict_Next(dict, &position, &key, &value) != 0 &&
           key == state.names.active && value == Py_False;
}

Ref deactivate_slots(const State& state, PyObject* self) {
    capi::Iteration entries(attr(self, state.names.metadata_by_slot).get());
    Ref entry;
    while (entries.next(entry)) {
        deactivate(state, entry.get());
    }
    return entry;
}

}  // namespace quorvane::virtualization
