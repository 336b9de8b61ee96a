#pragma once

#include <cstdint>
#include <span>

namespace quorvane::kernels {

// out[i] = 0 + weights[first] * inputs[ids[first]] + ... over the legs offsets[i] to
// offsets[i + 1] - 1, added in that order. Every id is an index of the inputs.
void weighted_sums(std::span<const std::int32_t> offsets, std::span<const std::int32_t> ids,
                   std::span<const double> weights, std::span<const double> inputs,
                   std::span<double> out) noexcept;

}  // namespace quorvane::kernels
