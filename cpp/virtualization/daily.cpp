#include "virtualization/daily.hpp"

#include <algorithm>
#include <limits>

#include "capi/array_view.hpp"
#include "virtualization/inert_run.hpp"
#include "virtualization/item_recording.hpp"
#include "virtualization/parent_day.hpp"

namespace quorvane::virtualization {

namespace {

using capi::Parameter;
using capi::positional;

constexpr Parameter compute_parameters[] = {
    positional("self"),       positional("args"),
    positional("nan_masks"),  positional("combined_nan_mask"),
    positional("output_buf"), positional("N"),
};

// What one call of compute was given.
struct Day {
    PyObject* self;
    PyObject* args;
    PyObject* nan_masks;
    PyObject* combined_nan_mask;
    PyObject* output_buf;
    PyObject* N;
};

Ref refresh_structures(const State& state, const Day& day) {
    const Ref space_input = item(day.args, state.zero.get());
    const Ref structure_inputs = capi::slice_of(day.args, state.one.get(), Py_None);
    return call_method(day.self, state.names.refresh_active_structures, space_input.get(),
                       structure_inputs.get(), day.nan_masks, day.combined_nan_mask, day.N);
}

// self.<name>.fill(np.nan)
void fill_with_nan(const State& state, PyObject* self, PyObject* name) {
    const Ref row = attr(self, name);
    const auto view = capi::writable_vector<double>(row.get());
    if (view && view.contiguous() && state.pristine.numpy_holds(state)) {
        const auto values = view.span();
        std::fill(values.begin(), values.end(), std::numeric_limits<double>::quiet_NaN());
        return;
    }
    const Ref fill = attr(row.get(), state.names.fill);
    call(fill.get(), state.numpy(state.names.nan).get());
}

// True for {"active": False}: emptying it and saying so again would change nothing.
bool says_only_inactive(const State& state, PyObject* entry) {
    if (PyDict_Size(entry) != 1) return false;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    return PyDict_Next(entry, &position, &key, &value) != 0 && key == state.names.active &&
           value == Py_False;
}

void deactivate(const State& state, PyObject* entry) {
    const Names& names = state.names;
    if (!PyDict_CheckExact(entry)) {
        call_method(entry, names.clear);
        set_item(entry, names.active, Py_False);
    } else if (!says_only_inactive(state, entry)) {
        PyDict_Clear(entry);
        require(PyDict_SetItem(entry, names.active, Py_False));
    }
}

// Every slot's metadata is emptied in place and says inactive.
void deactivate_slots(const State& state, PyObject* self) {
    capi::Iteration entries(attr(self, state.names.metadata_by_slot).get());
    while (const Ref entry = entries.next()) deactivate(state, entry.get());
}

// Records what it can without Python; the slots are reset by then in any case.
Py_ssize_t record_inertly(const State& state, const Day& day, PlainRotation& plain,
                          const DayMasks& masks, PyObject* structures) {
    InertRun run(state, plain, masks, structures, state.memories->of(day.self));
    if (run.is_possible() && run.may_postpone_reset()) return run.record();
    deactivate_slots(state, day.self);
    return run.is_possible() && run.adopt_reset_slots() ? run.record() : 0;
}

// Resets every slot and records every item, in order.
void record_structures(const State& state, const Day& day, PyObject* structures) {
    const DayMasks masks{day.nan_masks, day.combined_nan_mask, day.N};
    PlainRotation plain(state, day.self);
    const Py_ssize_t recorded = record_inertly(state, day, plain, masks, structures);
    capi::Iteration items(structures, recorded);
    while (const Ref raw = items.next()) record_item(state, day.self, plain, masks, raw.get());
}

// Only an empty report skips the children, and only where the subclass asked for that.
bool skips_children(const State& state, PyObject* self, PyObject* structures) {
    if (capi::truth(structures)) return false;
    const Ref call_anyway = capi::optional_attr(self, state.names.call_child_on_empty);
    return call_anyway && !capi::truth(call_anyway.get());
}

void run_children(const State& state, PyObject* self) {
    const Names& names = state.names;
    const Ref parent_context = attr(self, names.current_parent_context);
    const Ref day_index = day_index_of(state, parent_context.get());
    const Ref child_context =
        call_method(self, names.make_child_context, parent_context.get(), day_index.get());
    const Ref run_chain = attr(self, names.run_child_chain);
    const Ref output =
        call(run_chain.get(), attr(self, names.txi_input).get(), child_context.get());
    set_attr(self, names.txi_output, output.get());
}

void write_output(const State& state, const Day& day) {
    const Names& names = state.names;
    const Ref unmap = attr(day.self, names.unmap);
    call(unmap.get(), attr(day.self, names.txi_output).get(), day.output_buf, day.N);
    call_method(day.self, names.record_trace, day.output_buf, day.N);
}

Ref compute(State& state, PyObject* const* values) {
    const Day day{values[0], values[1], values[2], values[3], values[4], values[5]};
    const Ref structures = refresh_structures(state, day);
    fill_with_nan(state, day.self, state.names.txi_input);
    record_structures(state, day, structures.get());
    if (skips_children(state, day.self, structures.get())) {
        fill_with_nan(state, day.self, state.names.txi_output);
    } else {
        run_children(state, day.self);
    }
    write_output(state, day);
    return state.zero.share();
}

constexpr Parameter call_parameters[] = {
    positional("self"),
    capi::var_positional("args"),
    capi::keyword_only("context", "None"),
};

// The width of an input: the last entry of its shape, or its length when it has no shape.
Ref width_of(const State& state, PyObject* input) {
    const Ref shape = capi::optional_attr(input, state.names.shape);
    if (shape && !capi::is_none(shape.get()) && capi::length(shape.get()) > 0) {
        return capi::to_int(item(shape.get(), capi::make_int(-1).get()).get());
    }
    return capi::make_int(capi::length(input));
}

// Without an allocation nothing else bounds the instruments; the child space's limit does.
void check_width(const State& state, PyObject* self, PyObject* input) {
    const Ref width = width_of(state, input);
    const Ref limit = state.global(state.names.MAX_VIRTUAL_STRUCTURES);
    if (!capi::compare(width.get(), limit.get(), Py_GT)) return;
    message_of(state, self)
        .text(": input width must be <= ")
        .value(state.global(state.names.MAX_VIRTUAL_STRUCTURES))
        .raise(PyExc_ValueError);
}

// super().__call__(*args, context=context)
Ref call_base(const State& state, PyObject* self, PyObject* args, PyObject* context) {
    constexpr Py_ssize_t most_on_stack = 6;
    const Ref base_call = state.super_attr(self, state.names.call);
    const Py_ssize_t count = PyTuple_GET_SIZE(args);
    if (count > most_on_stack) {
        const Ref keywords = capi::make_dict();
        require(PyDict_SetItem(keywords.get(), state.names.context, context));
        return require(PyObject_Call(base_call.get(), args, keywords.get()));
    }
    PyObject* stack[most_on_stack + 2] = {};
    for (Py_ssize_t i = 0; i < count; ++i) stack[i + 1] = PyTuple_GET_ITEM(args, i);
    stack[count + 1] = context;
    return require(
        PyObject_Vectorcall(base_call.get(), stack + 1,
                            static_cast<std::size_t>(count) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                            state.context_keyword.get()));
}

Ref call_day(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    PyObject* args = values[1];
    if (capi::is_none(attr(self, names.n_alloc).get()) && PyTuple_GET_SIZE(args) > 0) {
        check_width(state, self, PyTuple_GET_ITEM(args, 0));
    }
    set_attr(self, names.current_parent_context, values[2]);
    Ref result;
    try {
        result = call_base(state, self, args, values[2]);
    } catch (const capi::PythonError&) {
        capi::HandledError handled;
        set_attr(self, names.current_parent_context, Py_None);
        handled.rethrow();
    }
    set_attr(self, names.current_parent_context, Py_None);
    return result;
}

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

Ref extent(const State& state, PyObject* array, PyObject* axis) {
    return item(attr(array, state.names.shape).get(), axis);
}

// The caller's universe, or one with every instrument of every day in it.
Ref universe_of(const State& state, PyObject* context, PyObject* first, PyObject* days) {
    const Names& names = state.names;
    if (!capi::is_none(context)) {
        Ref mask = capi::optional_attr(context, names.universe_mask);
        if (mask && !capi::is_none(mask.get())) return mask;
    }
    const Ref ones = state.numpy(names.ones);
    const Ref columns = extent(state, first, state.one.get());
    const Ref shape = capi::make_tuple(days, columns.get());
    return call_with_keywords(ones.get(), state.dtype_keyword.get(), shape.get(),
                              state.numpy(names.uint8).get());
}

// self(*rows of the day, context=...)
Ref replay_day(const State& state, PyObject* self, PyObject* arrays, PyObject* universe,
               PyObject* day) {
    const Names& names = state.names;
    const Ref context_class = state.global(names.VirtualContext);
    const Ref context = call_with_keywords(context_class.get(),
                                           state.current_day_index_keyword.get(), universe, day);
    const Ref rows = capi::make_list();
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(arrays); ++i) {
        capi::append(rows.get(), item(PyList_GET_ITEM(arrays, i), day).get());
    }
    const Ref keywords = capi::make_dict();
    require(PyDict_SetItem(keywords.get(), names.context, context.get()));
    return require(PyObject_Call(self, capi::to_tuple(rows.get()).get(), keywords.get()));
}

Ref batch_reference(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Ref arrays = as_float64_matrices(state, values[1]);
    if (PyList_GET_SIZE(arrays.get()) == 0) {
        message_of(state, self).text(": batch_reference requires inputs").raise(PyExc_ValueError);
    }
    PyObject* first = PyList_GET_ITEM(arrays.get(), 0);
    const Ref days = extent(state, first, state.zero.get());
    const Ref outputs = capi::make_list();
    const Ref universe = universe_of(state, values[2], first, days.get());
    const Ref range = call(reinterpret_cast<PyObject*>(&PyRange_Type), days.get());
    capi::Iteration iteration(range.get());
    while (const Ref day = iteration.next()) {
        const Ref output = replay_day(state, self, arrays.get(), universe.get(), day.get());
        capi::append(outputs.get(), output.get());
    }
    return call(state.numpy(state.names.vstack).get(), outputs.get());
}

}  // namespace

