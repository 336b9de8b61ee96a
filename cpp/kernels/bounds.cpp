// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/bounds.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <limits>

#include "kernels/rank_steps.hpp"

namespace quorvane::kernels {

namespace {

using rank_steps::Extremes;
using rank_steps::Keys;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

QUORVANE_SIMD void clip_all(const double* __restrict values, double low, double high,
                            double* __restrict out, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const double raised = values[i] >= low ? values[i] : low;
        const double bounded = raised <= high ? raised : high;
        out[i] = values[i] == values[i] ? bounded : values[i];
    }
}

// The two neighbours in order between which a quantile lies, and where between them.
struct Place {
    std::size_t before, after;
    double share;
};

Place place_of(double quantile, std::size_t count) {
    const std::size_t last = count - 1;
    const double index = static_cast<double>(last) * quantile;
    const auto before = std::min(static_cast<std::size_t>(index), last);
    return {before, std::min(before + 1, last), index - static_cast<double>(before)};
}

// From the nearer end, as np.quantile does it. Which zero of two signs comes first depends on the
// order of all, so it is always the positive one.
double between(double before, double after, double share) {
    const double apart = after - before;
    return (share < 0.5 ? before + apart * share : after - apart * (1.0 - share)) + 0.0;
}

// Puts the value that is so many places from the smallest there; those before are not larger.
double select(std::span<double> values, std::size_t place) {
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(place);
    std::ranges::nth_element(values, at);
    return *at;
}

// Both neighbours of a place among values in any order.
double quantile_of(std::span<double> values, Place place) {
    const double before = select(values, place.before);
    if (place.after == place.before) return between(before, before, place.share);
    return between(before, *std::ranges::min_element(values.subspan(place.after)), place.share);
}

// Long enough for vector code, short enough to stay in the first-level cache.
constexpr std::size_t kBlock = 256;

QUORVANE_SIMD void buckets_of(const double* __restrict values, std::uint64_t* __restrict buckets,
                              std::size_t size, const Keys keys, int shift) {
    for (std::size_t i = 0; i < size; ++i) buckets[i] = keys.leading(values[i]) >> shift;
}

// A long row by buckets of neighbouring values: only those of the buckets that a quantile lies in
// are looked at one by one.
class Buckets {
public:
    Buckets(std::span<const double> values, QuantileWorkspace& workspace)
        : values_(values), workspace_(workspace) {
        Extremes extremes;
        rank_steps::find_extremes(values.data(), values.size(), extremes);
        if (extremes.nothing_seen()) return;
        fill(Keys(extremes, values.size()));
    }

    [[nodiscard]] std::size_t count() const noexcept { return count_; }

    double quantile(double quantile) {
        Place place = place_of(quantile, count_);
        std::size_t first = 0, before = 0;
        while (before + workspace_.histogram[first] <= place.before) {
            before += workspace_.histogram[first++];
        }
        std::size_t last = first, until = before + workspace_.histogram[first];
        while (until <= place.after) until += workspace_.histogram[++last];
        choose(first, last);
        place.before -= before;
        place.after -= before;
        return quantile_of(workspace_.chosen, place);
    }

private:
    void fill(const Keys& keys) {
        const int shift = (keys.passes - 1) * keys.digit_bits;
        workspace_.histogram.assign(keys.buckets(), 0);
        workspace_.bucket_of.resize(std::max(workspace_.bucket_of.size(), values_.size()));
        std::uint64_t buckets[kBlock];
        for (std::size_t start = 0; start < values_.size(); start += kBlock) {
            const std::size_t size = std::min(kBlock, values_.size() - start);
            buckets_of(values_.data() + start, buckets, size, keys, shift);
            for (std::size_t i = 0; i < size; ++i) {
                const bool present = values_[start + i] == values_[start + i];
                const std::uint64_t bucket = buckets[i] & (keys.buckets() - 1);
                workspace_.histogram[bucket] += present;
                workspace_.bucket_of[start + i] =
                    static_cast<std::uint16_t>(present ? bucket : kMissing);
                count_ += present;
            }
        }
    }

    void choose(std::size_t first, std::size_t last) {
        workspace_.chosen.clear();
        for (std::size_t i = 0; i < values_.size(); ++i) {
            const std::size_t bucket = workspace_.bucket_of[i];
            if (bucket >= first && bucket <= last) workspace_.chosen.push_back(values_[i]);
        }
    }

    static constexpr std::uint64_t kMissing = 0xFFFF;

    std::span<const double> values_;
    QuantileWorkspace& workspace_;
    std::size_t count_ = 0;
};

// Where buckets begin to pay for themselves.
constexpr std::size_t kShortRow = 512;

struct Bounds {
    double low = kNan, high = kNan;
};

Bounds bounds_of_short(std::span<const double> values, double fraction,
                       QuantileWorkspace& workspace) {
    auto& chosen = workspace.chosen;
    chosen.clear();
    std::ranges::copy_if(values, std::back_inserter(chosen),
                         [](double value) { return value == value; });
    if (chosen.empty()) return {};
    const Place low = place_of(fraction, chosen.size());
    const Place high = place_of(1.0 - fraction, chosen.size());
    return {quantile_of(chosen, low), quantile_of(chosen, high)};
}

Bounds bounds_of(std::span<const double> values, double fraction, QuantileWorkspace& workspace) {
    if (values.size() <= kShortRow) return bounds_of_short(values, fraction, workspace);
    Buckets buckets(values, workspace);
    if (buckets.count() == 0) return {};
    const double low = buckets.quantile(fraction);
    return {low, buckets.quantile(1.0 - fraction)};
}

}  // namespace

void clip(std::span<const double> values, double low, double high, std::span<double> out) {
    clip_all(values.data(), low, high, out.data(), values.size());
}

void winsorize(std::span<const double> values, double fraction, QuantileWorkspace& workspace,
               std::span<double> out) {
    const auto [low, high] = bounds_of(values, fraction, workspace);
    // Between two equal infinities there is no quantile, and nothing lies within none.
    if (low != low || high != high) {
        std::ranges::fill(out, kNan);
    } else {
        clip(values, low, high, out);
    }
}

}  // namespace quorvane::kernels
