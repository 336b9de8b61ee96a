#include "virtualization/cache/column_cache.hpp"

namespace quorvane::virtualization {

void ColumnCache::remember(const columns::Columns& columns, const MetadataCache& metadata) {
    const auto structures = static_cast<std::size_t>(PyTuple_GET_SIZE(columns.keys.get()));
    // A key that stands twice has one slot, whose value depends on both items.
    if (metadata.reported().size() != structures) return forget();
    if (legs_.get() != columns.legs.get()) indexed_ = false;
    keys_ = columns.keys.share();
    legs_ = columns.legs.share();
    day_ = metadata.day();
}

void ColumnCache::forget() noexcept {
    keys_ = Ref();
    legs_ = Ref();
    indexed_ = false;
}

const kernels::StructuresByInstrument& ColumnCache::by_instrument(const columns::Layout& layout) {
    if (!indexed_) {
        by_instrument_.index(layout.offsets, layout.leg_ids, layout.highest_id);
        indexed_ = true;
    }
    return by_instrument_;
}

bool ColumnCache::knows(const columns::Columns& columns,
                        const MetadataCache& metadata) const noexcept {
    return keys_ && keys_.get() == columns.keys.get() && legs_.get() == columns.legs.get() &&
           day_ == metadata.day();
}

}  // namespace quorvane::virtualization
