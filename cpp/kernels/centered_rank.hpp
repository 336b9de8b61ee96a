#pragma once

#include "kernels/rank.hpp"

namespace quorvane::kernels {

// (2 r - n - 1) / n per slot, with the average rank r among the n slots that are not NaN, rounded
// once; otherwise as rank_fraction. In (-1, 1), and a row of opposite signs gives opposite signs.
void centered_rank(std::span<const double> values, RankWorkspace& workspace, std::span<double> out);

// The same of a long row, by several threads.
void centered_rank_wide(std::span<const double> values, std::size_t threads,
                        RankWorkspace& workspace, std::span<double> out);

}  // namespace quorvane::kernels
