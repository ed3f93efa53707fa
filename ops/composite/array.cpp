// Fixed arrays (elements inline in the record) and variable arrays (one block owned by the
// record, holding the elements up to the highest index set, grown by a factor), with their
// whole-array and per-element flags.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "ops/composite/composite.h"
#include "ops/enum/enum.h"
#include "ops/record/access.h"
#include "ops/record/lifecycle.h"
#include "ops/steps.h"
#include "ops/walk.h"
#include "ops/wire/wire.h"

namespace ovrin {

using namespace steps;

namespace {

// ---------------------------------------------------------------- elements of fixed arrays

uint64_t element_value(const Field &f, mgx_handle_t *h, uint32_t luid, const void *element, uint32_t *err) {
    switch (f.kind) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_get_value(h, luid, static_cast<const T *>(element), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    case Kind::enumeration: return static_cast<const EnumInstance *>(element)->value;
    default: return 0;
    }
}

// Through the element type's own set: the runtime's for primitives, the enumeration's for
// enumerations (which may refuse a value the element's variant does not have).
void element_set(const Field &f, mgx_handle_t *h, uint32_t luid, void *element, const void *value, uint32_t *err) {
    switch (f.kind) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_set(h, luid, static_cast<T *>(element), static_cast<const T *>(value), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
        OVRIN_ADDRESS_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    case Kind::enumeration: return enum_set(*f.type, h, luid, element, value, err);
    default: return fail(h, err, MGX_EINVAL);
    }
}

void element_set_value(const Field &f, mgx_handle_t *h, uint32_t luid, void *element, uint64_t value, uint32_t *err) {
    switch (f.kind) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_set_value(h, luid, static_cast<T *>(element), static_cast<T>(value), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    case Kind::enumeration: return enum_set_value(*f.type, h, luid, element, static_cast<uint32_t>(value), err);
    default: return fail(h, err, MGX_EINVAL);
    }
}

// Whole-array and element flags after an element was set.
void mark_element(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, uint32_t *err) {
    if (!marking(t, h, instance, err)) return;
    if (uint8_t *area = state_area(t, h, luid, instance)) {
        mark(h, luid, area + f.sttr_pos, instance);
        mark(h, luid, area + f.sttr_nested + index, instance);
    }
}

// ---------------------------------------------------------------- blocks of variable arrays

// The record's reference to the per-element bytes, kept in its own flag area.
void set_flag_reference(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const uint8_t *flags) {
    if (!tracking(t, h) || !tracked(instance)) return;
    uint8_t *area = state_area(t, h, luid, instance);
    if (!area || f.sttr_nested == no_area) return;
    notify(h, area + f.sttr_nested, sizeof flags, luid, instance);
    std::memcpy(area + f.sttr_nested, &flags, sizeof flags);
}

// The first time in the process that each record type has to move an array block.
void note_reallocation(const Type &t) {
    if (first_time(t)) trace(t, Message::reallocating, MGX_SEV_ERROR);
}

// Elements moved to a new block take their nested flag registrations along: each element's
// nested records and attribute lists are registered against its flag bytes in the new block.
void reregister(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint8_t *flags, uint32_t n, uint32_t *err) {
    const ArrayLayout layout(f);
    for (uint32_t k = 0; flags && k < n; ++k)
        offset_update(*f.type, h, luid, layout.element(block, k), layout.slot_of(flags, k), err);
}

// Makes room for element index: the count becomes index+1, the new elements freshly initialised,
// in the block's room when it has enough, else in a new block (grown by a factor, see
// ArrayLayout) holding the old elements and their flags. False (12 or an initialisation error)
// leaves the array as it was.
bool grow(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, uint32_t *err) {
    const FieldAt<void> a = field_of(t, f, instance);
    void *&block = a.pointer();
    uint32_t old_count = block ? a.count() : 0;
    uint32_t count = index + 1;
    bool with_flags = tracking(t, h);
    const bool moves = !block || ArrayLayout::room(old_count) != ArrayLayout::room(count);
    if (block && moves) note_reallocation(t);
    void *fresh = grow_block(f, h, luid, block, old_count, count, with_flags, err);
    if (!fresh) return false;
    if (!moves) {
        set_count(h, luid, a, count);
        return true;
    }
    const ArrayLayout layout(f);
    uint8_t *flags = layout.flags(fresh, count, with_flags);
    reregister(f, h, luid, fresh, flags, old_count, err);
    if (block) free_moved_block(f, h, luid, block, old_count);
    set_count(h, luid, a, count);
    notify(h, &block, sizeof block, luid, instance);
    block = fresh;
    set_flag_reference(t, f, h, luid, instance, flags);
    return true;
}

// The element built from the value's wire form, as a clone would build it, in its place.
void rebuild_from_wire(const Field &f, mgx_handle_t *h, uint32_t luid, void *element, const void *value, uint32_t *err) {
    uint32_t need = wire_length(*f.type, h, luid, value) + 1;
    uint32_t length = 0;
    auto *ws = static_cast<uint8_t *>(mgxlib_get_handle_ws(h, need, &length));
    if (!ws || length < need) return fail(h, err, MGX_ENOMEM);
    uint32_t n = encode(*f.type, h, luid, ws, value, static_cast<int32_t>(length - 1), false, err);
    if (failed(err)) return;
    decode(*f.type, h, luid, ws, element, static_cast<int32_t>(n), 0, err);
}

} // namespace

// ---------------------------------------------------------------- fixed arrays

void *fixed_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, uint32_t *err) {
    if (!start(h, luid, instance, err) || !present_in(f, h, instance, err)) return nullptr;
    if (index >= f.count) {
        fail(h, err, MGX_ENOENT);
        return nullptr;
    }
    void *element = field_of(t, f, instance).element(index);
    report(h, luid, element, instance);
    return element;
}

