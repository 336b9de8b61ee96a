#include "virtualization/history/planned_days.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kernels/nan_mask.hpp"
#include "virtualization/call.hpp"
#include "virtualization/child_chain.hpp"
#include "virtualization/compute.hpp"
#include "virtualization/context.hpp"
#include "virtualization/guards/class_lookups.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/trace.hpp"
#include "virtualization/unmapping.hpp"

namespace quorvane::virtualization {

namespace {

// Beyond this a history goes day by day: its memory must not grow with what it is given.
constexpr std::size_t most_memory = std::size_t{48} << 20;

// What a child needs for a slot and a thread at most, and what each leg takes, on the way there and
// on the way back.
constexpr std::size_t child_bytes = 64;
constexpr std::size_t leg_bytes = 2 * (sizeof(std::uint32_t) + sizeof(double));

// The steps of a day are the module's own.
bool has_own_days(const State& state, PyTypeObject* type) {
    const Names& names = state.names;
    return type->tp_getattro == PyObject_GenericGetAttr &&
           type->tp_setattro == PyObject_GenericSetAttr &&
           sets_none_of(type, {names.n_alloc, names.current_parent_context, names.txi_output}) &&
           has_own_steps(state, type,
                         {{names.call, call_def},
                          {names.compute, compute_def},
                          {names.make_child_context, make_child_context_def},
                          {names.run_child_chain, run_child_chain_def},
                          {names.unmap, unmap_def},
                          {names.record_trace, record_trace_def}});
}

// The hook says beforehand what it will report.
bool has_planned_structures(const State& state, PyTypeObject* type) {
    const auto offers = [&](PyObject* method, const char* offer) {
        return static_cast<bool>(capi::offered(_PyType_Lookup(type, method), offer));
    };
    return offers(state.names.refresh_active_structures, rotations::planned_hook_offer) &&
           offers(state.names.basket_values, rotations::planned_values_offer);
}

bool leaves_methods_alone(const State& state, PyObject* self) {
    const Names& names = state.names;
    return capi::has_text_keys(capi::instance_dict(self)) &&
           capi::hides_none_of(
               self, {names.compute, names.make_child_context, names.run_child_chain, names.unmap,
                      names.record_trace, names.refresh_active_structures, names.basket_values});
}

// super().__call__ is the framework's own.
bool has_framework_days(const State& state, PyTypeObject* type) {
    PyObject* classes = type->tp_mro;
    bool is_after = false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(classes); ++i) {
        PyObject* each = PyTuple_GET_ITEM(classes, i);
        PyObject* dict = reinterpret_cast<PyTypeObject*>(each)->tp_dict;
        PyObject* call =
            is_after && dict != nullptr ? capi::dict_peek(dict, state.names.call) : nullptr;
        if (call != nullptr) return static_cast<bool>(capi::offered(call, rotations::day_offer));
        is_after = is_after || each == state.rotation_class();
    }
    return false;
}

// No trace, and children whose compute offers to take part.
bool has_own_company(const State& state, PyObject* self) {
    const Ref sink = plain_attribute(self, state.names.trace_sink);
    const Ref children = plain_attribute(self, state.names.child_rotations);
    if (!sink || !capi::is_none(sink.get()) || !children || !PyList_CheckExact(children.get())) {
        return false;
    }
    PyObject* const* each = PySequence_Fast_ITEMS(children.get());
    return std::all_of(each, each + PyList_GET_SIZE(children.get()), [&](PyObject* child) {
        return static_cast<bool>(capi::offered(_PyType_Lookup(Py_TYPE(child), state.names.compute),
                                               rotations::child_offer));
    });
}

// What every day makes and hands to children.
bool has_own_contexts(const State& state) {
    const Names& names = state.names;
    return state.module_guard.numpy_holds(state) &&
           state.context_class.is(state, state.global(names.VirtualContext).get()) &&
           state.mask_class.is(state, state.global(names.AllOnesVirtualMask).get());
}

bool are_finite(std::span<const double> numbers) {
    return std::ranges::all_of(numbers, [](double number) { return std::isfinite(number); });
}

bool is_all_ones(PyObject* row, Py_ssize_t width) {
    const auto mask = capi::readable_mask(row);
    return mask && mask.contiguous() && mask.size() >= width &&
           !kernels::any_left_out(mask.span().first(static_cast<std::size_t>(width)));
}

}  // namespace

