#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// set_state of a rotation without children, whose steps are all the module's own, from a state and
// to tables of exact builtin objects: everything is checked, made and put in place without any
// Python code running in between, so nobody sees what order that happens in. Answers false, with
// nothing changed, when it is anything else or when the state would be refused; the steps are then
// taken one by one.
bool restore_fast(State& state, PyObject* self, PyObject* given);

}  // namespace quorvane::virtualization
