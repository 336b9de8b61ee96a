#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Every slot's metadata is emptied in place and says inactive, as each day begins with. Gives back
// the last entry, if any.
Ref deactivate_slots(const State& state, PyObject* self);

// True of an exact dict that is {"active": False}: emptying it and saying so again changes nothing.
bool says_only_inactive(const State& state, PyObject* dict);

}  // namespace quorvane::virtualization
