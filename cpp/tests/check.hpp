#pragma once

#include <cstdio>

// The smallest test harness that reports where a check failed and goes on to the next one.
//
//     int main() {
//         CHECK(1 + 1 == 2);
//         return check::result();
//     }
namespace check {

inline int failures = 0;

inline void that(bool holds, const char* expression, const char* file, int line) {
    if (!holds) {
        ++failures;
        std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, expression);
    }
}

// What main() returns: 0 when every check held.
[[nodiscard]] inline int result() { return failures == 0 ? 0 : 1; }

}  // namespace check

// A macro, because only one can show the expression as it was written. Variadic, so that commas in
// template arguments and braces need no further parentheses.
#define CHECK(...) ::check::that((__VA_ARGS__), #__VA_ARGS__, __FILE__, __LINE__)
