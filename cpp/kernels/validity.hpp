#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace quorvane::kernels {

// Which structures have a leg on an instrument, by instrument: the legs the other way round.
class StructuresByInstrument {
public:
    // Structure i has the legs offsets[i] to offsets[i + 1] - 1; ids are not negative.
    void index(std::span<const std::int32_t> offsets, std::span<const std::int32_t> ids,
               std::int32_t highest_id);

    [[nodiscard]] std::size_t instruments() const noexcept { return begin_.size() - 1; }
    [[nodiscard]] std::span<const std::uint32_t> of(std::size_t instrument) const noexcept {
        return std::span(structures_)
            .subspan(begin_[instrument], begin_[instrument + 1] - begin_[instrument]);
    }

private:
    std::vector<std::size_t> begin_ = {0};
    std::vector<std::uint32_t> structures_;
};

// valid[i] = 1 where values[i] is finite and no leg of structure i is on a dead instrument, one
// that is flagged or none of `dead`; else 0. Few instruments are dead, so it is from them that the
// structures are found.
void judge_structures(const StructuresByInstrument& structures, std::span<const std::uint8_t> dead,
                      std::span<const double> values, std::span<std::uint8_t> valid) noexcept;

}  // namespace quorvane::kernels