PlannedDays::PlannedDays(const State& state, PyObject* self, std::size_t workers)
    : state_(state),
      self_(Ref::borrow(self)),
      guard_(state, self),
      seen_(self),
      cache_(state.caches->find(self)),
      workers_(workers) {}

bool PlannedDays::is_possible(const State& state, PyObject* self) {
    return has_own_days(state, Py_TYPE(self)) && has_planned_structures(state, Py_TYPE(self)) &&
           has_framework_days(state, Py_TYPE(self)) && leaves_methods_alone(state, self) &&
           has_own_company(state, self);
}

std::unique_ptr<PlannedDays> PlannedDays::after(const State& state, PyObject* self,
                                                const BatchInput& input, std::size_t day,
                                                std::size_t workers) {
    if (!is_possible(state, self)) return nullptr;
    try {
        std::unique_ptr<PlannedDays> days(new PlannedDays(state, self, workers));
        if (!days->look(input, day) || !days->take_children(input)) return nullptr;
        days->lay_out();
        return days;
    } catch (const capi::PythonError&) {
        PyErr_Clear();                 // the day itself will say so, if it is to be said
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): days by themselves need less
    }
    return nullptr;
}

bool PlannedDays::look(const BatchInput& input, std::size_t day) {
    end_ = input.days();
    input_ = input.numbers();
    return cache_ && guard_.holds() && guard_.own_steps().all() && has_own_contexts(state_) &&
           has_plain_attributes(input) && take_columns(day) && has_known_tables() &&
           are_finite(cache_->legs.flat().weights);
}

bool PlannedDays::has_plain_attributes(const BatchInput& input) {
    const Names& names = state_.names;
    const auto instruments = static_cast<Py_ssize_t>(input.numbers().instruments);
    PyObject* policy = seen_.look(names.unmap_policy);
    PyObject* named = seen_.look(names.instruments);
    child_list_ = Ref::borrow(seen_.look(names.child_rotations));
    const auto txi_input = capi::writable_vector<double>(guard_.txi_input());
    if (plain_size(seen_.look(names.n_alloc)) < 0 || !txi_input ||
        txi_input.size() != guard_.max_structures() ||
        !rotations::owns_memory(guard_.txi_input()) ||
        !rotations::is_apart(txi_input, input.extents())) {
        return false;
    }
    if (policy == nullptr || !PyUnicode_CheckExact(policy) || named == nullptr ||
        !PyTuple_CheckExact(named) || PyTuple_GET_SIZE(named) > instruments || !child_list_ ||
        !PyList_CheckExact(child_list_.get()) || seen_.look(names.trace_sink) != Py_None) {
        return false;
    }
    equal_split_ = PyUnicode_CompareWithASCIIString(policy, "equal_split") == 0;
    PyObject* universe_row = seen_.look(names.txi_universe_row);
    return universe_row != nullptr && rotations::is_alone(universe_row) &&
           is_all_ones(universe_row, guard_.max_structures()) &&
           state_.framework_day.has_plain_buffers(seen_, instruments, input.extents());
}

// One report for all days, or the one that holds until the next begins.
bool PlannedDays::take_columns(std::size_t day) {
    PyObject* planned = seen_.look(state_.names.columns);
    if (planned == nullptr) return false;
    if (!PyTuple_CheckExact(planned)) {
        columns_ = Ref::borrow(planned);
        return true;
    }
    for (Py_ssize_t i = PyTuple_GET_SIZE(planned) - 1; i >= 0; --i) {
        PyObject* entry = PyTuple_GET_ITEM(planned, i);
        if (!PyTuple_CheckExact(entry) || PyTuple_GET_SIZE(entry) != 2) return false;
        const Py_ssize_t first_day = plain_size(PyTuple_GET_ITEM(entry, 0));
        if (first_day < 0) return false;
        if (std::cmp_less_equal(first_day, day)) {
            columns_ = Ref::borrow(PyTuple_GET_ITEM(entry, 1));
            return true;
        }
        end_ = std::min(end_, static_cast<std::size_t>(first_day));
    }
    return false;
}

// The tables are as the last day left them, and that day reported these columns.
bool PlannedDays::has_known_tables() {
    const columns::Columns* columns = columns::as_columns(columns_.get(), state_.names.passport);
    const Tables tables = guard_.tables();
    const LegCache& legs = cache_->legs;
    return columns != nullptr && cache_->is_current(tables) &&
           cache_->columns.knows(*columns, cache_->metadata) && !legs.has_odd_slots() &&
           legs.id_bound() <= input_.instruments &&
           std::cmp_less_equal(legs.places().size(), tables.max_structures) &&
           columns->layout->lowest_id >= 0;
}

