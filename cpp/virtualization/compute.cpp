#include "virtualization/compute.hpp"

#include <algorithm>
#include <limits>

#include "capi/array_view.hpp"
#include "rotations/parent_day.hpp"
#include "virtualization/fast/recording.hpp"

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

// What a method written in Python would hold in its variables until the day is over: whoever
// watches these objects sees when they go. They go in the reverse of this order.
struct Variables {
    Ref child_context, parent_context;
    LastItem last;
    Ref reset_entry;
    Ref structures, structure_inputs, space_input;
};

void refresh_structures(const State& state, const Day& day, Variables& variables) {
    variables.space_input = item(day.args, state.zero.get());
    variables.structure_inputs =
        PyTuple_CheckExact(day.args)
            ? require(PyTuple_GetSlice(day.args, 1, PyTuple_GET_SIZE(day.args)))
            : capi::slice_of(day.args, state.one.get(), Py_None);
    variables.structures =
        call_method(day.self, state.names.refresh_active_structures, variables.space_input.get(),
                    variables.structure_inputs.get(), day.nan_masks, day.combined_nan_mask, day.N);
}

// self.<name>.fill(np.nan)
void fill_with_nan(const State& state, PyObject* self, PyObject* name) {
    const Ref row = attr(self, name);
    const bool numpy_holds = state.module_guard.numpy_holds(state);
    const auto view = capi::writable_vector<double>(row.get());
    if (view && view.contiguous() && numpy_holds) {
        const auto values = view.span();
        std::fill(values.begin(), values.end(), std::numeric_limits<double>::quiet_NaN());
        return;
    }
    const Ref fill = attr(row.get(), state.names.fill);
    call(fill.get(), state.numpy(state.names.nan).get());
}

// Resets every slot and records every structure, in order.
void record_structures(const State& state, const Day& day, Variables& variables) {
    const DayMasks masks{day.nan_masks, day.combined_nan_mask, day.N};
    PyObject* structures = variables.structures.get();
    LastItem& last = variables.last;
    Recording recording(state, day.self, masks, structures);
    const Py_ssize_t recorded = recording.begin(variables.reset_entry);
    capi::Iteration items(structures, recorded);
    if (recorded > 0) last.raw = recording.report().object_at(recorded - 1);
    for (auto position = static_cast<std::size_t>(recorded); items.next(last.raw); ++position) {
        recording.record(last, position);
    }
}

// Only an empty report skips the children, and only where the subclass asked for that.
bool skips_children(const State& state, PyObject* self, PyObject* structures) {
    if (capi::truth(structures)) return false;
    const Ref call_anyway = capi::optional_attr(self, state.names.call_child_on_empty);
    return call_anyway && !capi::truth(call_anyway.get());
}

void run_children(const State& state, PyObject* self, Variables& variables) {
    const Names& names = state.names;
    variables.parent_context = attr(self, names.current_parent_context);
    PyObject* parent_context = variables.parent_context.get();
    const Ref day_index = rotations::day_index_of(parent_context, names.current_day_index);
    variables.child_context =
        call_method(self, names.make_child_context, parent_context, day_index.get());
    const Method run_chain = Method::of(self, names.run_child_chain);
    const Ref output = run_chain(attr(self, names.txi_input).get(), variables.child_context.get());
    set_attr(self, names.txi_output, output.get());
}

void write_output(const State& state, const Day& day) {
    const Names& names = state.names;
    const Method unmap = Method::of(day.self, names.unmap);
    unmap(attr(day.self, names.txi_output).get(), day.output_buf, day.N);
    call_method(day.self, names.record_trace, day.output_buf, day.N);
}

Ref compute(State& state, PyObject* const* values) {
    const Day day{values[0], values[1], values[2], values[3], values[4], values[5]};
    Variables variables;
    refresh_structures(state, day, variables);
    fill_with_nan(state, day.self, state.names.txi_input);
    record_structures(state, day, variables);
    if (skips_children(state, day.self, variables.structures.get())) {
        fill_with_nan(state, day.self, state.names.txi_output);
    } else {
        run_children(state, day.self, variables);
    }
    write_output(state, day);
    return state.zero.share();
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

}  // namespace quorvane::virtualization
