#include "virtualization/history/batch_options.hpp"

#include "capi/threads.hpp"
#include "virtualization/guards/plain_size.hpp"

namespace quorvane::virtualization {

namespace {

std::size_t workers_from(PyObject* threads) {
    if (capi::is_none(threads)) return capi::threads_of_environment();
    const Py_ssize_t number = plain_size(threads);
    if (number >= 1 && std::cmp_less_equal(number, capi::most_threads)) {
        return static_cast<std::size_t>(number);
    }
    capi::raise_no_number_of_threads("threads", threads);
}

}  // namespace

BatchOptions options_of(const State& state, PyObject* context) {
    const Names& names = state.names;
    if (_PyType_Lookup(Py_TYPE(context), names.has_history_options) == nullptr) {
        return {capi::threads_of_environment(), Ref(), false};
    }
    Ref progress = attr(context, names.progress);
    if (capi::is_none(progress.get())) progress = Ref();
    const bool ends_with_children = capi::truth(attr(context, names.ends_with_children).get());
    return {workers_from(attr(context, names.threads).get()), std::move(progress),
            ends_with_children};
}

void ProgressReport::tell(std::size_t done) {
    constexpr auto shortest = std::chrono::milliseconds(50);
    if (!callback_) return;
    const Clock::time_point now = Clock::now();
    if (done < days_ && now - last_ < shortest) return;
    last_ = now;
    tell_now(done);
}

void ProgressReport::tell_before_failure(std::size_t done) noexcept {
    if (!callback_) return;
    const capi::KeptError error;
    try {
        tell_now(done);
    } catch (...) {
        PyErr_Clear();  // the day's own error is the one to be told
    }
}

void ProgressReport::tell_now(std::size_t done) const {
    call(callback_.get(), capi::make_int(static_cast<Py_ssize_t>(done)).get(),
         capi::make_int(static_cast<Py_ssize_t>(days_)).get());
}

}  // namespace quorvane::virtualization
