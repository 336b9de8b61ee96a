#pragma once

#include "virtualization/cache/table_cache.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The last item and what its steps made. As variables of a loop do, each lives until the next one
// is there, and the last ones until the day is over; they go in the reverse of this order.
struct LastItem {
    Ref metadata, valid, slot, structure, raw;
};

// Takes one reported item into the rotation's tables, step by step through the instance: normalise,
// find the slot, judge, store. Each goes on where the one before has come to. The cache, if there
// is one, goes along with what is stored.
void normalize_item(const State& state, PyObject* self, LastItem& last);
void find_slot(const State& state, PyObject* self, LastItem& last);
void judge_structure(const State& state, PyObject* self, const DayMasks& masks, LastItem& last);
void store_structure(const State& state, PyObject* self, LastItem& last, TableCache* cache);

}  // namespace quorvane::virtualization
