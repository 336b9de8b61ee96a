#pragma once

#include <cstdint>
#include <span>

namespace quorvane::kernels {

// valid[i] = 1 where values[i] is finite, else 0.
void judge_values(std::span<const double> values, std::span<std::uint8_t> valid) noexcept;

// The same, and no leg of structure i, that is offsets[i] to offsets[i + 1] - 1, is on a dead
// instrument: one that is flagged, or none of `dead`.
void judge_structures(std::span<const std::int32_t> offsets, std::span<const std::int32_t> ids,
                      std::span<const std::uint8_t> dead, std::span<const double> values,
                      std::span<std::uint8_t> valid) noexcept;

}  // namespace quorvane::kernels
