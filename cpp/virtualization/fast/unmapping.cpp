#include "virtualization/fast/unmapping.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "capi/array_view.hpp"
#include "virtualization/cache/table_cache.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"
#include "virtualization/guards/rotation_guard.hpp"

namespace quorvane::virtualization {

namespace {

using capi::VectorView;

// The plain facts of one call. Views come last: an attribute's lookup may run code when somebody
// has put odd keys into a dictionary.
struct Task {
    Ref legs_by_slot;
    Py_ssize_t max_structures = 0;
    bool equal_split = false;
    VectorView<const double> txi_output;
    VectorView<double> output;
    Py_ssize_t N = 0;
};

bool read_task(const State& state, PyObject* self, PyObject* txi_output, PyObject* output_buf,
               PyObject* N, Task& task) {
    const Names& names = state.names;
    task.max_structures = plain_size(plain_attribute(self, names.max_structures).get());
    task.legs_by_slot = plain_attribute(self, names.legs_by_slot);
    const Ref policy = plain_attribute(self, names.unmap_policy);
    if (!state.module_guard.numpy_holds(state)) return false;
    task.N = plain_size(N);
    task.txi_output = capi::readable_vector<double>(txi_output);
    task.output = capi::writable_vector<double>(output_buf);
    if (!task.legs_by_slot || !PyDict_CheckExact(task.legs_by_slot.get()) ||
        task.max_structures < 0 || !policy || !PyUnicode_CheckExact(policy.get()) || task.N < 0 ||
        task.N > std::numeric_limits<std::uint32_t>::max() || !task.txi_output ||
        task.txi_output.size() < task.max_structures || !task.output ||
        task.output.size() < task.N) {
        return false;
    }
    task.equal_split = PyUnicode_CompareWithASCIIString(policy.get(), "equal_split") == 0;
    return true;
}

// True when the cache knows the table's legs as they are now, and all of their ids are indices of
// the output.
bool knows_legs(const LegCache& legs, const Task& task) {
    return legs.is_laid_out(task.legs_by_slot.get()) && !legs.has_odd_slots() &&
           legs.id_bound() <= static_cast<std::size_t>(task.N) &&
           legs.places().size() <= static_cast<std::size_t>(task.max_structures);
}

// The legs of a slot at the end of the flat arrays; false when one is not plain or outside.
bool append_legs(PyObject* legs, Py_ssize_t N, kernels::FlatLegs& flat) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(legs); ++i) {
        PyObject* leg = PyTuple_GET_ITEM(legs, i);
        if (!is_plain_leg(leg)) return false;
        int overflow = 0;
        long long id = PyLong_AsLongLongAndOverflow(PyTuple_GET_ITEM(leg, 0), &overflow);
        if (overflow == 0 && id < 0) id += N;  // a negative id counts from the end
        if (overflow != 0 || id < 0 || id >= N) return false;
        flat.ids.push_back(static_cast<std::uint32_t>(id));
        flat.weights.push_back(PyFloat_AS_DOUBLE(PyTuple_GET_ITEM(leg, 1)));
    }
    return true;
}

// The slots that contribute, in increasing order. The table holds them in the order in which they
// were first stored, which nearly always is the same.
struct Slot {
    Py_ssize_t index;
    PyObject* legs;
};

bool contributing_slots(const Task& task, std::vector<Slot>& slots) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* legs = nullptr;
    while (PyDict_Next(task.legs_by_slot.get(), &position, &key, &legs) != 0) {
        if (!PyLong_CheckExact(key)) return false;
        const Py_ssize_t slot = plain_size(key);
        if (slot < 0 || slot >= task.max_structures || !std::isfinite(task.txi_output[slot])) {
            continue;
        }
        if (legs == Py_None) continue;
        if (!PyTuple_CheckExact(legs)) return false;
        if (PyTuple_GET_SIZE(legs) > 0) slots.push_back({slot, legs});
    }
    const auto by_index = [](const Slot& left, const Slot& right) {
        return left.index < right.index;
    };
    if (!std::is_sorted(slots.begin(), slots.end(), by_index)) {
        std::sort(slots.begin(), slots.end(), by_index);
    }
    return true;
}

// The outputs that contribute, and where the legs of each are laid out.
struct Collected {
    std::vector<double> outputs;
    std::vector<kernels::LegPlace> places;
    kernels::FlatLegs legs;
};

bool collect_from_table(const Task& task, Collected& collected) {
    std::vector<Slot> slots;
    if (!contributing_slots(task, slots)) return false;
    for (const Slot& slot : slots) {
        const std::size_t begin = collected.legs.ids.size();
        const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(slot.legs));
        if (begin + count > std::numeric_limits<std::uint32_t>::max()) return false;
        collected.outputs.push_back(task.txi_output[slot.index]);
        collected.places.push_back(
            {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(count)});
        if (!append_legs(slot.legs, task.N, collected.legs)) return false;
    }
    return true;
}

// Adds everything up and writes it; false, with nothing written, when NumPy would warn.
bool add_and_write(const State& state, const Task& task, std::span<const double> outputs,
                   std::span<const kernels::LegPlace> places, const kernels::FlatLegs& legs) {
    state.totals.reset(static_cast<std::size_t>(task.N));
    const auto add = task.equal_split ? kernels::add_equal_split : kernels::add_in_proportion;
    if (!add(outputs, places, legs, state.totals)) return false;
    kernels::write_reached(state.totals, task.output);
    return true;
}

}  // namespace

bool unmap_fast(const State& state, PyObject* self, PyObject* txi_output, PyObject* output_buf,
                PyObject* N) {
    Task task;
    if (!read_task(state, self, txi_output, output_buf, N, task)) return false;
    const std::shared_ptr<TableCache> cache = state.caches->find(self);
    if (cache && task.txi_output.contiguous() && knows_legs(cache->legs, task)) {
        const auto places = cache->legs.places();
        return add_and_write(state, task, task.txi_output.span().first(places.size()), places,
                             cache->legs.flat());
    }
    Collected collected;
    return collect_from_table(task, collected) &&
           add_and_write(state, task, collected.outputs, collected.places, collected.legs);
}

}  // namespace quorvane::virtualization
