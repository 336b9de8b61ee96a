#pragma once

#include <memory>
#include <unordered_map>

#include "virtualization/cache/column_cache.hpp"
#include "virtualization/cache/leg_cache.hpp"
#include "virtualization/cache/live_instruments.hpp"
#include "virtualization/cache/metadata_cache.hpp"
#include "virtualization/cache/slot_cache.hpp"
#include "virtualization/guards/tables.hpp"

namespace quorvane::virtualization {

// What is kept of a rotation's last day, so that what has not changed is not written again, nor
// allocated. It is never the truth: it is brought up to date with what others have changed in the
// tables before it is used.
struct TableCache {
    explicit TableCache(const capi::DictWatcher& watcher)
        : slots(watcher), legs(watcher), metadata(watcher) {}

    // True when the slots and the legs are known; the metadata is settled by itself.
    bool refresh(const Tables& tables);
    // Takes over tables of which somebody else has found that all they hold is plain.
    void adopt(const Tables& tables);
    // True when they are known without another look.
    [[nodiscard]] bool is_current(const Tables& tables) const noexcept;

    SlotCache slots;
    LegCache legs;
    MetadataCache metadata;
    ColumnCache columns;
    LiveInstruments live;
};

// table[slot] = legs, and map[key] = value in one of the slot maps. The cache, if there is one,
// goes along where it knows the table.
void set_legs(TableCache* cache, PyObject* table, PyObject* slot, PyObject* legs);
void set_slot(TableCache* cache, PyObject* map, PyObject* key, PyObject* value);

// The caches of all rotations of a module, outside the instances so that their attributes are
// exactly the documented ones. A cache goes when its rotation goes.
class TableCaches {
public:
    explicit TableCaches(const capi::DictWatcher& watcher);

    // The rotation's cache; empty when it cannot be watched for its end.
    std::shared_ptr<TableCache> of(PyObject* rotation);

    // The same if there is one already.
    [[nodiscard]] std::shared_ptr<TableCache> find(PyObject* rotation) const;

private:
    struct Entry {
        Ref weak_reference;
        std::shared_ptr<TableCache> cache;
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

    const capi::DictWatcher& watcher_;
    std::shared_ptr<Table> table_;
    Ref forget_;
};

}  // namespace quorvane::virtualization
