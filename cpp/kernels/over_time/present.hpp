#pragma once

#include <cstddef>

namespace quorvane::kernels {

// count[i] + 1 where there is a value.
void count_present(const double* values, double* count, std::size_t size);

}  // namespace quorvane::kernels
