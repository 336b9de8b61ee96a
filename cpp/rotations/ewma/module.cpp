// Ewma: the module of one class.

#include "capi/module.hpp"

#include "capi/threads.hpp"
#include "kernels/ewma.hpp"
#include "kernels/team.hpp"
#include "rotations/arguments.hpp"
#include "rotations/ewma/history.hpp"
#include "rotations/ewma/state.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations::ewma {

namespace {

Ref init(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    decay_of(values[1]);
    const Ref window = capi::to_int(values[1]);
    const Argument arguments[] = {{state.window, window.get()}};
    state.initialise(self, arguments, values[2]);
    set_memory(state, self, new_memory(allocated_columns(state, self)));
    return capi::none();
}

void step(RowDay& day, double decay, const Memory& memory, std::size_t threads) {
    const auto mean = writable_doubles(memory.mean.get()).span().first(day.size());
    const auto weight = writable_doubles(memory.weight.get()).span().first(day.size());
    const auto values = day.values();
    const auto out = day.out();
    kernels::in_parts(day.size(), threads, [&](std::size_t first, std::size_t last) {
        const std::size_t size = last - first;
        kernels::ewma_step(values.subspan(first, size), decay, mean.subspan(first, size),
                           weight.subspan(first, size), out.subspan(first, size));
    });
}

// The kernel updates the memory while it reads and writes the day: they must not be the same.
void separate(RowDay& day, const Memory& memory) {
    const auto mean = writable_doubles(memory.mean.get()).span();
    const auto weight = writable_doubles(memory.weight.get()).span();
    if (overlap(mean, weight)) {
        capi::raise(PyExc_ValueError, "_mean and _weight must not share memory");
    }
    const auto values = day.values();
    const auto out = day.out();
    if (overlap(values, mean) || overlap(values, weight)) day.separate_input();
    if (overlap(out, mean) || overlap(out, weight)) day.separate_output();
}

Ref compute(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    RowDay day(state, values);
    const double decay = decay_of(capi::attr(self, state.window).get());
    const std::size_t threads = capi::threads_for_row(day.size());
    const auto N = static_cast<Py_ssize_t>(day.size());
    const Memory memory = memory_of_day(state, self, N);
    separate(day, memory);
    if (day.is_delivered()) {
        step(day, decay, memory, threads);
        return state.zero.share();
    }
    // The output may yet be refused, and a day that fails must not be remembered.
    const Memory yesterday = resized(memory, N);
    step(day, decay, memory, threads);
    try {
        day.deliver();
    } catch (...) {
        take_back(memory, yesterday);
        throw;
    }
    return state.zero.share();
}

constexpr auto init_parameters = init_parameters_with(capi::positional("window"));

constexpr auto init_doc = R"(Make an average that has seen nothing.

Parameters
----------
window : int
    Span of the average in days, a positive int.
N_alloc : int, optional
    The most columns that a day may have; any number with None.

Raises
------
TypeError
    When window is not an int, or is a bool.
ValueError
    When window is not positive.
)";

constexpr auto compute_doc =
    compute_doc_of("Take in the one input of the day and write the averages.");

constexpr auto class_doc = R"(Exponentially weighted moving average of each column.

The weight of a value that is k days old is (1 - alpha)**k, with alpha = 1 / (1 + com) and
com = (window - 1) / 2; the average is the weighted mean of all values so far. NaN and infinite
values count as missing: the average is held while the older weights go on aging. NaN before the
first value. The same numbers, to the bit, as
``pandas.DataFrame.ewm(span=window, adjust=True, ignore_na=False, min_periods=1).mean()``.

Parameters
----------
window : int
    Span of the average in days, a positive int.
N_alloc : int, optional
    The most columns that a day may have.

Attributes
----------
window : int
    The span.
)";

constexpr ChildClass child_class{
    .class_name = "Ewma",
    .doc = class_doc,
    .name = "longitudinal_ewma_67301c",
    .init = {"__init__", init_parameters, capi::body_of<State, init>, init_doc},
    .compute = {"compute",
                compute_parameters,
                capi::body_of<State, compute>,
                compute_doc.data(),
                {child_offer, static_cast<const void*>(&opener)}},
};

}  // namespace

void State::execute() {
    bind_class(child_class, this, [](capi::ClassBuilder& builder) {
        builder.property(stateful_def)
            .method(get_state_def)
            .method(set_state_def)
            .method(resize_def)
            .method(forget_def);
    });
}

}  // namespace quorvane::rotations::ewma

PyMODINIT_FUNC PyInit_ewma() {
    return quorvane::capi::ModuleWith<quorvane::rotations::ewma::State>::initialise(
        "ewma", "Exponentially weighted moving average of each column.");
}
