#pragma once

#include "capi/names.hpp"
#include "capi/objects.hpp"

namespace quorvane::rotations {

// The day that the caller's context names: 0 without a context or without the attribute.
inline capi::Ref day_index_of(PyObject* context, const capi::Interned& current_day_index) {
    if (capi::is_none(context)) return capi::make_int(0);
    const capi::Ref index = capi::optional_attr(context, current_day_index);
    return index ? capi::to_int(index.get()) : capi::make_int(0);
}

}  // namespace quorvane::rotations
