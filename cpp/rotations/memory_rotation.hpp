#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "capi/threads.hpp"
#include "kernels/history/memory_block.hpp"
#include "kernels/over_time/memory.hpp"
#include "kernels/team.hpp"
#include "rotations/arguments.hpp"
#include "rotations/history_child.hpp"
#include "rotations/row_day.hpp"

namespace quorvane::rotations {

// The arrays of a rotation that remembers: its attributes `_memory` and `_derived`, rows of a
// number for each column one after the other, and `_position`, a single number.
struct MemoryArrays {
    Ref kept, derived, position;
};

// The names of those attributes, and what can be done with them.
class MemoryAttributes {
public:
    // As many as there is room for, by the rotation's own word; 0 where that is no number of them.
    [[nodiscard]] std::size_t columns_of(PyObject* self) const {
        const auto columns = plain_int(capi::attr(self, allocated_).get());
        return columns && *columns > 0 ? static_cast<std::size_t>(*columns) : 0;
    }

    [[nodiscard]] MemoryArrays of(PyObject* self) const {
        return {capi::attr(self, kept), capi::attr(self, derived), capi::attr(self, position)};
    }

    void set(PyObject* self, const MemoryArrays& arrays) const {
        capi::set_attr(self, kept, arrays.kept.get());
        capi::set_attr(self, derived, arrays.derived.get());
        capi::set_attr(self, position, arrays.position.get());
    }

    const capi::Interned kept{"_memory"};
    const capi::Interned derived{"_derived"};
    const capi::Interned position{"_position"};

private:
    const capi::Interned allocated_{"_n_alloc"};
};

// The three arrays as a kernel works on them. Made right before it runs, as all views are.
struct MemoryView {
    std::span<double> kept, derived;
    double* position;
    std::size_t columns;

    [[nodiscard]] kernels::TimeMemory memory() const noexcept {
        return {kept.data(), derived.data(), columns};
    }
    [[nodiscard]] std::size_t day() const noexcept { return static_cast<std::size_t>(*position); }
};

// Nothing where they are not writable, contiguous float64 arrays of the kernel's sizes for so many
// columns, one at least, with a position in its window.
template <class Kernel>
std::optional<MemoryView> view_of_memory(const Kernel& kernel, PyObject* kept, PyObject* derived,
                                         PyObject* position, std::size_t columns) noexcept {
    const auto numbers = writable_doubles(kept);
    const auto others = writable_doubles(derived);
    const auto place = writable_doubles(position);
    if (!numbers || !others || !place || place.size() != 1) return {};
    const MemoryView view{numbers.span(), others.span(), place.span().data(), columns};
    const double last = static_cast<double>(std::max<std::size_t>(kernel.window(), 1) - 1);
    const bool is_in_window = *view.position >= 0.0 && *view.position <= last;
    const auto has_rows = [columns](std::span<const double> array, std::size_t rows) {
        return array.size() % columns == 0 && array.size() / columns == rows;
    };
    if (!is_in_window || columns == 0 || !has_rows(view.kept, kernel.kept_rows()) ||
        !has_rows(view.derived, kernel.derived_rows())) {
        return {};
    }
    return view;
}

// Whether two of the arrays have memory in common.
inline bool overlaps_itself(const MemoryView& view) noexcept {
    const std::span position(view.position, 1);
    return overlap(view.kept, view.derived) || overlap(view.kept, position) ||
           overlap(view.derived, position);
}

// Whether a row has memory in common with any of them.
inline bool lies_in(std::span<const std::byte> row, const MemoryView& view) noexcept {
    return overlap(row, std::as_bytes(view.kept)) || overlap(row, std::as_bytes(view.derived)) ||
           overlap(row, std::as_bytes(std::span(view.position, 1)));
}

// So many numbers for each column; MemoryError where no array could hold them.
inline Ref new_rows(std::size_t rows, std::size_t columns) {
    std::size_t size = 0;
    constexpr std::size_t most = PY_SSIZE_T_MAX / sizeof(double);
    if (__builtin_mul_overflow(rows, columns, &size) || size > most) {
        PyErr_NoMemory();
        throw capi::PythonError();
    }
    Ref array = new_vector(static_cast<Py_ssize_t>(size), NPY_DOUBLE);
    std::ranges::fill(writable_doubles(array.get()).span(),
                      std::numeric_limits<double>::quiet_NaN());
    return array;
}

// The state of a module's class that is a kernel over time (kernels/over_time/memory.hpp). The
// class is what a `Rotation` says: the same as of a RowRotation, with kernel(own...) giving the
// kernel, or a Python error where there is none for such values. What concerns states is added in
// Python.
template <class Rotation,
          class OwnIndices = std::make_index_sequence<Rotation::init_parameters.size() - 2>>
class MemoryRotation;

template <class Rotation, std::size_t... own>
class MemoryRotation<Rotation, std::index_sequence<own...>> : public ChildModule {
public:
    using ChildModule::ChildModule;

