// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/history/structure_values.hpp"

#include <algorithm>
#include <limits>

namespace quorvane::kernels {

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kLargest = std::numeric_limits<double>::max();

// One slot on eight days: each of its legs is read once.
[[gnu::always_inline]] inline void add_up(const std::uint32_t* ids, const double* weights,
                                          std::size_t begin, std::size_t end, double start,
                                          const double* lanes, Vector (&sums)[kParts]) {
    for (Vector& sum : sums) sum = Vector{} + start;
    for (std::size_t leg = begin; leg < end; ++leg) {
        const double* input = lanes + std::size_t{ids[leg]} * kDays;
        for (std::size_t part = 0; part < kParts; ++part) {
            Vector value;
            std::memcpy(&value, input + part * kWidth, sizeof value);
            sums[part] += value * weights[leg];
        }
    }
    for (Vector& sum : sums) {
        const Vector magnitude = sum < 0.0 ? -sum : sum;
        sum = magnitude <= kLargest ? sum : Vector{} + kNan;
    }
}

QUORVANE_SIMD void values_of(const std::uint32_t* offsets, const std::uint32_t* ids,
                             const double* weights, const double* starts, std::size_t slots,
                             const double* lanes, double* const* day_rows) {
    DayRows rows;
    std::copy(day_rows, day_rows + kDays, rows);
    for (std::size_t slot = 0; slot < slots; slot += kWidth) {
        Vector sums[kWidth][kParts];
        for (std::size_t i = 0; i < kWidth; ++i) {
            add_up(ids, weights, offsets[slot + i], offsets[slot + i + 1], starts[slot + i], lanes,
                   sums[i]);
        }
        put_columns(sums, rows, slot);
    }
}

}  // namespace

void structure_values(const StructuresBySlot& structures, const double* input_lanes,
                      double* const* rows) {
    values_of(structures.offsets.data(), structures.ids.data(), structures.weights.data(),
              structures.starts.data(), structures.slots(), input_lanes, rows);
}

}  // namespace quorvane::kernels
