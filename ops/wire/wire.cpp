// The wire form of records and unions: header (variant, object flag, retained data, variant
// jump), then the members in declaration order with no padding, state bytes behind them when the
// sender tracks state. One encoder, one decoder and one length routine serve every type.
#include "ops/wire/wire.h"

#include <array>
#include <cstring>

#include "ops/record/lifecycle.h"
#include "ops/walk.h"

namespace ovrin {

namespace {

constexpr uint8_t wire_flag_mask = MGX_IF_TRACKED | MGX_IF_HD_MAPPED;
constexpr uint32_t arm_callsite_tag = 0xB03C3000u;
constexpr int32_t min_instance_bytes = 6; // a record's wire header: the least an element takes

// The opening of encode and decode: false when there is nothing to do (the slot holds a code) or
// not one byte of room (error 90).
bool wire_start(mgx_handle_t *h, uint32_t luid, const void *instance, int32_t room, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return false;
    if (room < 1) fail(h, err, MGX_ESHORT);
    return room >= 1;
}

// The wire plan of a variant; a variant beyond the type's own (an instance laid out by a newer
// bundle) is walked with the newest plan this bundle has.
const WirePlan &plan_at(const Type &t, int8_t variant) { return t.wire[variant < t.n_variants ? variant : t.last_variant()]; }

// ------------------------------------------------------------------ length

// One element, of a field or a plan step (both say its kind and type).
template <class F>
[[gnu::always_inline]] inline uint32_t element_length(const F &f, mgx_handle_t *h, uint32_t luid, const void *element) {
    switch (f.kind) {
#define OVRIN_LEN(K, T, S, A)                                                                                                    \
    case Kind::K: return T##_len(h, luid, static_cast<const T *>(element));
        OVRIN_ALL_PRIMS(OVRIN_LEN)
#undef OVRIN_LEN
    case Kind::record: return wire_length(*f.type, h, luid, element);
    case Kind::enumeration: return 5;
    case Kind::character: break;
    }
    return 0;
}

// ------------------------------------------------------------------ encoder

struct Writer {
    mgx_handle_t *h;
    uint32_t luid;
    uint8_t *buf;
    int32_t space;
    uint32_t *err;
    int32_t pos = 0;

    int32_t left() const { return space - pos; }
    // A member's state byte is stored even at the end of the space, one byte past it: callers of
    // a tracked encode give a buffer one byte longer than the space they declare.
    void state_byte(uint8_t v) {
        buf[pos] = v;
        if (pos < space) ++pos;
    }
    void error(uint32_t code) { fail(h, err, code); }
};

// One element, straight to the runtime's primitive or the nested type's encoder.
template <class F>
[[gnu::always_inline]] inline uint32_t put_element(const F &f, mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *element,
                                                   int32_t space, uint32_t *e) {
    switch (f.kind) {
#define OVRIN_MARSHAL(K, T, S, A)                                                                                                \
    case Kind::K: return T##_marshal(h, luid, b, static_cast<const T *>(element), space, e);
        OVRIN_ALL_PRIMS(OVRIN_MARSHAL)
#undef OVRIN_MARSHAL
    case Kind::enumeration: return enum_marshal(*f.type, h, luid, b, element, space, e);
    case Kind::record: return encode(*f.type, h, luid, b, element, space, true, e);
    case Kind::character: break;
    }
    return 0;
}

// Each piece gets its own error cell, so that one piece's failure (or the variant error of a
// nested header) does not silence the pieces after it; the first error reaches the caller's cell.
template <class F> [[gnu::always_inline]] inline void put_piece(const F &f, Writer &w, const void *element) {
    uint32_t e = 0;
    w.pos += static_cast<int32_t>(put_element(f, w.h, w.luid, w.buf + w.pos, element, w.left(), &e));
    if (e && !*w.err) [[unlikely]]
        *w.err = e; // the writer's cell is never null
}

// Arrays, counted strings and union arms; scalars take the short road in encode().
void encode_composite(const FieldAt<const void> &a, Writer &w, const uint8_t *area, bool tracked) {
    const Field &f = a.field();
    uint8_t flag = a.flag(area);
    switch (f.shape) {
    case Shape::scalar: return;
    case Shape::fixed_array: {
        const auto run = a.run();
        for (uint32_t k = 0; k < f.count; ++k) put_piece(f, w, run[k]);
        if (tracked) w.state_byte(flag);
        return;
    }
    case Shape::var_string: {
        uint32_t len = a.count();
        const char *text = static_cast<const char *>(a.block());
        uint32_t n = len;
        if (static_cast<int64_t>(len) > w.left()) {
            n = static_cast<uint32_t>(w.left() > 0 ? w.left() : 0);
            w.error(MGX_ESHORT);
        }
        if (text) std::memcpy(w.buf + w.pos, text, n);
        else std::memset(w.buf + w.pos, 0, n);
        w.pos += static_cast<int32_t>(n);
        if (tracked && len > 0) w.state_byte(flag);
        return;
    }
    case Shape::var_array: {
        uint32_t count = a.count();
        if (count == 0) return; // deliberately without the array's state byte
        const void *block = a.block();
        const auto run = a.run();
        for (uint32_t k = 0; k < count; ++k) put_piece(f, w, block ? run[k] : nullptr);
        if (!tracked) return;
        w.state_byte(flag);
        // An instance made untracked (no state area) has blocks without flag slots, though the
        // handle encoding it tracks: its elements' state bytes are 0, as its other ones are.
        const ArrayLayout layout(f);
        const uint8_t *per_element = layout.flags(block, count, area != nullptr);
        for (uint32_t k = 0; k < count && w.left() > 0; ++k) w.buf[w.pos++] = per_element ? *layout.slot_of(per_element, k) : 0;
        return;
    }
    case Shape::member: {
        if (a.selected()) {
            if (const void *arm = a.block()) put_piece(f, w, arm);
            else w.error(MGX_ENOENT);
        }
        if (tracked && w.left() >= 2) w.buf[w.pos++] = flag;
        return;
    }
    }
}

// ------------------------------------------------------------------ decoder

struct Reader {
    mgx_handle_t *h;
    uint32_t luid;
    const uint8_t *buf;
    int32_t length;
    uint32_t flags;
    uint32_t *err;
    int32_t pos = 0;
    bool copy_state = false, skip_state = false;
    uint8_t *area = nullptr;

