#include "capi/threads.hpp"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "capi/message.hpp"

namespace quorvane::capi {

namespace {

constexpr const char* variable = "QUORVANE_NUM_THREADS";

// A thread takes some 30 microseconds to begin and end.
constexpr std::size_t wide_row = 100'000;

}  // namespace

std::size_t threads_of_environment() {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') return 1;
    const char* end = text + std::strlen(text);
    std::size_t number = 0;
    const auto read = std::from_chars(text, end, number);
    if (read.ec == std::errc() && read.ptr == end && number >= 1 && number <= most_threads) {
        return number;
    }
    const Ref got = require(PyUnicode_DecodeLocale(text, "surrogateescape"));
    raise_no_number_of_threads(variable, got.get());
}

std::size_t threads_for_row(std::size_t numbers) {
    return numbers < wide_row ? 1 : threads_of_environment();
}

void raise_no_number_of_threads(const char* name, PyObject* got) {
    Message()
        .text(name)
        .text(" must be a whole number from 1 to 256, got ")
        .repr(got)
        .raise(PyExc_ValueError);
}

}  // namespace quorvane::capi
