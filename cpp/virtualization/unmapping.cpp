#include "virtualization/unmapping.hpp"

#include <algorithm>
#include <limits>

#include "capi/array_view.hpp"
#include "virtualization/fast/unmapping.hpp"
#include "virtualization/guards/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter parameters[] = {
    positional("self"),
    positional("txi_output"),
    positional("output_buf"),
    positional("N"),
};

// The running totals per instrument and which instruments got any contribution.
struct Totals {
    Ref sums, has_contribution;
};

Totals zero_totals(const State& state, PyObject* N) {
    const Names& names = state.names;
    Totals totals;
    totals.sums = state.numpy_with_dtype(names.zeros, N, names.float64);
    totals.has_contribution =
        call_with_keywords(state.numpy(names.zeros).get(), state.dtype_keyword.get(), N,
                           reinterpret_cast<PyObject*>(&PyBool_Type));
    return totals;
}

// sums[leg] += amount(); has_contribution[leg] = True. The total is read before the amount is
// known.
template <class Amount>
void contribute(const Totals& totals, PyObject* leg, Amount&& amount) {
    const Ref before = item(totals.sums.get(), leg);
    const Ref after =
        require(PyNumber_InPlaceAdd(before.get(), std::forward<Amount>(amount)().get()));
    set_item(totals.sums.get(), leg, after.get());
    set_item(totals.has_contribution.get(), leg, Py_True);
}

// Every leg gets the same magnitude; its weight gives only the sign, and 0 counts as positive.
void split_equally(const Totals& totals, PyObject* value, PyObject* legs) {
    const Ref count = capi::make_int(capi::length(legs));
    const Ref scale = require(PyNumber_TrueDivide(value, count.get()));
    const Ref zero = capi::make_float(0.0);
    capi::Iteration iteration(legs);
    Ref leg;
    while (iteration.next(leg)) {
        const capi::Pair parts = capi::unpack_pair(leg.get());
        const bool positive = capi::compare(parts.second.get(), zero.get(), Py_GE);
        const Ref amount = positive ? scale.share() : require(PyNumber_Negative(scale.get()));
        contribute(totals, parts.first.get(), [&] { return amount.share(); });
    }
}

void split_in_proportion(const Totals& totals, PyObject* value, PyObject* legs) {
    capi::Iteration iteration(legs);
    Ref leg;
    while (iteration.next(leg)) {
        const capi::Pair parts = capi::unpack_pair(leg.get());
        contribute(totals, parts.first.get(),
                   [&] { return require(PyNumber_Multiply(value, parts.second.get())); });
    }
}

void unmap_slot(const State& state, PyObject* self, PyObject* txi_output, PyObject* slot,
                const Totals& totals) {
    const Names& names = state.names;
    const Ref value = item(txi_output, slot);
    const Ref isfinite = state.numpy(names.isfinite);
    if (!capi::truth(call(isfinite.get(), value.get()).get())) return;
    const Ref legs = call_method(attr(self, names.legs_by_slot).get(), names.get, slot);
    if (!capi::truth(legs.get())) return;
    const Ref policy = attr(self, names.unmap_policy);
    if (capi::compare(policy.get(), capi::make_str("equal_split").get(), Py_EQ)) {
        split_equally(totals, value.get(), legs.get());
    } else {
        split_in_proportion(totals, value.get(), legs.get());
    }
}

void fill_with_nan(const capi::VectorView<double>& view, Py_ssize_t end) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    if (view.contiguous()) {
        std::ranges::fill(view.span().first(static_cast<std::size_t>(end)), nan);
    } else {
        for (Py_ssize_t i = 0; i < end; ++i) view[i] = nan;
    }
}

// output_buf[:N] = np.nan
void clear_output(const State& state, PyObject* output_buf, PyObject* N) {
    const bool numpy_holds = state.module_guard.numpy_holds(state);
    const auto view = capi::writable_vector<double>(output_buf);
    const Py_ssize_t live_size = plain_size(N);
    if (view && live_size >= 0 && numpy_holds) {
        const Py_ssize_t end = std::min(live_size, view.size());
        fill_with_nan(view, end);
        return;
    }
    const Ref live = require(PySlice_New(Py_None, N, nullptr));
    set_item(output_buf, live.get(), state.numpy(state.names.nan).get());
}

void unmap_stepwise(const State& state, PyObject* self, PyObject* txi_output, PyObject* output_buf,
                    PyObject* N) {
    const Totals totals = zero_totals(state, N);
    const Ref slots = call(reinterpret_cast<PyObject*>(&PyRange_Type),
                           attr(self, state.names.max_structures).get());
    capi::Iteration iteration(slots.get());
    while (const Ref slot = iteration.next()) {
        unmap_slot(state, self, txi_output, slot.get(), totals);
    }
    const Ref contributed = item(totals.sums.get(), totals.has_contribution.get());
    const Ref live_output = capi::slice_of(output_buf, Py_None, N);
    set_item(live_output.get(), totals.has_contribution.get(), contributed.get());
}

Ref unmap(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    clear_output(state, values[2], values[3]);
    if (!unmap_fast(state, self, values[1], values[2], values[3])) {
        unmap_stepwise(state, self, values[1], values[2], values[3]);
    }
    return capi::none();
}

}  // namespace

const capi::FunctionDef unmap_def{"_unmap", parameters, capi::body_of<State, unmap>};

}  // namespace quorvane::virtualization
