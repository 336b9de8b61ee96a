#include "kernels/team.hpp"

#include <atomic>
#include <cstdint>
#include <latch>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#if defined(__unix__) || defined(__APPLE__)
#include <csignal>
#endif

namespace quorvane::kernels {

namespace {

// New threads get the caller's signal mask.
class NoSignals {
public:
#if defined(__unix__) || defined(__APPLE__)
    NoSignals() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

private:
    sigset_t before_{};
#endif
};

// Whoever waits looks again and again for a while before it sleeps: the others are about to come,
// and to be woken takes longer than most waits.
class Barrier final : public MeetingPoint {
public:
    explicit Barrier(std::size_t members) : members_(members) {}

    void meet() override {
        const std::uint32_t meeting = meeting_.load(std::memory_order_relaxed);
        if (arrived_.fetch_add(1, std::memory_order_acq_rel) + 1 == members_) {
            arrived_.store(0, std::memory_order_relaxed);
            meeting_.store(meeting + 1, std::memory_order_release);
            meeting_.notify_all();
            return;
        }
        for (int look = 0; look < most_looks; ++look) {
            if (meeting_.load(std::memory_order_acquire) != meeting) return;
            rest();
        }
        meeting_.wait(meeting, std::memory_order_acquire);
    }

private:
    // About a tenth of a millisecond.
    static constexpr int most_looks = 4000;

    static void rest() noexcept {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }

    const std::size_t members_;
    std::atomic<std::size_t> arrived_ = 0;
    std::atomic<std::uint32_t> meeting_ = 0;
};

// Threads that are waited for in the end, as those of std::jthread are; Apple's library has none.
struct Joined {
    Joined() = default;
    ~Joined() {
        for (std::thread& thread : threads) thread.join();
    }
    Joined(const Joined&) = delete;
    Joined& operator=(const Joined&) = delete;

    std::vector<std::thread> threads;
};

}  // namespace

void run_team(std::size_t workers, const std::function<void(std::size_t)>& begin,
              const std::function<void(std::size_t, MeetingPoint&)>& work) {
    std::latch started(1);
    std::optional<Barrier> barrier;
    Joined team;
    team.threads.reserve(workers - 1);
    try {
        const NoSignals none;
        for (std::size_t worker = 1; worker < workers; ++worker) {
            team.threads.emplace_back([&, worker] {
                started.wait();
                work(worker, *barrier);
            });
        }
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): fewer do the same
    } catch (const std::bad_alloc&) {     // NOLINT(bugprone-empty-catch): so here
    }
    barrier.emplace(team.threads.size() + 1);
    begin(team.threads.size() + 1);
    started.count_down();
    work(0, *barrier);
}

}  // namespace quorvane::kernels
