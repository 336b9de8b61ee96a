#include "kernels/groups.hpp"

#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

namespace quorvane::kernels {

void GroupOrder::refresh(std::span<const std::int64_t> groups, std::size_t count) {
    groups = groups.first(std::min(groups.size(), count));
    if (std::ranges::equal(groups, groups_)) return;
    groups_.assign(groups.begin(), groups.end());
    std::vector<std::uint32_t> slots(groups.size());
    std::iota(slots.begin(), slots.end(), 0U);
    const auto group_of = [&](std::uint32_t slot) { return groups_[slot]; };
    std::erase_if(slots, [&](std::uint32_t slot) { return group_of(slot) < 0; });
    std::ranges::sort(slots, {},
                      [&](std::uint32_t slot) { return std::pair(group_of(slot), slot); });

    place_of_.assign(groups.size(), static_cast<std::uint32_t>(slots.size()));
    starts_.clear();
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (i == 0 || group_of(slots[i]) != group_of(slots[i - 1])) starts_.push_back(i);
        place_of_[slots[i]] = static_cast<std::uint32_t>(i);
    }
    starts_.push_back(slots.size());
    gathered_.resize(slots.size() + 1);
    computed_.resize(slots.size() + 1);
    computed_.back() = std::numeric_limits<double>::quiet_NaN();
}

void GroupOrder::gather(std::span<const double> values) {
    for (std::size_t slot = 0; slot < place_of_.size(); ++slot) {
        gathered_[place_of_[slot]] = values[slot];
    }
}

void GroupOrder::scatter(std::span<double> out) const {
    for (std::size_t slot = 0; slot < place_of_.size(); ++slot) {
        out[slot] = computed_[place_of_[slot]];
    }
    // Slots beyond the groups have none.
    std::ranges::fill(out.subspan(place_of_.size()), std::numeric_limits<double>::quiet_NaN());
}

}  // namespace quorvane::kernels
