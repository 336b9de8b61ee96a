#include "capi/native_function.hpp"

#include <structmember.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "capi/recursion.hpp"

namespace quorvane::capi {

namespace {

constexpr const char* type_name = "quorvane.native_function";

// The object's C++ half, built after the interpreter has zeroed the whole object.
struct Content {
    const FunctionDef* definition;
    void* state;
    Signature signature;
    Ref module;
};

struct NativeFunction {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    PyObject* name;
    PyObject* qualified_name;
    PyObject* doc;
    PyObject* text_signature;
    PyObject* module_name;
    PyObject* annotations;
    PyObject* dict;
    PyObject* weak_references;
    alignas(Content) std::byte content[sizeof(Content)];
};

NativeFunction& function_of(PyObject* object) { return *reinterpret_cast<NativeFunction*>(object); }

Content& content_of(PyObject* object) {
    return *std::launder(reinterpret_cast<Content*>(function_of(object).content));
}

// What a function's frame does for it: the arguments of a call live as long as the call. Callers
// only lend them, and some (functools.partial, the iterators over __getitem__ and over a callable)
// can be made to let go of them, and of the array that they stand in, by code that runs meanwhile.
class HeldArguments {
public:
    HeldArguments(PyObject* const* lent, Py_ssize_t count)
        : count_(static_cast<std::size_t>(count)) {
        if (count_ > few) many_ = std::make_unique<PyObject*[]>(count_);
        for (std::size_t i = 0; i < count_; ++i) place()[i] = Py_NewRef(lent[i]);
    }
    HeldArguments(const HeldArguments&) = delete;
    HeldArguments& operator=(const HeldArguments&) = delete;
    ~HeldArguments() {
        for (std::size_t i = 0; i < count_; ++i) Ref::steal(place()[i]);
    }

    [[nodiscard]] PyObject* const* values() const noexcept { return many_ ? many_.get() : few_; }

private:
    static constexpr std::size_t few = 8;

    [[nodiscard]] PyObject** place() noexcept { return many_ ? many_.get() : few_; }

    std::size_t count_;
    PyObject* few_[few];
    std::unique_ptr<PyObject*[]> many_;
};

Ref call(PyObject* object, PyObject* const* lent, Py_ssize_t count, PyObject* keyword_names) {
    const RecursionGuard recursion;
    const Ref function = Ref::borrow(object);
    const Ref names = Ref::borrow(keyword_names);
    const Py_ssize_t keywords = names ? PyTuple_GET_SIZE(names.get()) : 0;
    const HeldArguments held(lent, count + keywords);
    const Content& content = content_of(object);
    if (!names && content.signature.takes_as_they_are(count)) {
        return content.definition->body(content.state, held.values());
    }
    Signature::Bound bound;
    content.signature.bind(bound, function_of(object).qualified_name, held.values(), count,
                           names.get());
    return content.definition->body(content.state, bound.values);
}

PyObject* vectorcall(PyObject* object, PyObject* const* arguments, std::size_t flagged_count,
                     PyObject* keyword_names) noexcept {
    return guarded(
        [&] { return call(object, arguments, PyVectorcall_NARGS(flagged_count), keyword_names); });
}

PyObject* bind_to_instance(PyObject* self, PyObject* instance, PyObject* /*owner*/) {
    if (instance == nullptr) return Py_NewRef(self);
    return PyMethod_New(self, instance);
}

PyObject* represent(PyObject* self) {
    return PyUnicode_FromFormat("<function %U at %p>", function_of(self).qualified_name, self);
}

// Pickled and copied by its qualified name, as functions are.
PyObject* reduce(PyObject* self, PyObject* /*unused*/) {
    return Py_NewRef(function_of(self).qualified_name);
}

int traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(function_of(self).doc);
    Py_VISIT(function_of(self).module_name);
    Py_VISIT(function_of(self).annotations);
    Py_VISIT(function_of(self).dict);
    Py_VISIT(content_of(self).module.get());
    return 0;
}

int clear(PyObject* self) {
    Py_CLEAR(function_of(self).doc);
    Py_CLEAR(function_of(self).module_name);
    Py_CLEAR(function_of(self).annotations);
    Py_CLEAR(function_of(self).dict);
    return 0;
}

void deallocate(PyObject* self) {
    PyObject_GC_UnTrack(self);
    NativeFunction& function = function_of(self);
    if (function.weak_references != nullptr) PyObject_ClearWeakRefs(self);
    const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
    for (PyObject** member :
         {&function.name, &function.qualified_name, &function.doc, &function.text_signature,
          &function.module_name, &function.annotations, &function.dict}) {
        Ref::steal(std::exchange(*member, nullptr));
    }
    content_of(self).~Content();
    PyObject_GC_Del(self);
}

PyMemberDef members[] = {
    {"__doc__", T_OBJECT, offsetof(NativeFunction, doc), 0, nullptr},
    {"__text_signature__", T_OBJECT, offsetof(NativeFunction, text_signature), READONLY, nullptr},
    {"__annotations__", T_OBJECT, offsetof(NativeFunction, annotations), 0, nullptr},
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(NativeFunction, vectorcall), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(NativeFunction, dict), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(NativeFunction, weak_references), READONLY,
     nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

// A name is always there and always a string, as it is of a function.
template <PyObject* NativeFunction::* name>
PyObject* get_name(PyObject* self, void* /*closure*/) {
    return Py_NewRef(function_of(self).*name);
}

template <PyObject* NativeFunction::* name>
int set_name(PyObject* self, PyObject* value, void* closure) {
    if (value == nullptr || !PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s must be set to a string object",
                     static_cast<const char*>(closure));
        return -1;
    }
    const Ref old = Ref::steal(std::exchange(function_of(self).*name, Py_NewRef(value)));
    return 0;
}

// The text is only read: getset tables want it without const.
char name_attribute[] = "__name__";
char qualified_name_attribute[] = "__qualname__";

PyGetSetDef properties[] = {
    {name_attribute, get_name<&NativeFunction::name>, set_name<&NativeFunction::name>, nullptr,
     name_attribute},
    {qualified_name_attribute, get_name<&NativeFunction::qualified_name>,
     set_name<&NativeFunction::qualified_name>, nullptr, qualified_name_attribute},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// Put into the type's dictionary by hand: making a type from a slot table writes its own there.
PyMemberDef module_member = {"__module__", T_OBJECT, offsetof(NativeFunction, module_name), 0,
                             nullptr};

PyMethodDef methods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

template <class Function>
void* slot(Function function) {
    return reinterpret_cast<void*>(function);
}

// Of a class that Python makes, neither the flag nor the layout could be had under this name.
bool is_of_our_modules(PyTypeObject* type) noexcept {
    return PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE) != 0 &&
           type->tp_basicsize == static_cast<Py_ssize_t>(sizeof(NativeFunction)) &&
           std::strcmp(type->tp_name, type_name) == 0;
}

}  // namespace

