#include "virtualization/expression.hpp"

namespace quorvane::virtualization {

namespace {

constexpr capi::Parameter parameters[] = {capi::positional("self"), capi::positional("expression")};

// One token of an expression and everything that its messages need.
struct Token {
    const State& state;
    PyObject* self;
    PyObject* text;

    // "<name>: <before><repr of the token><after>"
    [[nodiscard]] Message message(const char* before, const char* after) const {
        Message message = message_of(state, self);
        message.text(": ").text(before).repr(text).text(after);
        return message;
    }
    [[noreturn]] void fail(const char* before, const char* after) const {
        message(before, after).raise(PyExc_ValueError);
    }
};

bool is_identity(const State& state, PyObject* text) {
    return capi::contains(state.global(state.names.IDENTITY_EXPRESSIONS).get(), text);
}

bool occurs_in(const char* piece, PyObject* text) {
    return capi::contains(text, capi::make_str(piece).get());
}

// int(text); a text that is no integer is the token's fault, with the conversion error as cause.
Ref integer_argument(const Token& token, PyObject* text) {
    Ref value = Ref::steal(PyNumber_Long(text));
    if (value) return value;
    if (!PyErr_ExceptionMatches(PyExc_ValueError)) throw capi::PythonError();
    const capi::HandledError handled;
    const Message message = token.message("", " requires an integer argument");
    const Ref error = call(PyExc_ValueError, message.get());
    PyException_SetCause(error.get(), Py_NewRef(handled.value()));
    PyErr_SetObject(PyExc_ValueError, error.get());
    throw capi::PythonError();
}

// The keyword arguments of the child that the token asks for.
Ref child_keywords(const Token& token, PyObject* argument_name, PyObject* argument_text) {
    Ref keywords = capi::make_dict();
    const bool has_argument = capi::truth(argument_text);
    const bool takes_argument = !capi::is_none(argument_name);
    if (!has_argument && takes_argument) token.fail("", " requires an integer argument");
    if (has_argument && !takes_argument) token.fail("", " does not accept arguments");
    if (has_argument) {
        if (occurs_in(",", argument_text) || occurs_in("=", argument_text)) {
            token.fail("", " only accepts one integer argument");
        }
        const Ref value = integer_argument(token, argument_text);
        set_item(keywords.get(), argument_name, value.get());
    }
    return keywords;
}

// (registry name, keywords) of one token; empty when the token means no child.
Ref child_spec(const Token& token) {
    const State& state = token.state;
    const Names& names = state.names;
    const Ref pattern = state.global(names.EXPRESSION_TOKEN_RE);
    const Ref match = call_method(pattern.get(), names.match, token.text);
    if (capi::is_none(match.get())) token.fail("malformed transformation_expression token ", "");

    const Ref name = call_method(match.get(), names.group, state.one.get());
    const Ref alias = call_method(name.get(), names.lower);
    Ref argument = call_method(match.get(), names.group, capi::make_int(2).get());
    if (!capi::truth(argument.get())) argument = capi::make_str("");
    argument = call_method(argument.get(), names.strip);

    if (is_identity(state, alias.get()) && !capi::truth(argument.get())) return {};
    if (!capi::contains(state.global(names.CHILD_ROTATION_ALIASES).get(), alias.get())) {
        token.fail("unsupported transformation_expression token ", "");
    }
    const Ref target = item(state.global(names.CHILD_ROTATION_ALIASES).get(), alias.get());
    const capi::Pair parts = capi::unpack_pair(target.get());
    const Ref keywords = child_keywords(token, parts.second.get(), argument.get());
    return capi::make_tuple(parts.first.get(), keywords.get());
}

void check_length(const State& state, PyObject* text) {
    const Names& names = state.names;
    const Ref encoded = call_method(text, names.encode, capi::make_str("utf-8").get());
    const Ref size = capi::make_int(capi::length(encoded.get()));
    const Ref limit = state.global(names.MAX_TRANSFORMATION_EXPRESSION_BYTES);
    if (!capi::compare(size.get(), limit.get(), Py_GT)) return;
    Message()
        .text("transformation_expression must be <= ")
        .str(state.global(names.MAX_TRANSFORMATION_EXPRESSION_BYTES).get())
        .text(" bytes")
        .raise(PyExc_ValueError);
}

// Every token is checked before any limit, and every limit before any child is made.
void check_limits(const State& state, PyObject* self, PyObject* specs) {
    const Names& names = state.names;
    const Ref count = capi::make_int(PyList_GET_SIZE(specs));
    const Ref most = state.global(names.MAX_TRANSFORMATION_CHILDREN);
    if (capi::compare(count.get(), most.get(), Py_GT)) {
        Message()
            .text("transformation_expression supports at most ")
            .str(state.global(names.MAX_TRANSFORMATION_CHILDREN).get())
            .text(" child rotations")
            .raise(PyExc_ValueError);
    }
    const Ref width = attr(self, names.max_structures);
    const Ref cells = require(PyNumber_Multiply(count.get(), width.get()));
    const Ref most_cells = state.global(names.MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS);
    if (capi::compare(cells.get(), most_cells.get(), Py_GT)) {
        Message()
            .text("transformation_expression child allocation must be <= ")
            .str(state.global(names.MAX_TRANSFORMATION_CHILD_ALLOCATION_CELLS).get())
            .text(" cells")
            .raise(PyExc_ValueError);
    }
    if (PyList_GET_SIZE(specs) == 0) {
        capi::raise(PyExc_ValueError,
                    "transformation_expression must be an explicit identity alias or contain at "
                    "least one supported child rotation");
    }
}

Ref child_specs(const State& state, PyObject* self, PyObject* text) {
    const Names& names = state.names;
    Ref specs = capi::make_list();
    const Ref raw_tokens = call_method(text, names.split, capi::make_str(";").get());
    capi::Iteration tokens(raw_tokens.get());
    while (const Ref raw_token = tokens.next()) {
        const Ref token = call_method(raw_token.get(), names.strip);
        if (!capi::truth(token.get())) continue;
        if (const Ref spec = child_spec({state, self, token.get()})) {
            capi::append(specs.get(), spec.get());
        }
    }
    return specs;
}

// The registry is imported here and not with the module, so that it is loaded only when needed.
Ref create_children(const State& state, PyObject* self, PyObject* specs) {
    const Names& names = state.names;
    const Ref registry_class =
        capi::import_from("quorvane.functions._registry", "StaticFunctionRegistry");
    const Ref registry = call_with_keywords(registry_class.get(), state.N_alloc_keyword.get(),
                                            attr(self, names.max_structures).get());
    Ref children = capi::make_list();
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(specs); ++i) {
        const Ref spec = Ref::borrow(PyList_GET_ITEM(specs, i));
        const Ref create = attr(registry.get(), names.create_instance);
        const Ref name = capi::make_tuple(PyTuple_GET_ITEM(spec.get(), 0));
        const Ref child =
            require(PyObject_Call(create.get(), name.get(), PyTuple_GET_ITEM(spec.get(), 1)));
        capi::append(children.get(), child.get());
    }
    return children;
}

Ref parse(State& state, PyObject* const* values) {
    PyObject* self = values[0];
    const Ref text = call_method(values[1], state.names.strip);
    check_length(state, text.get());
    if (is_identity(state, call_method(text.get(), state.names.lower).get())) {
        return capi::make_list();
    }
    const Ref specs = child_specs(state, self, text.get());
    check_limits(state, self, specs.get());
    return create_children(state, self, specs.get());
}

}  // namespace

const capi::FunctionDef parse_transformation_expression_def{
    "_parse_transformation_expression", parameters, capi::body_of<State, parse>};

}  // namespace quorvane::virtualization
