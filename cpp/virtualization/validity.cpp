#include "virtualization/validity.hpp"

#include "virtualization/fast/structure_record.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter parameters[] = {
    positional("self"),      positional("structure"),
    positional("nan_masks"), positional("combined_nan_mask"),
    positional("N"),
};

bool is_flagged(PyObject* mask, PyObject* leg_id) { return capi::truth(item(mask, leg_id).get()); }

// The leg points at a live instrument that no mask flags.
bool is_live(const State& state, PyObject* leg_id, PyObject* nan_masks, PyObject* combined_nan_mask,
             PyObject* N) {
    if (capi::compare(leg_id, state.zero.get(), Py_LT) || capi::compare(leg_id, N, Py_GE) ||
        is_flagged(combined_nan_mask, leg_id)) {
        return false;
    }
    capi::Iteration masks(nan_masks);
    Ref mask;
    while (masks.next(mask)) {
        if (is_flagged(mask.get(), leg_id)) return false;
    }
    return true;
}

Ref structure_is_valid(State& state, PyObject* const* values) {
    PyObject* structure = values[1];
    if (Ref verdict = judge_plainly(state, structure, {values[2], values[3], values[4]})) {
        return verdict;
    }
    capi::Iteration legs(attr(structure, state.names.legs).get());
    Ref leg;
    while (legs.next(leg)) {
        const capi::Pair parts = capi::unpack_pair(leg.get());
        if (!is_live(state, parts.first.get(), values[2], values[3], values[4])) {
            return capi::to_bool(false);
        }
    }
    const Ref isfinite = state.numpy(state.names.isfinite);
    return call(isfinite.get(), attr(structure, state.names.value).get());
}

}  // namespace

const capi::FunctionDef structure_is_valid_def{"_structure_is_valid", parameters,
                                               capi::body_of<State, structure_is_valid>};

}  // namespace quorvane::virtualization