    void execute() {
        bind_class(child_class, this,
                   [](capi::ClassBuilder& builder) { builder.method(derive_def); });
    }

private:
    static constexpr std::size_t own_count = sizeof...(own);

    static auto kernel_of(const MemoryRotation& module, PyObject* self) {
        const std::array<Ref, own_count> current{capi::attr(self, module.names_[own])...};
        return Rotation::kernel(current[own].get()...);
    }

    static Ref init(MemoryRotation& module, PyObject* const* values) {
        PyObject* self = values[0];
        const auto kernel = Rotation::kernel(values[own + 1]...);
        const Ref allocated = positive_int("N_alloc", values[own_count + 1], "a positive int");
        const auto columns = static_cast<std::size_t>(column_count("N_alloc", allocated.get()));
        const std::array<Argument, own_count> arguments{
            Argument{module.names_[own], values[own + 1]}...};
        module.initialise(self, arguments, values[own_count + 1]);
        const MemoryArrays arrays{new_rows(kernel.kept_rows(), columns),
                                  new_rows(kernel.derived_rows(), columns), new_rows(1, 1)};
        *writable_doubles(arrays.position.get()).span().data() = 0.0;
        const MemoryView view = module.view(kernel, self, arrays, columns);
        kernel.derive(view.memory(), 0, {0, columns});
        module.attributes_.set(self, arrays);
        return capi::none();
    }

    // _derive(first, last): anew what follows from the memory of some columns.
    static Ref derive(MemoryRotation& module, PyObject* const* values) {
        PyObject* self = values[0];
        const auto kernel = kernel_of(module, self);
        const std::size_t columns = module.attributes_.columns_of(self);
        const std::size_t first = whole_number("first", values[1], 0, columns);
        const std::size_t last = whole_number("last", values[2], first, columns);
        const MemoryArrays arrays = module.attributes_.of(self);
        const MemoryView view = module.view(kernel, self, arrays, columns);
        kernel.derive(view.memory(), view.day(), {first, last});
        return capi::none();
    }

    static Ref compute(MemoryRotation& module, PyObject* const* values) {
        PyObject* self = values[0];
        RowDay day(module, values);
        const auto kernel = kernel_of(module, self);
        const std::size_t threads = capi::threads_for_row(day.size());
        const std::size_t columns = module.attributes_.columns_of(self);
        const MemoryArrays arrays = module.attributes_.of(self);
        MemoryView view = module.view(kernel, self, arrays, columns);
        if (day.size() > columns) raise_unusable(module, self);
        separate(module, self, day, view);
        if (day.is_delivered()) {
            view = module.view(kernel, self, arrays, columns);
            step(kernel, view, day, threads);
            return module.zero.share();
        }
        // The output may yet be refused, and a day that fails must not be remembered.
        view = module.view(kernel, self, arrays, columns);
        std::vector<double> kept(view.kept.begin(), view.kept.end());
        std::vector<double> derived(view.derived.begin(), view.derived.end());
        double position = *view.position;
        step(kernel, {kept, derived, &position, columns}, day, threads);
        day.deliver();
        view = module.view(kernel, self, arrays, columns);
        std::ranges::copy(kept, view.kept.begin());
        std::ranges::copy(derived, view.derived.begin());
        *view.position = position;
        return module.zero.share();
    }

    template <class Kernel>
    static void step(const Kernel& kernel, const MemoryView& view, const RowDay& day,
                     std::size_t threads) {
        const auto values = day.values();
        const auto out = day.out();
        kernels::in_parts(day.size(), threads, [&](std::size_t first, std::size_t last) {
            kernel.step(view.memory(), view.day(), values.data() + first, out.data() + first,
                        {first, last});
        });
        // Columns that are not there today have no number.
        constexpr std::size_t some = 64;
        std::array<double, some> nothing;
        for (std::size_t first = day.size(); first < view.columns; first += some) {
            nothing.fill(std::numeric_limits<double>::quiet_NaN());
            const std::size_t last = std::min(first + some, view.columns);
            kernel.step(view.memory(), view.day(), nothing.data(), nothing.data(), {first, last});
        }
        *view.position = static_cast<double>(kernels::next_position(view.day(), kernel.window()));
    }

    // The kernel writes to its memory while it reads and writes the day.
    static void separate(const MemoryRotation& module, PyObject* self, RowDay& day,
                         const MemoryView& view) {
        if (overlaps_itself(view)) raise_unusable(module, self);
        const bool shares_input = lies_in(std::as_bytes(day.values()), view);
        const bool shares_output = lies_in(std::as_bytes(day.out()), view);
        if (shares_input) day.separate_input();
        if (shares_output) day.separate_output();
    }

