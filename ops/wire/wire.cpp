// The wire form of records and unions: header (variant, object flag, retained data, variant
// jump), then the members in declaration order with no padding, state bytes behind them when the
// sender tracks state. The walked path: one encoder, one decoder and one length routine that
// serve every type by looping over its wire plan (the compiled path calls the same pieces, see
// code.h).
#include "ops/wire/wire.h"

#include <cstring>

#include "ops/record/lifecycle.h"
#include "ops/wire/code.h"

namespace ovrin {

namespace wire {

namespace {

constexpr uint32_t arm_callsite_tag = 0xB03C3000u;
constexpr int32_t min_instance_bytes = 6; // a record's wire header: the least an element takes

// The wire plan of a variant; a variant beyond the type's own (an instance laid out by a newer
// bundle) is walked with the newest plan this bundle has.
const WirePlan &plan_at(const Type &t, int8_t variant) { return t.wire[plan_variant(t, variant)]; }

// One element of a field or a plan step (both say its kind and type), by its kind at run time.
template <class F> uint32_t element_length(const F &f, Length &l, const void *element) {
    switch (f.kind) {
#define OVRIN_LEN(K, T, S, A)                                                                                                    \
    case Kind::K: return prim_len<Kind::K>(l, element);
        OVRIN_ALL_PRIMS(OVRIN_LEN)
#undef OVRIN_LEN
    case Kind::record: return walked_length(*f.type, l.h, l.luid, element);
    case Kind::enumeration: return enum_wire_length;
    case Kind::character: break;
    }
    return 0;
}

template <class F>
[[gnu::always_inline]] inline uint32_t put_element(const F &f, mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *element,
                                                   int32_t space, uint32_t *e) {
    switch (f.kind) {
#define OVRIN_MARSHAL(K, T, S, A)                                                                                                \
    case Kind::K: return prim_put<Kind::K>(h, luid, b, element, space, e);
        OVRIN_ALL_PRIMS(OVRIN_MARSHAL)
#undef OVRIN_MARSHAL
    case Kind::enumeration: return enum_marshal(*f.type, h, luid, b, element, space, e);
    case Kind::record: return walked_encode(*f.type, h, luid, b, element, space, true, e);
    case Kind::character: break;
    }
    return 0;
}

template <class F>
[[gnu::always_inline]] inline uint32_t get_by_kind(const F &f, mgx_handle_t *h, uint32_t luid, const uint8_t *b, void *element,
                                                   int32_t length, uint32_t flags, uint32_t *e) {
    switch (f.kind) {
#define OVRIN_UNMARSHAL(K, T, S, A)                                                                                              \
    case Kind::K: return prim_get<Kind::K>(h, luid, b, element, length, flags, e);
        OVRIN_ALL_PRIMS(OVRIN_UNMARSHAL)
#undef OVRIN_UNMARSHAL
    case Kind::record: return walked_decode(*f.type, h, luid, b, element, length, flags, e);
    case Kind::enumeration: return enum_unmarshal(*f.type, h, luid, b, element, length, flags, e);
    case Kind::character: break;
    }
    return 0;
}

// The walked path's element readers and writers: the kind looked up per element.
template <class F> auto walked_put(const F &f) {
    return [&f](mgx_handle_t *h, uint32_t luid, uint8_t *b, const void *p, int32_t space, uint32_t *e) {
        return put_element(f, h, luid, b, p, space, e);
    };
}
template <class F> auto walked_get(const F &f) {
    return [&f](mgx_handle_t *h, uint32_t luid, const uint8_t *b, void *p, int32_t length, uint32_t flags, uint32_t *e) {
        return get_by_kind(f, h, luid, b, p, length, flags, e);
    };
}

} // namespace

// ------------------------------------------------------------------ encoder

void encode_steps(const Type &t, const WireStep *first, const WireStep *last, Writer &w, const void *instance) {
    for (const WireStep *step = first; step != last; ++step) {
        if (step->flags & step_composite)
            put_composite(FieldAt<const void>(t, t.fields[step->field], instance), w, walked_put(t.fields[step->field]));
        else put_scalar(w, instance, step->offset, step->sttr_pos, step->flags & step_state_byte, walked_put(*step));
    }
}

// ------------------------------------------------------------------ decoder

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
        r.state_byte(f.sttr_pos);
    } else if (r.skip_state && r.left() >= 2) {
        ++r.pos; // stepped over only with a byte to spare: the jump realigns the rest
    }
}

