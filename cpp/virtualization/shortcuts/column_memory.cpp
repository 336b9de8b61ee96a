#include "virtualization/shortcuts/column_memory.hpp"

namespace quorvane::virtualization {

void ColumnMemory::remember(const columns::Columns& columns, const SlotMemory& slots,
                            const LegMemory& legs, const MetadataMemory& metadata) {
    const auto structures = static_cast<std::size_t>(PyTuple_GET_SIZE(columns.keys.get()));
    // A key that stands twice has one slot, whose value depends on both items.
    if (metadata.reported().size() != structures) return forget();
    if (legs_.get() != columns.legs.get()) indexed_ = false;
    keys_ = columns.keys.share();
    legs_ = columns.legs.share();
    slots_version_ = slots.version();
    legs_version_ = legs.version();
    day_ = metadata.day();
}

void ColumnMemory::forget() noexcept {
    keys_ = Ref();
    legs_ = Ref();
    indexed_ = false;
}

const kernels::StructuresByInstrument& ColumnMemory::by_instrument(const columns::Layout& layout) {
    if (!indexed_) {
        by_instrument_.index(layout.offsets, layout.leg_ids, layout.highest_id);
        indexed_ = true;
    }
    return by_instrument_;
}

bool ColumnMemory::knows(const columns::Columns& columns, const SlotMemory& slots,
                         const LegMemory& legs, const MetadataMemory& metadata) const noexcept {
    return keys_ && keys_.get() == columns.keys.get() && legs_.get() == columns.legs.get() &&
           slots_version_ == slots.version() && legs_version_ == legs.version() &&
           day_ == metadata.day();
}

}  // namespace quorvane::virtualization
