// The wire rules, written once, as the pieces both wire paths are made of: the encoder's and the
// decoder's state through one record, a record's opening and closing, one scalar member, one
// composite member (fixed array, counted string, variable array, union member) and a run of
// fixed-width members.
//
// Two paths put the pieces together. The walked path (wire.cpp) loops over a variant's wire plan
// and picks each member's piece by its kind at run time. The compiled path is code the generator
// writes per record and union: the same pieces called in wire order, with kinds, offsets and
// nested types fixed, so a nested record's code is called (and may be inlined) directly. A run of
// fixed-width members reserves its bytes once: while the handle does not track state, no error
// is pending and the room holds the whole run, each member goes straight to its primitive, whose
// own checks then cannot fail; otherwise the run is handed to the walked loop, which gives every
// member its own error cell and state byte as always. Both paths therefore make the same bytes,
// errors and calls; the wire_diff fuzz target holds them to it over both catalogues.
#ifndef OVRIN_OPS_WIRE_CODE_H
#define OVRIN_OPS_WIRE_CODE_H

#include <cstring>

#include "ops/walk.h"
#include "ops/wire/wire.h"

namespace ovrin::wire {

// The bytes a fixed-width primitive takes on the wire; 0 for the others. The runtime says the
// same through T_len (a test holds the two together).
constexpr int32_t width_of(Kind k) {
    switch (k) {
    case Kind::u8:
    case Kind::boolean: return 1;
    case Kind::u16: return 2;
    case Kind::u32:
    case Kind::ipv4_addr: return 4;
    case Kind::u64: return 8;
    case Kind::mac_addr: return 6;
    case Kind::ipv6_addr: return 16;
    default: return 0;
    }
}

template <Kind K> struct PrimOf;
#define OVRIN_PRIM_OF(K, T, S, A)                                                                                                \
    template <> struct PrimOf<Kind::K> {                                                                                         \
        using type = T;                                                                                                          \
        static uint32_t len(mgx_handle_t *h, uint32_t luid, const void *p) {                                                     \
            return T##_len(h, luid, static_cast<const T *>(p));                                                                  \
        }                                                                                                                        \
        static uint32_t marshal(mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *p, int32_t space, uint32_t *e) {         \
            return T##_marshal(h, luid, b, static_cast<const T *>(p), space, e);                                                 \
        }                                                                                                                        \
        static uint32_t unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *b, void *p, int32_t length, uint32_t flags,     \
                                  uint32_t *e) {                                                                                 \
            return T##_unmarshal(h, luid, b, static_cast<T *>(p), length, flags, e);                                             \
        }                                                                                                                        \
    };
OVRIN_ALL_PRIMS(OVRIN_PRIM_OF)
#undef OVRIN_PRIM_OF

// The compiled functions of a type, as the generator declares them.
using EncodeFn = uint32_t (*)(mgx_handle_t *, uint32_t, uint8_t *, const void *, int32_t, bool, uint32_t *);
using DecodeFn = uint32_t (*)(mgx_handle_t *, uint32_t, const uint8_t *, void *, int32_t, uint32_t, uint32_t *);
using LengthFn = uint32_t (*)(mgx_handle_t *, uint32_t, const void *);

// ------------------------------------------------------------------ length

struct Length {
    mgx_handle_t *h;
    uint32_t luid;
    uint32_t n = 6, state = 0; // a record's header, and the state bytes a tracking handle adds

    uint32_t total(const Type &t, const void *instance) const { return !instance || !tracking(t, h) ? n : n + state; }
};

// The variant whose plan a length or an encode of the instance follows: negative for none.
inline int8_t plan_variant(const Type &t, int8_t variant) { return variant < t.n_variants ? variant : t.last_variant(); }

