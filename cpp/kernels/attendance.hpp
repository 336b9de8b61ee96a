#pragma once

#include <cstdint>
#include <span>

namespace quorvane::kernels {

// For how many days each slot has had no value: 0 where there is one today, a day more where there
// is none, NaN as long as there never was one.
void count_silence(std::span<const double> values, std::span<double> silent_days);

// out[i] = values[i] where that is finite and the slot speaks, that is, has been silent for at most
// `hold` days; NaN elsewhere. Without a hold everybody speaks.
void let_through(std::span<const double> values, std::span<const double> silent_days, double hold,
                 std::span<double> out);
void let_through(std::span<const double> values, std::span<double> out);

// count_silence, and in `open` 1 where the slot speaks and 0 elsewhere.
void count_silence(std::span<const double> values, std::span<double> silent_days, double hold,
                   std::span<std::uint8_t> open);

// values[i] = NaN where it is not finite or the slot does not speak.
void shut_out(std::span<const std::uint8_t> open, std::span<double> values);

}  // namespace quorvane::kernels
