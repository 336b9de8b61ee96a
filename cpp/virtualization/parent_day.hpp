#pragma once

#include "virtualization/state.hpp"

namespace quorvane::virtualization {

// The day that the caller's context names: 0 without a context or without the attribute.
inline Ref day_index_of(const State& state, PyObject* parent_context) {
    if (capi::is_none(parent_context)) return state.zero.share();
    const Ref index = capi::optional_attr(parent_context, state.names.current_day_index);
    return index ? capi::to_int(index.get()) : state.zero.share();
}

}  // namespace quorvane::virtualization
