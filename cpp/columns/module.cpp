// Structure columns: the module of one type.

#include "capi/module.hpp"

#include <algorithm>

#include "capi/array_view.hpp"
#include "capi/message.hpp"
#include "capi/recursion.hpp"
#include "capi/threads.hpp"
#include "columns/layout.hpp"
#include "kernels/team.hpp"
#include "kernels/weighted_sums.hpp"

namespace quorvane::columns {

namespace {

using capi::guarded;
using capi::Message;
using capi::RecursionGuard;
using capi::Ref;
using capi::require;

// ---- making ------------------------------------------------------------------------------------

Ref make(PyTypeObject* type, Columns columns) {
    Ref object = require(reinterpret_cast<PyObject*>(PyObject_GC_New(Object, type)));
    new (reinterpret_cast<Object*>(object.get())->content) Columns(std::move(columns));
    PyObject_GC_Track(object.get());
    return object;
}

PyObject* construct(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
    return guarded([&] {
        const RecursionGuard recursion;
        static const char* names[] = {"keys", "offsets", "leg_ids", "weights", "values", nullptr};
        PyObject *keys = nullptr, *offsets = nullptr, *leg_ids = nullptr, *weights = nullptr,
                 *values = nullptr;
        if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "OOOOO:StructureColumns",
                                         const_cast<char**>(names), &keys, &offsets, &leg_ids,
                                         &weights, &values)) {
            throw capi::PythonError();
        }
        Columns columns;
        columns.keys = keys_from(keys);
        const Py_ssize_t structures = PyTuple_GET_SIZE(columns.keys.get());
        columns.layout = layout_from(offsets, leg_ids, weights, structures);
        columns.values = values_from(values, structures);
        columns.legs = make_legs(*columns.layout);
        return make(type, std::move(columns));
    });
}

// Callers only lend an object, and some (functools.partial, the iterator over a sequence) can be
// made to let go of it by code that runs meanwhile. This is what a function's frame does for it.
class Lent {
public:
    explicit Lent(PyObject* self, PyObject* argument = nullptr)
        : self_(Ref::borrow(self)), argument_(Ref::borrow(argument)) {}

    [[nodiscard]] const Columns& columns() const { return columns_of(self_.get()); }
    [[nodiscard]] PyTypeObject* type() const { return Py_TYPE(self_.get()); }
    [[nodiscard]] PyObject* self() const { return self_.get(); }
    [[nodiscard]] PyObject* argument() const { return argument_.get(); }

private:
    Ref self_, argument_;
};

PyObject* with_values(PyObject* self, PyObject* values) {
    return guarded([&] {
        const RecursionGuard recursion;
        const Lent lent(self, values);
        const Columns& columns = lent.columns();
        Ref numbers = values_from(lent.argument(), PyTuple_GET_SIZE(columns.keys.get()));
        return make(lent.type(), {columns.keys.share(), columns.legs.share(), std::move(numbers),
                                  columns.layout});
    });
}

// ---- a sequence of items -----------------------------------------------------------------------

Py_ssize_t length(PyObject* self) { return PyTuple_GET_SIZE(columns_of(self).keys.get()); }

double value_at(const Columns& columns, Py_ssize_t index) {
    const auto values = capi::readable_vector<double>(columns.values.get());
    if (!values || index >= values.size()) {
        capi::raise(PyExc_ValueError, "values: the array was changed in size or type");
    }
    return values[index];
}

PyObject* item(PyObject* self, Py_ssize_t index) {
    return guarded([&] {
        if (index < 0 || index >= length(self)) {
            capi::raise(PyExc_IndexError, "structure index out of range");
        }
        const Lent lent(self);
        const Columns& columns = lent.columns();
        const Ref value = capi::make_float(value_at(columns, index));
        Ref structure = capi::make_dict();
        const auto set = [&](const char* name, PyObject* entry) {
            require(PyDict_SetItemString(structure.get(), name, entry));
        };
        set("key", PyTuple_GET_ITEM(columns.keys.get(), index));
        set("legs", PyTuple_GET_ITEM(columns.legs.get(), index));
        set("value", value.get());
        return structure;
    });
}

PyObject* represent(PyObject* self) {
    return PyUnicode_FromFormat("<StructureColumns of %zd structures with %zu legs>", length(self),
                                columns_of(self).layout->leg_ids.size());
}

// ---- arithmetic --------------------------------------------------------------------------------

