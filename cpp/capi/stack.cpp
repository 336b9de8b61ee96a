#include "capi/stack.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace quorvane::capi {

namespace {

// What a call may need before it, or what it calls, asks again: frames of the interpreter and of
// NumPy for the most part. Of a small stack half is left for calls.
constexpr std::size_t usual_reserve = 64 * 1024;

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

StackEnd measured() noexcept {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return unknown;
    void* lowest = nullptr;
    std::size_t size = 0;
    std::size_t guard = 0;
    const bool known = pthread_attr_getstack(&attributes, &lowest, &size) == 0 &&
                       pthread_attr_getguardsize(&attributes, &guard) == 0;
    pthread_attr_destroy(&attributes);
    if (!known || size <= guard) return unknown;
    size -= guard;
    return {reinterpret_cast<std::uintptr_t>(lowest) + guard, std::min(usual_reserve, size / 2)};
}

#else

StackEnd measured() noexcept { return unknown; }

#endif

constinit thread_local StackEnd stack_end = not_measured;

}  // namespace

bool stack_is_short() noexcept {
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    if (!stack_end.is_near(here)) return false;
    if (stack_end.lowest == not_measured.lowest) stack_end = measured();
    return stack_end.is_near(here);
}

}  // namespace quorvane::capi
