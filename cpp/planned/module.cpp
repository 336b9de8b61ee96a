// PlannedStructures: the module of one class.

#include "capi/module.hpp"

#include "capi/message.hpp"
#include "capi/names.hpp"
#include "capi/numpy.hpp"
#include "rotations/history_offers.hpp"
#include "rotations/parent_day.hpp"

namespace quorvane::planned {

namespace {

using capi::attr;
using capi::Interned;
using capi::positional;
using capi::Ref;
using capi::require;

class State {
public:
    explicit State(PyObject* module)
        : function_type_(capi::make_native_function_type(module)), module_(module) {}

    void execute();

    int traverse(visitproc visit, void* arg) const {
        Py_VISIT(function_type_.get());
        return 0;
    }

    const Interned name{"_name"};
    const Interned columns{"_columns"};
    const Interned instruments{"_instruments"};
    const Interned current_parent_context{"_current_parent_context"};
    const Interned current_day_index{"current_day_index"};
    const Interned basket_values{"basket_values"};
    const Interned weighted_sums{"weighted_sums"};
    const Interned with_values{"with_values"};

private:
    Ref function_type_;
    PyObject* module_;  // borrowed: the module owns this state
};

[[noreturn]] void raise_too_early(const State& state, PyObject* self, PyObject* day) {
    capi::Message()
        .value(attr(self, state.name))
        .text(": there are no structures for day ")
        .repr(day)
        .text(", which is before the first day of the plan")
        .raise(PyExc_ValueError);
}

// The columns of a plan that hold on the day: the last ones that begin on it or before.
Ref planned_columns(const State& state, PyObject* self, PyObject* plan) {
    const Ref context = attr(self, state.current_parent_context);
    const Ref day = rotations::day_index_of(context.get(), state.current_day_index);
    for (Py_ssize_t i = PyTuple_GET_SIZE(plan) - 1; i >= 0; --i) {
        const capi::Pair entry = capi::unpack_pair(PyTuple_GET_ITEM(plan, i));
        if (capi::compare(entry.first.get(), day.get(), Py_LE)) return entry.second.share();
    }
    raise_too_early(state, self, day.get());
}

Ref columns_of_day(const State& state, PyObject* self) {
    Ref columns = attr(self, state.columns);
    if (!PyTuple_CheckExact(columns.get())) return columns;
    return planned_columns(state, self, columns.get());
}

constexpr capi::Parameter values_parameters[] = {positional("self"), positional("inputs")};

Ref basket_values(State& state, PyObject* const* values) {
    const Ref columns = columns_of_day(state, values[0]);
    return capi::call_method(columns.get(), state.weighted_sums, values[1]);
}

constexpr capi::Parameter hook_parameters[] = {
    positional("self"),      positional("space_input"),       positional("structure_inputs"),
    positional("nan_masks"), positional("combined_nan_mask"), positional("N"),
};

void check_width(const State& state, PyObject* self, PyObject* N) {
    const Ref instruments = attr(self, state.instruments);
    const Ref count = capi::make_int(capi::length(instruments.get()));
    if (capi::compare(N, count.get(), Py_GE)) return;
    capi::Message()
        .value(attr(self, state.name))
        .text(": input has ")
        .str(N)
        .text(" columns, expected at least ")
        .value(count)
        .text(", one for each named instrument")
        .raise(PyExc_ValueError);
}

Ref refresh_active_structures(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    check_width(state, self, values[5]);
    const Ref columns = columns_of_day(state, self);
    const Ref sums = capi::call_method(self, state.basket_values, values[1]);
    return capi::call_method(columns.get(), state.with_values, sums.get());
}

const capi::FunctionDef basket_values_def{
    .name = "basket_values",
    .parameters = values_parameters,
    .body = capi::body_of<State, basket_values>,
    .doc = R"(Weighted sum of each basket over one day's input.

Of the day that is being computed, and outside a call of day 0, where baskets change.

Parameters
----------
inputs : array_like of float, shape (N,)
    At least one number per named instrument, in column order.

Returns
-------
ndarray of float64
    One number per basket, in basket order.

Raises
------
IndexError
    When an instrument of a basket has no number.
)",
    .offer = {rotations::planned_values_offer},
};

const capi::FunctionDef refresh_active_structures_def{
    .name = "_refresh_active_structures",
    .parameters = hook_parameters,
    .body = capi::body_of<State, refresh_active_structures>,
    .doc = "The baskets of the day with its values.",
    .offer = {rotations::planned_hook_offer},
};

constexpr const char* class_doc =
    R"(Structures that are known beforehand, each a weighted sum of the day's input.

What ready-made rotations are built on. A subclass sets two attributes: ``_instruments``, the names
of the input's columns, and ``_columns``, the ``StructureColumns`` of all days, or a tuple of pairs
(first day, columns), sorted by day, each of which holds until the next. The day is the context's
``current_day_index``. Because they are known beforehand, ``batch_reference`` computes whole
histories without a Python object per day.
)";

void State::execute() {
    capi::import_numpy();
    const Ref base =
        capi::import_from("quorvane.functions.rotations.virtualization.base", "VirtualizationBase");
    const Ref module_name = require(PyModule_GetNameObject(module_));
    const capi::FunctionHome home{function_type_.get(), module_, this, module_name.get()};
    capi::ClassBuilder builder(home, "PlannedStructures", base);
    builder.doc(class_doc)
        .attribute("_name", capi::make_str("planned_structures").get())
        .attribute("arity", capi::make_int(1).get())
        .method(basket_values_def)
        .method(refresh_active_structures_def);
    require(PyModule_AddObjectRef(module_, "PlannedStructures", builder.build().get()));
}

}  // namespace

}  // namespace quorvane::planned

PyMODINIT_FUNC PyInit_planned() {
    return quorvane::capi::ModuleWith<quorvane::planned::State>::initialise(
        "planned", "Structures that are known beforehand.");
}
