#pragma once

#include <memory>
#include <unordered_map>

#include "virtualization/shortcuts/column_memory.hpp"
#include "virtualization/shortcuts/live_instruments.hpp"
#include "virtualization/shortcuts/restored_maps.hpp"

namespace quorvane::virtualization {

// What is kept of a rotation's last day, so that what has not changed is not written again, nor
// allocated. It is never the truth: each part is compared with the rotation's own tables before it
// is used.
struct DayMemory {
    SlotMemory slots;
    LegMemory legs;
    MetadataMemory metadata;
    ColumnMemory columns;
    LiveInstruments live;
    RestoredMaps restored;
};

// The memories of all rotations of a module, outside the instances so that their attributes are
// exactly the documented ones. A memory goes when its rotation goes.
class DayMemories {
public:
    DayMemories();

    // The rotation's memory; empty when it cannot be watched for its end.
    std::shared_ptr<DayMemory> of(PyObject* rotation);

    // The same if there is one already.
    [[nodiscard]] std::shared_ptr<DayMemory> find(PyObject* rotation) const;

private:
    struct Entry {
        Ref weak_reference;
        std::shared_ptr<DayMemory> memory;
    };
    struct Table {
        std::unordered_map<PyObject*, Entry> entries;  // by rotation
        std::unordered_map<PyObject*, PyObject*> rotation_by_reference;
    };

    // The callback's own hold on the table, which may be gone before the last weak reference.
    using TableLink = std::weak_ptr<Table>;
    static TableLink& link_of(PyObject* capsule);
    static void drop_link(PyObject* capsule);
    static PyObject* forget(PyObject* capsule, PyObject* weak_reference);

    std::shared_ptr<Table> table_;
    Ref forget_;
};

}  // namespace quorvane::virtualization
