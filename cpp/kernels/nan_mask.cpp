// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/nan_mask.hpp"

#include <cstring>
#include <limits>

namespace quorvane::kernels {
namespace {

QUORVANE_SIMD void mark_contiguous(const double* __restrict row, std::uint8_t* __restrict mask,
                                   std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) mask[i] = row[i] != row[i];
}

void mark_strided(StridedRow row, std::uint8_t* mask) {
    const auto* address = reinterpret_cast<const std::byte*>(row.first);
    for (std::size_t i = 0; i < row.size; ++i, address += row.stride) {
        const double value = *reinterpret_cast<const double*>(address);
        mask[i] = value != value;
    }
}

QUORVANE_SIMD void merge(const std::uint8_t* __restrict mask, std::uint8_t* __restrict into,
                         std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) into[i] |= mask[i];
}

QUORVANE_SIMD void put_nan(const std::uint8_t* __restrict universe, double* __restrict row,
                           std::size_t count) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (std::size_t i = 0; i < count; ++i) row[i] = universe[i] != 0 ? row[i] : nan;
}

}  // namespace

void mark_nan(StridedRow row, std::span<std::uint8_t> mask) {
    if (row.contiguous()) {
        mark_contiguous(row.first, mask.data(), row.size);
    } else {
        mark_strided(row, mask.data());
    }
}

void add_nan(StridedRow row, std::span<std::uint8_t> mask) {
    const auto* address = reinterpret_cast<const std::byte*>(row.first);
    for (std::size_t i = 0; i < row.size; ++i, address += row.stride) {
        const double value = *reinterpret_cast<const double*>(address);
        mask[i] |= value != value;
    }
}

void merge_mask(std::span<const std::uint8_t> mask, std::span<std::uint8_t> into) {
    merge(mask.data(), into.data(), mask.size());
}

bool any_left_out(std::span<const std::uint8_t> universe) {
    return !universe.empty() && std::memchr(universe.data(), 0, universe.size()) != nullptr;
}

void leave_out(std::span<const std::uint8_t> universe, std::span<double> row) {
    put_nan(universe.data(), row.data(), row.size());
}

}  // namespace quorvane::kernels