uint64_t fixed_get_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                         uint32_t *err) {
    void *element = fixed_get(t, f, h, luid, instance, index, err);
    return element ? element_value(f, h, luid, element, err) : 0;
}

// The index is trusted, deliberately: no error is reported for one past the array. What lies
// past the array is the record's other fields (or beyond the record), so nothing is written there.
void fixed_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, const void *value,
               uint32_t *err) {
    if (!value) return;
    if (!start(h, luid, instance, err) || !adjust_for(t, f, h, luid, instance, err)) return;
    if (index >= f.count) return;
    void *element = field_of(t, f, instance).element(index);
    element_set(f, h, luid, element, value, err);
    if (failed(err)) return;
    mark_element(t, f, h, luid, instance, index, err);
    report(h, luid, element, instance);
}

void fixed_set_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                     uint64_t value, uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    if (index >= f.count) return fail(h, err, MGX_ENOENT);
    if (!adjust_for(t, f, h, luid, instance, err)) return;
    void *element = field_of(t, f, instance).element(index);
    element_set_value(f, h, luid, element, value, err);
    if (failed(err)) return;
    mark_element(t, f, h, luid, instance, index, err);
}

// Only the upper bound of the length is checked; a length of zero or below copies nothing.
void fixed_get_mem(const Type &, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *buffer, int32_t length,
                   uint32_t *err) {
    if (!start(h, luid, instance, err) || !present_in(f, h, instance, err)) return;
    if (length > static_cast<int32_t>(f.count)) return fail(h, err, MGX_EINVAL);
    if (length <= 0) return;
    if (!buffer) return fail(h, err, MGX_EINVAL);
    std::memcpy(buffer, field_at(instance, f), ArrayLayout(f).size(static_cast<uint32_t>(length), false));
}

// Enumeration elements take the values only: their headers stay the record's.
void fixed_set_mem(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const void *buffer,
                   int32_t length, uint32_t *err) {
    if (!start(h, luid, instance, err) || !adjust_for(t, f, h, luid, instance, err)) return;
    if (length > static_cast<int32_t>(f.count)) return fail(h, err, MGX_EINVAL);
    bool flags = marking(t, h, instance, err);
    if (failed(err)) return;
    if (length > 0) {
        if (!buffer) return fail(h, err, MGX_EINVAL);
        const ArrayLayout layout(f);
        const auto n = static_cast<uint32_t>(length);
        notify(h, field_at(instance, f), layout.size(n, false), luid, instance);
        if (f.kind == Kind::enumeration) {
            const FieldAt<void> a = field_of(t, f, instance);
            for (uint32_t k = 0; k < n; ++k)
                static_cast<EnumInstance *>(a.element(k))->value =
                    static_cast<const EnumInstance *>(layout.element(buffer, k))->value;
        } else {
            std::memcpy(field_at(instance, f), buffer, layout.size(n, false));
        }
    }
    // Only the whole-array flag says so; the element flags are left as they were.
    if (flags)
        if (uint8_t *area = state_area(t, h, luid, instance)) mark(h, luid, area + f.sttr_pos, instance);
}

uint32_t fixed_set_mem_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, const void *buffer, int32_t length) {
    fixed_set_mem(t, f, h, h->desc_call_luid, instance, buffer, length, &h->last_error);
    return h->last_error;
}

// ---------------------------------------------------------------- array flags

namespace {

// The element's flag byte, or null when the index is past the array (2) or there is none.
uint8_t *element_flag(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                      uint32_t *err) {
    if (f.shape == Shape::fixed_array) {
        if (index >= f.count) {
            fail(h, err, MGX_ENOENT);
            return nullptr;
        }
        uint8_t *area = state_area(t, h, luid, instance);
        return area ? area + f.sttr_nested + index : nullptr;
    }
    const FieldAt<void> a = field_of(t, f, instance);
    if (!a.block() || index >= a.count()) {
        fail(h, err, MGX_ENOENT);
        return nullptr;
    }
    const ArrayLayout layout(f);
    return layout.slot_of(layout.flags(a.block(), a.count(), tracking(t, h)), index);
}

} // namespace

