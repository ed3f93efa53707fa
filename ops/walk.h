// The field walker: how the fields of an instance are laid out, worked out here once and walked
// by every family (lifecycle, access, compare and hash, wire, text and JSON, composite accessors).
//
// For each field present in an instance's variant it gives the field's address, its element
// count (a string's or variable array's read from its companion at the companion's own width),
// its elements (inline, or in the block the record owns), whether a union member is the one its
// discriminator selects, and its state byte. The blocks of variable arrays (elements, then one
// flag slot per element in a tracking instance) and the storage of counted strings are made
// (array elements initialised as nested instances), moved and given back by the helpers at the
// end, and nowhere else.
#ifndef OVRIN_OPS_WALK_H
#define OVRIN_OPS_WALK_H

#include <type_traits>

#include "ops/enum/enum.h"

namespace ovrin {

// A union's discriminator value as it is stored.
inline uint32_t stored_selector(const Type &t, const void *instance) {
    return static_cast<const EnumInstance *>(field_at(instance, t.fields[t.discriminator]))->value;
}
// The discriminator's value as a union lists its members by: the stored value, or its user value
// when the union selects by it.
inline uint32_t selector(const Type &t, const void *instance) {
    uint32_t value = stored_selector(t, instance);
    if (t.flags & type_flag_select_by_user_value) value = enum_map_to_user_value(*t.fields[t.discriminator].type, value);
    return value;
}

// One field of one instance. V is void, or const void for the walks that only read.
template <class V> class FieldAt {
    static_assert(std::is_same_v<V, void> || std::is_same_v<V, const void>);
    using Byte = std::conditional_t<std::is_const_v<V>, const uint8_t, uint8_t>;
    using Pointer = std::conditional_t<std::is_const_v<V>, void *const, void *>;

public:
    FieldAt(const Type &t, const Field &f, V *instance) : t_(&t), f_(&f), instance_(instance) {}

    const Type &type() const { return *t_; }
    const Field &field() const { return *f_; }
    const Field *operator->() const { return f_; }
    uint16_t index() const { return static_cast<uint16_t>(f_ - t_->fields); }
    V *instance() const { return instance_; }
    V *address() const { return static_cast<Byte *>(instance_) + f_->offset; }

    // A count or length field: on the wire it carries no state byte (what it counts does).
    bool is_counter() const { return f_->companion >= 0 && f_->shape == Shape::scalar; }
    // The value a counter field holds, at its own width.
    uint32_t counted() const { return count_at(instance_, *f_); }
    // The companion of a string or variable array, its count or length.
    const Field &counter() const { return t_->fields[f_->companion]; }
    void store_counter(uint32_t value) const requires(!std::is_const_v<V>) { store_count(instance_, counter(), value); }

    // Elements: one of a scalar or member, the declared number of a fixed array, the companion's
    // value for a variable array (elements) or a string (characters).
    [[gnu::always_inline]] uint32_t count() const {
        switch (f_->shape) {
        case Shape::fixed_array: return f_->count;
        case Shape::var_array:
        case Shape::var_string: return count_at(instance_, counter());
        default: return 1;
        }
    }
    // The elements there are to visit: count(), but none in a variable array without a block.
    uint32_t elements() const { return f_->shape == Shape::var_array && !block() ? 0 : count(); }
    // The pointer word of a string, variable array or union member.
    Pointer &pointer() const { return *static_cast<Pointer *>(address()); }
    [[gnu::always_inline]] V *block() const { return pointer(); }
    // Element k: inline for scalars and fixed arrays, in the block for variable arrays.
    V *element(uint32_t k) const {
        Byte *base = f_->shape == Shape::var_array ? static_cast<Byte *>(block()) : static_cast<Byte *>(address());
        return base + size_t{k} * f_->elem_size;
    }
    // The elements as they stand now (inline, or in the current block), for a loop over them
    // that need not look at the shape and the block again per element.
    struct Run {
        Byte *base;
        size_t size;
        V *operator[](uint32_t k) const { return base + size_t{k} * size; }
    };
    [[gnu::always_inline]] Run run() const {
        return {f_->shape == Shape::var_array ? static_cast<Byte *>(block()) : static_cast<Byte *>(address()), f_->elem_size};
    }
    // Whether this union member is the one the discriminator selects.
    [[gnu::always_inline]] bool selected() const { return f_->shape == Shape::member && selector(*t_, instance_) == f_->select; }
    // The field's own state byte in an instance's flag area (none: 0).
    uint8_t flag(const uint8_t *area) const { return area ? area[f_->sttr_pos] : 0; }
    // The position of this member among the union's members, present or not.
    uint32_t arm_index() const {
        uint32_t n = 0;
        for (const Field *g = t_->fields; g != f_; ++g) n += g->shape == Shape::member;
        return n;
    }

private:
    const Type *t_;
    const Field *f_;
    V *instance_;
};

// The fields of an instance present in a variant, in declaration order; or those a list of the
// generator's plan names (indices, in declaration order).
template <class V> class Fields {
public:
    Fields(const Type &t, V *instance, int variant, const uint16_t *list = nullptr, uint16_t n = 0)
        : t_(&t), instance_(instance), variant_(variant), list_(list), n_(list ? n : t.n_fields) {}

    class iterator {
    public:
        iterator(const Fields *w, uint16_t k) : w_(w), k_(k) { skip(); }
        FieldAt<V> operator*() const { return FieldAt<V>(*w_->t_, w_->field(k_), w_->instance_); }
        iterator &operator++() {
            ++k_;
            skip();
            return *this;
        }
        bool operator!=(const iterator &o) const { return k_ != o.k_; }

    private:
        void skip() {
            while (k_ < w_->n_ && !present(w_->field(k_), w_->variant_)) ++k_;
        }
        const Fields *w_;
        uint16_t k_;
    };
    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, n_); }

