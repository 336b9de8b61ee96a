// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/over_time/present.hpp"

namespace quorvane::kernels {

namespace {

QUORVANE_SIMD void count_all(const double* values, double* count, std::size_t size) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        count[i] += values[i] == values[i] ? 1.0 : 0.0;
    }
}

}  // namespace

void count_present(const double* values, double* count, std::size_t size) {
    count_all(values, count, size);
}

}  // namespace quorvane::kernels