bool PlannedDays::take_children(const BatchInput& input) {
    const auto slots = static_cast<std::size_t>(guard_.max_structures());
    const std::size_t instruments = input.numbers().instruments;
    const auto count = static_cast<std::size_t>(PyList_GET_SIZE(child_list_.get()));
    const auto fits = [&] {
        return kernels::history_memory(instruments, slots, workers_) +
                   slots * child_bytes * (workers_ + count) +
                   cache_->legs.flat().ids.size() * leg_bytes <=
               most_memory;
    };
    while (workers_ > 1 && !fits()) --workers_;
    if (!fits()) return false;
    const kernels::BlockSize size = kernels::largest_block(slots, workers_);
    std::vector<rotations::ChildBefore> before;
    for (std::size_t i = 0; i < count; ++i) {
        PyObject* child = PyList_GET_ITEM(child_list_.get(), static_cast<Py_ssize_t>(i));
        if (std::ranges::any_of(child_objects_,
                                [&](const Ref& other) { return other.get() == child; })) {
            return false;
        }
        child_objects_.push_back(Ref::borrow(child));
        const capi::Offered offer = capi::offered(
            _PyType_Lookup(Py_TYPE(child), state_.names.compute), rotations::child_offer);
        if (!offer) return false;
        const auto open = *static_cast<const rotations::ChildOpener*>(offer.content);
        auto taken = open(
            offer.state, {child, slots, workers_, size.days, size.stride, before, input.extents()});
        if (!taken) return false;
        before.push_back({child, taken.get()});
        kernels_.push_back(&taken->kernel());
        children_.push_back(std::move(taken));
    }
    return true;
}

void PlannedDays::lay_out() {
    const columns::Layout& layout =
        *columns::as_columns(columns_.get(), state_.names.passport)->layout;
    const std::span<const std::uint32_t> slot_of = cache_->metadata.reported();
    const auto slots = static_cast<std::size_t>(guard_.max_structures());
    const std::size_t padded = (slots + kernels::kWidth - 1) / kernels::kWidth * kernels::kWidth;

    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    structures_.starts.assign(padded, nan);
    structures_.offsets.assign(padded + 1, 0);
    std::vector<std::size_t> structure_of(padded, slot_of.size());
    for (std::size_t i = 0; i < slot_of.size(); ++i) structure_of[slot_of[i]] = i;
    structures_.ids.reserve(layout.leg_ids.size());
    structures_.weights.reserve(layout.leg_ids.size());
    for (std::size_t slot = 0; slot < padded; ++slot) {
        if (const std::size_t i = structure_of[slot]; i < slot_of.size()) {
            structures_.starts[slot] = 0.0;
            for (auto leg = layout.offsets[i]; leg < layout.offsets[i + 1]; ++leg) {
                const auto place = static_cast<std::size_t>(leg);
                structures_.ids.push_back(static_cast<std::uint32_t>(layout.leg_ids[place]));
                structures_.weights.push_back(layout.weights[place]);
            }
        }
        structures_.offsets[slot + 1] = static_cast<std::uint32_t>(structures_.ids.size());
    }
    legs_ = std::make_unique<kernels::LegsByInstrument>(cache_->legs.places(), cache_->legs.flat(),
                                                        input_.instruments, equal_split_);
}

std::size_t PlannedDays::copied() const noexcept {
    std::size_t bytes = 0;
    for (const auto& child : children_) bytes += child->memory();
    return bytes;
}

kernels::History PlannedDays::history(double* output, bool ends_with_children) const {
    return {input_, structures_, *legs_, kernels_, slots(), output, ends_with_children};
}

bool PlannedDays::hold() {
    const auto same_children = [&] {
        return PyList_GET_SIZE(child_list_.get()) ==
                   static_cast<Py_ssize_t>(child_objects_.size()) &&
               std::equal(child_objects_.begin(), child_objects_.end(),
                          PySequence_Fast_ITEMS(child_list_.get()),
                          [](const Ref& seen, PyObject* now) { return seen.get() == now; });
    };
    return is_possible(state_, self_.get()) && seen_.finds_the_same() && guard_.holds() &&
           guard_.own_steps().all() && has_own_contexts(state_) && has_known_tables() &&
           same_children() &&
           std::ranges::all_of(children_, [](const auto& child) { return child->holds(); });
}

}  // namespace quorvane::virtualization
