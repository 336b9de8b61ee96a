#include "virtualization/child_state.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter self_only[] = {positional("self")};
constexpr capi::Parameter state_parameters[] = {positional("self"), positional("state")};
constexpr capi::Parameter snapshots_parameters[] = {positional("self"), positional("snapshots")};

[[noreturn]] void reject(const State& state, PyObject* self, const char* text) {
    message_of(state, self).text(text).raise(PyExc_ValueError);
}

Ref deep_copy(const State& state, const Ref& object) {
    const Ref deepcopy = attr(state.global(state.names.copy).get(), state.names.deepcopy);
    return call(deepcopy.get(), object.get());
}

Ref validate_child_states(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* state_dict = values[1];
    const char* wrong_length = ": child_states length must equal child_rotations";
    const Py_ssize_t children = capi::length(attr(self, names.child_rotations).get());
    if (!capi::contains(state_dict, names.child_states)) {
        if (children != 0) reject(state, self, wrong_length);
        return capi::make_list();
    }
    const Ref raw = call_method(state_dict, names.get, names.child_states);
    if (!capi::is_instance(raw.get(), PyList_Type) && !capi::is_instance(raw.get(), PyTuple_Type)) {
        reject(state, self, ": child_states must be a list or tuple");
    }
    if (capi::length(raw.get()) != children) reject(state, self, wrong_length);
    return capi::to_list(raw.get());
}

// A child that can be restored must be able to report its state; that is found out here, before
// any child is changed.
Ref snapshot_child_states(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    Ref snapshots = capi::make_list();
    capi::Iteration children(attr(self, names.child_rotations).get());
    Ref child;
    while (children.next(child)) {
        Ref snapshot = capi::none();
        if (capi::has_attr(child.get(), names.set_state)) {
            if (!capi::has_attr(child.get(), names.get_state)) {
                reject(state, self, ": child rotations with set_state must also expose get_state");
            }
            // The function is looked up before the state is asked for, as in an expression.
            const Ref deepcopy = attr(state.global(names.copy).get(), names.deepcopy);
            snapshot = call(deepcopy.get(), call_method(child.get(), names.get_state).get());
        }
        capi::append(snapshots.get(), snapshot.get());
    }
    return snapshots;
}

// child.set_state(copy of snapshot): the snapshot itself stays intact for a later attempt. The
// error of a failed attempt is collected.
void restore_child(const State& state, PyObject* child, const Ref& snapshot, PyObject* errors) {
    try {
        const Ref restore = attr(child, state.names.set_state);
        call(restore.get(), deep_copy(state, snapshot).get());
    } catch (const capi::PythonError&) {
        if (!PyErr_ExceptionMatches(PyExc_Exception)) throw;
        const capi::FetchedError error;
        capi::append(errors, error.value());
    }
}

// Every child is tried, also after a failure.
Ref restore_child_snapshots(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    Ref errors = capi::make_list();
    capi::Iteration children(attr(self, state.names.child_rotations).get());
    capi::Iteration snapshots(values[1]);
    Ref child, snapshot;
    while (capi::next_pair(children, child, snapshots, snapshot)) {
        if (!capi::is_none(snapshot.get()) && capi::has_attr(child.get(), state.names.set_state)) {
            restore_child(state, child.get(), snapshot, errors.get());
        }
    }
    return errors;
}

}  // namespace

const capi::FunctionDef validate_child_states_def{"_validate_child_states", state_parameters,
                                                  capi::body_of<State, validate_child_states>};

const capi::FunctionDef snapshot_child_states_def{"_snapshot_child_states", self_only,
                                                  capi::body_of<State, snapshot_child_states>};

const capi::FunctionDef restore_child_snapshots_def{"_restore_child_snapshots",
                                                    snapshots_parameters,
                                                    capi::body_of<State, restore_child_snapshots>};

}  // namespace quorvane::virtualization
