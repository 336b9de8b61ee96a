#include "virtualization/fast/known_columns.hpp"

#include <limits>
#include <new>
#include <utility>

namespace quorvane::virtualization {

namespace {

// Writes every reported slot, since NaN is there already and a branch would be hard to predict.
void write_values(std::span<const double> values, std::span<const std::uint8_t> valid,
                  std::span<const std::uint32_t> slots, capi::VectorView<double> txi_input) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (std::size_t i = 0; i < values.size(); ++i) {
        txi_input[slots[i]] = valid[i] != 0 ? values[i] : nan;
    }
}

// What is valid, and whose metadata that changes. False when there is not the memory for it.
bool judge(std::span<const double> values, const columns::Layout& layout, TableCache& cache) {
    std::vector<std::uint8_t>& valid = cache.columns.valid;
    try {
        valid.resize(values.size());
        const kernels::StructuresByInstrument& structures = cache.columns.by_instrument(layout);
        kernels::judge_structures(structures, cache.live.dead(), values, valid);
        cache.metadata.find_changed(valid);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace

bool record_known_columns(const State& state, PyObject* metadata_by_slot,
                          const columns::Columns& columns, TableCache& cache,
                          capi::VectorView<double> txi_input) {
    const auto view = capi::readable_vector<double>(columns.values.get());
    const std::span<const std::uint32_t> slots = cache.metadata.reported();
    const columns::Layout& layout = *columns.layout;
    if (!view || !view.contiguous() || view.span().size() != slots.size() ||
        txi_input.overlaps_itself() || !cache.metadata.are_alone(metadata_by_slot) ||
        layout.lowest_id < 0 ||
        std::cmp_greater_equal(layout.highest_id, cache.live.dead().size())) {
        return false;
    }
    const std::span<const double> values = view.span();
    if (!judge(values, layout, cache)) return false;
    const std::vector<std::uint8_t>& valid = cache.columns.valid;
    cache.metadata.report_again(state, metadata_by_slot, valid);
    write_values(values, valid, slots, txi_input);
    return true;
}

}  // namespace quorvane::virtualization
