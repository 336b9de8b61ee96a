#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// Every slot's metadata is emptied in place and says inactive, as each day begins with. Gives back
// the last entry, if any.
Ref deactivate_slots(const State& state, PyObject* self);

}  // namespace quorvane::virtualization
