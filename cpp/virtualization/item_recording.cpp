#include "virtualization/item_recording.hpp"

#include "capi/array_view.hpp"
#include "virtualization/shortcuts/plain_size.hpp"
#include "virtualization/slots.hpp"

namespace quorvane::virtualization {

namespace {

// ---- step by step ------------------------------------------------------------------------------

// The metadata that a slot keeps of the day: always a new dict.
Ref daily_metadata(const State& state, PyObject* structure, PyObject* slot, PyObject* valid) {
    const Names& names = state.names;
    const Ref own = attr(structure, names.metadata);
    Ref metadata = capi::truth(own.get()) ? capi::to_dict(own.get()) : capi::make_dict();
    set_item(metadata.get(), names.slot, slot);
    set_item(metadata.get(), names.active, capi::to_bool(capi::truth(valid)).get());
    return metadata;
}

// From the validity step on.
void record_structure(const State& state, PyObject* self, const DayMasks& masks, LastItem& last) {
    const Names& names = state.names;
    PyObject* structure = last.structure.get();
    PyObject* slot = last.slot.get();
    last.valid = call_method(self, names.structure_is_valid, structure, masks.nan_masks,
                             masks.combined_nan_mask, masks.N);
    const Ref legs = attr(structure, names.legs);
    set_item(attr(self, names.legs_by_slot).get(), slot, legs.get());
    last.metadata = daily_metadata(state, structure, slot, last.valid.get());
    set_item(attr(self, names.metadata_by_slot).get(), slot, last.metadata.get());
    if (!capi::truth(last.valid.get())) return;
    const Ref value = attr(structure, names.value);
    set_item(attr(self, names.txi_input).get(), slot, value.get());
}

void record_stepwise(const State& state, PyObject* self, const DayMasks& masks, LastItem& last) {
    const Names& names = state.names;
    last.structure = call_method(self, names.normalize_structure, last.raw.get());
    const Ref find_slot = attr(self, names.slot_for_key);
    last.slot = call(find_slot.get(), attr(last.structure.get(), names.key).get());
    record_structure(state, self, masks, last);
}

// ---- in one go ---------------------------------------------------------------------------------

// Dropping what a table held, and comparing a key with one that somebody else put there, may run
// Python code that replaces the tables. So the rotation is looked at afresh before each use of one,
// and a table is found through the instance when it is no longer plain.
class Tables {
public:
    Tables(const State& state, PyObject* self, PlainRotation& plain)
        : state_(state), self_(self), plain_(plain) {}

    Ref slot_by_key() { return table(&PlainRotation::slot_by_key, state_.names.slot_by_key); }
    Ref legs_by_slot() { return table(&PlainRotation::legs_by_slot, state_.names.legs_by_slot); }
    Ref metadata_by_slot() {
        return table(&PlainRotation::metadata_by_slot, state_.names.metadata_by_slot);
    }
    Ref txi_input() { return table(&PlainRotation::txi_input, state_.names.txi_input); }

private:
    Ref table(PyObject* (PlainRotation::*plain_table)() const noexcept, PyObject* name) {
        return plain_.holds() ? Ref::borrow((plain_.*plain_table)()) : attr(self_, name);
    }

    const State& state_;
    PyObject* self_;
    PlainRotation& plain_;
};

// The slot step, lookup for lookup.
Ref quick_slot(const State& state, PyObject* self, Tables& tables, PyObject* key) {
    const bool known = capi::contains(tables.slot_by_key().get(), key);
    return known ? item(tables.slot_by_key().get(), key) : new_slot(state, self, key);
}

// The position that an exact integer names in a sequence of `size`, or -1.
Py_ssize_t position_of(PyObject* slot, Py_ssize_t size) noexcept {
    const Py_ssize_t index = plain_size(slot);
    return index < size ? index : -1;
}

void store_metadata(PyObject* table, PyObject* slot, const Ref& metadata) {
    const Py_ssize_t index =
        PyList_CheckExact(table) ? position_of(slot, PyList_GET_SIZE(table)) : -1;
    if (index < 0) return set_item(table, slot, metadata.get());
    require(PyList_SetItem(table, index, metadata.share().release()));
}

void store_value(PyObject* table, PyObject* slot, double value) {
    const auto view = capi::writable_vector<double>(table);
    const Py_ssize_t index = view ? position_of(slot, view.size()) : -1;
    if (index < 0) return set_item(table, slot, capi::make_float(value).get());
    view[index] = value;
}

bool record_quickly(const State& state, PyObject* self, PlainRotation& plain, const DayMasks& masks,
                    LastItem& last) {
    QuickItem quick;
    if (!plain.holds() || !normalize_quickly(state, last.raw.get(), quick)) return false;
    // Of the steps of an item before.
    last.structure = Ref();
    last.slot = Ref();
    last.valid = Ref();
    last.metadata = Ref();
    Tables tables(state, self, plain);
    const Ref slot = quick_slot(state, self, tables, quick.key.get());
    const Verdict verdict = plain.holds() ? judge_quickly(quick, masks) : Verdict::unknown;
    if (verdict == Verdict::unknown) {
        last.structure = make_record(state, quick);
        last.slot = slot.share();
        record_structure(state, self, masks, last);
        return true;
    }
    const bool valid = verdict == Verdict::valid;
    set_item(tables.legs_by_slot().get(), slot.get(), quick.legs.get());
    set_item(quick.metadata.get(), state.names.slot, slot.get());
    set_item(quick.metadata.get(), state.names.active, valid ? Py_True : Py_False);
    store_metadata(tables.metadata_by_slot().get(), slot.get(), quick.metadata);
    if (valid) store_value(tables.txi_input().get(), slot.get(), quick.value);
    return true;
}

}  // namespace

void record_item(const State& state, PyObject* self, PlainRotation& plain, const DayMasks& masks,
                 LastItem& last) {
    if (!record_quickly(state, self, plain, masks, last)) {
        record_stepwise(state, self, masks, last);
    }
}

}  // namespace quorvane::virtualization
