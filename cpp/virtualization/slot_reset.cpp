#include "virtualization/slot_reset.hpp"

#include "virtualization/guards/plain_values.hpp"

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

Ref deactivate_slots(const State& state, PyObject* self) {
    capi::Iteration entries(attr(self, state.names.metadata_by_slot).get());
    Ref entry;
    while (entries.next(entry)) {
        deactivate(state, entry.get());
    }
    return entry;
}

}  // namespace quorvane::virtualization
