#include "virtualization/fast/recording.hpp"

#include <cmath>

#include "capi/gc_pause.hpp"
#include "virtualization/cache/daily_words.hpp"
#include "virtualization/fast/day_run.hpp"
#include "virtualization/fast/plain_legs.hpp"
#include "virtualization/guards/plain_size.hpp"
#include "virtualization/guards/plain_values.hpp"
#include "virtualization/slot_reset.hpp"
#include "virtualization/slots.hpp"

namespace quorvane::virtualization {

namespace {

// Each look goes through all slots; a day in which Python changes the tables again and again does
// without the cache.
constexpr int most_looks = 4;

// What the validity step says, of exact types; false of anything else.
bool read_truth(PyObject* object, bool& truth) noexcept {
    if (!PyBool_Check(object) && !Py_IS_TYPE(object, &PyBoolArrType_Type)) return false;
    truth = object == Py_True || object == PyArrayScalar_True;
    return true;
}

}  // namespace

Recording::Recording(const State& state, PyObject* self, const DayMasks& masks,
                     PyObject* structures)
    : state_(state),
      self_(self),
      masks_(masks),
      guard_(state, self),
      report_(state, structures),
      cache_(state.caches->of(self)) {}

// Asked once per place where Python ran.
bool Recording::is_ready() {
    if (cache_ == nullptr || !guard_.holds()) return false;
    tables_ = guard_.tables();
    if (cache_->is_current(tables_)) return true;
    return looks_++ < most_looks && cache_->refresh(tables_);
}

Py_ssize_t Recording::begin(Ref& reset_entry) {
    if (cache_ == nullptr) {
        reset_entry = deactivate_slots(state_, self_);
        return 0;
    }
    DayRun run(state_, guard_, masks_, report_, *cache_);
    const bool is_run = run.is_possible();
    if (is_run && run.settle()) return run.record();
    if (!is_run && reset_plainly(reset_entry)) return 0;
    reset_entry = deactivate_slots(state_, self_);
    if (is_run && run.is_possible() && run.adopt_reset()) return run.record();
    if (is_ready()) cache_->metadata.adopt_reset(state_, tables_.metadata_by_slot);
    return 0;
}

// Every slot is reset before Python runs again, where resetting runs none.
bool Recording::reset_plainly(Ref& reset_entry) {
    if (!is_ready() || !cache_->metadata.settle(state_, tables_.metadata_by_slot)) return false;
    PyObject* list = tables_.metadata_by_slot;
    cache_->metadata.reset_day(state_, list);
    const Py_ssize_t slots = PyList_GET_SIZE(list);
    if (slots > 0) reset_entry = Ref::borrow(PyList_GET_ITEM(list, slots - 1));
    return true;
}

void Recording::record(LastItem& last, std::size_t position) {
    Item item;
    item.position = position;
    const Reached reached = record_plainly(last, item);
    if (reached == Reached::end) return;
    if (reached < Reached::structure) normalize_item(state_, self_, last);
    if (reached < Reached::slot) virtualization::find_slot(state_, self_, last);
    if (reached < Reached::verdict) judge_structure(state_, self_, masks_, last);
    store_structure(state_, self_, last, cache_.get());
}

// Ready again after Python ran, with a record that is still plain; it may have been changed.
bool Recording::went_on(const LastItem& last, Item& item) {
    return is_ready() && read_record(state_, last.structure.get(), item.structure);
}

Recording::Reached Recording::record_plainly(LastItem& last, Item& item) {
    if (!is_ready()) return Reached::nothing;
    if (const Reached reached = normalize(last, item); reached != Reached::end) return reached;
    if (const Reached reached = find_slot(last, item); reached != Reached::end) return reached;
    bool valid = false;
    if (const Reached reached = judge(last, item, valid); reached != Reached::end) return reached;
    return store(last, item, valid);
}

// Where a step is somebody else's, the variables hold what the steps make, as it may be looked at;
// otherwise they are emptied, which drops what the steps of an item before have made.
Recording::Reached Recording::normalize(LastItem& last, Item& item) {
    if (!guard_.own_steps().normalize) {
        normalize_item(state_, self_, last);
        return went_on(last, item) ? Reached::end : Reached::structure;
    }
    if (!read(last.raw.get(), item)) return Reached::nothing;
    const bool drops = last.structure || last.slot || last.valid || last.metadata;
    if (!guard_.own_steps().all()) {
        last.structure = make_record(state_, item.structure);
    } else if (drops) {
        last.structure = Ref();
        last.slot = Ref();
        last.valid = Ref();
        last.metadata = Ref();
    }
    if (!drops || is_ready()) return Reached::end;
    fill_variables(last, item, Reached::structure);
    return Reached::structure;
}

Recording::Reached Recording::find_slot(LastItem& last, Item& item) {
    if (!guard_.own_steps().slot) {
        fill_variables(last, item, Reached::structure);
        virtualization::find_slot(state_, self_, last);
        return went_on(last, item) && take_slot(last.slot.get(), item) ? Reached::end
                                                                       : Reached::slot;
    }
    if (!item.slot_object) {
        const std::uint64_t generation = cache_->slots.generation();
        const Ref slot = slot_of_key(state_, self_, item.structure.key.get());
        if (!is_ready() || !take_slot(slot.get(), item)) {
            item.slot_object = slot.share();
            fill_variables(last, item, Reached::slot);
            return Reached::slot;
        }
        if (cache_->slots.generation() == generation) {
            cache_->slots.remember(item.position, item.structure.key.get(),
                                   {slot.get(), item.slot});
        }
    }
    if (!guard_.own_steps().all()) last.slot = item.slot_object.share();
    return Reached::end;
}

Recording::Reached Recording::judge(LastItem& last, Item& item, bool& valid) {
    item.was_judged_by_step = !guard_.own_steps().validity;
    if (item.was_judged_by_step) {
        fill_variables(last, item, Reached::slot);
        judge_structure(state_, self_, masks_, last);
        return went_on(last, item) && read_truth(last.valid.get(), valid) ? Reached::end
                                                                          : Reached::verdict;
    }
    const Verdict verdict = judge_legs(item.structure.legs.get(), masks_);
    if (verdict == Verdict::unknown) {
        fill_variables(last, item, Reached::slot);
        return Reached::slot;
    }
    valid = verdict == Verdict::valid && std::isfinite(item.structure.value);
    if (!guard_.own_steps().all()) last.valid = capi::to_bool(valid);
    return Reached::end;
}

// What the variables held before may have run code when it went.
Recording::Reached Recording::store(LastItem& last, const Item& item, bool valid) {
    const bool may_have_run = last.metadata || !guard_.own_steps().all();
    last.metadata = Ref();
    if ((!may_have_run || is_ready()) && store_plainly(item, valid)) return Reached::end;
    fill_variables(last, item, Reached::verdict);
    if (!item.was_judged_by_step) last.valid = capi::to_bool(valid);
    return Reached::verdict;
}

// What runs between the steps could change the item's own metadata, which is copied then.
bool Recording::read(PyObject* raw, Item& item) {
    const capi::GcPause no_finalizers;
    ReportedItem said;
    if (!read_item(state_, raw, said)) return false;
    const bool runs_alone = guard_.own_steps().all() && !cache_->slots.have_odd_keys();
    const Ref made_key = tuple_of_list(said.key);
    if (made_key) said.key = made_key.get();
    const SlotCache::Found slot = cache_->slots.find(tables_.slot_by_key, item.position, said.key);
    // Of a list normalisation makes two tuples, one of them for a new slot or for the record.
    if (!is_plain_key(said.key) || (made_key && (slot.slot == nullptr || !runs_alone)))
        return false;
    PlainStructure& structure = item.structure;
    structure.legs = legs_to_store(*cache_, slot, said);
    if (!structure.legs) return false;
    structure.key = Ref::borrow(said.key);
    structure.raw_value = Ref::borrow(said.raw_value);
    structure.value = said.value;
    structure.metadata = Ref::borrow(said.own_metadata);
    if (structure.metadata && !runs_alone) complete_metadata(state_, structure);
    if (guard_.own_steps().slot && slot.slot != nullptr) {
        item.slot_object = Ref::borrow(slot.slot);
        item.slot = slot.index;
    }
    return true;
}

// A slot of the rotation's, as an exact int.
bool Recording::take_slot(PyObject* slot, Item& item) const {
    const Py_ssize_t index = plain_size(slot);
    if (index < 0 || index >= tables_.max_structures) return false;
    item.slot_object = Ref::borrow(slot);
    item.slot = static_cast<std::size_t>(index);
    return true;
}

bool Recording::store_plainly(const Item& item, bool valid) {
    const PlainStructure& structure = item.structure;
    const auto row = capi::writable_vector<double>(guard_.txi_input());
    const auto index = static_cast<Py_ssize_t>(item.slot);
    if (!row || index >= row.size() || index >= tables_.max_structures ||
        !cache_->metadata.can_report(state_, tables_.metadata_by_slot, item.slot)) {
        return false;
    }
    const capi::GcPause no_finalizers;
    if (!cache_->legs.holds(item.slot, structure.legs.get())) {
        cache_->legs.store(tables_.legs_by_slot, item.slot_object.get(), item.slot,
                           structure.legs.get());
    }
    ReportedStructure reported{
        item.slot_object.get(),   item.slot, structure.key.get(), structure.legs.get(),
        structure.metadata.get(), valid,     structure.says_all};
    if (reported.says_all && reported.own_metadata != nullptr &&
        says_only_common(state_, reported.own_metadata, reported.key, reported.legs)) {
        reported.own_metadata = nullptr;
        reported.says_all = false;
    }
    cache_->metadata.report_alone(state_, tables_.metadata_by_slot, reported);
    if (valid) row[index] = structure.value;
    return true;
}

// Somebody may have overridden a step after the structure was read.
void Recording::fill_variables(LastItem& last, const Item& item, Reached reached) const {
    if (!last.structure) last.structure = make_record(state_, item.structure);
    if (reached >= Reached::slot) last.slot = item.slot_object.share();
}

}  // namespace quorvane::virtualization
