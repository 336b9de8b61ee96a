#pragma once

#include "capi/error.hpp"

namespace quorvane::capi {

// An interned attribute name or dict key, made once per module: comparing and hashing it is cheap.
class Interned {
public:
    explicit Interned(const char* text) : text_(require(PyUnicode_InternFromString(text))) {}

    // Usable wherever a borrowed object is expected.
    operator PyObject*() const noexcept { return text_.get(); }

private:
    Ref text_;
};

}  // namespace quorvane::capi
