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

// Of the finite values of a row.
struct RowMean {
    double count;
    double mean;   // of the values, each multiplied by `scale`
    double scale;  // 1 unless a sum would overflow
};

// The mean of equal numbers is that number. The error is at most an eps of the mean, and 48 * eps
// squared times the mean of the magnitudes.
[[nodiscard]] RowMean mean_of(std::span<const double> values);

struct GrossSum {
    double sum;  // of the magnitudes, each multiplied by `scale`
    double scale;
};

// The error is at most 48 * eps times the sum.
[[nodiscard]] GrossSum gross_sum_of(std::span<const double> values);

}  // namespace quorvane::kernels
