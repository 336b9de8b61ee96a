#pragma once

#include "virtualization/shortcuts/plain_rotation.hpp"
#include "virtualization/shortcuts/quick_item.hpp"

namespace quorvane::virtualization {

// The last item and what its steps made. As variables of a loop do, each lives until the next one
// is there, and the last ones until the day is over; they go in the reverse of this order.
struct LastItem {
    Ref metadata, valid, slot, structure, raw;
};

// Takes one reported item into the rotation's tables: normalise, find the slot, judge, store.
// With a rotation whose steps nobody changed and an item whose reading runs no Python code this is
// done in one go; anything else is done step by step, through the instance, with the same result.
void record_item(const State& state, PyObject* self, PlainRotation& plain, const DayMasks& masks,
                 LastItem& last);

}  // namespace quorvane::virtualization
