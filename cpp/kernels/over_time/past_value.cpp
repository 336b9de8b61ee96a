// First, since it says how all that follows is compiled.
// clang-format off
#include "kernels/simd.hpp"
// clang-format on

#include "kernels/over_time/past_value.hpp"

namespace quorvane::kernels {

namespace {

QUORVANE_SIMD void value_day(const double* values, double* past, double* out, std::size_t size) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const double value = values[i];
        out[i] = past[i];
        past[i] = value;
    }
}

QUORVANE_SIMD void difference_day(const double* values, double* past, double* out,
                                  std::size_t size) {
    QUORVANE_IN_ANY_ORDER for (std::size_t i = 0; i < size; ++i) {
        const double value = values[i];
        out[i] = value - past[i];
        past[i] = value;
    }
}

}  // namespace

void PastValue::step(const TimeMemory& memory, std::size_t position, const double* values,
                     double* out, SlotRange range) const {
    double* past = memory.kept_row(position) + range.first;
    if (gives_ == Gives::value) {
        value_day(values, past, out, range.size());
    } else {
        difference_day(values, past, out, range.size());
    }
}

}  // namespace quorvane::kernels
