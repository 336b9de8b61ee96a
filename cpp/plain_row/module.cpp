// One function: whether a row can go to a rotation as it is, asked before every day.

#include <algorithm>
#include <cmath>

#include "capi/array_view.hpp"
#include "capi/error.hpp"
#include "capi/numpy.hpp"

namespace quorvane::plain_row {

namespace {

// NumPy takes microseconds for what is a comparison for each number.
bool is_plain(PyObject* row, Py_ssize_t width) {
    const auto numbers = capi::readable_vector<double>(row);
    if (!PyArray_CheckExact(row) || !numbers || !numbers.contiguous() || numbers.size() != width) {
        return false;
    }
    return std::ranges::none_of(numbers.span(), [](double number) { return std::isinf(number); });
}

PyObject* is_plain_row(PyObject* /*module*/, PyObject* const* arguments, Py_ssize_t count) {
    return capi::guarded([&] {
        if (count != 2) capi::raise(PyExc_TypeError, "is_plain_row takes a row and a width");
        const Py_ssize_t width = PyLong_AsSsize_t(arguments[1]);
        if (width == -1 && PyErr_Occurred() != nullptr) throw capi::PythonError();
        return capi::to_bool(is_plain(arguments[0], width));
    });
}

int execute(PyObject* /*module*/) {
    return capi::guarded_status([] { capi::import_numpy(); });
}

}  // namespace

}  // namespace quorvane::plain_row

PyMODINIT_FUNC PyInit__plain_row() {
    static PyMethodDef functions[] = {
        {"is_plain_row",  // What the flag says the function is, by the detour that the compiler
                          // allows.
         reinterpret_cast<PyCFunction>(
             reinterpret_cast<void (*)()>(quorvane::plain_row::is_plain_row)),
         METH_FASTCALL,
         "is_plain_row($module, row, width, /)\n--\n\n"
         "Whether the row is an exact, contiguous float64 array of that many finite or missing "
         "numbers."},
        {nullptr, nullptr, 0, nullptr},
    };
    static PyModuleDef_Slot slots[] = {
        {Py_mod_exec, reinterpret_cast<void*>(quorvane::plain_row::execute)},
        {0, nullptr},
    };
    static PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                                     "_plain_row",
                                     "Whether a row can go to a rotation as it is.",
                                     0,
                                     functions,
                                     slots,
                                     nullptr,
                                     nullptr,
                                     nullptr};
    return PyModuleDef_Init(&definition);
}