const capi::FunctionDef compute_def{"compute", compute_parameters, capi::body_of<State, compute>,
                                    R"(Compute one day; the framework calls it inside a call.

Parameters
----------
args : sequence
    The day's inputs, the instrument-space input first.
nan_masks : sequence of mask
    One NaN mask of at least N entries per input.
combined_nan_mask : mask
    Their combination.
output_buf : ndarray of float64
    Gets the day's output in its first N entries.
N : int
    The live instrument count.

Returns
-------
int
    0.
)"};

const capi::FunctionDef call_def{"__call__", call_parameters, capi::body_of<State, call_day>,
                                 R"(Run one day.

Parameters
----------
*args : array_like
    The day's inputs; the first has one number per instrument.
context : object, optional
    May have ``universe_mask`` and ``current_day_index``.

Returns
-------
ndarray of float64, shape (N,)
    One number per instrument, NaN where no structure contributed.

Raises
------
ValueError
    When the rotation has no allocation and the first input is wider than MAX_VIRTUAL_STRUCTURES.
)"};

const capi::FunctionDef batch_reference_def{"batch_reference", batch_parameters,
                                            capi::body_of<State, batch_reference>,
                                            R"(Replay whole matrices day by day.

Goes on from the rotation's present state and leaves the state of the last day behind.

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
    Without matrices.
)"};

}  // namespace quorvane::virtualization