// A composite member's length, one piece per shape (the generated code names the shape; the walk
// picks it by the field's).
template <class Elem> void length_fixed(const FieldAt<const void> &a, Length &l, Elem elem) {
    const auto run = a.run();
    for (uint32_t k = 0; k < a.field().count; ++k) l.n += elem(l, run[k]);
    l.state += 1;
}
[[gnu::always_inline]] inline void length_string(const FieldAt<const void> &a, Length &l) {
    uint32_t len = a.count();
    l.n += char_len() * len;
    l.state += 1 + len;
}
template <class Elem> void length_array(const FieldAt<const void> &a, Length &l, Elem elem) {
    uint32_t count = a.count();
    const auto run = a.run();
    for (uint32_t k = 0; k < count; ++k) l.n += elem(l, run.base ? run[k] : nullptr);
    l.state += 1 + count;
}
template <class Elem> [[gnu::always_inline]] inline void length_member(const FieldAt<const void> &a, Length &l, Elem elem) {
    if (a.selected()) l.n += elem(l, a.block());
    l.state += 1;
}
template <class Elem> void length_composite(const FieldAt<const void> &a, Length &l, Elem elem) {
    switch (a.field().shape) {
    case Shape::scalar: return;
    case Shape::fixed_array: return length_fixed(a, l, elem);
    case Shape::var_string: return length_string(a, l);
    case Shape::var_array: return length_array(a, l, elem);
    case Shape::member: return length_member(a, l, elem);
    }
}

// ------------------------------------------------------------------ encoder

class Writer {
public:
    mgx_handle_t *h;
    uint32_t luid;
    uint8_t *buf;
    int32_t space;
    uint32_t *err;
    int32_t pos = 0;
    const uint8_t *area = nullptr; // the instance's state-flag area, when it is tracked
    bool tracked = false;          // the handle tracks state: every member has its state byte
    int32_t header = 0;            // where the variant jump stands
    bool jump_written = false;

    Writer(mgx_handle_t *h_, uint32_t luid_, uint8_t *buf_, int32_t space_, uint32_t *err_)
        : h(h_), luid(luid_), buf(buf_), space(space_), err(err_ ? err_ : &scratch_) {}
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    int32_t left() const { return space - pos; }
    // A member's state byte is stored even at the end of the space, one byte past it: callers of
    // a tracked encode give a buffer one byte longer than the space they declare.
    void state_byte(uint8_t v) {
        buf[pos] = v;
        if (pos < space) ++pos;
    }
    void error(uint32_t code) { fail(h, err, code); }
    uint8_t flag(uint16_t sttr_pos) const { return area ? area[sttr_pos] : 0; }

    // A run of fixed-width members of `width` bytes can go straight to the primitives (PutRun).
    bool fits(int32_t width) const { return !tracked && !*err && left() >= width; }

private:
    uint32_t scratch_ = 0;
};

// The opening of encode and decode: false when there is nothing to do (the slot holds a code) or
// not one byte of room (error 90).
inline bool wire_start(mgx_handle_t *h, uint32_t luid, const void *instance, int32_t room, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return false;
    if (room < 1) [[unlikely]]
        fail(h, err, MGX_ESHORT);
    return room >= 1;
}

// The object flags that travel: state tracked, retained data.
inline constexpr uint8_t wire_flag_mask = MGX_IF_TRACKED | MGX_IF_HD_MAPPED;

