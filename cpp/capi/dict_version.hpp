#pragma once

#include <cstdint>

#include "capi/python.hpp"

namespace quorvane::capi {

// Up to Python 3.13 a dict carries a number that no other state of any dict ever had: the same
// number means the same dict with the same contents. (An instance's own dictionary is not always
// told of its changes; see ChangeWatch for those.)
inline constexpr bool dicts_have_versions = PY_VERSION_HEX < 0x030E0000;

// The version of an exact dict; 0 where the interpreter keeps none.
inline std::uint64_t dict_version([[maybe_unused]] PyObject* dict) noexcept {
#if PY_VERSION_HEX < 0x030E0000
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
#else
    return 0;
#endif
}

// False of an instance's own dictionary that shares its values with the instance, as it may from
// Python 3.13 on: what is changed through the instance is not counted.
inline bool counts_changes([[maybe_unused]] PyObject* dict) noexcept {
#if PY_VERSION_HEX >= 0x030D0000
    return reinterpret_cast<PyDictObject*>(dict)->ma_values == nullptr;
#else
    return true;
#endif
}

}  // namespace quorvane::capi
