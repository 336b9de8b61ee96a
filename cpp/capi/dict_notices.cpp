#include "capi/dict_notices.hpp"

#if PY_VERSION_HEX >= 0x030C0000

#include <algorithm>
#include <memory>
#include <new>
#include <unordered_map>

#include "capi/objects.hpp"

namespace quorvane::capi::notices {

namespace {

// Where a dict stands: a stamp, or its place in a group.
class Place {
public:
    Place() = default;
    static Place stamp(std::uint64_t number) noexcept { return Place(number); }
    static Place in_group(std::uint32_t group, std::uint32_t index) noexcept {
        return Place(group_bit | std::uint64_t{group} << 32 | index);
    }

    [[nodiscard]] bool is_stamp() const noexcept { return (bits_ & group_bit) == 0; }
    [[nodiscard]] std::uint64_t number() const noexcept { return bits_; }
    [[nodiscard]] std::uint32_t group() const noexcept {
        return static_cast<std::uint32_t>((bits_ & ~group_bit) >> 32);
    }
    [[nodiscard]] std::uint32_t index() const noexcept { return static_cast<std::uint32_t>(bits_); }
    bool operator==(const Place&) const = default;

private:
    static constexpr std::uint64_t group_bit = std::uint64_t{1} << 63;
    explicit Place(std::uint64_t bits) noexcept : bits_(bits) {}

    std::uint64_t bits_ = 0;
};

// From the address of a dict to its place: open addressing, so that taking one away, as a notice
// does, needs no memory. At most three quarters are used.
class Places {
public:
    struct Cell {
        PyObject* dict = nullptr;
        Place place;
    };

    [[nodiscard]] Cell* find(PyObject* dict) noexcept {
        if (used_ == 0) return nullptr;
        for (std::size_t i = home(dict);; i = next(i)) {
            if (cells_[i].dict == dict) return &cells_[i];
            if (cells_[i].dict == nullptr) return nullptr;
        }
    }

    // A dict that has no cell yet. False when there is no memory for it.
    [[nodiscard]] bool insert(PyObject* dict, Place place) noexcept {
        if (!make_room()) return false;
        put({dict, place});
        ++used_;
        return true;
    }

    // The cells behind it move up, so that none is looked for in vain.
    void erase(Cell* cell) noexcept {
        auto hole = static_cast<std::size_t>(cell - cells_.data());
        --used_;
        for (std::size_t i = next(hole); cells_[i].dict != nullptr; i = next(i)) {
            const std::size_t wanted = home(cells_[i].dict);
            if (((i - wanted) & mask()) < ((i - hole) & mask())) continue;
            cells_[hole] = cells_[i];
            hole = i;
        }
        cells_[hole] = Cell{};
    }

private:
    static constexpr std::size_t smallest = 64;

    [[nodiscard]] std::size_t mask() const noexcept { return cells_.size() - 1; }
    [[nodiscard]] std::size_t next(std::size_t i) const noexcept { return (i + 1) & mask(); }

    // Multiplied by 2^64 over the golden ratio, whose upper bits depend on all of the address's.
    [[nodiscard]] std::size_t home(PyObject* dict) const noexcept {
        const std::uint64_t address{reinterpret_cast<std::uintptr_t>(dict)};
        const std::uint64_t mixed = (address * 0x9E3779B97F4A7C15U) >> 32;
        return std::size_t{mixed} & mask();
    }

    void put(const Cell& cell) noexcept {
        std::size_t i = home(cell.dict);
        while (cells_[i].dict != nullptr) i = next(i);
        cells_[i] = cell;
    }

    // Also gives back what a million dicts have needed, once they are gone.
    [[nodiscard]] bool make_room() noexcept {
        std::size_t wanted = std::max(cells_.size(), smallest);
        if (4 * (used_ + 1) > 3 * wanted) wanted *= 2;
        while (wanted > smallest && 16 * (used_ + 1) < wanted) wanted /= 2;
        return wanted == cells_.size() || resize(wanted);
    }

