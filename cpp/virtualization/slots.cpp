#include "virtualization/slots.hpp"

#include "virtualization/cache/table_cache.hpp"

namespace quorvane::virtualization {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter self_only[] = {positional("self")};
constexpr Parameter refresh_parameters[] = {
    positional("self"),      positional("space_input"),       positional("structure_inputs"),
    positional("nan_masks"), positional("combined_nan_mask"), positional("N"),
};
constexpr Parameter slot_parameters[] = {positional("self"), positional("key")};

Ref stateful(State& /*state*/, PyObject* const* /*values*/) { return capi::to_bool(true); }

Ref refresh_active_structures(State& state, PyObject* const* /*values*/) {
    const Ref hook = state.global(state.names.abstract_method_required);
    return call(hook.get(), capi::make_str("VirtualizationBase._refresh_active_structures").get());
}

[[noreturn]] void raise_full(const State& state, PyObject* self) {
    message_of(state, self)
        .text(": active structure count exceeds max_structures=")
        .value(attr(self, state.names.max_structures))
        .raise(PyExc_ValueError);
}

Ref slot_for_key(State& state, PyObject* const* values) {
    return slot_of_key(state, values[0], capi::to_tuple(values[1]).get());
}

Ref new_slot(const State& state, PyObject* self, PyObject* key) {
    const Names& names = state.names;
    const Ref used = capi::make_int(capi::length(attr(self, names.slot_by_key).get()));
    const Ref capacity = attr(self, names.max_structures);
    if (capi::compare(used.get(), capacity.get(), Py_GE)) raise_full(state, self);
    Ref slot = capi::make_int(capi::length(attr(self, names.slot_by_key).get()));
    const std::shared_ptr<TableCache> cache = state.caches->find(self);
    set_slot(cache.get(), attr(self, names.slot_by_key).get(), key, slot.get());
    set_slot(cache.get(), attr(self, names.key_by_slot).get(), slot.get(), key);
    return slot;
}

}  // namespace

// A known key always succeeds, also when the maps are full.
Ref slot_of_key(const State& state, PyObject* self, PyObject* key) {
    PyObject* slot_by_key = state.names.slot_by_key;
    if (capi::contains(attr(self, slot_by_key).get(), key)) {
        return item(attr(self, slot_by_key).get(), key);
    }
    return new_slot(state, self, key);
}

const capi::FunctionDef stateful_def{
    "stateful", self_only, capi::body_of<State, stateful>,
    "True, since the slots and the children carry state between days."};

const capi::FunctionDef refresh_active_structures_def{
    "_refresh_active_structures", refresh_parameters,
    capi::body_of<State, refresh_active_structures>};

const capi::FunctionDef slot_for_key_def{"_slot_for_key", slot_parameters,
                                         capi::body_of<State, slot_for_key>};

}  // namespace quorvane::virtualization
