// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/attendance.hpp"

#include <cmath>
#include <cstddef>
#include <limits>

namespace quorvane::kernels {

namespace {

constexpr double kMissing = std::numeric_limits<double>::quiet_NaN();
constexpr double kLargest = std::numeric_limits<double>::max();

[[gnu::always_inline]] inline double counted(double value, double silent_days) {
    return value == value ? 0.0 : silent_days + 1.0;
}

QUORVANE_SIMD void count(const double* values, double* silent_days, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) silent_days[i] = counted(values[i], silent_days[i]);
}

QUORVANE_SIMD void count_and_say(const double* __restrict values, double* __restrict silent_days,
                                 double hold, std::uint8_t* __restrict open, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const double days = counted(values[i], silent_days[i]);
        silent_days[i] = days;
        open[i] = days <= hold ? 1 : 0;
    }
}

[[gnu::always_inline]] inline bool is_finite(double value) { return std::abs(value) <= kLargest; }

QUORVANE_SIMD void let_by_days(const double* values, const double* silent_days, double hold,
                               double* out, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const bool speaks = silent_days[i] <= hold;
        out[i] = speaks && is_finite(values[i]) ? values[i] : kMissing;
    }
}

QUORVANE_SIMD void let_finite(const double* values, double* out, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) out[i] = is_finite(values[i]) ? values[i] : kMissing;
}

QUORVANE_SIMD void shut(const std::uint8_t* __restrict open, double* __restrict values,
                        std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const bool speaks = open[i] != 0;
        values[i] = speaks && is_finite(values[i]) ? values[i] : kMissing;
    }
}

}  // namespace

void count_silence(std::span<const double> values, std::span<double> silent_days) {
    count(values.data(), silent_days.data(), values.size());
}

void count_silence(std::span<const double> values, std::span<double> silent_days, double hold,
                   std::span<std::uint8_t> open) {
    count_and_say(values.data(), silent_days.data(), hold, open.data(), values.size());
}

void let_through(std::span<const double> values, std::span<const double> silent_days, double hold,
                 std::span<double> out) {
    let_by_days(values.data(), silent_days.data(), hold, out.data(), values.size());
}

void let_through(std::span<const double> values, std::span<double> out) {
    let_finite(values.data(), out.data(), values.size());
}

void shut_out(std::span<const std::uint8_t> open, std::span<double> values) {
    shut(open.data(), values.data(), values.size());
}

}  // namespace quorvane::kernels
