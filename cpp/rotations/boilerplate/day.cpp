#include "rotations/boilerplate/day.hpp"

#include <cstring>
#include <utility>

#include "rotations/arguments.hpp"
#include "rotations/boilerplate/construction.hpp"
#include "rotations/boilerplate/inputs.hpp"
#include "rotations/boilerplate/universe.hpp"
#include "rotations/buffers.hpp"
#include "rotations/history_offers.hpp"

namespace quorvane::rotations::boilerplate {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter call_parameters[] = {
    positional("self"),
    capi::var_positional("args"),
    capi::keyword_only("context", "None"),
};

// Checks the width against the allocation; without one, the buffers grow to it.
void allocate_day(const State& state, PyObject* self, Py_ssize_t N) {
    const Names& names = state.names;
    const Ref N_alloc = attr(self, names.n_alloc);
    if (capi::is_none(N_alloc.get())) {
        const auto output = writable_doubles(attr(self, names.output_buf).get());
        const auto combined = writable_bytes(attr(self, names.combined_nan_buf).get());
        const bool fits = output && output.size() >= N && combined && combined.size() >= N;
        if (!fits) make_buffers(state, self, N);
        return;
    }
    const Ref width = capi::make_int(N);
    const auto limit = plain_int(N_alloc.get());
    if (limit ? N <= *limit : !capi::compare(width.get(), N_alloc.get(), Py_GT)) return;
    message_of(state, self)
        .text("the first input has ")
        .value(width)
        .text(" columns, allowed are at most N_alloc = ")
        .value(N_alloc)
        .raise(PyExc_ValueError);
}

// self._combined_nan_buf[:N]
Ref combined_mask(const State& state, PyObject* self, Py_ssize_t N) {
    Ref buffer = attr(self, state.names.combined_nan_buf);
    const auto bytes = writable_bytes(buffer.get());
    if (!bytes || bytes.size() < N) {
        message_of(state, self)
            .text("_combined_nan_buf must be a writable, contiguous uint8 array of at least ")
            .value(capi::make_int(N))
            .text(" entries")
            .raise(PyExc_ValueError);
    }
    if (bytes.size() == N) return buffer;
    return capi::slice_of(buffer.get(), Py_None, capi::make_int(N).get());
}

void compute_day(const State& state, PyObject* self, PyObject* inputs, PyObject* masks,
                 PyObject* combined, PyObject* output, Py_ssize_t N) {
    const Ref width = capi::make_int(N);
    const Ref result =
        capi::call_method(self, state.names.compute, inputs, masks, combined, output, width.get());
    const auto status = plain_int(result.get());
    if (status ? *status == 0 : capi::compare(result.get(), state.zero.get(), Py_EQ)) return;
    message_of(state, self)
        .text("compute must return 0, got ")
        .repr(result.get())
        .raise(PyExc_RuntimeError);
}

[[noreturn]] void raise_short_output(const State& state, PyObject* self, Py_ssize_t N) {
    message_of(state, self)
        .text("_output_buf must be a one-dimensional array of at least ")
        .value(capi::make_int(N))
        .text(" entries")
        .raise(PyExc_ValueError);
}

// np.array(output[:N], dtype=np.float64), for an output that is not our own kind of array.
Ref copy_of_any_output(const State& state, PyObject* self, PyObject* output, Py_ssize_t N) {
    const Ref head = capi::slice_of(output, Py_None, capi::make_int(N).get());
    Ref copy = as_float64(head.get(), NPY_ARRAY_ENSURECOPY);
    const auto values = capi::readable_vector<double>(copy.get());
    if (!values || values.size() != N) raise_short_output(state, self, N);
    return copy;
}

// The output's first N entries in `copy`, or in an array of their own.
Ref copy_of_output(const State& state, PyObject* self, PyObject* output, Ref copy, Py_ssize_t N) {
    const auto values = capi::readable_vector<double>(output);
    if (!values || !values.contiguous()) return copy_of_any_output(state, self, output, N);
    if (values.size() < N) raise_short_output(state, self, N);
    // Not std::copy, of which the compiler makes a loop: the library's own takes half as long.
    std::memcpy(writable_doubles(copy.get()).span().data(), values.span().data(),
                static_cast<std::size_t>(N) * sizeof(double));
    return copy;
}

Ref call_day(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    Ref inputs = to_inputs(state, self, values[1]);
    const Py_ssize_t N = width_of_first(state, self, inputs.get());
    allocate_day(state, self, N);
    if (const Ref row = universe_row(state, self, values[2], N)) {
        inputs = leave_out(inputs.get(), row.get(), N);
    }
    const Ref masks = mask_buffers(state, self, PyTuple_GET_SIZE(inputs.get()), N);
    const Ref combined = combined_mask(state, self, N);
    const Ref output = attr(self, state.names.output_buf);
    // Before the day: no room for its result must not come after a rotation has remembered it.
    Ref copy = new_vector(N, NPY_DOUBLE);
    mark_nan(inputs.get(), masks.get(), combined.get(), N);
    compute_day(state, self, inputs.get(), masks.get(), combined.get(), output.get(), N);
    return copy_of_output(state, self, output.get(), std::move(copy), N);
}

constexpr Parameter compute_parameters[] = {
    positional("self"),       positional("args"),
    positional("nan_masks"),  positional("combined_nan_mask"),
    positional("output_buf"), positional("N"),
};

Ref compute(State& state, PyObject* const* /*values*/) {
    const Ref method = capi::make_str("RotationBase.compute");
    return capi::call(state.abstract_method_required.get(), method.get());
}

}  // namespace

const capi::FunctionDef call_def{"__call__",
                                 call_parameters,
                                 capi::body_of<State, call_day>,
                                 R"(Run one day.

Parameters
----------
*args : array_like
    The day's inputs. They become float64 arrays, without a copy where they are that already. N is
    the last axis of the first one. A further input that has no float64 form is handed on as it is.
context : object, optional
    May have ``universe_mask``, one row per day or one row for all days, and ``current_day_index``
    (0 when it has none). Instruments whose entry in the day's row is 0 are taken as NaN.

Returns
-------
ndarray of float64, shape (N,)
    A new array.

Raises
------
TypeError
    Without inputs.
ValueError
    When the first input is a scalar or wider than N_alloc, or the mask's row is shorter than N.
RuntimeError
    When compute returns anything but 0.
)",
                                 {day_offer}};

const capi::FunctionDef compute_def{"compute", compute_parameters, capi::body_of<State, compute>,
                                    R"(Compute one day into the output buffer; subclasses define it.

Parameters
----------
args : tuple
    The day's inputs as float64 arrays, NaN where an instrument is left out. They may be the
    caller's own: not to be changed.
nan_masks : tuple of ndarray of uint8, shape (N,)
    For each input 1 where it is NaN. All clear for an input that is not N wide. Valid during the
    call only.
combined_nan_mask : ndarray of uint8, shape (N,)
    1 where any input is NaN. Valid during the call only.
output_buf : ndarray of float64
    Its first N entries are the day's output.
N : int
    The number of columns.

Returns
-------
int
    0.
)"};

}  // namespace quorvane::rotations::boilerplate
