#pragma once

#include "capi/names.hpp"

namespace quorvane::rotations::boilerplate {

// Every attribute that the framework reads or writes by name.
struct Names {
    using Interned = capi::Interned;

    // Attributes of a rotation.
    Interned name{"_name"};
    Interned n_alloc{"_n_alloc"};
    Interned output_buf{"_output_buf"};
    Interned combined_nan_buf{"_combined_nan_buf"};
    Interned nan_mask_bufs{"_nan_mask_bufs"};
    Interned parameters{"parameters"};
    Interned compute{"compute"};
    Interned get_state{"get_state"};
    Interned set_state{"set_state"};

    // Of a context and its mask.
    Interned universe_mask{"universe_mask"};
    Interned current_day_index{"current_day_index"};
    Interned ndim{"ndim"};

    // Of a storage object.
    Interned read{"read"};
    Interned write{"write"};
};

}  // namespace quorvane::rotations::boilerplate
