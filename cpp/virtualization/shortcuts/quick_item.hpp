#pragma once

#include "virtualization/shortcuts/plain_rotation.hpp"

namespace quorvane::virtualization {

// The masks and the width of a day, as compute was given them.
struct DayMasks {
    PyObject* nan_masks;
    PyObject* combined_nan_mask;
    PyObject* N;
};

// An item normalised without running any Python code: the fields of the record that the step would
// have made, before there is a record.
struct QuickItem {
    Ref key, legs, metadata;
    Ref raw_value;  // of an exact builtin or NumPy type
    double value = 0.0;
};

// False, with nothing done, when reading or converting the item could run Python code or raise.
bool normalize_quickly(const State& state, PyObject* raw, QuickItem& quick);

enum class Verdict { valid, invalid, unknown };

// What the validity step would say; unknown when only Python can tell.
Verdict judge_quickly(const QuickItem& quick, const DayMasks& masks) noexcept;

// The record after all, for steps that want one: as it would have been made when the item was
// normalised, whatever has become of its class since.
Ref make_record(const State& state, const QuickItem& quick);

}  // namespace quorvane::virtualization
