#include "kernels/weighted_sums.hpp"

namespace quorvane::kernels {

void weighted_sums(std::span<const std::int32_t> offsets, std::span<const std::int32_t> ids,
                   std::span<const double> weights, std::span<const double> inputs,
                   std::span<double> out) noexcept {
    const double* input = inputs.data();
    auto leg = static_cast<std::size_t>(offsets[0]);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const auto end = static_cast<std::size_t>(offsets[i + 1]);
        double sum = 0.0;
        for (; leg < end; ++leg) sum += weights[leg] * input[ids[leg]];
        out[i] = sum;
    }
}

}  // namespace quorvane::kernels