// The record's opening: the slot and room checked, the header written (variant, object flag,
// retained data, a place for the variant jump). The variant whose members follow; negative when
// none do (nothing at all is written when the slot held a code or there was no room). Inlined
// into each type's code, where the writer's fields are the function's own arguments.
[[gnu::always_inline]] inline int8_t open_record(const Type &t, Writer &w, const void *instance, bool check) {
    mgx_handle_t *const h = w.h;
    const uint32_t luid = w.luid;
    uint8_t *const buf = w.buf;
    const int32_t space = w.space;
    uint32_t *const err = w.err;
    if (!wire_start(h, luid, instance, space, err)) return -1;
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    uint32_t lookup_err = 0;
    int8_t domain = mgx_domain_lookup_variant(h, &h->variant_domain, mgx_get_manifested_type_info(instance), &lookup_err);
    if (check && variant > domain) [[unlikely]] {
        mgx_store_epoch_err(h, MGX_EVARIANT, err);
        variant = domain;
    }
    if (variant > t.last_variant()) variant = t.last_variant();

    uint32_t e = 0;
    int32_t pos = static_cast<int32_t>(_mgx_instance_variant_marshal(h, luid, buf, variant, space, &e));
    keep_first(err, e);
    uint8_t flag = mgx_get_instance_obj_flag(instance, 1, 0);
    const bool tracked = tracking(t, h);
    w.tracked = tracked;
    if (tracked) [[unlikely]] {
        flag |= MGX_IF_TRACKED;
        if (instance && (hdr(instance)->flags & MGX_IF_TRACKED)) w.area = state_area(t, h, luid, const_cast<void *>(instance));
    } else {
        flag &= static_cast<uint8_t>(~MGX_IF_TRACKED);
    }
    flag &= wire_flag_mask;
    e = 0;
    pos += static_cast<int32_t>(_mgx_instance_obj_flag_marshal(h, luid, buf + pos, flag, space - pos, &e));
    keep_first(err, e);
    if (flag & MGX_IF_HD_MAPPED) [[unlikely]] {
        e = 0;
        pos += static_cast<int32_t>(_mgx_instance_ra_data_marshal(h, luid, buf + pos, instance, space - pos, &e));
        keep_first(err, e);
    }
    w.header = pos;
    e = 0;
    const int32_t after = pos + static_cast<int32_t>(_mgx_variant_jump_marshal(h, luid, buf + pos, 0, space - pos, &e));
    keep_first(err, e);
    w.jump_written = after == pos + 4;
    w.pos = after;
    return instance ? variant : -1;
}
// The variant jump filled in: the bytes written.
inline uint32_t close_record(Writer &w) {
    if (w.jump_written) {
        uint32_t e = 0;
        _mgx_variant_jump_marshal(w.h, w.luid, w.buf + w.header, static_cast<uint32_t>(w.pos - w.header), 4, &e);
    }
    return static_cast<uint32_t>(w.pos);
}

// One element through its writer; the piece gets its own error cell, so that one piece's failure
// (or the variant error of a nested header) does not silence the pieces after it; the first error
// reaches the record's cell.
template <class Put> [[gnu::always_inline]] inline void put_piece(Writer &w, const void *element, Put put) {
    uint32_t e = 0;
    w.pos += static_cast<int32_t>(put(w.h, w.luid, w.buf + w.pos, element, w.left(), &e));
    if (e && !*w.err) [[unlikely]]
        *w.err = e; // the writer's cell is never null
}

// A scalar member, with its state byte behind it unless it is a count or length.
template <class Put>
[[gnu::always_inline]] inline void put_scalar(Writer &w, const void *instance, uint16_t offset, uint16_t sttr_pos, bool state,
                                              Put put) {
    put_piece(w, bytes(instance) + offset, put);
    if (w.tracked && state) w.state_byte(w.flag(sttr_pos));
}

