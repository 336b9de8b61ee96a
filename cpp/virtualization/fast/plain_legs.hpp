#pragma once

#include "virtualization/cache/table_cache.hpp"
#include "virtualization/fast/report.hpp"

namespace quorvane::virtualization {

// The legs that an item's slot is to be given, as normalisation would make them; empty when that
// needs Python. Where it would make a new tuple and the slot has an equal one that nobody else
// holds, that one: a new tuple could not be told from it.
Ref legs_to_store(const TableCache& cache, const SlotCache::Found& slot, const ReportedItem& item);

}  // namespace quorvane::virtualization
