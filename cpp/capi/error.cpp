#include "capi/error.hpp"

namespace quorvane::capi {

void raise(PyObject* type, const char* text) {
    PyErr_SetString(type, text);
    throw PythonError();
}

void raise(PyObject* type, PyObject* argument) {
    Ref exception = require(PyObject_CallOneArg(type, argument));
    PyErr_SetObject(type, exception.get());
    throw PythonError();
}

namespace {

// A failure without an error would be a fault of ours; it must not become a crash.
void ensure_error() noexcept {
    if (PyErr_Occurred() == nullptr) {
        PyErr_SetString(PyExc_SystemError, "an error was reported without being set");
    }
}

}  // namespace

void set_error_from_cpp_exception() noexcept {
    try {
        throw;
    } catch (const PythonError&) {
        ensure_error();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_SystemError, error.what());
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "unknown C++ exception");
    }
}

#if PY_VERSION_HEX >= 0x030C0000

FetchedError::FetchedError() {
    ensure_error();
    value_ = Ref::steal(PyErr_GetRaisedException());
}

void FetchedError::rethrow() {
    PyErr_SetRaisedException(value_.release());
    throw PythonError();
}

#else

FetchedError::FetchedError() {
    ensure_error();
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr) PyException_SetTraceback(value, traceback);
    const Ref owned_type = Ref::steal(type);
    const Ref owned_traceback = Ref::steal(traceback);
    value_ = Ref::steal(value);
}

void FetchedError::rethrow() {
    PyObject* type = Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(value_.get())));
    PyObject* traceback = PyException_GetTraceback(value_.get());
    PyErr_Restore(type, value_.release(), traceback);
    throw PythonError();
}

#endif

KeptError::KeptError() {
    if (PyErr_Occurred() != nullptr) value_ = FetchedError().take();
}

KeptError::~KeptError() {
    if (value_) PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(value_.get())), value_.get());
}

HandledError::HandledError() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_GetExcInfo(&type, &value, &traceback);
    outer_type_ = Ref::steal(type);
    outer_value_ = Ref::steal(value);
    outer_traceback_ = Ref::steal(traceback);
    PyObject* current = error_.value();
    PyErr_SetExcInfo(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(current))), Py_NewRef(current),
                     PyException_GetTraceback(current));
}

HandledError::~HandledError() {
    PyErr_SetExcInfo(outer_type_.release(), outer_value_.release(), outer_traceback_.release());
}

}  // namespace quorvane::capi