    int32_t left() const { return length - pos; }
    // The state byte behind a member, copied or stepped over, never read at the end of the input.
    template <class F> void state_byte(const F &f) {
        if ((!copy_state && !skip_state) || pos >= length) return;
        if (copy_state && area) area[f.sttr_pos] = buf[pos];
        ++pos;
    }
    void error(uint32_t code) { fail(h, err, code); }
};

template <class F> [[gnu::always_inline]] inline uint32_t decode_element(const F &f, Reader &r, void *element) {
    const uint8_t *b = r.buf + r.pos;
    switch (f.kind) {
#define OVRIN_UNMARSHAL(K, T, S, A)                                                                                              \
    case Kind::K: return T##_unmarshal(r.h, r.luid, b, static_cast<T *>(element), r.left(), r.flags, r.err);
        OVRIN_ALL_PRIMS(OVRIN_UNMARSHAL)
#undef OVRIN_UNMARSHAL
    case Kind::record: return decode(*f.type, r.h, r.luid, b, element, r.left(), r.flags, r.err);
    case Kind::enumeration: return enum_unmarshal(*f.type, r.h, r.luid, b, element, r.left(), r.flags, r.err);
    case Kind::character: break;
    }
    return 0;
}

void decode_string(const FieldAt<void> &a, Reader &r, uint32_t old_len) {
    const Field &f = a.field();
    uint32_t len = a.count();
    void *&text = a.pointer();
    if (len == 0) {
        free_block(r.h, r.luid, text);
        return;
    }
    if (static_cast<int64_t>(len) > r.left()) { // cannot be satisfied: refuse before allocating
        free_block(r.h, r.luid, text);
        a.store_counter(0);
        r.error(MGX_ESHORT);
        return;
    }
    size_t size = static_cast<size_t>(len + 1) * char_sizeof();
    if (r.flags && len == old_len && text) {
        notify(r.h, text, size, r.luid);
    } else {
        free_block(r.h, r.luid, text);
        void *fresh = new_text(r.h, r.luid, len);
        if (!fresh) {
            a.store_counter(0);
            r.error(MGX_ENOMEM);
            return;
        }
        notify(r.h, &text, sizeof text, r.luid);
        text = fresh;
    }
    // The characters, then zeros to the end of the storage: the stored string is always
    // terminated (a length the input cannot hold was refused above).
    std::memcpy(text, r.buf + r.pos, len);
    char *tail = static_cast<char *>(text) + len;
    if (size - len == 1) *tail = 0; // one-byte characters: the terminator alone
    else std::memset(tail, 0, size - len);
    r.pos += static_cast<int32_t>(len);
    if (r.copy_state) {
        r.state_byte(f);
    } else if (r.skip_state && r.left() >= 2) {
        ++r.pos; // stepped over only with a byte to spare: the jump realigns the rest
    }
}

// The elements of a variable array, then its state byte and the elements' bytes.
void decode_elements(const FieldAt<void> &a, Reader &r, uint32_t count, uint8_t *per_element) {
    const Field &f = a.field();
    const ArrayLayout layout(f);
    const auto run = a.run();
    for (uint32_t k = 0; k < count && !*r.err; ++k) r.pos += static_cast<int32_t>(decode_element(f, r, run[k]));
    if (*r.err) return;
    r.state_byte(f);
    for (uint32_t k = 0; k < count && r.pos < r.length; ++k) {
        if (r.copy_state && per_element) *layout.slot_of(per_element, k) = r.buf[r.pos];
        if (r.copy_state || r.skip_state) ++r.pos;
    }
}

void decode_array(const FieldAt<void> &a, Reader &r, uint32_t old_count, bool tracked) {
    const Field &f = a.field();
    uint32_t count = a.count();
    void *&block = a.pointer();
    const ArrayLayout layout(f);
    // Non-zero decode flags keep storage of the same size: the block and its elements stay, and
    // each element is decoded into as it is (keeping its own strings, lists and arrays when their
    // sizes match in turn), as an instance decoded into again keeps what it owns.
    // The bytes left must be able to hold count elements of a header each (what a sender writes
    // for an element that is not there: see the null instance's length).
    const bool fits = static_cast<int64_t>(count) * min_instance_bytes <= r.left();
    if (r.flags && block && count == old_count && count > 0 && fits) {
        notify(r.h, block, layout.block_size(count, tracked), r.luid);
        uint8_t *per_element = layout.flags(block, count, tracked);
        if (per_element) std::memset(per_element, 0, count * layout.slot);
        decode_elements(a, r, count, per_element);
        return;
    }
    release_array(a, r.h, r.luid, old_count);
    if (count == 0) return;
    // Every element takes at least a header on the wire: a count the bytes left cannot hold is
    // refused before anything is allocated. A new element is raised to the variant the handle
    // knows for its type, as a new arm is, so that its members of later variants are received.
    uint32_t e = 0;
    void *fresh = !fits ? (e = MGX_ESHORT, nullptr) : new_block(f, r.h, r.luid, count, tracked, true, &e);
    if (!fresh) { // the array stays empty
        a.store_counter(0);
        r.error(e);
        return;
    }
    notify(r.h, &block, sizeof block, r.luid);
    block = fresh;
    decode_elements(a, r, count, layout.flags(block, count, tracked));
}

void decode_arm(const FieldAt<void> &a, Reader &r) {
    const Field &f = a.field();
    void *&arm = a.pointer();
    if (!arm) {
        notify(r.h, &arm, sizeof arm, r.luid);
        plinth_set_callsite_tag(arm_callsite_tag + a.arm_index());
        void *fresh = create(*f.type, r.h, r.luid);
        if (!fresh) {
            r.error(MGX_ENOMEM);
            return;
        }
        // A record the decoder makes for the receiver follows the receiver's domain.
        uint32_t e = 0;
        raise_variant(*f.type, r.h, r.luid, fresh, &e);
        arm = fresh;
        if (r.h->database) mgxdb_record_containment2(r.h, r.luid, arm, a.instance(), 1);
    }
    r.pos += static_cast<int32_t>(decode(*f.type, r.h, r.luid, r.buf + r.pos, arm, r.left(), r.flags, r.err));
}

} // namespace

uint32_t wire_length(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance) {
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    uint32_t n = 6, state = 0;
    if (variant >= 0) {
        const WirePlan &plan = plan_at(t, variant);
        for (const WireStep *step = plan.steps, *last = step + plan.n; step != last; ++step) {
            if (!(step->flags & step_composite)) {
                n += element_length(*step, h, luid, bytes(instance) + step->offset);
                state += step->flags & step_state_byte;
                continue;
            }
            const FieldAt<const void> a(t, t.fields[step->field], instance);
            const Field &f = a.field();
            switch (f.shape) {
            case Shape::scalar: break;
            case Shape::fixed_array: {
                const auto run = a.run();
                for (uint32_t k = 0; k < f.count; ++k) n += element_length(f, h, luid, run[k]);
                state += 1;
                break;
            }
            case Shape::var_string: {
                uint32_t len = a.count();
                n += char_len() * len;
                state += 1 + len;
                break;
            }
            case Shape::var_array: {
                uint32_t count = a.count();
                const auto run = a.run();
                for (uint32_t k = 0; k < count; ++k) n += wire_length(*f.type, h, luid, run.base ? run[k] : nullptr);
                state += 1 + count;
                break;
            }
            case Shape::member:
                if (a.selected()) n += wire_length(*f.type, h, luid, a.block());
                state += 1;
                break;
            }
        }
    }
    if (!instance || !tracking(t, h)) return n;
    return n + state;
}

uint32_t wire_length_cr(const Type &t, mgx_handle_t *h, const void *instance) {
    if (h->last_error) return 0;
    return wire_length(t, h, h->desc_call_luid, instance);
}

uint32_t encode(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space, bool check,
                uint32_t *err) {
    uint32_t scratch = 0;
    if (!err) err = &scratch;
    if (!wire_start(h, luid, instance, space, err)) return 0;
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    uint32_t lookup_err = 0;
    int8_t domain = mgx_domain_lookup_variant(h, &h->variant_domain, mgx_get_manifested_type_info(instance), &lookup_err);
    if (check && variant > domain) {
        mgx_store_epoch_err(h, MGX_EVARIANT, err);
        variant = domain;
    }
    if (variant > t.last_variant()) variant = t.last_variant();

    Writer w{h, luid, buf, space, err};
    uint32_t e = 0;
    w.pos += static_cast<int32_t>(_mgx_instance_variant_marshal(h, luid, buf, variant, space, &e));
    keep_first(err, e);
    uint8_t flag = mgx_get_instance_obj_flag(instance, 1, 0);
    const uint8_t *area = nullptr;
    bool tracked = tracking(t, h);
    if (tracked) {
        flag |= MGX_IF_TRACKED;
        if (instance && (hdr(instance)->flags & MGX_IF_TRACKED)) area = state_area(t, h, luid, const_cast<void *>(instance));
    } else {
        flag &= static_cast<uint8_t>(~MGX_IF_TRACKED);
    }
    flag &= wire_flag_mask;
    e = 0;
    w.pos += static_cast<int32_t>(_mgx_instance_obj_flag_marshal(h, luid, buf + w.pos, flag, w.left(), &e));
    keep_first(err, e);
    if (flag & MGX_IF_HD_MAPPED) {
        e = 0;
        w.pos += static_cast<int32_t>(_mgx_instance_ra_data_marshal(h, luid, buf + w.pos, instance, w.left(), &e));
        keep_first(err, e);
    }
    int32_t header = w.pos;
    e = 0;
    w.pos += static_cast<int32_t>(_mgx_variant_jump_marshal(h, luid, buf + w.pos, 0, w.left(), &e));
    keep_first(err, e);
    bool jump_written = w.pos == header + 4;

    if (variant >= 0 && instance) {
        const WirePlan &plan = plan_at(t, variant);
        for (const WireStep *step = plan.steps, *last = step + plan.n; step != last; ++step) {
            if (step->flags & step_composite) {
                encode_composite(FieldAt<const void>(t, t.fields[step->field], instance), w, area, tracked);
                continue;
            }
            put_piece(*step, w, bytes(instance) + step->offset);
            if (tracked && (step->flags & step_state_byte)) w.state_byte(area ? area[step->sttr_pos] : 0);
        }
    }

    if (jump_written) {
        e = 0;
        _mgx_variant_jump_marshal(h, luid, buf + header, static_cast<uint32_t>(w.pos - header), 4, &e);
    }
    return static_cast<uint32_t>(w.pos);
}

uint32_t decode(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length, uint32_t flags,
                uint32_t *err) {
    uint32_t scratch = 0;
    if (!err) err = &scratch;
    if (!wire_start(h, luid, instance, length, err)) return 0;
    Reader r{h, luid, buf, length, flags, err};
    int8_t variant = 0;
    uint8_t flag = 0;
    uint32_t jump = 0;
    r.pos += static_cast<int32_t>(_mgx_instance_variant_unmarshal(h, luid, buf, &variant, length, err));
    if (!*err) r.pos += static_cast<int32_t>(_mgx_instance_obj_flag_unmarshal(h, luid, buf + r.pos, &flag, r.left(), err));
    if (!*err && (flag & MGX_IF_HD_MAPPED))
        r.pos += static_cast<int32_t>(_mgx_instance_ra_data_unmarshal(h, luid, buf + r.pos, instance, r.left(), err));
    if (variant > hdr(instance)->layout) variant = hdr(instance)->layout;
    int32_t header = r.pos;
    if (!*err) r.pos += static_cast<int32_t>(_mgx_variant_jump_unmarshal(h, luid, buf + r.pos, &jump, r.left(), err));
    if (*err) return static_cast<uint32_t>(r.pos);

    // Only the two bits a sender writes are taken from the wire: the others (OID-mapped,
    // runtime-located state area, owned descriptor word) describe this process's bookkeeping,
    // and a stray one would make destroy keep the instance or free its descriptor.
    uint8_t merge = flag & wire_flag_mask;
    bool tracked = tracking(t, h);
    if (tracked) {
        if (!(hdr(instance)->flags & MGX_IF_TRACKED)) fatal(t, Message::tracking_mismatch);
        if (flag & MGX_IF_TRACKED) {
            r.copy_state = true;
            r.area = state_area(t, h, luid, instance);
        } else {
            merge |= MGX_IF_TRACKED;
        }
    } else {
        r.skip_state = (flag & MGX_IF_TRACKED) != 0;
        merge &= static_cast<uint8_t>(~MGX_IF_TRACKED);
    }

    if (variant >= 0) {
        // Counts and lengths as they were before this decode, kept when a count or length field
        // is decoded and read by the array or string it counts, which comes after it.
        OldCounts old_counts;
        bool state_bytes = r.copy_state || r.skip_state;
        const WirePlan &plan = plan_at(t, variant);
        for (const WireStep *step = plan.steps, *last = step + plan.n; step != last; ++step) {
            if (!(step->flags & step_composite)) {
                void *field = bytes(instance) + step->offset;
                if (!(step->flags & step_state_byte)) { // a count or length: kept for what it counts
                    const FieldAt<void> counter(t, t.fields[step->field], instance);
                    old_counts.keep(step->field, counter.counted());
                    r.pos += static_cast<int32_t>(decode_element(*step, r, field));
                } else {
                    r.pos += static_cast<int32_t>(decode_element(*step, r, field));
                    if (state_bytes && !*err) r.state_byte(*step);
                }
                if (*err) return static_cast<uint32_t>(r.pos);
                continue;
            }
            const FieldAt<void> a(t, t.fields[step->field], instance);
            const Field &f = a.field();
            switch (f.shape) {
            case Shape::scalar: break;
            case Shape::fixed_array: {
                const auto run = a.run();
                for (uint32_t k = 0; k < f.count && !*err; ++k) r.pos += static_cast<int32_t>(decode_element(f, r, run[k]));
                if (!*err) r.state_byte(f);
                break;
            }
            case Shape::var_string: decode_string(a, r, old_counts.of(f.companion)); break;
            case Shape::var_array: decode_array(a, r, old_counts.of(f.companion), tracked); break;
            case Shape::member:
                if (a.selected()) decode_arm(a, r);
                if (!*err) r.state_byte(f);
                break;
            }
            if (*err) return static_cast<uint32_t>(r.pos);
        }
    }

    int64_t end = static_cast<int64_t>(header) + jump;
    if (end > r.pos) {
        trace(t, Message::variant_jump, MGX_SEV_DEBUG, r.pos, header, static_cast<int32_t>(jump));
        if (end > length) {
            r.error(MGX_ESHORT);
            return static_cast<uint32_t>(r.pos);
        }
        r.pos = static_cast<int32_t>(end);
    }
    mgx_instance_hdr_t *hd = hdr(instance);
    hd->variant = variant;
    hd->flags |= merge;
    *mgx_get_manifested_type_info_ptr_mem(instance) = descriptor_for(t, h, luid);
    return static_cast<uint32_t>(r.pos);
}

} // namespace ovrin
