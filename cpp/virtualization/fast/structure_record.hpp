#pragma once

#include "virtualization/cache/live_instruments.hpp"
#include "virtualization/fast/report.hpp"
#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// A structure as normalisation gives it, of plain objects, without the record. Everything is owned,
// as Python may run between its steps.
struct PlainStructure {
    Ref key, legs, metadata;  // no metadata: only what every structure says
    Ref raw_value;            // of an exact builtin or NumPy type
    double value = 0.0;
    bool says_all = false;  // its metadata is not given the key and the legs any more
};

// Makes the metadata what the record's would be: a copy that says the key and the legs too.
void complete_metadata(const State& state, PlainStructure& structure);

// The fields of a record of the module's own class; false when one of them is not plain.
bool read_record(const State& state, PyObject* record, PlainStructure& structure);

// The record after all, for steps that want one: as it would have been made when the item was
// normalised, whatever has become of its class since.
Ref make_record(const State& state, const PlainStructure& structure);

// The record that normalisation makes of a raw item; empty when that needs Python.
Ref normalize_plainly(const State& state, PyObject* raw);

// What the validity step says of a record; empty when only Python can tell.
Ref judge_plainly(const State& state, PyObject* record, const DayMasks& masks);

}  // namespace quorvane::virtualization
