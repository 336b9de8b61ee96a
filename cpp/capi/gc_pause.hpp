#pragma once

#include "capi/python.hpp"

namespace quorvane::capi {

// No garbage is collected while it lives, so making objects runs no finalizers.
class GcPause {
public:
    GcPause() noexcept : was_enabled_(PyGC_Disable() != 0) {}
    GcPause(const GcPause&) = delete;
    GcPause& operator=(const GcPause&) = delete;
    ~GcPause() {
        if (was_enabled_) PyGC_Enable();
    }

private:
    bool was_enabled_;
};

}  // namespace quorvane::capi