// Arrays, counted strings and union arms, one piece per shape, each element through put.
template <class Put> void put_fixed(const FieldAt<const void> &a, Writer &w, Put put) {
    const auto run = a.run();
    for (uint32_t k = 0; k < a.field().count; ++k) put_piece(w, run[k], put);
    if (w.tracked) w.state_byte(a.flag(w.area));
}
[[gnu::always_inline]] inline void put_string(const FieldAt<const void> &a, Writer &w) {
    uint32_t len = a.count();
    const char *text = static_cast<const char *>(a.block());
    uint32_t n = len;
    if (static_cast<int64_t>(len) > w.left()) [[unlikely]] {
        n = static_cast<uint32_t>(w.left() > 0 ? w.left() : 0);
        w.error(MGX_ESHORT);
    }
    if (text) std::memcpy(w.buf + w.pos, text, n);
    else std::memset(w.buf + w.pos, 0, n);
    w.pos += static_cast<int32_t>(n);
    if (w.tracked && len > 0) w.state_byte(a.flag(w.area));
}
template <class Put> void put_array(const FieldAt<const void> &a, Writer &w, Put put) {
    uint32_t count = a.count();
    if (count == 0) return; // deliberately without the array's state byte
    const void *block = a.block();
    const auto run = a.run();
    for (uint32_t k = 0; k < count; ++k) put_piece(w, block ? run[k] : nullptr, put);
    if (!w.tracked) return;
    w.state_byte(a.flag(w.area));
    // An instance made untracked (no state area) has blocks without flag slots, though the
    // handle encoding it tracks: its elements' state bytes are 0, as its other ones are.
    const ArrayLayout layout(a.field());
    const uint8_t *per_element = layout.flags(block, count, w.area != nullptr);
    for (uint32_t k = 0; k < count && w.left() > 0; ++k) w.buf[w.pos++] = per_element ? *layout.slot_of(per_element, k) : 0;
}
template <class Put> [[gnu::always_inline]] inline void put_member(const FieldAt<const void> &a, Writer &w, Put put) {
    if (a.selected()) {
        if (const void *arm = a.block()) put_piece(w, arm, put);
        else w.error(MGX_ENOENT);
    }
    if (w.tracked && w.left() >= 2) w.buf[w.pos++] = a.flag(w.area);
}
template <class Put> void put_composite(const FieldAt<const void> &a, Writer &w, Put put) {
    switch (a.field().shape) {
    case Shape::scalar: return;
    case Shape::fixed_array: return put_fixed(a, w, put);
    case Shape::var_string: return put_string(a, w);
    case Shape::var_array: return put_array(a, w, put);
    case Shape::member: return put_member(a, w, put);
    }
}

// The walked path's loop over the steps [first, last) of a plan; the compiled path hands it a
// run that cannot go straight to the primitives.
void encode_steps(const Type &t, const WireStep *first, const WireStep *last, Writer &w, const void *instance);

// ------------------------------------------------------------------ decoder

class Reader {
public:
    mgx_handle_t *h;
    uint32_t luid;
    const uint8_t *buf;
    int32_t length;
    uint32_t flags;
    uint32_t *err;
    int32_t pos = 0;
    bool copy_state = false, skip_state = false; // the sender tracked state: its bytes are kept, or stepped over
    bool tracked = false;                        // the handle tracks state
    uint8_t *area = nullptr;
    int32_t header = 0;
    uint32_t jump = 0;
    uint8_t merge = 0; // the object flags the instance takes from the wire
    // Counts and lengths as they were before this decode, kept when a count or length field
    // is decoded and read by the array or string it counts, which comes after it.
    OldCounts old_counts;

    Reader(mgx_handle_t *h_, uint32_t luid_, const uint8_t *buf_, int32_t length_, uint32_t flags_, uint32_t *err_)
        : h(h_), luid(luid_), buf(buf_), length(length_), flags(flags_), err(err_ ? err_ : &scratch_) {}
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    int32_t left() const { return length - pos; }
    // The state byte behind a member, copied or stepped over, never read at the end of the input.
    void state_byte(uint16_t sttr_pos) {
        if ((!copy_state && !skip_state) || pos >= length) return;
        if (copy_state && area) area[sttr_pos] = buf[pos];
        ++pos;
    }
    void error(uint32_t code) { fail(h, err, code); }

    // A run of fixed-width members of `width` bytes can come straight from the primitives (GetRun).
    bool fits(int32_t width) const { return !copy_state && !skip_state && !*err && left() >= width; }

private:
    uint32_t scratch_ = 0;
};

