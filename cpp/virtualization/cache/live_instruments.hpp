#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capi/array_view.hpp"

namespace quorvane::virtualization {

// The masks and the width of a day, as compute was given them.
struct DayMasks {
    PyObject* nan_masks;
    PyObject* combined_nan_mask;
    PyObject* N;
};

enum class Verdict { valid, invalid, unknown };

// Whether all legs are on live instruments, as the validity step finds it; unknown when only Python
// can tell. The legs are plain.
Verdict judge_legs(PyObject* legs, const DayMasks& masks) noexcept;

// The day's masks laid one over the other.
class LiveInstruments {
public:
    // False when only Python can tell what the masks say, or when they could change while the day
    // is being written into the row.
    bool see(const DayMasks& masks, const capi::VectorView<double>& row);

    // 0 below N and one of all masks flags it. A leg outside 0 to N - 1 is on no live instrument.
    [[nodiscard]] bool is_live(std::size_t instrument) const noexcept {
        return instrument < dead_.size() && dead_[instrument] == 0;
    }

    [[nodiscard]] std::span<const std::uint8_t> dead() const noexcept { return dead_; }

private:
    bool add(PyObject* mask, const capi::VectorView<double>& row);

    std::vector<std::uint8_t> dead_;  // by instrument, N of them
};

}  // namespace quorvane::virtualization
