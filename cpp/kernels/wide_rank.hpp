#pragma once

#include <cstddef>
#include <span>

#include "kernels/rank.hpp"

namespace quorvane::kernels {

// rank_fraction of a row that is so long that several threads are worth their beginning; the same
// numbers. std::bad_alloc where there is no room, with `out` then undefined.
void rank_fraction_wide(std::span<const double> values, std::size_t workers,
                        RankWorkspace& workspace, std::span<double> out);

}  // namespace quorvane::kernels
