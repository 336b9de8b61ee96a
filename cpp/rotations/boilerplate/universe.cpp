#include "rotations/boilerplate/universe.hpp"

#include "kernels/nan_mask.hpp"
#include "rotations/arguments.hpp"
#include "rotations/buffers.hpp"
#include "rotations/parent_day.hpp"

namespace quorvane::rotations::boilerplate {

namespace {

// Whether the mask has a single axis; nested lists, for example, become an array first.
bool is_one_row(const State& state, Ref& mask) {
    if (!PyArray_CheckExact(mask.get())) {
        if (const Ref ndim = capi::optional_attr(mask.get(), state.names.ndim)) {
            const auto axes = plain_int(ndim.get());
            return axes ? *axes == 1 : capi::compare(ndim.get(), state.one.get(), Py_EQ);
        }
        mask = require(PyArray_FromAny(mask.get(), nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
    }
    return PyArray_NDIM(capi::as_array(mask.get())) == 1;
}

Ref row_of_day(const State& state, PyObject* context, Ref mask) {
    if (is_one_row(state, mask)) return mask;
    return capi::item(mask.get(), day_index_of(context, state.names.current_day_index).get());
}

// The row as contiguous bytes: itself where it is that already.
Ref as_bytes(Ref row) {
    const auto bytes = capi::readable_mask(row.get());
    if (bytes && bytes.contiguous()) return row;
    constexpr int flags = NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST;
    return require(
        PyArray_FromAny(row.get(), PyArray_DescrFromType(NPY_BOOL), 0, 0, flags, nullptr));
}

[[noreturn]] void raise_unusable(const State& state, PyObject* self, PyObject* row, Py_ssize_t N) {
    message_of(state, self)
        .text("a row of universe_mask must have at least one entry for each of the ")
        .value(capi::make_int(N))
        .text(" columns, got shape ")
        .str(attr(row, capi::Interned("shape")).get())
        .raise(PyExc_ValueError);
}

}  // namespace

Ref universe_row(const State& state, PyObject* self, PyObject* context, Py_ssize_t N) {
    if (capi::is_none(context)) return {};
    Ref mask = capi::optional_attr(context, state.names.universe_mask);
    if (!mask || capi::is_none(mask.get())) return {};

    Ref row = as_bytes(row_of_day(state, context, std::move(mask)));
    const auto bytes = capi::readable_mask(row.get());
    if (!bytes || bytes.size() < N) raise_unusable(state, self, row.get(), N);
    const auto day = bytes.span().first(static_cast<std::size_t>(N));
    return kernels::any_left_out(day) ? std::move(row) : Ref();
}

}  // namespace quorvane::rotations::boilerplate