Ref make_native_function_type(PyObject* module) {
    PyType_Slot slots[] = {
        {Py_tp_dealloc, slot(deallocate)},
        {Py_tp_traverse, slot(traverse)},
        {Py_tp_clear, slot(clear)},
        {Py_tp_repr, slot(represent)},
        {Py_tp_descr_get, slot(bind_to_instance)},
        {Py_tp_call, slot(PyVectorcall_Call)},
        {Py_tp_members, members},
        {Py_tp_getset, properties},
        {Py_tp_methods, methods},
        {0, nullptr},
    };
    PyType_Spec spec = {
        type_name,
        static_cast<int>(sizeof(NativeFunction)),
        0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
            Py_TPFLAGS_METHOD_DESCRIPTOR | Py_TPFLAGS_DISALLOW_INSTANTIATION |
            Py_TPFLAGS_IMMUTABLETYPE,
        slots,
    };
    Ref type = require(PyType_FromModuleAndSpec(module, &spec, nullptr));
    auto* heap_type = reinterpret_cast<PyTypeObject*>(type.get());
    const Ref descriptor = require(PyDescr_NewMember(heap_type, &module_member));
    require(PyDict_SetItemString(heap_type->tp_dict, "__module__", descriptor.get()));
    PyType_Modified(heap_type);
    return type;
}

bool is_native_function(PyObject* object, PyObject* type, const FunctionDef& definition) noexcept {
    return Py_IS_TYPE(object, reinterpret_cast<PyTypeObject*>(type)) &&
           content_of(object).definition == &definition;
}

Offered offered(PyObject* function, const char* name) noexcept {
    if (function == nullptr || !is_of_our_modules(Py_TYPE(function))) return {};
    const Content& content = content_of(function);
    const Offer& offer = content.definition->offer;
    if (offer.name == nullptr || std::strcmp(offer.name, name) != 0) return {};
    return {offer.content, content.state, true};
}

Ref make_native_function(PyObject* type, const FunctionDef& definition, PyObject* module,
                         void* state, PyObject* module_name, const char* owner) {
    Signature signature(definition.parameters);
    Ref name = require(PyUnicode_InternFromString(definition.name));
    Ref qualified_name = require(PyUnicode_FromFormat("%s.%s", owner, definition.name));
    Ref text = make_str(signature.text().c_str());
    Ref doc = definition.doc != nullptr ? make_str(definition.doc) : none();
    Ref annotations = make_dict();
    Ref dict = make_dict();

    auto* heap_type = reinterpret_cast<PyTypeObject*>(type);
    auto* function = PyObject_GC_New(NativeFunction, heap_type);
    Ref result = require(reinterpret_cast<PyObject*>(function));
    function->vectorcall = vectorcall;
    function->name = name.release();
    function->qualified_name = qualified_name.release();
    function->doc = doc.release();
    function->text_signature = text.release();
    function->module_name = Py_NewRef(module_name);
    function->annotations = annotations.release();
    function->dict = dict.release();
    function->weak_references = nullptr;
    new (function->content) Content{&definition, state, std::move(signature), Ref::borrow(module)};
    PyObject_GC_Track(result.get());
    return result;
}

}  // namespace quorvane::capi
