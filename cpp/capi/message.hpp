#pragma once

#include "capi/objects.hpp"

namespace quorvane::capi {

// An error text put together as an f-string is: literal pieces and values, each value formatted
// as {value} is, at the moment it is added.
class Message {
public:
    Message& text(const char* literal) { return append(make_str(literal)); }
    Message& value(PyObject* object) { return append(require(PyObject_Format(object, nullptr))); }
    Message& value(const Ref& object) { return value(object.get()); }
    Message& str(PyObject* object) { return append(to_str(object)); }
    Message& repr(PyObject* object) { return append(to_repr(object)); }

    [[nodiscard]] PyObject* get() const noexcept { return text_.get(); }
    [[noreturn]] void raise(PyObject* type) const { capi::raise(type, text_.get()); }

private:
    Message& append(Ref piece) {
        text_ = text_ ? require(PyUnicode_Concat(text_.get(), piece.get())) : std::move(piece);
        return *this;
    }

    Ref text_;
};

}  // namespace quorvane::capi
