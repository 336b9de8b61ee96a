#include "virtualization/batch.hpp"

#include <vector>

#include "capi/array_view.hpp"
#include "virtualization/context.hpp"
#include "virtualization/fast/arrays.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/history/batch_history.hpp"
#include "virtualization/history/batch_options.hpp"
#include "virtualization/history/batch_universe.hpp"

namespace quorvane::virtualization {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter batch_parameters[] = {
    positional("self"),
    capi::var_positional("matrices"),
    capi::keyword_only("context", "None"),
};

Ref as_float64_matrices(const State& state, PyObject* matrices) {
    Ref arrays = capi::make_list();
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(matrices); ++i) {
        const Ref array = state.numpy_with_dtype(state.names.asarray, PyTuple_GET_ITEM(matrices, i),
                                                 state.names.float64);
        capi::append(arrays.get(), array.get());
    }
    return arrays;
}

// array[day]; a row of an exact array is found without NumPy's reading the index.
Ref row_of(PyObject* array, PyObject* day) {
    const Py_ssize_t index = plain_size(day);
    const bool plain =
        index >= 0 && PyArray_CheckExact(array) && PyArray_NDIM(capi::as_array(array)) > 1;
    return plain ? require(PySequence_GetItem(array, index)) : item(array, day);
}

Ref context_of(const State& state, PyObject* universe, PyObject* day) {
    const Ref context_class = state.global(state.names.VirtualContext);
    return make_context(state, context_class.get(), universe, day);
}

// self(*rows of the day, context=context)
Ref replay_day(const State& state, PyObject* self, PyObject* arrays, PyObject* day,
               PyObject* context) {
    // The rows, with a place for the rotation in front and for the context behind.
    const auto inputs = static_cast<std::size_t>(PyList_GET_SIZE(arrays));
    std::vector<Ref> rows;
    rows.reserve(inputs);
    std::vector<PyObject*> stack;
    stack.reserve(inputs + 2);
    stack.push_back(nullptr);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(arrays); ++i) {
        const Ref array = Ref::borrow(PyList_GET_ITEM(arrays, i));
        rows.push_back(row_of(array.get(), day));
        stack.push_back(rows.back().get());
    }
    stack.push_back(context);
    return Method::called_by(self, state.names.call)
        .call(stack.data(), rows.size(), state.context_keyword.get());
}

// What left the children today, for the caller to keep.
Ref row_of_slots(const State& state, PyObject* self) {
    return copy_as_float64(state, [&] { return attr(self, state.names.txi_output); });
}

Ref batch_reference(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Ref arrays = as_float64_matrices(state, values[1]);
    if (PyList_GET_SIZE(arrays.get()) == 0) {
        message_of(state, self).text(": batch_reference requires inputs").raise(PyExc_ValueError);
    }
    const Ref shown_days = extent(state, arrays.get(), state.zero.get());
    BatchUniverse universe(state, self, values[2], arrays.get(), shown_days.get());
    const Ref range = call(reinterpret_cast<PyObject*>(&PyRange_Type), shown_days.get());
    const auto days = static_cast<std::size_t>(capi::length(range.get()));
    const BatchOptions options = options_of(state, values[2]);
    BatchHistory history(state, self, arrays.get(), universe.given(), options);
    BatchOutputs outputs(static_cast<Py_ssize_t>(days));
    ProgressReport report(options.progress, days);
    Ref context;  // yesterday's lives until today's is there
    for (std::size_t next = 0; next < days; ++next) {
        if (next > 0) next = history.advance(next, outputs);
        const Ref day = capi::make_int(static_cast<Py_ssize_t>(next));
        context = context_of(state, universe.of_day(), day.get());
        Ref output;
        try {
            output = replay_day(state, self, arrays.get(), day.get(), context.get());
        } catch (const capi::PythonError&) {
            report.tell_before_failure(next);
            throw;
        }
        if (options.ends_with_children) output = row_of_slots(state, self);
        outputs.append(state, output.get());
        require(PyErr_CheckSignals());
        report.tell(next + 1);
    }
    return outputs.stacked(state);
}

}  // namespace

const capi::FunctionDef batch_reference_def{"batch_reference", batch_parameters,
                                            capi::body_of<State, batch_reference>,
                                            R"(Replay whole matrices day by day.

Goes on from the rotation's present state and leaves the state of the last day behind.

A ready-made rotation whose children are the package's own computes many days at once, with the same
bits, on as many threads as the environment variable ``QUORVANE_NUM_THREADS`` says (1 without it).
Meanwhile other Python threads run; what they change in the rotation counts from some later day on,
and what they write into its arrays may be lost.

Parameters
----------
*matrices : array_like of float64, T days in the first axis
    Row d of each is one input of day d.
context : object, optional
    Only its ``universe_mask`` is used; without one every instrument is in the universe.

Returns
-------
ndarray of float64, shape (T, N)
    The days' outputs, stacked.

Raises
------
ValueError
    Without matrices, or when QUORVANE_NUM_THREADS is no whole number from 1 to 256.
KeyboardInterrupt
    As any other signal's handler may, between two days: the rotation then has the state of the days
    so far.
)"};

}  // namespace quorvane::virtualization