    template <class Kernel>
    MemoryView view(const Kernel& kernel, PyObject* self, const MemoryArrays& arrays,
                    std::size_t columns) const {
        const auto found = view_of_memory(kernel, arrays.kept.get(), arrays.derived.get(),
                                          arrays.position.get(), columns);
        if (!found) raise_unusable(*this, self);
        return *found;
    }

    [[noreturn]] static void raise_unusable(const MemoryRotation& module, PyObject* self) {
        message_of(module, self)
            .text(
                "_memory, _derived and _position must be arrays that belong to one another: use "
                "set_state, resize or forget")
            .raise(PyExc_ValueError);
    }

    // ---- histories ------------------------------------------------------------------------------

    using Kernel = decltype(Rotation::kernel((static_cast<void>(own), Py_None)...));

    class InHistory final : public HistoryChild {
    public:
        InHistory(PlainChild plain, Kernel kernel, std::array<PyObject*, 3> arrays,
                  const MemoryView& view, std::size_t most_days)
            : plain_(std::move(plain)),
              kernel_(kernel),
              arrays_(arrays),
              columns_(view.columns),
              block_(std::move(kernel), view.kept, view.derived, view.day(), view.columns,
                     most_days) {}

        [[nodiscard]] kernels::BlockKernel& kernel() noexcept override { return block_; }
        [[nodiscard]] std::size_t memory() const noexcept override {
            return (block_.kept().size() + block_.derived().size()) * sizeof(double);
        }
        [[nodiscard]] bool holds() const override { return plain_.holds() && view(); }

        // In place, as the days would do it: others may hold the arrays by now.
        void deliver() noexcept override {
            const auto found = view();
            if (!found) return;
            std::ranges::copy(block_.kept(), found->kept.begin());
            std::ranges::copy(block_.derived(), found->derived.begin());
            *found->position = static_cast<double>(block_.position());
        }

    private:
        [[nodiscard]] std::optional<MemoryView> view() const noexcept {
            return view_of_memory(kernel_, arrays_[0], arrays_[1], arrays_[2], columns_);
        }

        PlainChild plain_;
        Kernel kernel_;
        std::array<PyObject*, 3> arrays_;  // borrowed: the child as it was seen owns them
        std::size_t columns_;
        kernels::MemoryBlock<Kernel> block_;
    };

    // More than these are not held a second time.
    static constexpr std::size_t most_in_history = std::size_t{1} << 24;

    static std::unique_ptr<HistoryChild> take_part(void* state, const ChildRequest& request) {
        MemoryRotation& module = *static_cast<MemoryRotation*>(state);
        PlainChild child(request.child, module.framework_day_);
        if (!child.has_plain_days(request)) return nullptr;
        const std::array<PyObject*, own_count> current{child.seen().look(module.names_[own])...};
        const MemoryAttributes& names = module.attributes_;
        const std::array<PyObject*, 3> arrays{child.seen().look(names.kept),
                                              child.seen().look(names.derived),
                                              child.seen().look(names.position)};
        const auto is_own = [](PyObject* array) { return array != nullptr && is_alone(array); };
        if (!(is_plain_parameter(current[own]) && ...) || !std::ranges::all_of(arrays, is_own)) {
            return nullptr;
        }
        const Kernel kernel = Rotation::kernel(current[own]...);
        const auto view = view_of_memory(kernel, arrays[0], arrays[1], arrays[2], request.slots);
        if (!view || view->kept.size() + view->derived.size() > most_in_history) return nullptr;
        return std::make_unique<InHistory>(std::move(child), kernel, arrays, *view,
                                           request.most_days);
    }

    static constexpr ChildOpener opener = take_part;
    static constexpr capi::Parameter derive_parameters[] = {
        capi::positional("self"), capi::positional("first"), capi::positional("last")};
    static constexpr capi::FunctionDef derive_def{
        "_derive", derive_parameters, capi::body_of<MemoryRotation, derive>,
        "Make anew what follows from the memory of the columns from first to last - 1."};

    static constexpr ChildClass child_class{
        .class_name = Rotation::class_name,
        .doc = Rotation::doc,
        .name = Rotation::name,
        .init = {"__init__", Rotation::init_parameters, capi::body_of<MemoryRotation, init>,
                 Rotation::init_doc},
        .compute = {"compute",
                    compute_parameters,
                    capi::body_of<MemoryRotation, compute>,
                    Rotation::compute_doc.data(),
                    {child_offer, static_cast<const void*>(&opener)}},
    };

    const std::array<capi::Interned, own_count> names_{
        capi::Interned(Rotation::init_parameters[own + 1].name)...};
    const MemoryAttributes attributes_;
    const FrameworkDay framework_day_;
};

}  // namespace quorvane::rotations
