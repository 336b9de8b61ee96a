#pragma once

#include <cstdint>

#include "capi/dict_version.hpp"

namespace quorvane::virtualization {

// The maps that a restore left: all they hold is inert while they have the versions that they had.
class RestoredMaps {
public:
    void are(PyObject* slot_by_key, PyObject* key_by_slot, PyObject* legs_by_slot) noexcept {
        slots_version_ = capi::dict_version(slot_by_key);
        keys_version_ = capi::dict_version(key_by_slot);
        legs_version_ = capi::dict_version(legs_by_slot);
    }

    [[nodiscard]] bool include_slots(PyObject* slot_by_key, PyObject* key_by_slot) const noexcept {
        return slots_version_ != 0 && capi::dict_version(slot_by_key) == slots_version_ &&
               capi::dict_version(key_by_slot) == keys_version_;
    }
    [[nodiscard]] bool include_legs(PyObject* legs_by_slot) const noexcept {
        return legs_version_ != 0 && capi::dict_version(legs_by_slot) == legs_version_;
    }

private:
    std::uint64_t slots_version_ = 0;
    std::uint64_t keys_version_ = 0;
    std::uint64_t legs_version_ = 0;
};

}  // namespace quorvane::virtualization
