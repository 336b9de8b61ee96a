// Who speaks: the module of two classes, one that counts and one that shuts out.

#include "capi/module.hpp"

#include <algorithm>
#include <limits>

#include "kernels/attendance.hpp"
#include "kernels/history/attendance_block.hpp"
#include "rotations/arguments.hpp"
#include "rotations/history_child.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations::attendance {

namespace {

class State {
public:
    explicit State(PyObject* module) : count(module), gate(module) {}

    // Runs the module's body: binds AttendanceCount and Gate.
    void execute();

    int traverse(visitproc visit, void* arg) const {
        const int result = count.traverse(visit, arg);
        return result != 0 ? result : gate.traverse(visit, arg);
    }

    ChildModule count, gate;
    const capi::Interned hold{"hold"};
    const capi::Interned silent_days{"_silent_days"};
    const capi::Interned attendance{"attendance"};
    const capi::Interned n_alloc{"_n_alloc"};
    const FrameworkDay framework_day;
};

// None is for ever; anything else must be an int from 0 on. ValueError or TypeError otherwise.
std::optional<double> hold_of(PyObject* hold) {
    if (capi::is_none(hold)) return std::nullopt;
    if (capi::is_integer(hold)) {
        const Ref exact = capi::to_int(hold);
        if (capi::compare(exact.get(), capi::make_int(0).get(), Py_GE)) {
            const double days = PyLong_AsDouble(exact.get());
            if (days >= 0.0) return days;
            PyErr_Clear();
            return std::numeric_limits<double>::infinity();
        }
    }
    capi::Message()
        .text("hold must be None or an int from 0 on, got ")
        .repr(hold)
        .raise(capi::is_integer(hold) ? PyExc_ValueError : PyExc_TypeError);
}

// The first of them; the caller holds the array.
std::span<double> head_of(PyObject* silent_days, std::size_t slots) {
    const auto days = writable_doubles(silent_days);
    if (days && std::cmp_greater_equal(days.size(), slots)) return days.span().first(slots);
    capi::Message()
        .text("attendance: _silent_days must be a writable, contiguous float64 array of at least ")
        .value(capi::make_int(static_cast<Py_ssize_t>(slots)))
        .text(" entries")
        .raise(PyExc_ValueError);
}

// ---- the count ---------------------------------------------------------------------------------

Ref init_count(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    hold_of(values[1]);
    const Ref slots = positive_int("N_alloc", values[2], "a positive int");
    const Argument arguments[] = {{state.hold, values[1]}};
    state.count.initialise(self, arguments, values[2]);
    const Ref days = new_vector(column_count("N_alloc", slots.get()), NPY_DOUBLE);
    std::ranges::fill(writable_doubles(days.get()).span(),
                      std::numeric_limits<double>::quiet_NaN());
    capi::set_attr(self, state.silent_days, days.get());
    return capi::none();
}

Ref count(State& state, PyObject* const* values) {
    const RowDay day(state.count, values);
    const Ref silent_days = capi::attr(values[0], state.silent_days);
    head_of(silent_days.get(), day.size());
    std::ranges::copy(day.values(), day.out().begin());
    // The output may yet be refused, and a day that fails must not be counted.
    day.deliver();
    const auto row = day.out();
    kernels::count_silence(row, head_of(silent_days.get(), row.size()));
    return state.count.zero.share();
}

class CountInHistory final : public HistoryChild {
public:
    CountInHistory(PlainChild plain, std::optional<double> hold, PyObject* silent_days,
                   const ChildRequest& request)
        : plain_(std::move(plain)),
          silent_days_(silent_days),
          kernel_(hold, writable_doubles(silent_days).span().first(request.slots),
                  request.most_days, request.stride) {}

    [[nodiscard]] kernels::AttendanceBlock& kernel() noexcept override { return kernel_; }

    [[nodiscard]] bool holds() const override {
        return plain_.holds() && has_room(silent_days_, kernel_.silent_days().size());
    }

    void deliver() noexcept override {
        if (!has_room(silent_days_, kernel_.silent_days().size())) return;
        std::ranges::copy(kernel_.silent_days(), writable_doubles(silent_days_).span().begin());
    }