private:
    const Field &field(uint16_t k) const { return t_->fields[list_ ? list_[k] : k]; }
    const Type *t_;
    V *instance_;
    int variant_;
    const uint16_t *list_;
    uint16_t n_;
};

template <class V> Fields<V> fields(const Type &t, V *instance, int variant) { return Fields<V>(t, instance, variant); }
// The generator's lists (see Type::plan): the fields destroy visits, those holding inline
// instances (create and embed visit them, at every variant), those with a flag area of their own.
template <class V> Fields<V> owning_fields(const Type &t, V *instance, int variant) {
    return Fields<V>(t, instance, variant, t.plan, t.n_owning);
}
template <class V> Fields<V> inline_fields(const Type &t, V *instance) {
    return Fields<V>(t, instance, t.last_variant(), t.plan + t.n_owning, t.n_inline);
}
template <class V> Fields<V> area_fields(const Type &t, V *instance) {
    return Fields<V>(t, instance, t.last_variant(), t.plan + t.n_owning + t.n_inline, t.n_areas);
}
template <class V> FieldAt<V> field_of(const Type &t, const Field &f, V *instance) { return FieldAt<V>(t, f, instance); }

// A string's length or an array's count set, write-notified.
inline void set_count(mgx_handle_t *h, uint32_t luid, const FieldAt<void> &a, uint32_t value) {
    notify(h, field_at(a.instance(), a.counter()), a.counter().size, luid, a.instance());
    a.store_counter(value);
}

// ---------------------------------------------------------------- blocks

// Gives a block's pointer word up: the block is freed and the word cleared, write-notified.
inline void free_block(mgx_handle_t *h, uint32_t luid, void *&slot, const void *base = nullptr) {
    if (!slot) return;
    notify(h, &slot, sizeof slot, luid, base);
    h->inst_free(h->alloc_ctx, luid, slot);
    slot = nullptr;
}

// A counted string's storage: room for len characters and the terminator (characters of the
// runtime's size), from the handle; null when it cannot be had (the caller reports 12 its way).
// Every family makes string storage here, as it makes array blocks below.
inline void *new_text(mgx_handle_t *h, uint32_t luid, size_t len) {
    return h->inst_alloc(h->alloc_ctx, luid, (len + 1) * char_sizeof());
}

// Storage from new_text that no string took (its reader refused what it read) given back.
inline void drop_text(mgx_handle_t *h, uint32_t luid, void *text) { h->inst_free(h->alloc_ctx, luid, text); }

// A string's pointer word takes text (null for none), the old storage freed, write-notified.
inline void replace_text(mgx_handle_t *h, uint32_t luid, void *&slot, void *text, const void *base = nullptr) {
    notify(h, &slot, sizeof slot, luid, base); // before the word changes, whether or not it held storage
    if (slot) h->inst_free(h->alloc_ctx, luid, slot);
    slot = text;
}

// The elements [from, to) of a variable array's block, laid out as nested instances over their
// flag slots (a tracking block has them) and, when raise is set, raised to the variant the
// handle knows for their type (as a decode or read makes them, so later members arrive in
// full). On failure the ones made so far are destroyed again and false returned with the code.
bool init_elements(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t count, uint32_t from, uint32_t to,
                   bool tracked, bool raise, uint32_t *err);

// A new zeroed block of count elements, made as init_elements makes them; null with the code in
// err when it cannot be had.
void *new_block(const Field &f, mgx_handle_t *h, uint32_t luid, uint32_t count, bool tracked, bool raise, uint32_t *err);

// Room for count elements (more than old_count) in a variable array's block, the new ones
// initialised as init_elements makes them (not raised). In place when the block's room holds
// them (block is returned); otherwise a new block of room(count) holding the old elements and
// their flag slots moved over (the old block and the registrations of the moved elements are the
// caller's to settle). Null with the code in err on failure, the block as it was.
void *grow_block(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t old_count, uint32_t count, bool tracked,
                 uint32_t *err);

// The block grow_block moved old_count elements out of, given back: the elements live on in the
// new block, so they are only detached from the handle's database (in its mode) before the block
// is freed.
void free_moved_block(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t old_count);

// Destroys the first count elements of a block (none without a block).
void destroy_elements(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t count);

// A variable array's block and its elements released (the count is left to the caller).
inline void release_array(const FieldAt<void> &a, mgx_handle_t *h, uint32_t luid, uint32_t count, const void *base = nullptr) {
    if (!a.block()) return;
    destroy_elements(a.field(), h, luid, a.block(), count);
    free_block(h, luid, a.pointer(), base);
}

// A variable array's elements replaced by count fresh ones, made as a decode makes them (raised
// to the variants the handle knows): the old elements and their block are released first, and the
// count follows. False with the code in err when the new block cannot be had; the array is then
// empty.
bool replace_array(const FieldAt<void> &a, mgx_handle_t *h, uint32_t luid, uint32_t count, bool tracked, uint32_t *err);

} // namespace ovrin

#endif
