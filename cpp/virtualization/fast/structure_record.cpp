#include "virtualization/fast/structure_record.hpp"

#include <cmath>

#include "capi/gc_pause.hpp"
#include "capi/numpy.hpp"
#include "virtualization/guards/plain_values.hpp"

namespace quorvane::virtualization {

namespace {

Ref complete_copy(const State& state, const PlainStructure& structure) {
    Ref metadata =
        structure.metadata ? require(PyDict_Copy(structure.metadata.get())) : capi::make_dict();
    set_default(metadata.get(), state.names.key, structure.key.get());
    set_default(metadata.get(), state.names.legs, structure.legs.get());
    return metadata;
}

// Making a record, and reading one, run nobody's code.
bool has_own_record_class(const State& state) {
    return state.module_guard.numpy_holds(state) &&
           state.module_guard.structure_class_holds(state) &&
           state.module_guard.is_unversioned_rest_own();
}

}  // namespace

bool read_record(const State& state, PyObject* record, PlainStructure& structure) {
    if (!Py_IS_TYPE(record, state.module_guard.structure_class())) return false;
    ItemEntries entries;
    if (!read_plain_entries(state, record, entries) || !is_plain_key(entries.key) ||
        !are_plain_legs(entries.legs) || entries.value == nullptr ||
        (entries.metadata != nullptr && !has_plain_entries(entries.metadata))) {
        return false;
    }
    // NumPy says of an int that is too large for it that it cannot tell whether it is finite.
    if (PyLong_CheckExact(entries.value)) return false;
    const std::optional<double> value = plain_float(entries.value);
    if (!value) return false;
    structure.key = Ref::borrow(entries.key);
    structure.legs = Ref::borrow(entries.legs);
    structure.metadata = Ref::borrow(entries.metadata);
    structure.raw_value = Ref::borrow(entries.value);
    structure.value = *value;
    structure.says_all = true;
    return true;
}

void complete_metadata(const State& state, PlainStructure& structure) {
    structure.metadata = complete_copy(state, structure);
    structure.says_all = true;
}

Ref make_record(const State& state, const PlainStructure& structure) {
    const capi::GcPause no_finalizers;
    const Names& names = state.names;
    const Ref value = capi::to_float(structure.raw_value.get());
    const Ref metadata =
        structure.says_all ? structure.metadata.share() : complete_copy(state, structure);
    Ref record = state.module_guard.new_structure();
    const Ref fields = require(PyObject_GenericGetDict(record.get(), nullptr));
    require(PyDict_SetItem(fields.get(), names.key, structure.key.get()));
    require(PyDict_SetItem(fields.get(), names.legs, structure.legs.get()));
    require(PyDict_SetItem(fields.get(), names.value, value.get()));
    require(PyDict_SetItem(fields.get(), names.metadata, metadata.get()));
    return record;
}

Ref normalize_plainly(const State& state, PyObject* raw) {
    if (!has_own_record_class(state)) return {};
    const capi::GcPause no_finalizers;
    ReportedItem said;
    if (!read_item(state, raw, said) || !is_plain_key(said.key)) return {};
    PlainStructure structure;
    structure.legs = to_plain_legs(said.legs);
    if (!structure.legs) return {};
    structure.key = Ref::borrow(said.key);
    structure.metadata = Ref::borrow(said.own_metadata);
    structure.raw_value = Ref::borrow(said.raw_value);
    return make_record(state, structure);
}

Ref judge_plainly(const State& state, PyObject* record, const DayMasks& masks) {
    if (!has_own_record_class(state) || !Py_IS_TYPE(record, state.module_guard.structure_class())) {
        return {};
    }
    ItemEntries entries;
    if (!read_plain_entries(state, record, entries) || !are_plain_legs(entries.legs) ||
        entries.value == nullptr || !PyFloat_CheckExact(entries.value)) {
        return {};
    }
    const Verdict verdict = judge_legs(entries.legs, masks);
    if (verdict == Verdict::unknown) return {};
    if (verdict == Verdict::invalid) return capi::to_bool(false);
    const bool finite = std::isfinite(PyFloat_AS_DOUBLE(entries.value));
    return Ref::borrow(finite ? PyArrayScalar_True : PyArrayScalar_False);
}

}  // namespace quorvane::virtualization
