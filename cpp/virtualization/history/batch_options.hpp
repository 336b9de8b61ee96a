#pragma once

#include <chrono>
#include <cstddef>

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// What a history's caller may choose besides its days; it comes along with the context.
struct BatchOptions {
    std::size_t workers = 1;
    Ref progress;  // empty or callable
    // The outputs are what left the children, by slot, instead of what came back.
    bool ends_with_children = false;
};

// Of any context but those of replay_history, and without one, the options are those of the
// environment. ValueError when a number of threads is no whole number from 1 to 256.
BatchOptions options_of(const State& state, PyObject* context);

// Tells a callable how many days of how many are done, at most twenty times a second, once at the
// end, and before the error of a day.
class ProgressReport {
public:
    ProgressReport(const Ref& callback, std::size_t days)
        : callback_(callback.share()), days_(days) {}

    void tell(std::size_t done);

    // The same when the day after them failed, whose error stays.
    void tell_before_failure(std::size_t done) noexcept;

private:
    using Clock = std::chrono::steady_clock;

    void tell_now(std::size_t done) const;

    Ref callback_;
    std::size_t days_;
    Clock::time_point last_ = Clock::now();
};

}  // namespace quorvane::virtualization
