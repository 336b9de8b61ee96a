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
    // Runs the module's body: binds RotationBase.
    explicit State(PyObject* module);

    int traverse(visitproc visit, void* arg) const;

    const Names names;
    const Ref zero, one;
    const Ref abstract_method_required;

private:
    Ref function_type_;
};

// A message that begins with the rotation's name.
inline capi::Message message_of(const State& state, PyObject* self) {
    capi::Message message;
    message.value(attr(self, state.names.name)).text(": ");
    return message;
}

}  // namespace quorvane::rotations::boilerplate
