#pragma once

#include "capi/array_view.hpp"
#include "virtualization/cache/table_cache.hpp"

namespace quorvane::virtualization {

// Records a day whose keys and legs are yesterday's, with all tables as yesterday left them: values
// and validity are all that there is to write. False, with nothing written, when the values cannot
// be read at once, somebody else holds a slot's metadata, or a leg is on no instrument of the day.
bool record_known_columns(const State& state, PyObject* metadata_by_slot,
                          const columns::Columns& columns, TableCache& cache,
                          capi::VectorView<double> txi_input);

}  // namespace quorvane::virtualization
