// Helpers every generic operation shares: header and field access, counts read and written at
// their counter's width, the layout of a variable array's block, counts kept across a read, the
// handle's state-tracking mode, the state-flag area of an instance, write notification, the one
// error policy, and an instance's descriptor and domain variant.
#ifndef OVRIN_OPS_COMMON_H
#define OVRIN_OPS_COMMON_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ops/trace.h"
#include "ops/types.h"

namespace ovrin {

inline mgx_instance_hdr_t *hdr(void *instance) { return static_cast<mgx_instance_hdr_t *>(instance); }
inline const mgx_instance_hdr_t *hdr(const void *instance) { return static_cast<const mgx_instance_hdr_t *>(instance); }
inline uint8_t *bytes(void *p) { return static_cast<uint8_t *>(p); }
inline const uint8_t *bytes(const void *p) { return static_cast<const uint8_t *>(p); }
inline void *field_at(void *instance, const Field &f) { return bytes(instance) + f.offset; }
inline const void *field_at(const void *instance, const Field &f) { return bytes(instance) + f.offset; }

// A count or length field, read and written at its own width (the generator allows u_int16 and
// u_int32 counters). The field walker (ops/walk.h) reads counts through these; nothing else does.
inline uint32_t count_at(const void *instance, const Field &counter) {
    const void *p = field_at(instance, counter);
    uint16_t narrow;
    uint32_t wide;
    if (counter.kind == Kind::u16) return std::memcpy(&narrow, p, sizeof narrow), narrow;
    return std::memcpy(&wide, p, sizeof wide), wide;
}
inline void store_count(void *instance, const Field &counter, uint32_t value) {
    void *p = field_at(instance, counter);
    if (counter.kind == Kind::u16) {
        auto narrow = static_cast<uint16_t>(value);
        std::memcpy(p, &narrow, sizeof narrow);
    } else {
        std::memcpy(p, &value, sizeof value);
    }
}

// The storage of a variable array: its elements, then, in a tracking instance, one flag slot per
// element. A slot starts with the element's own state byte (the one the wire carries) and holds
// the element's state-flag area, so that every flag written through an element stays inside its
// slot: two bytes, or the element type's area when that is larger, to its alignment. Worked out
// here and nowhere else.
//
// A block has room for room(count) elements and as many slots, the flag region starting after
// the room: exactly count up to 16, past that count rounded up to the next eighth of its power of
// two (at most an eighth unused). The room depends on the count alone, so every reader finds the
// flag region from the count; a block keeps its place while its count grows inside the same room,
// so that setting elements one past the end moves it O(log N) times. What lies past the count
// (zeroed elements and slots) is never read: to every operation the array has count elements.
struct ArrayLayout {
    size_t elem_size, slot;
    explicit ArrayLayout(const Field &f) : elem_size(f.elem_size), slot(2) {
        if (f.type && f.type->sttr_size > slot) slot = f.type->sttr_size;
        size_t align = f.type && f.type->sttr_align > 1 ? f.type->sttr_align : 1;
        slot = (slot + align - 1) / align * align;
    }
    static uint32_t room(uint32_t count) {
        if (count <= 16) return count;
        const uint32_t step = uint32_t{1} << (31 - __builtin_clz(count) - 3);
        const uint64_t rounded = (uint64_t{count} + step - 1) / step * step;
        return rounded > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(rounded);
    }
    // The bytes of count elements and their slots, without the room around them.
    size_t size(uint32_t count, bool tracked) const { return count * (elem_size + (tracked ? slot : 0)); }
    // The bytes of a whole block made for count elements.
    size_t block_size(uint32_t count, bool tracked) const { return size(room(count), tracked); }
    void *element(void *block, uint32_t k) const { return bytes(block) + size_t{k} * elem_size; }
    const void *element(const void *block, uint32_t k) const { return bytes(block) + size_t{k} * elem_size; }
    // The flag region of a block of count elements (null untracked or without a block), and
    // element k's slot in it.
    uint8_t *flags(void *block, uint32_t count, bool tracked) const {
        return tracked && block ? bytes(block) + size_t{room(count)} * elem_size : nullptr;
    }
    const uint8_t *flags(const void *block, uint32_t count, bool tracked) const {
        return tracked && block ? bytes(block) + size_t{room(count)} * elem_size : nullptr;
    }
    uint8_t *slot_of(uint8_t *flags, uint32_t k) const { return flags ? flags + size_t{k} * slot : nullptr; }
    const uint8_t *slot_of(const uint8_t *flags, uint32_t k) const { return flags ? flags + size_t{k} * slot : nullptr; }
};

// Counts and lengths as they described an instance's storage before a decode or an XML read
// overwrote them: kept from the counter's read until the string or array it counts is read.
class OldCounts {
public:
    void keep(uint16_t counter, uint32_t value) {
        if (n_ < max_counted_fields) counter_[n_] = counter, value_[n_++] = value;
    }
    uint32_t of(int counter) const {
        for (unsigned k = 0; k < n_; ++k)
            if (counter_[k] == counter) return value_[k];
        return 0;
    }
    bool has(int counter) const {
        for (unsigned k = 0; k < n_; ++k)
            if (counter_[k] == counter) return true;
        return false;
    }

private:
    uint16_t counter_[max_counted_fields];
    uint32_t value_[max_counted_fields];
    unsigned n_ = 0;
};

// A field exists in an instance whose variant is at least the field's from-variant.
inline bool present(const Field &f, int variant) { return variant >= f.from_variant; }

// Trace at severity 0 and stop the process: the conditions no caller can recover from.
[[noreturn]] void fatal(const Type &t, Message m);

// The handle's state-tracking mode, read afresh each time; a corrupt marker is fatal.
inline bool tracking(const Type &t, const mgx_handle_t *h) {
    if (!h->sttr) return false;
    uint32_t marker = h->sttr->marker;
    if (marker == MGX_STTR_TRACKED) return true;
    if (marker != MGX_STTR_UNTRACKED) fatal(t, Message::corrupted_handle);
    return false;
}

// The state-flag area of a tracked instance: at the runtime-recorded offset when the instance
// says so (bit 6) or when it is nested inside another instance's area (the container recorded
// it); otherwise inline, behind the instance's data. Null when the instance keeps no area.
uint8_t *state_area(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance);

inline void notify(mgx_handle_t *h, const void *addr, size_t length, uint32_t luid, const void *base = nullptr) {
    if (h->write_hook) h->write_hook(h, addr, length, luid, base);
}

// The error slot, under one policy for every operation: an operation handed a slot that already
// holds a code does nothing (begin); the slot keeps the first code it is given (keep_first), and
// each failure also goes to the handle's error store (fail). A slot may be null: nothing is kept.
inline bool failed(const uint32_t *err) { return err && *err; }

inline void keep_first(uint32_t *err, uint32_t code) {
    if (err && !*err) *err = code;
}

inline void fail(mgx_handle_t *h, uint32_t *err, uint32_t code) {
    keep_first(err, code);
    mgx_store_err(h, code);
}

// The start of every operation that takes an error slot: nothing to do when it already holds a
// code; otherwise the handle's last error is cleared.
inline bool begin(mgx_handle_t *h, uint32_t luid, const void *instance, const uint32_t *err) {
    if (failed(err)) return false;
    mgx_clear_last_error(h, luid, instance);
    return true;
}

// The descriptor an instance of t is to point at in this handle.
void *descriptor_for(const Type &t, mgx_handle_t *h, uint32_t luid);

// The variant the handle's domain gives t, capped to t's variants (negative kept).
int8_t domain_variant(const Type &t, mgx_handle_t *h, uint32_t *err);

// Room for the object references a field lists: on the stack for the usual few, from the C heap
// beyond. The bundle makes no C++ allocation (it is built without exceptions), so nothing it
// allocates can throw; ok() is false when the heap refuses.
class RefList {
public:
    explicit RefList(uint32_t n) : refs_(n <= kept ? local_ : static_cast<uint64_t *>(std::calloc(n, sizeof(uint64_t)))), n_(n) {}
    ~RefList() {
        if (refs_ != local_) std::free(refs_);
    }
    RefList(const RefList &) = delete;
    RefList &operator=(const RefList &) = delete;
    bool ok() const { return refs_ != nullptr; }
    uint64_t *data() { return refs_; }
    const uint64_t *begin() const { return refs_; }
    const uint64_t *end() const { return refs_ + n_; }

private:
    static constexpr uint32_t kept = 16;
    uint64_t local_[kept] = {};
    uint64_t *refs_;
    uint32_t n_;
};

} // namespace ovrin

#endif
