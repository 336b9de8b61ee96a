#pragma once

#include <span>
#include <string_view>

namespace quorvane::kernels {

// An elementwise function: out[i] = f(values[i]). `out` has the length of `values` and is either
// the same memory or does not overlap it.
using ElementwiseKernel = void (*)(std::span<const double> values, std::span<double> out);

struct ElementwiseFunction {
    std::string_view name;
    ElementwiseKernel kernel;
};

// All functions, in alphabetical order. Every one keeps NaN and gives NaN outside its domain; at
// a pole it gives the signed infinity.
[[nodiscard]] std::span<const ElementwiseFunction> elementwise_functions();

// The function of that name, or null.
[[nodiscard]] const ElementwiseFunction* find_elementwise(std::string_view name);

}  // namespace quorvane::kernels
