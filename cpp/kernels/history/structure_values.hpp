#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kernels/history/day_lanes.hpp"

namespace quorvane::kernels {

// The structures that are reported on each of some days, by slot.
struct StructuresBySlot {
    std::vector<std::uint32_t> offsets;  // slot i has the legs offsets[i] to offsets[i + 1] - 1
    std::vector<std::uint32_t> ids;
    std::vector<double> weights;
    std::vector<double> starts;  // what a slot's sum begins with: 0, or NaN where none is reported

    [[nodiscard]] std::size_t slots() const noexcept { return starts.size(); }
};

// rows[day][slot] = sum(weight * input of the day) over the slot's legs, added in leg order; NaN
// where that is not finite. There are as many slots as fill whole vectors.
void structure_values(const StructuresBySlot& structures, const double* input_lanes,
                      double* const* rows);

}  // namespace quorvane::kernels