    static bool has_room(PyObject* array, std::size_t slots) noexcept {
        const auto numbers = writable_doubles(array);
        return numbers && std::cmp_greater_equal(numbers.size(), slots);
    }

private:
    PlainChild plain_;
    PyObject* silent_days_;  // borrowed: the child as it was seen owns it
    kernels::AttendanceBlock kernel_;
};

std::unique_ptr<HistoryChild> count_in_history(void* module, const ChildRequest& request) {
    const State& state = *static_cast<State*>(module);
    PlainChild child(request.child, state.framework_day);
    if (!child.has_plain_days(request)) return nullptr;
    PyObject* hold = child.seen().look(state.hold);
    PyObject* silent_days = child.seen().look(state.silent_days);
    if (hold == nullptr || !(capi::is_none(hold) || PyLong_CheckExact(hold)) ||
        silent_days == nullptr || !is_alone(silent_days) ||
        !CountInHistory::has_room(silent_days, request.slots)) {
        return nullptr;
    }
    return std::make_unique<CountInHistory>(std::move(child), hold_of(hold), silent_days, request);
}

constexpr ChildOpener count_opener = count_in_history;

// ---- the gate ----------------------------------------------------------------------------------

Ref init_gate(State& state, PyObject* const* values) {
    const Argument arguments[] = {{state.attendance, values[1]}};
    state.gate.initialise(values[0], arguments, values[2]);
    return capi::none();
}

Ref let_through(State& state, PyObject* const* values) {
    const RowDay day(state.gate, values);
    const Ref attendance = capi::attr(values[0], state.attendance);
    const auto hold = hold_of(capi::attr(attendance.get(), state.hold).get());
    if (hold) {
        const Ref silent_days = capi::attr(attendance.get(), state.silent_days);
        kernels::let_through(day.values(), head_of(silent_days.get(), day.size()), *hold,
                             day.out());
    } else {
        kernels::let_through(day.values(), day.out());
    }
    day.deliver();
    return state.count.zero.share();
}

// Null where the attendance does not take part in the same history, before the gate.
CountInHistory* count_before(const State& state, PyObject* attendance,
                             const ChildRequest& request) {
    const auto found = std::ranges::find(request.before, attendance, &ChildBefore::object);
    if (attendance == nullptr || found == request.before.end()) return nullptr;
    const capi::Offered offer = capi::offered(
        _PyType_Lookup(Py_TYPE(attendance), state.framework_day.compute), child_offer);
    if (!offer || offer.content != static_cast<const void*>(&count_opener)) return nullptr;
    return static_cast<CountInHistory*>(found->child);
}

std::unique_ptr<HistoryChild> gate_in_history(void* module, const ChildRequest& request) {
    const State& state = *static_cast<State*>(module);
    PlainChild child(request.child, state.framework_day);
    if (!child.has_plain_days(request)) return nullptr;
    CountInHistory* before = count_before(state, child.seen().look(state.attendance), request);
    if (before == nullptr) return nullptr;
    return std::make_unique<ForgetfulChild>(std::move(child),
                                            std::make_unique<kernels::GateBlock>(before->kernel()));
}

constexpr ChildOpener gate_opener = gate_in_history;

// ---- the classes -------------------------------------------------------------------------------

constexpr auto count_init_parameters = init_parameters_with(capi::positional("hold"));
constexpr auto gate_init_parameters = init_parameters_with(capi::positional("attendance"));

constexpr auto count_doc = compute_doc_of("Count, and hand the one input of the day on.");
constexpr auto gate_doc = compute_doc_of("Hand on of the one input of the day what speaks.");

constexpr ChildClass count_class{
    .class_name = "AttendanceCount",
    .doc = R"(For how many days each column has had no value; values go through as they are.

A column speaks on the days on which it has a value, and on up to ``hold`` days after.

Parameters
----------
hold : int or None
    For ever with None.
N_alloc : int
    The most columns that a day may have.

Attributes
----------
hold : int or None
    As given.
_silent_days : ndarray of float64
    0 for a column with a value today, NaN for one that never had one.
)",
    .name = "attendance",
    .init = {"__init__", count_init_parameters, capi::body_of<State, init_count>,
             "Make a count that has seen nothing."},
    .compute = {"compute",
                compute_parameters,
                capi::body_of<State, count>,
                count_doc.data(),
                {child_offer, static_cast<const void*>(&count_opener)}},
};

constexpr ChildClass gate_class{
    .class_name = "Gate",
    .doc = R"(Lets through what is finite and speaks, and makes the other columns missing.

Parameters
----------
attendance : AttendanceCount
    Who speaks; it stands before the gate in the same chain.
N_alloc : int
    The most columns that a day may have.
)",
    .name = "gate",
    .init = {"__init__", gate_init_parameters, capi::body_of<State, init_gate>,
             "Make a gate that goes by an attendance."},
    .compute = {"compute",
                compute_parameters,
                capi::body_of<State, let_through>,
                gate_doc.data(),
                {child_offer, static_cast<const void*>(&gate_opener)}},
};

void State::execute() {
    const auto nothing_more = [](capi::ClassBuilder& /*builder*/) {};
    count.bind_class(count_class, this, nothing_more);
    gate.bind_class(gate_class, this, nothing_more);
}

}  // namespace

}  // namespace quorvane::rotations::attendance

PyMODINIT_FUNC PyInit__attendance() {
    return quorvane::capi::ModuleWith<quorvane::rotations::attendance::State>::initialise(
        "_attendance", "Which structures speak, and what the others must not say.");
}
