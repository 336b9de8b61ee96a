#include "capi/stack.hpp"

#if defined(__APPLE__)
#include <pthread.h>
#endif

#if defined(__linux__)
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace quorvane::capi {

namespace {

// What a call may need before it, or what it calls, asks again: frames of the interpreter and of
// NumPy for the most part. Of a small stack half is left for calls.
constexpr std::size_t usual_reserve = std::size_t{64} << 10;

// The lower end of a stack, which is where it ends: addresses fall as calls nest.
struct StackEnd {
    std::uintptr_t lowest;
    std::size_t reserve;

    // Also false on a stack that is not the thread's own, of which nothing is known.
    [[nodiscard]] bool is_near(std::uintptr_t address) const noexcept {
        return address - lowest < reserve;
    }
};

constexpr StackEnd not_measured{0, std::numeric_limits<std::size_t>::max()};
constexpr StackEnd unknown{1, 0};

#if defined(__APPLE__)

StackEnd measured() noexcept {
    const pthread_t thread = pthread_self();
    const std::size_t size = pthread_get_stacksize_np(thread);
    const auto top = reinterpret_cast<std::uintptr_t>(pthread_get_stackaddr_np(thread));
    return {top - size, std::min(usual_reserve, size / 2)};
}

#elif defined(__linux__)

// The kernel lets the main thread's stack grow down to its limit, which may change, but not nearer
// than so many pages to what lies below it; only there does so large a stack end.
constexpr std::size_t kernel_gap_pages = 256;
constexpr std::size_t large = std::size_t{64} << 20;

std::size_t page() noexcept { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

StackEnd stack_of(std::uintptr_t lowest, std::size_t size) noexcept {
    const std::size_t gap = size < large ? 0 : kernel_gap_pages * page();
    return {lowest + gap, std::min(usual_reserve, size / 2)};
}

// By the limit alone: the stack begins in the page where the kernel has put the program's name.
StackEnd measured_main() noexcept {
    const std::uintptr_t name = getauxval(AT_EXECFN);
    rlimit limit{};
    if (name == 0 || getrlimit(RLIMIT_STACK, &limit) != 0) return unknown;
    const std::uintptr_t top = (name | (page() - 1)) + 1;
    if (limit.rlim_cur >= top) return unknown;
    return stack_of(top - limit.rlim_cur, limit.rlim_cur);
}

StackEnd measured() noexcept {
#if !defined(__GLIBC__)
    // musl only tells how far the main thread's stack has grown.
    if (syscall(SYS_gettid) == getpid()) return measured_main();
#endif
    // Fails in the main thread when glibc cannot open a file.
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return measured_main();
    void* lowest = nullptr;
    std::size_t size = 0;
    std::size_t guard = 0;
    const bool known = pthread_attr_getstack(&attributes, &lowest, &size) == 0 &&
                       pthread_attr_getguardsize(&attributes, &guard) == 0;
    pthread_attr_destroy(&attributes);
    if (!known || size <= guard) return unknown;
    return stack_of(reinterpret_cast<std::uintptr_t>(lowest) + guard, size - guard);
}

#else

StackEnd measured() noexcept { return unknown; }

#endif

#if defined(__SANITIZE_ADDRESS__)
// The leak sanitizer of GCC 12 fails in the tables of thread-locals that were loaded later. The few
// bytes that the C library keeps beside those of its own would do, but may be others' by now.
[[gnu::tls_model("initial-exec")]]
#endif
constinit thread_local StackEnd stack_end = not_measured;

}  // namespace

bool stack_is_short() noexcept {
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    if (!stack_end.is_near(here)) return false;
    // Once more even if it was before: the main thread's limit may have been raised.
    stack_end = measured();
    return stack_end.is_near(here);
}

}  // namespace quorvane::capi