bool ready_array(const FieldAt<void> &a, Reader &r, uint32_t old_count, uint8_t *&per_element) {
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
        notify(r.h, block, layout.block_size(count, r.tracked), r.luid);
        per_element = layout.flags(block, count, r.tracked);
        if (per_element) std::memset(per_element, 0, count * layout.slot);
        return true;
    }
    release_array(a, r.h, r.luid, old_count);
    if (count == 0) return false;
    // Every element takes at least a header on the wire: a count the bytes left cannot hold is
    // refused before anything is allocated. A new element is raised to the variant the handle
    // knows for its type, as a new arm is, so that its members of later variants are received.
    uint32_t e = 0;
    void *fresh = !fits ? (e = MGX_ESHORT, nullptr) : new_block(f, r.h, r.luid, count, r.tracked, true, &e);
    if (!fresh) { // the array stays empty
        a.store_counter(0);
        r.error(e);
        return false;
    }
    notify(r.h, &block, sizeof block, r.luid);
    block = fresh;
    per_element = layout.flags(block, count, r.tracked);
    return true;
}

void *ready_arm(const FieldAt<void> &a, Reader &r) {
    const Field &f = a.field();
    void *&arm = a.pointer();
    if (arm) return arm;
    notify(r.h, &arm, sizeof arm, r.luid);
    plinth_set_callsite_tag(arm_callsite_tag + a.arm_index());
    void *fresh = create(*f.type, r.h, r.luid);
    if (!fresh) {
        r.error(MGX_ENOMEM);
        return nullptr;
    }
    // A record the decoder makes for the receiver follows the receiver's domain.
    uint32_t e = 0;
    raise_variant(*f.type, r.h, r.luid, fresh, &e);
    arm = fresh;
    if (r.h->database) mgxdb_record_containment2(r.h, r.luid, arm, a.instance(), 1);
    return arm;
}

void decode_steps(const Type &t, const WireStep *first, const WireStep *last, Reader &r, void *instance) {
    for (const WireStep *step = first; step != last; ++step) {
        bool going = (step->flags & step_composite)
                         ? get_composite(FieldAt<void>(t, t.fields[step->field], instance), r, walked_get(t.fields[step->field]))
                         : get_scalar(t, r, instance, step->field, step->offset, step->sttr_pos, step->flags & step_state_byte,
                                      walked_get(*step));
        if (!going) return;
    }
}

} // namespace wire

using namespace wire;

uint32_t walked_length(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance) {
    Length l{h, luid};
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    if (variant >= 0) {
        const WirePlan &plan = plan_at(t, variant);
        for (const WireStep *step = plan.steps, *last = step + plan.n; step != last; ++step) {
            if (!(step->flags & step_composite)) {
                l.n += element_length(*step, l, bytes(instance) + step->offset);
                l.state += step->flags & step_state_byte;
                continue;
            }
            const Field &f = t.fields[step->field];
            length_composite(FieldAt<const void>(t, f, instance), l,
                             [&f](Length &l, const void *element) { return element_length(f, l, element); });
        }
    }
    return l.total(t, instance);
}

uint32_t walked_encode(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                       bool check, uint32_t *err) {
    Writer w(h, luid, buf, space, err);
    int8_t variant = open_record(t, w, instance, check);
    if (variant >= 0) {
        const WirePlan &plan = plan_at(t, variant);
        encode_steps(t, plan.steps, plan.steps + plan.n, w, instance);
    }
    return close_record(w);
}

uint32_t walked_decode(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length,
                       uint32_t flags, uint32_t *err) {
    Reader r(h, luid, buf, length, flags, err);
    int8_t variant = open_decode(t, r, instance);
    if (*r.err) return static_cast<uint32_t>(r.pos);
    if (variant >= 0) {
        const WirePlan &plan = plan_at(t, variant);
        decode_steps(t, plan.steps, plan.steps + plan.n, r, instance);
        if (*r.err) return static_cast<uint32_t>(r.pos);
    }
    return close_decode(t, r, instance, variant);
}

} // namespace ovrin
