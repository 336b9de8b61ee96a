#pragma once

#include <cmath>
#include <span>

namespace quorvane::kernels {

// A sum with what it lost to rounding (Neumaier 1974).
class CompensatedSum {
public:
    void add(double term) {
        const double next = sum_ + term;
        lost_ += std::abs(sum_) >= std::abs(term) ? (sum_ - next) + term : (term - next) + sum_;
        sum_ = next;
    }
    [[nodiscard]] double value() const { return sum_ + lost_; }

private:
    double sum_ = 0.0;
    double lost_ = 0.0;
};

// 1 where squares and sums of the values stay well inside the double range, else the power of two
// that brings the largest value near 1.
[[nodiscard]] double safe_scale(double largest);

// Of the finite values of a row.
struct RowSum {
    double count;
    double sum;    // of the values, each multiplied by `scale`
    double scale;  // 1 unless the sum would overflow
};

// The sum's error is at most 48 * eps times the sum of the magnitudes.
[[nodiscard]] RowSum sum_of_values(std::span<const double> values);
[[nodiscard]] RowSum sum_of_magnitudes(std::span<const double> values);

}  // namespace quorvane::kernels
