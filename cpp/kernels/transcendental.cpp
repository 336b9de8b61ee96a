// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/transcendental.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace quorvane::kernels {
namespace {

// Adding this to a double of magnitude below 2^51 rounds it to an integer, and leaves that integer
// in the low bits of the sum's representation.
constexpr double kRoundToInteger = 0x1.8p52;

// 2^k for an integer k in [-1022, 1023].
[[gnu::always_inline]] inline double power_of_two(double k) {
    const auto integer = std::bit_cast<std::uint64_t>(k + kRoundToInteger);
    return std::bit_cast<double>((integer << 52) + std::bit_cast<std::uint64_t>(1.0));
}

// e^x within 1 ulp, without a branch or a table, so that loops around it become vector code.
//
// x = k ln2 + r with |r| <= ln2 / 2, e^x = 2^k e^r, and e^r by its Taylor series up to r^13, whose
// first omitted term is below 2^-57. ln2 is split so that k * kLn2High is exact (W. J. Cody and
// W. Waite, Software Manual for the Elementary Functions, 1980). 2^k is applied in two halves,
// since 2^k alone may be out of range where the result is subnormal.
[[gnu::always_inline]] inline double exponential(double x) {
    constexpr double log2_e = 0x1.71547652b82fep+0;
    constexpr double ln2_high = 0x1.62e42feep-1, ln2_low = 0x1.a39ef35793c76p-33;
    constexpr double all_underflow = -746.0, all_overflow = 710.0;
    double bounded = x < all_underflow ? all_underflow : x;
    bounded = bounded > all_overflow ? all_overflow : bounded;

    const double k = (bounded * log2_e + kRoundToInteger) - kRoundToInteger;
    const double r = (bounded - k * ln2_high) - k * ln2_low;
    const double r2 = r * r;
    const double r4 = r2 * r2;
    // (e^r - 1 - r) / r^2, in pairs, so that the multiplications overlap.
    const double c01 = 1.0 / 2 + r * (1.0 / 6);
    const double c23 = 1.0 / 24 + r * (1.0 / 120);
    const double c45 = 1.0 / 720 + r * (1.0 / 5040);
    const double c67 = 1.0 / 40320 + r * (1.0 / 362880);
    const double c89 = 1.0 / 3628800 + r * (1.0 / 39916800);
    const double c1011 = 1.0 / 479001600 + r * (1.0 / 6227020800);
    const double tail = (c01 + r2 * c23) + r4 * ((c45 + r2 * c67) + r4 * (c89 + r2 * c1011));
    const double power = 1.0 + (r + r2 * tail);

    const double half = (k * 0.5 + kRoundToInteger) - kRoundToInteger;
    return power * power_of_two(half) * power_of_two(k - half);
}

// 1 / (1 + e^-x) for x >= 0 and e^x / (1 + e^x) below: e is only raised to powers that cannot
// overflow, and small results keep their relative precision.
[[gnu::always_inline]] inline double sigmoid(double x) {
    const double e = exponential(-std::abs(x));
    const double numerator = x < 0.0 ? e : 1.0;
    return numerator / (1.0 + e);
}

[[gnu::always_inline]] inline double sign(double x) {
    const double positive = x > 0.0 ? 1.0 : 0.0;
    const double direction = x < 0.0 ? -1.0 : positive;
    return x != x ? x : direction;
}

// The functions that become vector code.
QUORVANE_SIMD void absolute_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = std::abs(values[i]);
}
QUORVANE_SIMD void cube_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = values[i] * values[i] * values[i];
}
QUORVANE_SIMD void exp_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = exponential(values[i]);
}
QUORVANE_SIMD void reciprocal_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = 1.0 / values[i];
}
QUORVANE_SIMD void sigmoid_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = sigmoid(values[i]);
}
QUORVANE_SIMD void sign_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = sign(values[i]);
}
QUORVANE_SIMD void sqrt_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = std::sqrt(values[i]);
}
QUORVANE_SIMD void square_all(std::span<const double> values, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = values[i] * values[i];
}

// The rest is the C library's, value by value.
template <double (*function)(double)>
void library_all(std::span<const double> values, std::span<double> out) {
    std::ranges::transform(values, out.begin(), function);
}

constexpr ElementwiseFunction kFunctions[] = {
    {"abs", absolute_all},
    {"arctan", library_all<std::atan>},
    {"cbrt", library_all<std::cbrt>},
    {"cos", library_all<std::cos>},
    {"cube", cube_all},
    {"erf", library_all<std::erf>},
    {"exp", exp_all},
    {"expm1", library_all<std::expm1>},
    {"log", library_all<std::log>},
    {"log10", library_all<std::log10>},
    {"log1p", library_all<std::log1p>},
    {"log2", library_all<std::log2>},
    {"reciprocal", reciprocal_all},
    {"sigmoid", sigmoid_all},
    {"sign", sign_all},
    {"sin", library_all<std::sin>},
    {"sqrt", sqrt_all},
    {"square", square_all},
    {"tanh", library_all<std::tanh>},
};

}  // namespace

std::span<const ElementwiseFunction> elementwise_functions() { return kFunctions; }

const ElementwiseFunction* find_elementwise(std::string_view name) {
    const auto found = std::ranges::find(kFunctions, name, &ElementwiseFunction::name);
    return found == std::ranges::end(kFunctions) ? nullptr : found;
}

}  // namespace quorvane::kernels
