#include "virtualization/item_recording.hpp"

namespace quorvane::virtualization {

namespace {

// The metadata that a slot keeps of the day: always a new dict.
Ref daily_metadata(const State& state, PyObject* structure, PyObject* slot, PyObject* valid) {
    const Names& names = state.names;
    const Ref own = attr(structure, names.metadata);
    Ref metadata = capi::truth(own.get()) ? capi::to_dict(own.get()) : capi::make_dict();
    set_item(metadata.get(), names.slot, slot);
    set_item(metadata.get(), names.active, capi::to_bool(capi::truth(valid)).get());
    return metadata;
}

}  // namespace

void normalize_item(const State& state, PyObject* self, LastItem& last) {
    last.structure = call_method(self, state.names.normalize_structure, last.raw.get());
}

void find_slot(const State& state, PyObject* self, LastItem& last) {
    const Ref slot_for_key = attr(self, state.names.slot_for_key);
    last.slot = call(slot_for_key.get(), attr(last.structure.get(), state.names.key).get());
}

void judge_structure(const State& state, PyObject* self, const DayMasks& masks, LastItem& last) {
    last.valid = call_method(self, state.names.structure_is_valid, last.structure.get(),
                             masks.nan_masks, masks.combined_nan_mask, masks.N);
}

// A key that is reported twice on one day gets what its later item says; of an earlier valid one
// only the value stays, where the later is not valid.
void store_structure(const State& state, PyObject* self, LastItem& last, TableCache* cache) {
    const Names& names = state.names;
    PyObject* structure = last.structure.get();
    PyObject* slot = last.slot.get();
    const Ref legs = attr(structure, names.legs);
    set_legs(cache, attr(self, names.legs_by_slot).get(), slot, legs.get());
    last.metadata = daily_metadata(state, structure, slot, last.valid.get());
    set_item(attr(self, names.metadata_by_slot).get(), slot, last.metadata.get());
    if (!capi::truth(last.valid.get())) return;
    const Ref value = attr(structure, names.value);
    set_item(attr(self, names.txi_input).get(), slot, value.get());
}

}  // namespace quorvane::virtualization
