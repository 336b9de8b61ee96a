#include "virtualization/shortcuts/known_day.hpp"

#include "kernels/validity.hpp"

namespace quorvane::virtualization {

namespace {

void judge(const LiveInstruments& live, const columns::Layout& layout,
           std::span<const double> values, std::vector<std::uint8_t>& valid) {
    valid.resize(values.size());
    if (live.all_live() && layout.highest_id < static_cast<std::int64_t>(live.dead().size())) {
        kernels::judge_values(values, valid);
    } else {
        kernels::judge_structures(layout.offsets, layout.leg_ids, live.dead(), values, valid);
    }
}

void write_values(std::span<const double> values, std::span<const std::uint8_t> valid,
                  std::span<const std::uint32_t> slots, capi::VectorView<double> txi_input) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (valid[i] != 0) txi_input[slots[i]] = values[i];
    }
}

}  // namespace

bool record_known_day(const State& state, const PlainRotation& plain,
                      const columns::Columns& columns, DayMemory& memory,
                      capi::VectorView<double> txi_input) {
    const auto view = capi::readable_vector<double>(columns.values.get());
    const std::span<const std::uint32_t> slots = memory.metadata.reported();
    if (!view || !view.contiguous() || view.span().size() != slots.size() ||
        capi::may_share_memory(view, txi_input) || !memory.metadata.are_alone()) {
        return false;
    }
    const std::span<const double> values = view.span();
    std::vector<std::uint8_t>& valid = memory.columns.valid;
    judge(memory.live, *columns.layout, values, valid);
    memory.metadata.report_again(state, plain.metadata_by_slot(), valid);
    write_values(values, valid, slots, txi_input);
    return true;
}

}  // namespace quorvane::virtualization
