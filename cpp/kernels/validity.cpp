// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/validity.hpp"

#include <cmath>
#include <cstddef>
#include <limits>
#include <numeric>

namespace quorvane::kernels {

namespace {

QUORVANE_SIMD void mark_finite(const double* __restrict values, std::uint8_t* __restrict valid,
                               std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        valid[i] = std::abs(values[i]) <= std::numeric_limits<double>::max();
    }
}

}  // namespace

void StructuresByInstrument::index(std::span<const std::int32_t> offsets,
                                   std::span<const std::int32_t> ids, std::int32_t highest_id) {
    const auto instruments = static_cast<std::size_t>(std::int64_t{highest_id} + 1);
    begin_.assign(instruments + 1, 0);
    structures_.resize(ids.size());
    for (const std::int32_t id : ids) ++begin_[static_cast<std::size_t>(id) + 1];
    std::partial_sum(begin_.begin(), begin_.end(), begin_.begin());
    std::vector<std::size_t> next(begin_.begin(), begin_.end() - 1);
    for (std::size_t i = 0; i + 1 < offsets.size(); ++i) {
        for (auto leg = offsets[i]; leg < offsets[i + 1]; ++leg) {
            const auto id = static_cast<std::size_t>(ids[static_cast<std::size_t>(leg)]);
            structures_[next[id]++] = static_cast<std::uint32_t>(i);
        }
    }
}

void judge_structures(const StructuresByInstrument& structures, std::span<const std::uint8_t> dead,
                      std::span<const double> values, std::span<std::uint8_t> valid) noexcept {
    mark_finite(values.data(), valid.data(), valid.size());
    for (std::size_t instrument = 0; instrument < structures.instruments(); ++instrument) {
        if (instrument < dead.size() && dead[instrument] == 0) continue;
        for (const std::uint32_t structure : structures.of(instrument)) valid[structure] = 0;
    }
}

}  // namespace quorvane::kernels
