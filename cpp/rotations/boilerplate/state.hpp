#pragma once

#include "capi/class_builder.hpp"
#include "capi/message.hpp"
#include "rotations/boilerplate/names.hpp"

namespace quorvane::rotations::boilerplate {

using capi::attr;
using capi::Ref;
using capi::require;

// What one import of the module holds.
class State {
public:
    explicit State(PyObject* module);

    // Runs the module's body: binds RotationBase.
    void execute();

    int traverse(visitproc visit, void* arg) const;

    const Names names;
    const Ref zero, one;
    Ref abstract_method_required;

private:
    PyObject* module_;  // borrowed: the module owns this state
    Ref function_type_;
};

// A message that begins with the rotation's name.
inline capi::Message message_of(const State& state, PyObject* self) {
    capi::Message message;
    message.value(attr(self, state.names.name)).text(": ");
    return message;
}

}  // namespace quorvane::rotations::boilerplate