void require_within(const Layout& layout, npy_intp size) {
    if (layout.lowest_id >= 0 && layout.highest_id < size) return;
    const std::int32_t outside = layout.lowest_id < 0 ? layout.lowest_id : layout.highest_id;
    Message()
        .text("inputs must have an entry for every leg id, got ")
        .value(capi::make_int(size))
        .text(" entries and leg id ")
        .value(capi::make_int(outside))
        .raise(PyExc_IndexError);
}

PyObject* weighted_sums(PyObject* self, PyObject* inputs) {
    return guarded([&] {
        const RecursionGuard recursion;
        const Lent lent(self, inputs);
        const Columns& columns = lent.columns();
        const Ref row = require(PyArray_FromAny(
            lent.argument(), PyArray_DescrFromType(NPY_DOUBLE), 1, 1,
            NPY_ARRAY_IN_ARRAY | NPY_ARRAY_NOTSWAPPED | NPY_ARRAY_ENSUREARRAY, nullptr));
        npy_intp shape[] = {length(lent.self())};
        Ref sums = require(PyArray_SimpleNew(1, shape, NPY_DOUBLE));
        const auto entries = capi::readable_vector<double>(row.get()).span();
        const Layout& layout = *columns.layout;
        require_within(layout, static_cast<npy_intp>(entries.size()));
        const std::span<const std::int32_t> offsets(layout.offsets);
        const auto out = capi::writable_vector<double>(sums.get()).span();
        const std::size_t threads = capi::threads_for_row(out.size());
        kernels::in_parts(out.size(), threads, [&](std::size_t first, std::size_t last) {
            kernels::weighted_sums(offsets.subspan(first, last - first + 1), layout.leg_ids,
                                   layout.weights, entries, out.subspan(first, last - first));
        });
        return sums;
    });
}

// ---- attributes --------------------------------------------------------------------------------

PyObject* get_keys(PyObject* self, void* /*closure*/) {
    return columns_of(self).keys.share().release();
}

PyObject* get_legs(PyObject* self, void* /*closure*/) {
    return columns_of(self).legs.share().release();
}

PyObject* get_values(PyObject* self, void* /*closure*/) {
    return columns_of(self).values.share().release();
}

// A view that nobody can make writable: the legs' tuples say the same and cannot change either.
template <class T>
PyObject* read_only(PyObject* self, const std::vector<T>& numbers, int type_number) {
    return guarded([&] {
        const Lent lent(self);
        npy_intp shape[] = {static_cast<npy_intp>(numbers.size())};
        Ref view = require(
            PyArray_SimpleNewFromData(1, shape, type_number, const_cast<T*>(numbers.data())));
        PyArray_CLEARFLAGS(capi::as_array(view.get()), NPY_ARRAY_WRITEABLE);
        require(PyArray_SetBaseObject(capi::as_array(view.get()), Py_NewRef(lent.self())));
        return view;
    });
}

PyObject* get_offsets(PyObject* self, void* /*closure*/) {
    return read_only(self, columns_of(self).layout->offsets, NPY_INT32);
}

PyObject* get_leg_ids(PyObject* self, void* /*closure*/) {
    return read_only(self, columns_of(self).layout->leg_ids, NPY_INT32);
}

PyObject* get_weights(PyObject* self, void* /*closure*/) {
    return read_only(self, columns_of(self).layout->weights, NPY_DOUBLE);
}

// Pickled and copied by what the constructor takes.
PyObject* reduce(PyObject* self, PyObject* /*unused*/) {
    return guarded([&] {
        const Lent lent(self);
        const Ref offsets = require(get_offsets(self, nullptr));
        const Ref leg_ids = require(get_leg_ids(self, nullptr));
        const Ref weights = require(get_weights(self, nullptr));
        const Columns& columns = lent.columns();
        const Ref arguments = capi::make_tuple(columns.keys.get(), offsets.get(), leg_ids.get(),
                                               weights.get(), columns.values.get());
        return capi::make_tuple(reinterpret_cast<PyObject*>(lent.type()), arguments.get());
    });
}

// ---- life --------------------------------------------------------------------------------------

// No clearing: like a tuple it never changes, and a cycle goes through something that can.
int traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    const Columns& columns = columns_of(self);
    Py_VISIT(columns.keys.get());
    Py_VISIT(columns.legs.get());
    Py_VISIT(columns.values.get());
    return 0;
}

void deallocate(PyObject* self) {
    PyObject_GC_UnTrack(self);
    const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
    columns_of(self).~Columns();
    PyObject_GC_Del(self);
}

// ---- the type ----------------------------------------------------------------------------------

constexpr const char* class_doc =
    R"(StructureColumns(keys, offsets, leg_ids, weights, values)
