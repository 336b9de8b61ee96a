#pragma once

#include <algorithm>
#include <initializer_list>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// What instances of a class find in it, asked for as attribute access does, without calling anyone.

// A class that sets one of the attributes could answer instead of the instance.
inline bool sets_none_of(PyTypeObject* type, std::initializer_list<PyObject*> attributes) {
    return std::ranges::none_of(attributes, [type](PyObject* attribute) {
        return _PyType_Lookup(type, attribute) != nullptr;
    });
}

struct Step {
    PyObject* name;
    const capi::FunctionDef& definition;
};

// The steps are the module's own, overridden by nobody.
inline bool has_own_steps(const State& state, PyTypeObject* type,
                          std::initializer_list<Step> steps) {
    return std::ranges::all_of(steps, [&](const Step& step) {
        PyObject* found = _PyType_Lookup(type, step.name);
        return found != nullptr && state.is_own(found, step.definition);
    });
}

}  // namespace quorvane::virtualization
