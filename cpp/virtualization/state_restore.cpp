#include "virtualization/state_restore.hpp"

#include "virtualization/fast/restoring.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter parameters[] = {positional("self"), positional("state")};

// Each child gets its entry of the state itself, not a copy.
void set_child_states(const State& state, PyObject* self, const Ref& child_states) {
    const Names& names = state.names;
    capi::Iteration children(attr(self, names.child_rotations).get());
    capi::Iteration entries(child_states.get());
    Ref child, entry;
    while (capi::next_pair(children, child, entries, entry)) {
        if (capi::has_attr(child.get(), names.set_state)) {
            call_method(child.get(), names.set_state, entry.get());
        }
    }
}

// Puts the children back and says in a note when that failed too; only the first failure is named.
void roll_back(const State& state, PyObject* self, const Ref& snapshots, PyObject* error) {
    const Names& names = state.names;
    const Ref failures = call_method(self, names.restore_child_snapshots, snapshots.get());
    if (!capi::truth(failures.get()) || !capi::has_attr(error, names.add_note)) return;
    const Ref add_note = attr(error, names.add_note);
    Message note = message_of(state, self);
    const Ref first = item(failures.get(), state.zero.get());
    note.text(": failed to restore child rotation state: ").repr(first.get());
    call(add_note.get(), note.get());
}

void restore_children(const State& state, PyObject* self, const Ref& child_states,
                      const Ref& snapshots) {
    try {
        set_child_states(state, self, child_states);
    } catch (const capi::PythonError&) {
        if (!PyErr_ExceptionMatches(PyExc_Exception)) throw;
        capi::HandledError handled;
        roll_back(state, self, snapshots, handled.value());
        handled.rethrow();
    }
}

Ref set_state(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* state_dict = values[1];
    if (!capi::is_instance(state_dict, PyDict_Type)) {
        message_of(state, self).text(": state must be a dict").raise(PyExc_ValueError);
    }
    if (restore_fast(state, self, state_dict)) return capi::none();
    Ref components[5];
    capi::unpack(call_method(self, names.validate_state_components, state_dict).get(), components,
                 5);
    const Ref child_states = call_method(self, names.validate_child_states, state_dict);
    const Ref snapshots = call_method(self, names.snapshot_child_states);
    restore_children(state, self, child_states, snapshots);
    set_attr(self, names.slot_by_key, components[0].get());
    set_attr(self, names.key_by_slot, components[1].get());
    set_attr(self, names.legs_by_slot, components[2].get());
    set_attr(self, names.metadata_by_slot, components[3].get());
    set_attr(self, names.structure_N_limit, components[4].get());
    return capi::none();
}

}  // namespace

const capi::FunctionDef set_state_def{"set_state", parameters, capi::body_of<State, set_state>,
                                      R"(Install a state as get_state gives it.

The structure bookkeeping is all or nothing: everything is checked first, then the children are
restored, and only when every child succeeded are the rotation's own attributes replaced. When a
child fails, the others are put back as they were.

Parameters
----------
state : dict
    Its "constructor" entry is ignored; a missing map is an empty one.

Raises
------
ValueError
    When the state is not a dict or any part of it is invalid; nothing has changed then.
Exception
    Whatever a child's set_state raised; it carries a note when putting a child back failed too.
)"};

}  // namespace quorvane::virtualization
