#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kernels/history/day_lanes.hpp"
#include "kernels/unmap.hpp"

namespace quorvane::kernels {

// The legs of all slots the other way round: what each instrument gets from which slot, in the
// order in which unmapping adds it.
struct LegsByInstrument {
    // Of slots in slot order, each with its legs in leg order; all ids are below `instruments`.
    LegsByInstrument(std::span<const LegPlace> places, const FlatLegs& legs,
                     std::size_t instruments, bool equal_split);

    [[nodiscard]] std::size_t instruments() const noexcept { return offsets.size() - 1; }

    std::vector<std::uint32_t> offsets;  // instrument i has offsets[i] to offsets[i + 1] - 1
    std::vector<std::uint32_t> slots;
    std::vector<double> weights;  // 1 and -1 where a slot's output is split equally
    std::vector<double> counts;   // by slot, what its output is divided by; empty in proportion
};

// The scratch memory of one thread.
struct WayBackLanes {
    WayBackLanes(std::size_t slots) : outputs(slots * kDays), whole(slots) {}

    std::vector<double> outputs;      // by slot
    std::vector<std::uint8_t> whole;  // slots whose output is finite on all eight days
};

// Eight days back onto the instruments: out[day][instrument] is the sum of what the slots with a
// finite output give it, NaN where none does. False when the arithmetic overflowed, underflowed or
// was invalid, which is where NumPy may warn: what was written is worthless then.
bool bring_back(const LegsByInstrument& legs, const double* const* rows, std::size_t slots,
                WayBackLanes& lanes, double* const* out) noexcept;

}  // namespace quorvane::kernels
