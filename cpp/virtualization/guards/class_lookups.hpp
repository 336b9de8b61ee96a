#pragma once

#include <algorithm>
#include <initializer_list>

#include "capi/plain_attributes.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

using capi::plain_attribute;
using capi::sets_none_of;

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
