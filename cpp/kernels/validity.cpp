// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/validity.hpp"

#include <cmath>
#include <cstddef>
#include <limits>

namespace quorvane::kernels {

namespace {

QUORVANE_SIMD void mark_finite(const double* __restrict values, std::uint8_t* __restrict valid,
                               std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        valid[i] = std::abs(values[i]) <= std::numeric_limits<double>::max();
    }
}

}  // namespace

void judge_values(std::span<const double> values, std::span<std::uint8_t> valid) noexcept {
    mark_finite(values.data(), valid.data(), valid.size());
}

void judge_structures(std::span<const std::int32_t> offsets, std::span<const std::int32_t> ids,
                      std::span<const std::uint8_t> dead, std::span<const double> values,
                      std::span<std::uint8_t> valid) noexcept {
    judge_values(values, valid);
    const auto is_dead = [&](std::int32_t id) {
        const auto index = static_cast<std::size_t>(id);
        return index >= dead.size() || dead[index] != 0;
    };
    std::size_t leg = 0;
    for (std::size_t i = 0; i < valid.size(); ++i) {
        const auto end = static_cast<std::size_t>(offsets[i + 1]);
        bool any_dead = false;
        for (; leg < end; ++leg) any_dead |= is_dead(ids[leg]);
        if (any_dead) valid[i] = 0;
    }
}

}  // namespace quorvane::kernels