// The record's opening: the slot and input checked, the header read. The variant whose members
// follow (negative: none); decoding ends here when the slot then holds an error. Inlined into
// each type's code, as the encoder's opening is.
[[gnu::always_inline]] inline int8_t open_decode(const Type &t, Reader &r, void *instance) {
    mgx_handle_t *h = r.h;
    uint32_t *err = r.err;
    if (!wire_start(h, r.luid, instance, r.length, err)) return -1;
    int8_t variant = 0;
    uint8_t flag = 0;
    r.pos += static_cast<int32_t>(_mgx_instance_variant_unmarshal(h, r.luid, r.buf, &variant, r.length, err));
    if (!*err) r.pos += static_cast<int32_t>(_mgx_instance_obj_flag_unmarshal(h, r.luid, r.buf + r.pos, &flag, r.left(), err));
    if (!*err && (flag & MGX_IF_HD_MAPPED))
        r.pos += static_cast<int32_t>(_mgx_instance_ra_data_unmarshal(h, r.luid, r.buf + r.pos, instance, r.left(), err));
    if (variant > hdr(instance)->layout) variant = hdr(instance)->layout;
    r.header = r.pos;
    if (!*err) r.pos += static_cast<int32_t>(_mgx_variant_jump_unmarshal(h, r.luid, r.buf + r.pos, &r.jump, r.left(), err));
    if (*err) return -1;

    // Only the two bits a sender writes are taken from the wire: the others (OID-mapped,
    // runtime-located state area, owned descriptor word) describe this process's bookkeeping,
    // and a stray one would make destroy keep the instance or free its descriptor.
    r.merge = flag & wire_flag_mask;
    r.tracked = tracking(t, h);
    if (r.tracked) {
        if (!(hdr(instance)->flags & MGX_IF_TRACKED)) fatal(t, Message::tracking_mismatch);
        if (flag & MGX_IF_TRACKED) {
            r.copy_state = true;
            r.area = state_area(t, h, r.luid, instance);
        } else {
            r.merge |= MGX_IF_TRACKED;
        }
    } else {
        r.skip_state = (flag & MGX_IF_TRACKED) != 0;
        r.merge &= static_cast<uint8_t>(~MGX_IF_TRACKED);
    }
    return variant;
}

// The variant jump followed and the instance's header settled: the bytes read.
[[gnu::always_inline]] inline uint32_t close_decode(const Type &t, Reader &r, void *instance, int8_t variant) {
    int64_t end = static_cast<int64_t>(r.header) + r.jump;
    if (end > r.pos) {
        trace(t, Message::variant_jump, MGX_SEV_DEBUG, r.pos, r.header, static_cast<int32_t>(r.jump));
        if (end > r.length) {
            r.error(MGX_ESHORT);
            return static_cast<uint32_t>(r.pos);
        }
        r.pos = static_cast<int32_t>(end);
    }
    mgx_instance_hdr_t *hd = hdr(instance);
    hd->variant = variant;
    hd->flags |= r.merge;
    *mgx_get_manifested_type_info_ptr_mem(instance) = descriptor_for(t, r.h, r.luid);
    return static_cast<uint32_t>(r.pos);
}

// One element through its reader: the bytes it took.
template <class Get> [[gnu::always_inline]] inline uint32_t get_element(Reader &r, void *element, Get get) {
    return get(r.h, r.luid, r.buf + r.pos, element, r.left(), r.flags, r.err);
}

// A scalar member (a count or length keeps what it held for the member it counts); false when
// decoding stops (an error).
template <class Get>
[[gnu::always_inline]] inline bool get_scalar(const Type &t, Reader &r, void *instance, uint16_t field, uint16_t offset,
                                              uint16_t sttr_pos, bool state, Get get) {
    void *p = bytes(instance) + offset;
    if (!state) {
        r.old_counts.keep(field, count_at(instance, t.fields[field]));
        r.pos += static_cast<int32_t>(get_element(r, p, get));
    } else {
        r.pos += static_cast<int32_t>(get_element(r, p, get));
        if ((r.copy_state || r.skip_state) && !*r.err) r.state_byte(sttr_pos);
    }
    return !*r.err;
}

