#include "capi/signature.hpp"

#include <cstdlib>
#include <string_view>

namespace quorvane::capi {

namespace {

using Kind = Parameter::Kind;

Ref default_value(std::string_view text) {
    if (text == "None") return none();
    if (text.front() == '"') {
        return require(
            PyUnicode_FromStringAndSize(text.data() + 1, static_cast<Py_ssize_t>(text.size()) - 2));
    }
    return make_int(std::strtol(std::string(text).c_str(), nullptr, 10));
}

// 'a' ; 'a' and 'b' ; 'a', 'b', and 'c'
Ref enumeration(PyObject* quoted) {
    const Py_ssize_t count = PyList_GET_SIZE(quoted);
    Ref text = Ref::borrow(PyList_GET_ITEM(quoted, 0));
    for (Py_ssize_t i = 1; i < count; ++i) {
        const char* separator = i + 1 < count ? ", " : (count == 2 ? " and " : ", and ");
        text = require(
            PyUnicode_FromFormat("%U%s%U", text.get(), separator, PyList_GET_ITEM(quoted, i)));
    }
    return text;
}

[[noreturn]] void raise_missing(PyObject* qualified_name, PyObject* quoted) {
    const Py_ssize_t count = PyList_GET_SIZE(quoted);
    PyErr_Format(PyExc_TypeError, "%U() missing %zd required positional argument%s: %U",
                 qualified_name, count, count == 1 ? "" : "s", enumeration(quoted).get());
    throw PythonError();
}

}  // namespace

Signature::Signature(std::span<const Parameter> parameters) : parameters_(parameters) {
    if (parameters.size() > max_parameters) {
        raise(PyExc_SystemError, "a native signature has too many parameters");
    }
    bool plain = true;
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        const Parameter& parameter = parameters[i];
        names_[i] = require(PyUnicode_InternFromString(parameter.name));
        if (parameter.default_text != nullptr) {
            defaults_[i] = default_value(parameter.default_text);
        }
        plain = plain && parameter.kind == Kind::positional;
        const auto index = static_cast<Py_ssize_t>(i);
        if (parameter.kind == Kind::positional) {
            positional_count_ = index + 1;
            if (parameter.default_text == nullptr) required_count_ = index + 1;
        } else if (parameter.kind == Kind::var_positional) {
            var_positional_ = index;
        } else if (parameter.kind == Kind::var_keyword) {
            var_keyword_ = index;
        }
    }
    if (plain) plain_count_ = positional_count_;
}

std::string Signature::text() const {
    std::string text = "(";
    bool starred = false;
    const char* separator = "";
    for (const Parameter& parameter : parameters_) {
        text += separator;
        separator = ", ";
        if (parameter.kind == Kind::keyword_only && !starred) text += "*, ";
        starred = starred || parameter.kind != Kind::positional;
        if (parameter.kind == Kind::var_positional) text += '*';
        if (parameter.kind == Kind::var_keyword) text += "**";
        text += parameter.name;
        if (parameter.default_text != nullptr) text.append("=").append(parameter.default_text);
    }
    return text + ")";
}

// In the interpreter's order: positional values, keywords, then what is too many or missing.
void Signature::bind(Bound& bound, PyObject* const& qualified_name, PyObject* const* arguments,
                     Py_ssize_t count, PyObject* keyword_names) const {
    const Py_ssize_t taken = count < positional_count_ ? count : positional_count_;
    for (Py_ssize_t i = 0; i < taken; ++i) bound.values[i] = arguments[i];
    if (var_positional_ >= 0) {
        bound.var_positional = require(PyTuple_New(count - taken));
        for (Py_ssize_t i = taken; i < count; ++i) {
            PyTuple_SET_ITEM(bound.var_positional.get(), i - taken, Py_NewRef(arguments[i]));
        }
        bound.values[var_positional_] = bound.var_positional.get();
    }
    if (var_keyword_ >= 0) {
        bound.var_keyword = make_dict();
        bound.values[var_keyword_] = bound.var_keyword.get();
    }
    if (keyword_names != nullptr) {
        bind_keywords(bound, qualified_name, arguments + count, keyword_names);
    }
    if (count > taken && var_positional_ < 0) raise_too_many(bound, qualified_name, count);
    fill_defaults(bound, qualified_name);
}

void Signature::raise_too_many(const Bound& bound, PyObject* const& qualified_name,
                               Py_ssize_t count) const {
    Py_ssize_t keyword_only_given = 0;
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
        const bool keyword_only = parameters_[i].kind == Kind::keyword_only;
        if (keyword_only && bound.values[i] != nullptr) ++keyword_only_given;
    }
    const bool exact = required_count_ == positional_count_;
    const Ref takes = require(
        exact ? PyUnicode_FromFormat("%zd", positional_count_)
              : PyUnicode_FromFormat("from %zd to %zd", required_count_, positional_count_));
    const char* plural = exact && positional_count_ == 1 ? "" : "s";
    // Every function takes an argument at least, so too many are more than one.
    const Ref given =
        require(keyword_only_given == 0
                    ? PyUnicode_FromFormat("%zd were", count)
                    : PyUnicode_FromFormat(
                          "%zd positional arguments (and %zd keyword-only argument%s) were", count,
                          keyword_only_given, keyword_only_given == 1 ? "" : "s"));
    PyErr_Format(PyExc_TypeError, "%U() takes %U positional argument%s but %U given",
                 qualified_name, takes.get(), plural, given.get());
    throw PythonError();
}

void Signature::bind_keywords(Bound& bound, PyObject* const& qualified_name,
                              PyObject* const* values, PyObject* names) const {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(names); ++i) {
        PyObject* name = PyTuple_GET_ITEM(names, i);
        const Py_ssize_t index = index_of(name);
        if (index >= 0 && bound.values[index] != nullptr) {
            PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'",
                         qualified_name, name);
            throw PythonError();
        }
        if (index >= 0) {
            bound.values[index] = values[i];
        } else if (var_keyword_ >= 0) {
            require(PyDict_SetItem(bound.var_keyword.get(), name, values[i]));
        } else {
            PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'",
                         qualified_name, name);
            throw PythonError();
        }
    }
}

void Signature::fill_defaults(Bound& bound, PyObject* const& qualified_name) const {
    Ref missing;
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
        if (bound.values[i] != nullptr) continue;
        bound.values[i] = defaults_[i].get();
        if (defaults_[i]) continue;
        if (!missing) missing = make_list();
        append(missing.get(), to_repr(names_[i].get()).get());
    }
    if (missing) raise_missing(qualified_name, missing.get());
}

Py_ssize_t Signature::index_of(PyObject* name) const {
    const auto count = static_cast<Py_ssize_t>(parameters_.size());
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (names_[i].get() == name && i != var_positional_ && i != var_keyword_) return i;
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (i == var_positional_ || i == var_keyword_) continue;
        if (PyUnicode_Compare(names_[i].get(), name) == 0) return i;
    }
    return -1;
}

}  // namespace quorvane::capi
