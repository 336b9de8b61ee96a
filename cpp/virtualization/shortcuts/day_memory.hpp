#pragma once

#include <memory>
#include <unordered_map>

#include "virtualization/shortcuts/leg_memory.hpp"
#include "virtualization/shortcuts/metadata_memory.hpp"
#include "virtualization/shortcuts/slot_memory.hpp"

namespace quorvane::virtualization {

// What is kept of a rotation's last day, so that what has not changed is not written again. It is
// never the truth: each part is compared with the rotation's own tables before it is used.
struct DayMemory {
    SlotMemory slots;
    LegMemory legs;
    MetadataMemory metadata;
    std::vector<kernels::Contribution> contributions;
};

// The memories of all rotations of a module, outside the instances so that their attributes are
// exactly the documented ones. A memory goes when its rotation goes.
class DayMemories {
public:
    DayMemories();

    // The rotation's memory; null when it cannot be watched for its end.
    DayMemory* of(PyObject* rotation);

    // The same if there is one already.
    DayMemory* find(PyObject* rotation) noexcept;

private:
    struct Entry {
        Ref weak_reference;
        std::unique_ptr<DayMemory> memory;
    };

    static PyObject* forget(PyObject* capsule, PyObject* weak_reference);

    std::unordered_map<PyObject*, Entry> entries_;  // by rotation
    std::unordered_map<PyObject*, PyObject*> rotation_by_reference_;
    Ref forget_;
};

}  // namespace quorvane::virtualization
