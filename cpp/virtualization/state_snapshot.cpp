#include "virtualization/state_snapshot.hpp"

namespace quorvane::virtualization {

namespace {

constexpr capi::Parameter parameters[] = {capi::positional("self")};

// For information only: a state cannot change how a rotation was built.
Ref constructor_of(const State& state, PyObject* self) {
    const Names& names = state.names;
    Ref constructor = capi::make_dict();
    const auto put = [&](PyObject* key, PyObject* attribute) {
        require(PyDict_SetItem(constructor.get(), key, attr(self, attribute).get()));
    };
    put(names.max_structures, names.max_structures);
    put(names.transformation_expression, names.transformation_expression);
    put(names.unmap_policy, names.unmap_policy);
    put(names.N_alloc, names.n_alloc);
    return constructor;
}

Ref states_of_children(const State& state, PyObject* self) {
    const Names& names = state.names;
    Ref states = capi::make_list();
    capi::Iteration children(attr(self, names.child_rotations).get());
    Ref child;
    while (children.next(child)) {
        const bool reports = capi::has_attr(child.get(), names.get_state);
        const Ref child_state =
            reports ? call_method(child.get(), names.get_state) : capi::make_dict();
        capi::append(states.get(), child_state.get());
    }
    return states;
}

// Shallow on purpose: legs and metadata dicts are the live ones.
Ref get_state(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    Ref snapshot = capi::make_dict();
    const auto put = [&](PyObject* key, const Ref& value) {
        require(PyDict_SetItem(snapshot.get(), key, value.get()));
    };
    put(names.constructor, constructor_of(state, self));
    put(names.slot_by_key, capi::to_dict(attr(self, names.slot_by_key).get()));
    put(names.key_by_slot, capi::to_dict(attr(self, names.key_by_slot).get()));
    put(names.legs_by_slot_key, capi::to_dict(attr(self, names.legs_by_slot).get()));
    put(names.structure_metadata_by_slot, capi::to_list(attr(self, names.metadata_by_slot).get()));
    put(names.structure_N_limit_key, attr(self, names.structure_N_limit));
    put(names.child_states, states_of_children(state, self));
    return snapshot;
}

}  // namespace

const capi::FunctionDef get_state_def{"get_state", parameters, capi::body_of<State, get_state>,
                                      R"(The structure bookkeeping and the children's states.

Returns
-------
dict
    "constructor", "slot_by_key", "key_by_slot", "legs_by_slot", "structure_metadata_by_slot",
    "structure_N_limit" and "child_states". The containers are new, their contents are shared: copy
    a snapshot that is to be kept in memory while the rotation goes on.
)"};

}  // namespace quorvane::virtualization
