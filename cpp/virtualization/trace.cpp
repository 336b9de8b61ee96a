#include "virtualization/trace.hpp"

#include "rotations/parent_day.hpp"
#include "virtualization/fast/arrays.hpp"

namespace quorvane::virtualization {

namespace {

using capi::positional;

constexpr capi::Parameter parameters[] = {
    positional("self"),
    positional("output_buf"),
    positional("N"),
};

Ref copies_of_metadata(const State& state, PyObject* self) {
    Ref copies = capi::make_list();
    capi::Iteration entries(attr(self, state.names.metadata_by_slot).get());
    Ref entry;
    while (entries.next(entry)) {
        capi::append(copies.get(), capi::to_dict(entry.get()).get());
    }
    return copies;
}

// Everything in a record is a copy made now, so that later days cannot change it.
Ref make_record(const State& state, PyObject* self, PyObject* output_buf, PyObject* N,
                const Ref& day_index) {
    const Names& names = state.names;
    Ref record = capi::make_dict();
    const auto put = [&](PyObject* key, const Ref& value) {
        require(PyDict_SetItem(record.get(), key, value.get()));
    };
    const auto float64_copy = [&](PyObject* name) {
        return copy_as_float64(state, [&] { return attr(self, name); });
    };
    put(names.day_index, day_index);
    put(names.slot_by_key, capi::to_dict(attr(self, names.slot_by_key).get()));
    put(names.key_by_slot, capi::to_dict(attr(self, names.key_by_slot).get()));
    put(names.metadata_by_slot_key, copies_of_metadata(state, self));
    put(names.txi_input_key, float64_copy(names.txi_input));
    put(names.txi_output_key, float64_copy(names.txi_output));
    put(names.txn_output,
        copy_as_float64(state, [&] { return capi::slice_of(output_buf, Py_None, N); }));
    return record;
}

Ref record_trace(State& state, PyObject* const* values) {
    const Names& names = state.names;
    PyObject* self = values[0];
    if (capi::is_none(attr(self, names.trace_sink).get())) return capi::none();
    const Ref parent_context = attr(self, names.current_parent_context);
    const Ref day_index = rotations::day_index_of(parent_context.get(), names.current_day_index);
    const Ref record = make_record(state, self, values[1], values[2], day_index);
    const Ref sink = attr(self, names.trace_sink);
    call_method(sink.get(), names.append, record.get());
    return capi::none();
}

}  // namespace

const capi::FunctionDef record_trace_def{"_record_trace", parameters,
                                         capi::body_of<State, record_trace>};

}  // namespace quorvane::virtualization
