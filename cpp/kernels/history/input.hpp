#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvane::kernels {

// A matrix of days and columns wherever its numbers lie; strides in bytes, of any sign.
template <class T>
struct StridedMatrix {
    const char* first = nullptr;
    std::ptrdiff_t day_stride = 0;
    std::ptrdiff_t column_stride = 0;

    [[nodiscard]] const char* day(std::size_t index) const noexcept {
        return first + static_cast<std::ptrdiff_t>(index) * day_stride;
    }
    [[nodiscard]] bool contiguous_rows() const noexcept {
        return column_stride == static_cast<std::ptrdiff_t>(sizeof(T));
    }
};

// What a history reads: a number per day and instrument, and who is in the universe, if anybody is
// left out.
struct HistoryInput {
    StridedMatrix<double> values;
    StridedMatrix<std::uint8_t> universe;  // without a first entry: everybody
    std::size_t instruments = 0;
};

// lanes[8 * instrument + day] of the eight days from `first_day` on; NaN for whoever is left out.
void read_lanes(const HistoryInput& input, std::size_t first_day, double* lanes);

}  // namespace quorvane::kernels
