#pragma once

#include <span>
#include <string>

#include "capi/objects.hpp"

namespace quorvane::capi {

struct Parameter {
    enum class Kind { positional, var_positional, keyword_only, var_keyword };

    const char* name;
    Kind kind = Kind::positional;
    // The default as Python source: None, an integer or a "string"; null when there is none.
    const char* default_text = nullptr;
};

constexpr Parameter positional(const char* name, const char* default_text = nullptr) {
    return {name, Parameter::Kind::positional, default_text};
}
constexpr Parameter keyword_only(const char* name, const char* default_text) {
    return {name, Parameter::Kind::keyword_only, default_text};
}
constexpr Parameter var_positional(const char* name) {
    return {name, Parameter::Kind::var_positional};
}
constexpr Parameter var_keyword(const char* name) { return {name, Parameter::Kind::var_keyword}; }

inline constexpr std::size_t max_parameters = 12;

// One parameter table, read twice: it prints the text that inspect.signature understands and it
// binds the arguments of a call, with the interpreter's own error texts.
class Signature {
public:
    explicit Signature(std::span<const Parameter> parameters);

    [[nodiscard]] std::string text() const;

    // True when arguments without keywords are the values already, in order.
    [[nodiscard]] bool takes_as_they_are(Py_ssize_t count) const noexcept {
        return count == plain_count_;
    }

    // The values of one call: one per parameter, borrowed from the arguments, the defaults or here.
    struct Bound {
        PyObject* values[max_parameters] = {};
        Ref var_positional, var_keyword;
    };

    // The name is a reference to the function's own: hashing a keyword may run code that renames
    // the function, and an error tells the name of that moment.
    void bind(Bound& bound, PyObject* const& qualified_name, PyObject* const* arguments,
              Py_ssize_t count, PyObject* keyword_names) const;

private:
    void bind_keywords(Bound& bound, PyObject* const& qualified_name, PyObject* const* values,
                       PyObject* names) const;
    [[noreturn]] void raise_too_many(const Bound& bound, PyObject* const& qualified_name,
                                     Py_ssize_t count) const;
    void fill_defaults(Bound& bound, PyObject* const& qualified_name) const;
    [[nodiscard]] Py_ssize_t index_of(PyObject* name) const;

    std::span<const Parameter> parameters_;
    Ref names_[max_parameters];
    Ref defaults_[max_parameters];
    Py_ssize_t positional_count_ = 0;
    Py_ssize_t required_count_ = 0;
    Py_ssize_t plain_count_ = -1;
    Py_ssize_t var_positional_ = -1;
    Py_ssize_t var_keyword_ = -1;
};

}  // namespace quorvane::capi
