#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace quorvane::kernels {

// `size` doubles whose addresses lie `stride` bytes apart; the stride may be negative or zero.
struct StridedRow {
    const double* first;
    std::ptrdiff_t stride;
    std::size_t size;

    [[nodiscard]] bool contiguous() const noexcept {
        return stride == static_cast<std::ptrdiff_t>(sizeof(double)) || size <= 1;
    }
};

// mask[i] = 1 where row[i] is NaN, else 0. The mask has at least row.size entries.
void mark_nan(StridedRow row, std::span<std::uint8_t> mask);

// mask[i] = 1 where row[i] is NaN; the other entries stay.
void add_nan(StridedRow row, std::span<std::uint8_t> mask);

// into[i] = 1 where either mask is set. Masks hold 0 and 1; `into` is at least as long as `mask`.
void merge_mask(std::span<const std::uint8_t> mask, std::span<std::uint8_t> into);

// Whether the universe leaves out any instrument, that is, whether any entry is 0.
[[nodiscard]] bool any_left_out(std::span<const std::uint8_t> universe);

// row[i] = NaN where universe[i] is 0. The universe is at least as long as the row.
void leave_out(std::span<const std::uint8_t> universe, std::span<double> row);

}  // namespace quorvane::kernels
