#pragma once

#include <cstddef>

#include "capi/python.hpp"

namespace quorvane::capi {

inline constexpr std::size_t most_threads = 256;

// How many threads QUORVANE_NUM_THREADS allows to compute with, 1 where it is not set or empty.
// ValueError when it is no whole number from 1 to most_threads.
std::size_t threads_of_environment();

// The same where only a row of so many numbers is to be computed: 1 for one that is not worth it.
std::size_t threads_for_row(std::size_t numbers);

[[noreturn]] void raise_no_number_of_threads(const char* name, PyObject* got);

}  // namespace quorvane::capi