// A run of fixed-width members that fits (Writer::fits, Reader::fits), member after member
// straight through the primitives, whose checks then cannot fail. Its place and room are kept in
// locals and given back to the writer or reader once, at the end, so that a member costs its
// primitive's call and little more.
class PutRun {
public:
    explicit PutRun(Writer &w) : w_(w), at_(w.buf + w.pos), left_(w.left()), err_(w.err) {}
    ~PutRun() { w_.pos = static_cast<int32_t>(at_ - w_.buf); }
    PutRun(const PutRun &) = delete;
    PutRun &operator=(const PutRun &) = delete;
    template <Kind K> [[gnu::always_inline]] void put(mgx_handle_t *h, uint32_t luid, const void *instance, uint16_t offset) {
        uint32_t n = PrimOf<K>::marshal(h, luid, at_, bytes(instance) + offset, left_, err_);
        at_ += n;
        left_ -= static_cast<int32_t>(n);
    }

private:
    Writer &w_;
    uint8_t *at_;
    int32_t left_;
    uint32_t *err_;
};

class GetRun {
public:
    explicit GetRun(Reader &r) : r_(r), at_(r.buf + r.pos), left_(r.left()), flags_(r.flags), err_(r.err) {}
    ~GetRun() { r_.pos = static_cast<int32_t>(at_ - r_.buf); }
    GetRun(const GetRun &) = delete;
    GetRun &operator=(const GetRun &) = delete;
    template <Kind K> [[gnu::always_inline]] void get(mgx_handle_t *h, uint32_t luid, void *instance, uint16_t offset) {
        uint32_t n = PrimOf<K>::unmarshal(h, luid, at_, bytes(instance) + offset, left_, flags_, err_);
        at_ += n;
        left_ -= static_cast<int32_t>(n);
    }
    // A count or length: what it held before is kept for the member it counts.
    template <Kind K>
    void counter(const Type &t, uint16_t field, mgx_handle_t *h, uint32_t luid, void *instance, uint16_t offset) {
        r_.old_counts.keep(field, count_at(instance, t.fields[field]));
        get<K>(h, luid, instance, offset);
    }

private:
    Reader &r_;
    const uint8_t *at_;
    int32_t left_;
    uint32_t flags_;
    uint32_t *err_;
};

void decode_string(const FieldAt<void> &a, Reader &r, uint32_t old_len);
// A variable array's block readied for count elements (kept, or replaced by a fresh one): the
// flag region of its elements, or null; false when the array stays empty (an error, or none).
bool ready_array(const FieldAt<void> &a, Reader &r, uint32_t old_count, uint8_t *&per_element);
// A union member's instance, made when the slot is empty; null when it cannot be had (12).
void *ready_arm(const FieldAt<void> &a, Reader &r);

// The elements of a variable array, then its state byte and the elements' bytes.
template <class Get> void get_elements(const FieldAt<void> &a, Reader &r, uint32_t count, uint8_t *per_element, Get get) {
    const Field &f = a.field();
    const ArrayLayout layout(f);
    const auto run = a.run();
    for (uint32_t k = 0; k < count && !*r.err; ++k) r.pos += static_cast<int32_t>(get_element(r, run[k], get));
    if (*r.err) return;
    r.state_byte(f.sttr_pos);
    for (uint32_t k = 0; k < count && r.pos < r.length; ++k) {
        if (r.copy_state && per_element) *layout.slot_of(per_element, k) = r.buf[r.pos];
        if (r.copy_state || r.skip_state) ++r.pos;
    }
}

