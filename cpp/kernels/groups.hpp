#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// The slots of each group side by side. A slot whose group is negative has none.
class GroupOrder {
public:
    // The groups of so many slots; those beyond the end have none. Sorts anew only where the groups
    // are others than before.
    void refresh(std::span<const std::int64_t> groups, std::size_t slots);

    // Calls compute(values, out) for the values of each group; slots without one give NaN.
    template <class Compute>
    void apply(std::span<const double> values, std::span<double> out, const Compute& compute) {
        gather(values);
        for (std::size_t group = 0; group + 1 < starts_.size(); ++group) {
            const std::size_t first = starts_[group], size = starts_[group + 1] - first;
            compute(std::span<const double>(gathered_).subspan(first, size),
                    std::span(computed_).subspan(first, size));
        }
        scatter(out);
    }

private:
    void gather(std::span<const double> values);
    void scatter(std::span<double> out) const;

    std::vector<std::int64_t> groups_;
    // Where each slot's value goes, so that rows are gone through in order; those without a group
    // share the place after all others.
    std::vector<std::uint32_t> place_of_;
    std::vector<std::size_t> starts_;
    std::vector<double> gathered_, computed_;
};

}  // namespace quorvane::kernels