uint8_t element_flag_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                         uint32_t *err) {
    if (!start(h, luid, instance, err) || !flags_reachable(t, h, instance, false, err)) return 0;
    const uint8_t *flag = element_flag(t, f, h, luid, instance, index, err);
    return flag ? *flag : 0;
}

void element_flag_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                      uint8_t value, uint32_t *err) {
    if (!start(h, luid, instance, err) || !flags_reachable(t, h, instance, true, err)) return;
    if (!adjust_for(t, f, h, luid, instance, err)) return;
    if (uint8_t *flag = element_flag(t, f, h, luid, instance, index, err)) mark(h, luid, flag, instance, value);
}

void flag_array_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t **out, uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    if (!out) return fail(h, err, MGX_EINVAL);
    *out = nullptr;
    if (!flags_reachable(t, h, instance, false, err)) return;
    if (f.shape == Shape::fixed_array) {
        if (uint8_t *area = state_area(t, h, luid, instance)) *out = area + f.sttr_nested;
        return;
    }
    const FieldAt<void> a = field_of(t, f, instance);
    *out = ArrayLayout(f).flags(a.block(), a.count(), tracking(t, h));
}

// Deliberately not where flag_array_get points: the bytes land at the start of the record's own
// flag area, without write notification. Only as many as the area holds are written.
void flag_array_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const uint8_t *flags,
                    uint32_t count, uint32_t *err) {
    if (!start(h, luid, instance, err) || !flags_reachable(t, h, instance, true, err)) return;
    uint32_t capacity = field_of(t, f, instance).count();
    if (count != capacity) return fail(h, err, MGX_ENOENT);
    if (!adjust_for(t, f, h, luid, instance, err)) return;
    if (count && !flags) return fail(h, err, MGX_EINVAL);
    if (uint8_t *area = state_area(t, h, luid, instance)) std::memcpy(area, flags, std::min(count, t.sttr_size));
}

// ---------------------------------------------------------------- variable arrays

uint32_t *var_length_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!start(h, luid, instance, err) || !present_in(f, h, instance, err)) return nullptr;
    void *count = field_at(instance, t.fields[f.companion]);
    report(h, luid, count, instance);
    return static_cast<uint32_t *>(count);
}

uint32_t var_length_get_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    return var_length_get(t, f, h, luid, instance, err) ? field_of(t, f, instance).count() : 0;
}

void *var_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, uint32_t *err) {
    if (!start(h, luid, instance, err) || !present_in(f, h, instance, err)) return nullptr;
    const FieldAt<void> a = field_of(t, f, instance);
    if (!a.block() || index >= a.count()) {
        fail(h, err, MGX_ENOENT);
        return nullptr;
    }
    void *element = a.element(index);
    report(h, luid, element, instance);
    return element;
}

void var_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, void *value, int deep,
             uint32_t *err) {
    if (!start(h, luid, instance, err) || !adjust_for(t, f, h, luid, instance, err)) return;
    if (!value || index == UINT32_MAX) return fail(h, err, MGX_EINVAL);
    bool flags = marking(t, h, instance, err);
    if (failed(err)) return;
    if (flags && !value_tracked(t, h, value, err)) return;
    const FieldAt<void> a = field_of(t, f, instance);
    if (!a.block() || index >= a.count())
        if (!grow(t, f, h, luid, instance, index, err)) return;
    void *element = a.element(index);
    if (deep) set(*f.type, h, luid, element, value, err);
    else rebuild_from_wire(f, h, luid, element, value, err);
    if (failed(err)) return;
    if (flags) {
        if (uint8_t *area = state_area(t, h, luid, instance)) mark(h, luid, area + f.sttr_pos, instance);
        const ArrayLayout layout(f);
        mark(h, luid, layout.slot_of(layout.flags(a.block(), a.count(), true), index), instance);
    }
    report(h, luid, element, instance);
}

uint32_t var_set_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, uint32_t index, void *value, int deep) {
    var_set(t, f, h, h->desc_call_luid, instance, index, value, deep, &h->last_error);
    return h->last_error;
}

// No error slot: a record without elements (or no record) is left as it is.
void var_remove_elements(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance) {
    if (!instance) return;
    const FieldAt<void> a = field_of(t, f, instance);
    if (!a.block()) return;
    release_array(a, h, luid, a.count(), instance);
    set_count(h, luid, a, 0);
    set_flag_reference(t, f, h, luid, instance, nullptr);
}

} // namespace ovrin
