#pragma once

#include "columns/columns.hpp"
#include "kernels/validity.hpp"
#include "virtualization/cache/metadata_cache.hpp"

namespace quorvane::virtualization {

// The columns of the last day, if that day was recorded whole from columns. While the tables are
// as that day left them, another day of the same keys and legs differs in its values alone.
class ColumnCache {
public:
    void remember(const columns::Columns& columns, const MetadataCache& metadata);
    void forget() noexcept;

    // The tables are known to be as the last day left them, whichever that was.
    [[nodiscard]] bool knows(const columns::Columns& columns,
                             const MetadataCache& metadata) const noexcept;

    // The legs of the known columns the other way round, made when first asked for.
    const kernels::StructuresByInstrument& by_instrument(const columns::Layout& layout);

    // Which structures are valid, for a day's use.
    std::vector<std::uint8_t> valid;

private:
    Ref keys_, legs_;  // owned, so that their addresses are not given to other tuples
    kernels::StructuresByInstrument by_instrument_;
    bool indexed_ = false;
    std::uint32_t day_ = 0;
};

}  // namespace quorvane::virtualization
