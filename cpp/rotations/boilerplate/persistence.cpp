#include "rotations/boilerplate/persistence.hpp"

namespace quorvane::rotations::boilerplate {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter self_only[] = {positional("self")};
constexpr Parameter state_parameters[] = {positional("self"), positional("state")};
constexpr Parameter utility_parameters[] = {positional("self"), positional("utility")};

Ref stateful(State& /*state*/, PyObject* const* /*values*/) { return capi::to_bool(false); }

Ref get_state(State& /*state*/, PyObject* const* /*values*/) { return capi::make_dict(); }

Ref set_state(State& state, PyObject* const* values) {
    if (PyDict_Check(values[1])) return capi::none();
    message_of(state, values[0])
        .text("state must be a dict, got ")
        .text(Py_TYPE(values[1])->tp_name)
        .raise(PyExc_ValueError);
}

Ref checkpoint(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    const Ref write = attr(values[1], names.write);
    const Ref name = attr(self, names.name);
    capi::call(write.get(), name.get(), capi::call_method(self, names.get_state).get());
    return capi::none();
}

Ref recover(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    const Ref read = attr(values[1], names.read);
    const Ref stored = capi::call(read.get(), attr(self, names.name).get());
    if (!PyDict_Check(stored.get())) return capi::to_bool(false);
    try {
        capi::call_method(self, names.set_state, stored.get());
    } catch (const capi::PythonError&) {
        if (PyErr_ExceptionMatches(PyExc_Exception) == 0) throw;
        const capi::FetchedError discarded;
        return capi::to_bool(false);
    }
    return capi::to_bool(true);
}

}  // namespace

const capi::FunctionDef stateful_def{"stateful", self_only, capi::body_of<State, stateful>,
                                     "Whether a day's output depends on the days before it: False "
                                     "unless a subclass says otherwise."};

const capi::FunctionDef get_state_def{"get_state", self_only, capi::body_of<State, get_state>,
                                      R"(Return what the rotation remembers of the days so far.

Returns
-------
dict
    Empty: there is nothing to remember. Subclasses with a memory return it.
)"};

const capi::FunctionDef set_state_def{"set_state", state_parameters,
                                      capi::body_of<State, set_state>,
                                      R"(Install a state that get_state returned.

Parameters
----------
state : dict
    Nothing in it is used.

Raises
------
ValueError
    When it is not a dict.
)"};

const capi::FunctionDef checkpoint_def{
    "checkpoint", utility_parameters, capi::body_of<State, checkpoint>,
    R"(Write the state to a storage object under this rotation's name.

Parameters
----------
utility : object with ``write(name, state)``
    Its errors propagate.
)"};

const capi::FunctionDef recover_def{
    "recover", utility_parameters, capi::body_of<State, recover>,
    R"(Read this rotation's state from a storage object and install it.

Parameters
----------
utility : object with ``read(name)``
    Gives the state written under the name, or None. Its errors propagate.

Returns
-------
bool
    False when nothing usable is stored or set_state refused it.
)"};

}  // namespace quorvane::rotations::boilerplate