--

One day's structures as columns, for reporting many of them without an object for each.

``VirtualizationBase._refresh_active_structures`` may return it instead of a list. It is a sequence
of the dicts ``{"key": ..., "legs": ..., "value": ...}`` and means what the list of them would mean;
a day that reports the same keys and legs as the day before is merely much faster.

Make it once and report ``columns.with_values(values)`` every day: keys and legs are shared.

Parameters
----------
keys : iterable of tuple
    The structures' keys.
offsets : array_like of int, shape (len(keys) + 1,)
    Structure ``i`` has the legs ``offsets[i]`` to ``offsets[i + 1] - 1``. Rises from 0 to the
    number of legs. Copied, as 32 bits.
leg_ids : array_like of int
    The instrument of each leg. Copied, as 32 bits.
weights : array_like of float, shape of leg_ids
    The weight of each leg. Copied.
values : array_like of float, shape (len(keys),)
    The structures' values; an array of float64 is kept, not copied.

Raises
------
TypeError
    When a key is not a tuple, or an array is not of such numbers.
ValueError
    When the arrays do not fit together, or an int does not fit in 32 bits.
)";

constexpr const char* with_values_doc = R"(with_values($self, values, /)
--

The same structures with other values.

Parameters
----------
values : array_like of float, shape (len(self),)
    An array of float64 is kept, not copied.

Returns
-------
StructureColumns

Raises
------
TypeError
    When the values are not real numbers.
ValueError
    When they are not as many as the structures.
)";

constexpr const char* weighted_sums_doc = R"(weighted_sums($self, inputs, /)
--

``sum(weight * inputs[leg_id])`` of each structure, added in leg order.

Parameters
----------
inputs : array_like of float, shape (N,)
    One number per instrument.

Returns
-------
ndarray of float64, shape (len(self),)
    NaN where any leg's input is NaN; 0 for a structure without legs.

Raises
------
IndexError
    When a leg id is not an index of inputs, counted from 0.
ValueError
    When inputs is not a row.
)";

template <class Function>
void* slot(Function function) {
    return reinterpret_cast<void*>(function);
}

PyMethodDef methods[] = {
    {"with_values", with_values, METH_O, with_values_doc},
    {"weighted_sums", weighted_sums, METH_O, weighted_sums_doc},
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"keys", get_keys, nullptr, "The structures' keys, a tuple.", nullptr},
    {"legs", get_legs, nullptr, "Each structure's legs, a tuple of tuples of (int, float).",
     nullptr},
    {"offsets", get_offsets, nullptr, "Where each structure's legs begin; read-only.", nullptr},
    {"leg_ids", get_leg_ids, nullptr, "The instrument of each leg; read-only.", nullptr},
    {"weights", get_weights, nullptr, "The weight of each leg; read-only.", nullptr},
    {"values", get_values, nullptr, "The structures' values.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>(class_doc)},
    {Py_tp_new, slot(construct)},
    {Py_tp_dealloc, slot(deallocate)},
    {Py_tp_traverse, slot(traverse)},
    {Py_tp_repr, slot(represent)},
    {Py_tp_iter, slot(PySeqIter_New)},
    {Py_sq_length, slot(length)},
    {Py_sq_item, slot(item)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec = {
    "quorvane.functions.rotations.virtualization.columns.StructureColumns",
    static_cast<int>(sizeof(Object)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_SEQUENCE,
    slots,
};

class State {
public:
    explicit State(PyObject* module) : module_(module) {}

    void execute() {
        capi::import_numpy();
        const Ref type = require(PyType_FromModuleAndSpec(module_, &spec, nullptr));
        auto* heap_type = reinterpret_cast<PyTypeObject*>(type.get());
        passport_ = {heap_type, sizeof(Object)};
        const Ref capsule = require(PyCapsule_New(&passport_, passport_name, nullptr));
        require(PyDict_SetItemString(heap_type->tp_dict, passport_attribute, capsule.get()));
        PyType_Modified(heap_type);
        require(PyModule_AddObjectRef(module_, "StructureColumns", type.get()));
    }

    int traverse(visitproc /*visit*/, void* /*arg*/) const { return 0; }

private:
    PyObject* module_;  // borrowed: the module owns this state
    Passport passport_{};
};

}  // namespace

}  // namespace quorvane::columns

PyMODINIT_FUNC PyInit_columns() {
    return quorvane::capi::ModuleWith<quorvane::columns::State>::initialise(
        "columns", "A day's structures as arrays.");
}
