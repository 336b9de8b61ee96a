#pragma once

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "rotations/buffers.hpp"
#include "rotations/child.hpp"

namespace quorvane::rotations {

// What the framework hands to the compute of a rotation, with one input.
inline constexpr capi::Parameter compute_parameters[] = {
    capi::positional("self"),       capi::positional("args"),
    capi::positional("nan_masks"),  capi::positional("combined_nan_mask"),
    capi::positional("output_buf"), capi::positional("N"),
};

// The documentation of such a compute: what it does, in a line, and what a RowDay refuses.
template <std::size_t size>
consteval auto compute_doc_of(const char (&line)[size]) {
    constexpr std::string_view errors = R"(

Raises
------
TypeError
    When there is not exactly one input.
ValueError
    When the input is not one row of at least N numbers.
)";
    std::array<char, size + errors.size()> text{};
    std::ranges::copy(errors, std::ranges::copy_n(line, size - 1, text.begin()).out);
    return text;
}

using capi::overlap;

// A day with one input row and one output row, both contiguous in memory and apart from each other:
// the arrays themselves where they are so, else private copies.
//
// values() and out() are looked up anew at every call; what runs no Python code between them may
// keep them.
class RowDay {
public:
    // `values` are what compute_parameters names.
    RowDay(const ChildModule& module, PyObject* const* values)
        : size_(day_size(module, values[0], values[5])), output_buf_(values[4]) {
        input_ = only_input(module, values[0], values[1]);
        if (!holds_day(capi::readable_vector<double>(input_.get()))) {
            input_ = as_float64(input_.get(), NPY_ARRAY_C_CONTIGUOUS);
        }
        if (!holds_day(capi::readable_vector<double>(input_.get()))) {
            raise_unusable(module, values[0]);
        }
        target_ = Ref::borrow(output_buf_);
        if (!holds_day(writable_doubles(target_.get())) || overlap(this->values(), out())) {
            separate_output();
        }
    }

    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(size_); }
    [[nodiscard]] std::span<const double> values() const {
        return head_of(capi::readable_vector<double>(input_.get()));
    }
    [[nodiscard]] std::span<double> out() const { return head_of(writable_doubles(target_.get())); }

    void separate_input() { input_ = as_float64(input_.get(), NPY_ARRAY_ENSURECOPY); }
    void separate_output() { target_ = new_vector(size_, NPY_DOUBLE); }

    // Whether what is written to out() is in output_buf at once.
    [[nodiscard]] bool is_delivered() const noexcept { return target_.get() == output_buf_; }

    // output_buf[:N] = the output, where that is not done yet; the assignment's errors are NumPy's.
    void deliver() const {
        if (is_delivered()) return;
        const Ref size = capi::make_int(size_);
        const Ref head = capi::require(PySlice_New(nullptr, size.get(), nullptr));
        capi::set_item(output_buf_, head.get(), target_.get());
    }

private:
    static Py_ssize_t day_size(const ChildModule& module, PyObject* self, PyObject* N) {
        const Py_ssize_t size = PyNumber_AsSsize_t(N, PyExc_OverflowError);
        if (size == -1 && PyErr_Occurred() != nullptr) throw capi::PythonError();
        if (size >= 0) return size;
        message_of(module, self)
            .text("N must not be negative, got ")
            .value(N)
            .raise(PyExc_ValueError);
    }

    static Ref only_input(const ChildModule& module, PyObject* self, PyObject* args) {
        const Py_ssize_t count = capi::length(args);
        if (count == 1) return capi::require(PySequence_GetItem(args, 0));
        message_of(module, self)
            .text("exactly one input is allowed, got ")
            .value(capi::make_int(count))
            .raise(PyExc_TypeError);
    }

    [[noreturn]] void raise_unusable(const ChildModule& module, PyObject* self) const {
        message_of(module, self)
            .text("the input must be one row of at least ")
            .value(capi::make_int(size_))
            .text(" columns, got shape ")
            .str(capi::attr(input_.get(), capi::Interned("shape")).get())
            .raise(PyExc_ValueError);
    }

    template <class T>
    [[nodiscard]] bool holds_day(const VectorView<T>& view) const {
        return view && view.contiguous() && view.size() >= size_;
    }

    // Code that ran since the constructor looked may have changed the array.
    template <class T>
    [[nodiscard]] std::span<T> head_of(const VectorView<T>& view) const {
        if (!holds_day(view)) {
            capi::raise(PyExc_ValueError, "an array of the day was changed during the call");
        }
        return view.span().first(size());
    }

    Py_ssize_t size_;
    PyObject* output_buf_;  // borrowed: the caller keeps it for the whole call
    Ref input_, target_;
};

// The compute of a rotation that is one kernel: kernel(values, out).
template <class Kernel>
Ref compute_row(const ChildModule& module, PyObject* const* values, Kernel kernel) {
    const RowDay day(module, values);
    kernel(day.values(), day.out());
    day.deliver();
    return module.zero.share();
}

}  // namespace quorvane::rotations
