#pragma once

#include "capi/array_view.hpp"
#include "virtualization/shortcuts/day_memory.hpp"
#include "virtualization/shortcuts/plain_rotation.hpp"

namespace quorvane::virtualization {

// Records a day whose keys and legs are yesterday's, with all tables as yesterday left them: values
// and validity are all that there is to write. False, with nothing written, when the values cannot
// be read at once, somebody else holds a slot's metadata, or a leg is on no instrument of the day.
bool record_known_day(const State& state, const PlainRotation& plain,
                      const columns::Columns& columns, DayMemory& memory,
                      capi::VectorView<double> txi_input);

}  // namespace quorvane::virtualization
