#pragma once

#include <cstddef>
#include <functional>

namespace quorvane::kernels {

// How the members of a team wait for each other.
class MeetingPoint {
public:
    virtual void meet() = 0;

protected:
    ~MeetingPoint() = default;
};

// Runs work(worker, everybody) in so many threads at once, the caller's among them as worker 0, and
// returns when all have returned. The threads begin and end with the call, so that there are none
// when the caller's process is forked, and have its floating-point mode; signals go to other
// threads. Where the system gives fewer threads, `begin` is told how many there are.
//
// All members meet equally often. begin(workers) runs before the first, alone.
void run_team(std::size_t workers, const std::function<void(std::size_t)>& begin,
              const std::function<void(std::size_t, MeetingPoint&)>& work);

// What one of several workers does of so many units.
struct Part {
    std::size_t first, last;

    [[nodiscard]] std::size_t size() const noexcept { return last - first; }
};
constexpr Part part_of(std::size_t units, std::size_t worker, std::size_t workers) {
    return {units * worker / workers, units * (worker + 1) / workers};
}

// work(first, last) of parts of so many units, which must not fail, in so many threads at once.
template <class Work>
void in_parts(std::size_t units, std::size_t workers, const Work& work) {
    if (workers <= 1) return work(0, units);
    std::size_t members = 1;
    run_team(
        workers, [&](std::size_t count) { members = count; },
        [&](std::size_t worker, MeetingPoint& /*all*/) {
            const Part part = part_of(units, worker, members);
            work(part.first, part.last);
        });
}

}  // namespace quorvane::kernels
