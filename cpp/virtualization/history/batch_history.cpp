#include "virtualization/history/batch_history.hpp"

#include <algorithm>
#include <chrono>
#include <limits>
#include <new>

#include "virtualization/history/planned_days.hpp"

namespace quorvane::virtualization {

namespace {

using Clock = std::chrono::steady_clock;

// How long Python's own work, a signal's handler above all, may have to wait: longer where much is
// copied before and after, so that most of the time goes into days.
std::chrono::nanoseconds moment_for(std::size_t copied_bytes) {
    constexpr std::size_t nanoseconds_a_byte = 4;
    return std::chrono::milliseconds(50) +
           std::chrono::nanoseconds(copied_bytes * nanoseconds_a_byte);
}

// What it costs to begin is worth it from here on.
constexpr std::size_t fewest_days = 2 * kernels::kDays;

// The day before which none is computed at once, where there is no room for it.
constexpr std::size_t never = std::numeric_limits<std::size_t>::max();

// The interpreter's lock, given to others meanwhile.
class ReleasedLock {
public:
    ReleasedLock() noexcept : thread_(PyEval_SaveThread()) {}
    ~ReleasedLock() { PyEval_RestoreThread(thread_); }
    ReleasedLock(const ReleasedLock&) = delete;
    ReleasedLock& operator=(const ReleasedLock&) = delete;

private:
    PyThreadState* thread_;
};

}  // namespace

BatchHistory::BatchHistory(const State& state, PyObject* self, PyObject* arrays, PyObject* universe,
                           const BatchOptions& options)
    : state_(state),
      self_(Ref::borrow(self)),
      input_(BatchInput::of(arrays, universe)),
      workers_(options.workers),
      ends_with_children_(options.ends_with_children) {}

// Null where there is no room for all outputs at once: days by themselves may end before they need
// it.
double* BatchHistory::place_in(BatchOutputs& outputs, std::size_t width) {
    try {
        return outputs.place_of_rows(static_cast<Py_ssize_t>(width));
    } catch (const capi::PythonError&) {
        // A ValueError says that no array may be so large.
        if (PyErr_ExceptionMatches(PyExc_MemoryError) == 0 &&
            PyErr_ExceptionMatches(PyExc_ValueError) == 0) {
            throw;
        }
        PyErr_Clear();
        not_before_ = never;
        return nullptr;
    }
}

std::size_t BatchHistory::advance(std::size_t day, BatchOutputs& outputs) {
    if (!input_ || day < not_before_ || input_->days() < day + 1 + fewest_days) return day;
    // Code that ran may have given the array another form, or other memory.
    return input_->look_again() ? compute(*input_, day, outputs) : day;
}

std::size_t BatchHistory::compute(const BatchInput& input, std::size_t day, BatchOutputs& outputs) {
    const auto planned = PlannedDays::after(state_, self_.get(), input, day - 1, workers_);
    if (!planned) return day;
    // The last day is left: what it leaves behind is all that the days leave behind.
    const std::size_t end = std::min(planned->end(), input.days() - 1);
    if (end < day + kernels::kDays) return day;
    double* place =
        place_in(outputs, ends_with_children_ ? planned->slots() : input.numbers().instruments);
    if (place == nullptr) return day;
    const kernels::History history = planned->history(place, ends_with_children_);
    kernels::HistoryProgress progress{day, 0};
    try {
        const ReleasedLock released;
        progress = kernels::run_history(history, day, end, planned->workers(),
                                        Clock::now() + moment_for(planned->copied()));
    } catch (const std::bad_alloc&) {
        not_before_ = never;
        return day;
    }
    not_before_ = progress.done + progress.refused;
    // Other threads may have changed the rotation: then the days are those of what it is now, one
    // by one, so that somebody who does so again and again costs no more than them.
    if (progress.done > day && !planned->hold()) return day;
    planned->deliver();
    outputs.take(static_cast<Py_ssize_t>(progress.done - day));
    return progress.done;
}

}  // namespace quorvane::virtualization