// Arrays, counted strings and union arms, one piece per shape, each element through get; false
// when decoding stops.
template <class Get> bool get_fixed(const FieldAt<void> &a, Reader &r, Get get) {
    const auto run = a.run();
    for (uint32_t k = 0; k < a.field().count && !*r.err; ++k) r.pos += static_cast<int32_t>(get_element(r, run[k], get));
    if (!*r.err) r.state_byte(a.field().sttr_pos);
    return !*r.err;
}
[[gnu::always_inline]] inline bool get_string(const FieldAt<void> &a, Reader &r) {
    decode_string(a, r, r.old_counts.of(a.field().companion));
    return !*r.err;
}
template <class Get> bool get_array(const FieldAt<void> &a, Reader &r, Get get) {
    uint8_t *per_element = nullptr;
    uint32_t count = a.count();
    if (ready_array(a, r, r.old_counts.of(a.field().companion), per_element)) get_elements(a, r, count, per_element, get);
    return !*r.err;
}
template <class Get> [[gnu::always_inline]] inline bool get_member(const FieldAt<void> &a, Reader &r, Get get) {
    if (a.selected())
        if (void *arm = ready_arm(a, r)) r.pos += static_cast<int32_t>(get_element(r, arm, get));
    if (!*r.err) r.state_byte(a.field().sttr_pos);
    return !*r.err;
}
template <class Get> bool get_composite(const FieldAt<void> &a, Reader &r, Get get) {
    switch (a.field().shape) {
    case Shape::scalar: return !*r.err;
    case Shape::fixed_array: return get_fixed(a, r, get);
    case Shape::var_string: return get_string(a, r);
    case Shape::var_array: return get_array(a, r, get);
    case Shape::member: return get_member(a, r, get);
    }
    return !*r.err;
}

void decode_steps(const Type &t, const WireStep *first, const WireStep *last, Reader &r, void *instance);
// The walked loop over [first, last), for a run the compiled path cannot take straight; false
// when decoding stops.
inline bool decode_run(const Type &t, const WireStep *first, const WireStep *last, Reader &r, void *instance) {
    decode_steps(t, first, last, r, instance);
    return !*r.err;
}

// ------------------------------------------------------------------ the generated code's pieces

inline const void *at(const void *instance, uint16_t offset) { return bytes(instance) + offset; }

// Each compiled function's members, by kind: a primitive, an enumeration or a nested record (K
// the kind, E the enumeration's table, F the nested type's compiled function).
template <Kind K> inline uint32_t prim_len(Length &l, const void *p) { return PrimOf<K>::len(l.h, l.luid, p); }
template <LengthFn F> inline uint32_t record_len(Length &l, const void *p) { return F(l.h, l.luid, p); }
template <const Type &E> inline uint32_t enum_len(Length &, const void *) { return enum_wire_length; }

template <Kind K>
inline uint32_t prim_put(mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *p, int32_t space, uint32_t *e) {
    return PrimOf<K>::marshal(h, luid, b, p, space, e);
}
template <const Type &E>
inline uint32_t enum_put(mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *p, int32_t space, uint32_t *e) {
    return enum_marshal(E, h, luid, b, p, space, e);
}
template <EncodeFn F>
inline uint32_t record_put(mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *p, int32_t space, uint32_t *e) {
    return F(h, luid, b, p, space, true, e);
}

template <Kind K>
inline uint32_t prim_get(mgx_handle_t *h, uint32_t luid, const uint8_t *b, void *p, int32_t length, uint32_t flags, uint32_t *e) {
    return PrimOf<K>::unmarshal(h, luid, b, p, length, flags, e);
}
template <const Type &E>
inline uint32_t enum_get(mgx_handle_t *h, uint32_t luid, const uint8_t *b, void *p, int32_t length, uint32_t flags, uint32_t *e) {
    return enum_unmarshal(E, h, luid, b, p, length, flags, e);
}
template <DecodeFn F>
inline uint32_t record_get(mgx_handle_t *h, uint32_t luid, const uint8_t *b, void *p, int32_t length, uint32_t flags,
                           uint32_t *e) {
    return F(h, luid, b, p, length, flags, e);
}

} // namespace ovrin::wire

#endif