    [[nodiscard]] bool resize(std::size_t size) noexcept {
        try {
            std::vector<Cell> old(size);
            old.swap(cells_);
            for (const Cell& cell : old) {
                if (cell.dict != nullptr) put(cell);
            }
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    std::vector<Cell> cells_;
    std::size_t used_ = 0;
};

struct Notices {
    Places places;
    std::unordered_map<std::uint32_t, std::vector<PyObject*>*> groups;
    std::uint64_t last_stamp = 0;
    std::uint64_t time = 1;
    std::uint32_t last_group = 0;

    // The one change that is expected.
    PyObject* expected_dict = nullptr;
    PyObject* expected_key = nullptr;

    // The dict that is asked whether it tells, and whether it did.
    PyObject* probed = nullptr;
    bool probed_told = false;
};

// Never destroyed: dicts change and end until the very end of the process.
Notices& all() noexcept {
    static Notices& notices = *new Notices;
    return notices;
}

// The dict is no longer what whoever looked at it has seen. A group may be gone, or have another
// dict at this place by now.
void take_away(Notices& notices, Places::Cell* cell) noexcept {
    const auto [dict, place] = *cell;
    notices.places.erase(cell);
    if (place.is_stamp()) {
        ++notices.time;
        return;
    }
    const auto found = notices.groups.find(place.group());
    if (found == notices.groups.end()) return;
    std::vector<PyObject*>& dicts = *found->second;
    if (place.index() < dicts.size() && dicts[place.index()] == dict) {
        dicts[place.index()] = nullptr;
    }
}

// Called by the interpreter before the change is made, possibly with an error set.
int on_change(PyDict_WatchEvent event, PyObject* dict, PyObject* key, PyObject* /*value*/) {
    Notices& notices = all();
    if (dict == notices.expected_dict && key == notices.expected_key &&
        event != PyDict_EVENT_DEALLOCATED && event != PyDict_EVENT_CLONED) {
        notices.expected_dict = nullptr;
        return 0;
    }
    if (dict == notices.probed && event != PyDict_EVENT_DEALLOCATED) notices.probed_told = true;
    if (Places::Cell* cell = notices.places.find(dict)) take_away(notices, cell);
    return 0;
}

// The number stands in the interpreter's own dictionary.
Ref id_of_current_interpreter() {
    PyObject* dict = PyInterpreterState_GetDict(PyInterpreterState_Get());
    if (dict == nullptr) return {};
    const Ref name = make_str("quorvane.dict_watcher");
    if (Ref id = dict_get(dict, name.get())) return id;
    const int watcher = PyDict_AddWatcher(on_change);
    if (watcher < 0) PyErr_Clear();
    Ref id = make_int(watcher);
    require(PyDict_SetItem(dict, name.get(), id.get()));
    return id;
}

// An instance of a new class, with one attribute.
Ref make_probe() {
    const Ref name = make_str("Probe");
    const Ref bases = make_tuple();
    const Ref members = make_dict();
    const Ref type =
        call(reinterpret_cast<PyObject*>(&PyType_Type), name.get(), bases.get(), members.get());
    Ref probe = call(type.get());
    set_attr(probe.get(), make_str("value").get(), Py_None);
    return probe;
}

}  // namespace

int watcher_id() noexcept {
    try {
        const Ref id = id_of_current_interpreter();
        return id ? static_cast<int>(PyLong_AsLong(id.get())) : -1;
    } catch (const PythonError&) {
        PyErr_Clear();
        return -1;
    }
}

bool tells_of_instances(int watcher_id) noexcept {
    if (watcher_id < 0) return false;
    Notices& notices = all();
    try {
        const Ref probe = make_probe();
        notices.probed = instance_dict(probe.get());
        notices.probed_told = false;
        if (notices.probed == nullptr) return false;
        require(PyDict_Watch(watcher_id, notices.probed));
        set_attr(probe.get(), make_str("value").get(), Py_True);
    } catch (const PythonError&) {
        PyErr_Clear();
        notices.probed_told = false;
    }
    notices.probed = nullptr;
    return notices.probed_told;
}

std::uint64_t stamp_of(PyObject* dict) noexcept {
    Notices& notices = all();
    if (Places::Cell* cell = notices.places.find(dict)) {
        if (cell->place.is_stamp()) return cell->place.number();
        take_away(notices, cell);
    }
    const Place place = Place::stamp(++notices.last_stamp);
    return notices.places.insert(dict, place) ? place.number() : 0;
}

bool has_stamp(PyObject* dict, std::uint64_t stamp) noexcept {
    const Places::Cell* cell = all().places.find(dict);
    return cell != nullptr && cell->place.is_stamp() && cell->place.number() == stamp;
}

std::uint64_t renewed(PyObject* dict, std::uint64_t stamp) noexcept {
    Notices& notices = all();
    Places::Cell* cell = notices.places.find(dict);
    if (stamp == 0 || cell == nullptr || !cell->place.is_stamp() || cell->place.number() != stamp) {
        return 0;
    }
    cell->place = Place::stamp(++notices.last_stamp);
    ++notices.time;
    return cell->place.number();
}

std::uint64_t time() noexcept { return all().time; }

std::uint32_t add_group(std::vector<PyObject*>& dicts) {
    Notices& notices = all();
    notices.groups.emplace(++notices.last_group, &dicts);
    return notices.last_group;
}

void remove_group(std::uint32_t group) noexcept { all().groups.erase(group); }

bool put_in_group(PyObject* dict, std::uint32_t group, std::uint32_t index) noexcept {
    Notices& notices = all();
    if (Places::Cell* cell = notices.places.find(dict)) take_away(notices, cell);
    return notices.places.insert(dict, Place::in_group(group, index));
}

bool is_in_group(PyObject* dict, std::uint32_t group, std::uint32_t index) noexcept {
    const Places::Cell* cell = all().places.find(dict);
    return cell != nullptr && cell->place == Place::in_group(group, index);
}

Expected::Expected(PyObject* dict, PyObject* key) noexcept {
    Notices& notices = all();
    notices.expected_dict = dict;
    notices.expected_key = key;
}

Expected::~Expected() { all().expected_dict = nullptr; }

}  // namespace quorvane::capi::notices

#endif
