#pragma once

#include <memory>

#include "capi/class_builder.hpp"

namespace quorvane::capi {

// A module with multi-phase initialisation whose state is a C++ object: State(PyObject* module)
// makes it, State::execute() then runs the module's body, which may fail, and
// State::traverse(visitproc, void*) shows its objects to the garbage collector. The state lives as
// long as the module, which every function of it keeps alive.
//
// There is no m_clear: the classes in the module's dictionary break every cycle that goes through
// the state, and functions may run until the very end.
template <class State>
class ModuleWith {
public:
    static PyObject* initialise(const char* name, const char* doc) {
        static PyModuleDef_Slot slots[] = {
            {Py_mod_exec, reinterpret_cast<void*>(execute)},
            {0, nullptr},
        };
        static PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                                         name,
                                         doc,
                                         sizeof(State*),
                                         nullptr,
                                         slots,
                                         traverse,
                                         nullptr,
                                         release};
        return PyModuleDef_Init(&definition);
    }

private:
    static State*& state_of(PyObject* module) {
        return *static_cast<State**>(PyModule_GetState(module));
    }

    static int execute(PyObject* module) {
        return guarded_status([&] {
            // The state belongs to the module before its body runs: a body that fails may leave
            // functions behind, which keep the module and with it the state alive.
            state_of(module) = std::make_unique<State>(module).release();
            state_of(module)->execute();
        });
    }

    static int traverse(PyObject* module, visitproc visit, void* argument) {
        State* state = state_of(module);
        return state == nullptr ? 0 : state->traverse(visit, argument);
    }

    static void release(void* module) {
        const std::unique_ptr<State> owned(state_of(static_cast<PyObject*>(module)));
    }
};

}  // namespace quorvane::capi
