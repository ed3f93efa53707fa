// The lifecycle of every record, union and enumeration instance, over the type tables.
#include "ops/record/lifecycle.h"

#include <cstdlib>
#include <cstring>

#include "ops/enum/enum.h"
#include "ops/walk.h"

namespace ovrin {

namespace {

// The runtime's instance-like primitives (booleans, addresses, attribute lists) sit inside
// records as runtime instances: they are initialised, embedded and destroyed by the runtime.
struct PrimInstance {
    const mgx_type_info_t *descriptor;
    void (*initialize)(mgx_handle_t *, uint32_t, void *, const void *, int, int, uint32_t, uint8_t *, uint32_t *);
    void (*destroy_internal)(mgx_handle_t *, uint32_t, void *, int);
    void (*set_instance_embedded)(mgx_handle_t *, uint32_t, void *);
    uint32_t (*get_oid_count)(mgx_handle_t *, uint32_t, const void *, uint32_t *);
    void (*get_object_references)(mgx_handle_t *, uint32_t, const void *, uint64_t *, uint32_t, uint32_t *);
};

template <class T, auto Init, auto Destroy, auto Embed, auto Count, auto Refs>
constexpr PrimInstance prim_instance(const mgx_type_info_t *d) {
    return PrimInstance{
        d,
        [](mgx_handle_t *h, uint32_t luid, void *f, const void *desc, int hook, int header_only, uint32_t flags, uint8_t *base,
           uint32_t *err) { Init(h, luid, static_cast<T *>(f), desc, hook, header_only, flags, base, err); },
        [](mgx_handle_t *h, uint32_t luid, void *f, int free_it) { Destroy(h, luid, static_cast<T *>(f), free_it); },
        [](mgx_handle_t *h, uint32_t luid, void *f) { Embed(h, luid, static_cast<T *>(f)); },
        [](mgx_handle_t *h, uint32_t luid, const void *f, uint32_t *err) {
            return Count(h, luid, static_cast<const T *>(f), err);
        },
        [](mgx_handle_t *h, uint32_t luid, const void *f, uint64_t *a, uint32_t n, uint32_t *err) {
            Refs(h, luid, static_cast<const T *>(f), a, n, err);
        },
    };
}

#define OVRIN_PRIM_INSTANCE(T)                                                                                                   \
    prim_instance<T, T##_initialize, T##_destroy_internal, T##_set_instance_embedded, T##_get_oid_count,                         \
                  T##_get_object_references>(&_##T##_type_info_internal)

const PrimInstance *prim_instance_of(Kind k) {
    switch (k) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: {                                                                                                              \
        static const PrimInstance instance = OVRIN_PRIM_INSTANCE(T);                                                             \
        return &instance;                                                                                                        \
    }
        OVRIN_INSTANCE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return nullptr;
    }
}

void hooked_write(mgx_handle_t *h, bool use_hook, void *addr, size_t n, uint32_t luid, const void *base) {
    if (use_hook) notify(h, addr, n, luid, base);
}

// The statistics entry of a variant: an out-of-range variant is reported and capped.
[[gnu::noinline, gnu::cold]] void *stats_block(const Type &t, const mgx_type_info_t *d, int8_t variant) {
    if (!d->variant_info) {
        trace(t, Message::variant_info, MGX_SEV_EMERG, static_cast<uint32_t>(variant), 0u);
        std::abort();
    }
    int n = d->variant_info->n_variants;
    if (n < variant) trace(t, Message::variant_info, MGX_SEV_INFO, static_cast<uint32_t>(variant), static_cast<uint32_t>(n));
    if (variant < 0) return nullptr;
    int8_t entry = record_variant_cap(t, static_cast<uint8_t>(variant));
    return d->variant_info->entries[entry].stats;
}

[[gnu::noinline, gnu::cold]] void stats_failed(const Type &t, uint32_t code, uint32_t *err) {
    trace(t, Message::stats_failed, MGX_SEV_ERROR, std::strerror(static_cast<int>(code)));
    keep_first(err, code);
}

// Counts a creation or destruction in the variant's statistics; false when the runtime could not.
[[gnu::always_inline]] inline bool count_stats(const Type &t, mgx_handle_t *h, uint32_t luid, const mgx_type_info_t *d,
                                               int8_t variant, bool created, uint32_t *err) {
    // A variant that both the descriptor and the table know names its own entry; anything else
    // takes the reporting and capping path.
    const mgx_type_variant_info_t *vi = d->variant_info;
    void *block;
    if (vi && variant >= 0 && variant <= vi->n_variants && variant < t.n_variants) [[likely]]
        block = vi->entries[variant].stats;
    else if (!(block = stats_block(t, d, variant))) return true;
    uint32_t local = 0;
    if (created) mgxlib_type_stats_create_object(h, luid, d, block, &local);
    else mgxlib_type_stats_destroy_object(h, luid, d, block, &local);
    if (local) [[unlikely]] {
        stats_failed(t, local, err);
        return false;
    }
    return true;
}

// Releases the object references a field holds, then destroys the field. False when the
// references could not be listed: the destroy is then abandoned. Out of line: its room for the
// references is on its own stack frame, not on that of every destroy.
[[gnu::noinline]] bool release_references(const Type &t, mgx_handle_t *h, uint32_t luid, void *field, uint32_t n,
                                          void (*list)(mgx_handle_t *, uint32_t, const void *, uint64_t *, uint32_t, uint32_t *),
                                          uint32_t *err) {
    RefList refs(n);
    if (!refs.ok()) {
        fail(h, err, MGX_ENOMEM);
        trace(t, Message::destroy_references_failed, MGX_SEV_ERROR, std::strerror(MGX_ENOMEM));
        return false;
    }
    list(h, luid, field, refs.data(), n, err);
    if (*err) {
        trace(t, Message::destroy_references_failed, MGX_SEV_ERROR, std::strerror(static_cast<int>(*err)));
        return false;
    }
    // A reference that cannot be released is reported, and the destroy goes on.
    for (uint64_t ref : refs) {
        uint32_t released = 0;
        mgxlib_lookup_and_update_oid_ref_count(h, luid, ref, 0, &released);
        if (released)
            trace(t, Message::destroy_release_failed, MGX_SEV_ERROR, reinterpret_cast<const void *>(ref),
                  std::strerror(static_cast<int>(released)));
    }
    return true;
}

// The descriptor of an instance being destroyed; one that is not a descriptor is fatal.
const mgx_type_info_t *destroyed_descriptor(const Type &t, const mgx_instance_hdr_t *hd) {
    auto *d = static_cast<const mgx_type_info_t *>(hd->descriptor);
    if (!d || d->magic != MGX_TYPE_INFO_MAGIC) fatal(t, Message::descriptor_corrupt);
    return d;
}

// destroy_internal of a nested instance (not freed) that owns nothing and has no mapping, OID or
// tracking to settle: its descriptor checked and its destruction counted, without a call. False,
// with nothing done, for any other instance.
[[gnu::always_inline]] inline bool destroy_leaf(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance) {
    const mgx_instance_hdr_t *hd = hdr(instance);
    if (t.n_owning || (hd->flags & (MGX_IF_OID_MAPPED | MGX_IF_TRACKED | MGX_IF_STTR_OFFSET | MGX_IF_HD_MAPPED))) return false;
    uint32_t err = 0;
    count_stats(t, h, luid, destroyed_descriptor(t, hd), hd->variant, false, &err);
    return true;
}

// Destroys the instances an inline field holds (one, or each of a fixed array's). False when the
// destroy is abandoned.
bool destroy_inline(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, uint8_t *address, uint32_t *err) {
    const PrimInstance *prim = prim_instance_of(f.kind);
    for (uint32_t k = 0; k < f.count; ++k) {
        void *element = address + size_t{k} * f.elem_size;
        // Nested records and attribute lists may hold object references for their container
        // to release; a nested record lists none (it only reports an error already present).
        if (*err) [[unlikely]] {
            trace(f.type ? *f.type : t, Message::oid_count_error_present, MGX_SEV_ERROR);
            if (f.kind == Kind::record) get_oid_count(*f.type, h, luid, element, err);
        }
        if (f.kind == Kind::aaa_tlv) {
            uint32_t n = prim->get_oid_count(h, luid, element, err);
            if (n > 0 && !release_references(t, h, luid, element, n, prim->get_object_references, err)) return false;
        }
        if (prim) prim->destroy_internal(h, luid, element, 0);
        else if (!destroy_leaf(*f.type, h, luid, element)) destroy_internal(*f.type, h, luid, element, 0);
    }
    return true;
}

// Destroys the fields of an instance in declaration order, as the type's plan lists those that
// own something. False when the destroy is abandoned.
bool destroy_fields(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, int8_t variant, uint32_t *err) {
    const uint16_t *plan = t.plan;
    for (uint16_t i = 0, n = t.n_owning; i < n; ++i) {
        const Field &f = t.fields[plan[i]];
        if (!present(f, variant)) continue;
        uint8_t *address = bytes(instance) + f.offset;
        switch (f.shape) {
        case Shape::member: {
            void *&slot = *reinterpret_cast<void **>(address);
            if (slot) {
                destroy_internal(*f.type, h, luid, slot, 1);
                notify(h, &slot, sizeof slot, luid);
                slot = nullptr;
            }
            continue;
        }
        case Shape::var_string: free_block(h, luid, *reinterpret_cast<void **>(address)); continue;
        case Shape::var_array: {
            const FieldAt<void> a = field_of(t, f, instance);
            release_array(a, h, luid, a.count());
            continue;
        }
        default:
            if (!destroy_inline(t, f, h, luid, address, err)) return false;
        }
    }
    return true;
}

} // namespace

void *create(const Type &t, mgx_handle_t *h, uint32_t luid) {
    t.bundle->trace_init();
    return create_internal(t, h, luid);
}

void *create_internal(const Type &t, mgx_handle_t *h, uint32_t luid) {
    void *result = nullptr;
    bool descriptor_call = h->desc_call != 0;
    if (descriptor_call && h->placeholder) {
        result = t.placeholder;
    } else {
        uint32_t size = tracking(t, h) ? t.tracked_size() : t.size;
        void *block = h->inst_alloc(h->alloc_ctx, luid, size);
        if (!block) {
            if (descriptor_call) {
                mgx_store_err(h, MGX_ENOMEM);
                result = t.placeholder;
            }
        } else {
            std::memset(block, 0, size);
            uint32_t err = 0;
            initialize(t, h, luid, block, t.descriptor, 1, 0, 0, nullptr, &err);
            if (err) {
                trace(t, Message::create_failed, MGX_SEV_ERROR, std::strerror(static_cast<int>(err)));
                h->inst_free(h->alloc_ctx, luid, block);
                return nullptr;
            }
            result = block;
        }
    }
    if (h->database) {
        mgxdb_record_containment2(h, luid, result, nullptr, 1);
        if (luid != MGX_LUID_NONE && h->domain_mode == 1) mgxdb_plat_set_dirty(h, luid, result);
    }
    return result;
}

void *create_cr(const Type &t, mgx_handle_t *h) {
    t.bundle->trace_init();
    h->desc_call = 1;
    void *result = create_internal(t, h, h->desc_call_luid);
    h->desc_call = 0;
    return result;
}

namespace {

// The arguments an initialization hands down unchanged to every instance nested in it.
struct Walk {
    mgx_handle_t *h;
    uint32_t luid;
    int use_write_hook;
    uint32_t *err;
};

void initialize_nested(const Type &t, const Walk &w, void *instance, uint8_t *sttr_base);

// An initialisation that failed after writing its header takes itself back: the nested instances
// it made are destroyed (one that failed took itself back already), its own creation, when
// counted, is matched by a destruction, and its descriptor is cleared. The block is then plain
// memory again for whoever made it, holding nothing and leaving nothing counted; destroying it
// instead would reach nested instances that were never made.
[[gnu::cold, gnu::noinline]] void undo_initialize(const Type &t, const Walk &w, void *instance, bool counted) {
    for (FieldAt<void> a : inline_fields(t, instance)) {
        const Field &f = a.field();
        const PrimInstance *prim = prim_instance_of(f.kind);
        for (uint32_t k = 0; k < f.count; ++k) {
            void *element = a.element(k);
            if (prim) prim->destroy_internal(w.h, w.luid, element, 0);
            else if (hdr(element)->descriptor) destroy_internal(*f.type, w.h, w.luid, element, 0);
        }
    }
    mgx_instance_hdr_t *hd = hdr(instance);
    uint32_t ignored = 0;
    if (counted) count_stats(t, w.h, w.luid, static_cast<const mgx_type_info_t *>(hd->descriptor), hd->variant, false, &ignored);
    hooked_write(w.h, w.use_write_hook != 0, &hd->descriptor, sizeof hd->descriptor, w.luid, nullptr);
    hd->descriptor = nullptr;
}

[[gnu::always_inline]] inline void initialize_instance(const Type &t, const Walk &w, void *instance, const void *descriptor,
                                                       int header_only, uint32_t flags_to_set, uint8_t *sttr_base) {
    mgx_handle_t *h = w.h;
    uint32_t luid = w.luid;
    uint32_t *err = w.err;
    if (!begin(h, luid, instance, err)) return;
    mgx_instance_hdr_t *hd = hdr(instance);
    bool hook = w.use_write_hook != 0;
    int8_t variant = record_variant_cap(t,
                                        static_cast<uint8_t>(mgx_domain_lookup_variant(h, &h->variant_domain, descriptor, err)));

    hooked_write(h, hook, &hd->layout, 1, luid, nullptr);
    hd->layout = 0;
    hooked_write(h, hook, &hd->variant, 1, luid, nullptr);
    hd->variant = variant;
    void *registered = h->domain_mode == 0 ? const_cast<void *>(descriptor)
                                           : mgx_type_info_ptr_get(h, luid, descriptor, t.bundle->register_types);
    if (!registered) {
        // The handle could not keep the bundle's registration (its registry ran out of memory):
        // an instance without a descriptor could never be destroyed, so none is made.
        fail(h, err, MGX_ENOMEM);
        return;
    }
    hooked_write(h, hook, &hd->descriptor, sizeof hd->descriptor, luid, nullptr);
    hd->descriptor = registered;
    hooked_write(h, hook, &hd->flags, 1, luid, instance);
    hd->flags = static_cast<uint8_t>(hd->flags | flags_to_set);
    bool tracked = tracking(t, h);
    if (tracked) {
        hooked_write(h, hook, &hd->flags, 1, luid, instance);
        hd->flags |= MGX_IF_TRACKED;
    }
    if (header_only) return;

    const bool counted = count_stats(t, h, luid, static_cast<const mgx_type_info_t *>(registered), variant, true, err);

    uint8_t *base = nullptr;
    if (tracked) {
        if ((hd->flags & MGX_IF_NESTED) && !sttr_base) {
            fail(h, err, MGX_EINVAL);
            trace(t, Message::nested_without_sttr_base, MGX_SEV_ERROR);
            undo_initialize(t, w, instance, counted);
            return;
        }
        if (hd->flags & MGX_IF_STTR_OFFSET) base = bytes(instance) + mgxlib_get_sttr_offset(h, luid, instance);
        else base = sttr_base ? sttr_base : bytes(instance) + t.size;
        for (FieldAt<void> a : area_fields(t, instance)) {
            uint8_t *area = base + a->sttr_nested;
            mgxlib_update_sttr_offset(h, luid, a.address(), area - bytes(a.address()));
            if (a->kind == Kind::aaa_tlv) aaa_tlv_offset_update(h, luid, static_cast<aaa_tlv *>(a.address()), area, err);
        }
    }
    // The runtime says in the handle's store when it could not record an offset.
    const bool offsets_lost = base && t.n_areas && h->last_error == MGX_ENOMEM;

    for (FieldAt<void> a : inline_fields(t, instance)) {
        const Field &f = a.field();
        const PrimInstance *prim = prim_instance_of(f.kind);
        // A nested instance's flags start at its area inside ours; one without an area of its own
        // (an enumeration) is handed our base.
        uint8_t *nested_base = !base                                                  ? sttr_base
                               : f.sttr_nested != no_area && f.shape == Shape::scalar ? base + f.sttr_nested
                                                                                      : base;
        for (uint32_t k = 0; k < f.count; ++k) {
            if (prim)
                prim->initialize(h, luid, a.element(k), prim->descriptor, w.use_write_hook, 0, MGX_IF_NESTED, nested_base, err);
            else initialize_nested(*f.type, w, a.element(k), nested_base);
        }
    }
    if (offsets_lost && !failed(err)) fail(h, err, MGX_ENOMEM);
    if (failed(err)) [[unlikely]]
        undo_initialize(t, w, instance, counted);
}

void initialize_nested(const Type &t, const Walk &w, void *instance, uint8_t *sttr_base) {
    initialize_instance(t, w, instance, t.descriptor, 0, MGX_IF_NESTED, sttr_base);
}

// initialize_instance out of line, for the entry points whose common case is the plain walk.
[[gnu::noinline]] void initialize_general(const Type &t, const Walk &w, void *instance, const void *descriptor, int header_only,
                                          uint32_t flags_to_set, uint8_t *sttr_base) {
    initialize_instance(t, w, instance, descriptor, header_only, flags_to_set, sttr_base);
}

// Whether an initialisation is plain: no write hook to call (the walk uses none, or the handle
// has none), instances that point at the static descriptors and no state tracking, so that no
// instance of the walk has a flag area of its own and every header is four stores.
bool plain(const Type &t, const mgx_handle_t *h, int use_write_hook) {
    return (!use_write_hook || !h->write_hook) && h->domain_mode == 0 && !tracking(t, h);
}

// initialize_instance as it goes in a plain walk, with the same calls in the same order; every
// nested instance is handed the base the walk started with, as initialize_instance hands it
// where there are no flag areas.
// The header and the count of initialize_plain; false when the walk has failed before it.
[[gnu::always_inline]] inline bool plain_header(const Type &t, const Walk &w, void *instance, const void *descriptor,
                                                uint32_t flags_to_set, bool &counted) {
    mgx_handle_t *h = w.h;
    if (!begin(h, w.luid, instance, w.err)) return false;
    mgx_instance_hdr_t *hd = hdr(instance);
    const int8_t variant = record_variant_cap(
        t, static_cast<uint8_t>(mgx_domain_lookup_variant(h, &h->variant_domain, descriptor, w.err)));
    hd->layout = 0;
    hd->variant = variant;
    hd->descriptor = const_cast<void *>(descriptor);
    hd->flags = static_cast<uint8_t>(hd->flags | flags_to_set);
    counted = count_stats(t, h, w.luid, static_cast<const mgx_type_info_t *>(descriptor), variant, true, w.err);
    return true;
}

void initialize_plain(const Type &t, const Walk &w, void *instance, const void *descriptor, uint32_t flags_to_set,
                      uint8_t *sttr_base) {
    bool counted;
    if (!plain_header(t, w, instance, descriptor, flags_to_set, counted)) return;
    const uint16_t *plan = t.plan + t.n_owning;
    for (uint16_t i = 0, n = t.n_inline; i < n; ++i) {
        const Field &f = t.fields[plan[i]];
        uint8_t *address = bytes(instance) + f.offset;
        const PrimInstance *prim = prim_instance_of(f.kind);
        for (uint32_t k = 0; k < f.count; ++k) {
            void *element = address + size_t{k} * f.elem_size;
            bool nested_counted;
            if (prim) {
                prim->initialize(w.h, w.luid, element, prim->descriptor, w.use_write_hook, 0, MGX_IF_NESTED, sttr_base, w.err);
            } else if (f.type->n_inline) {
                initialize_plain(*f.type, w, element, f.type->descriptor, MGX_IF_NESTED, sttr_base);
            } else if (plain_header(*f.type, w, element, f.type->descriptor, MGX_IF_NESTED, nested_counted) && failed(w.err))
                [[unlikely]] {
                // a nested instance that embeds nothing, as initialize_plain makes it, here without a call
                undo_initialize(*f.type, w, element, nested_counted);
            }
        }
    }
    if (failed(w.err)) [[unlikely]]
        undo_initialize(t, w, instance, counted);
}

} // namespace

void initialize(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, const void *descriptor, int use_write_hook,
                int header_only, uint32_t flags_to_set, uint8_t *sttr_base, uint32_t *err) {
    const Walk w{h, luid, use_write_hook, err};
    if (!header_only && plain(t, h, use_write_hook)) initialize_plain(t, w, instance, descriptor, flags_to_set, sttr_base);
    else initialize_general(t, w, instance, descriptor, header_only, flags_to_set, sttr_base);
}

void initialize_element(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t *sttr_base, uint32_t *err) {
    const Walk w{h, luid, 0, err};
    if (plain(t, h, 0)) initialize_plain(t, w, instance, t.descriptor, MGX_IF_NESTED, sttr_base);
    else initialize_general(t, w, instance, t.descriptor, 0, MGX_IF_NESTED, sttr_base);
}

void set_instance_embedded(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance) {
    if (!instance) {
        trace(t, Message::embed_null, MGX_SEV_ERROR);
        return;
    }
    for (FieldAt<void> a : inline_fields(t, instance)) {
        const PrimInstance *prim = prim_instance_of(a->kind);
        for (uint32_t k = 0; k < a->count; ++k) {
            if (prim) prim->set_instance_embedded(h, luid, a.element(k));
            else set_instance_embedded(*a->type, h, luid, a.element(k));
        }
    }
    mgx_instance_hdr_t *hd = hdr(instance);
    notify(h, &hd->flags, 1, luid, instance);
    hd->flags |= MGX_IF_EMBEDDED;
}

void destroy(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance) {
    if (instance == t.placeholder) return;
    destroy_internal(t, h, luid, instance, 1);
}

void destroy_cr(const Type &t, mgx_handle_t *h, void *instance) { destroy_internal(t, h, h->desc_call_luid, instance, 1); }

void destroy_internal(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, int free_it) {
    if (!instance || instance == t.placeholder) return;
    mgx_instance_hdr_t *hd = hdr(instance);
    uint32_t err = 0;
    if (hd->flags & MGX_IF_OID_MAPPED) {
        int removed = mgx_request_oid_mapping_destroy(h, luid, instance, &err);
        if (err) {
            trace(t, Message::destroy_oid_mapping_failed, MGX_SEV_ERROR, std::strerror(static_cast<int>(err)));
            mgx_store_err(h, err);
            return;
        }
        if (!removed) {
            trace(t, Message::destroy_has_references, MGX_SEV_INFO);
            return;
        }
        trace(t, Message::destroy_oid_mapping_removed, MGX_SEV_DEBUG);
    }
    // Later-variant fields are destroyed when the instance has them; an instance whose memory is
    // laid out for a later variant (its layout byte) may still own them after a decode of an
    // older variant lowered its variant, so that counts too: nothing it owns is left behind. The
    // same holds for a negative variant (a header alone decoded over an instance that held
    // members): what the instance owns up to its layout is destroyed, rather than leaked.
    int8_t variant = hd->variant;
    int8_t owned = hd->layout > variant ? hd->layout : variant;
    if (owned >= 0 && t.n_owning && !destroy_fields(t, h, luid, instance, owned, &err)) return;

    if (hd->flags & MGX_IF_TRACKED) {
        if (hd->flags & MGX_IF_STTR_OFFSET) mgxlib_get_sttr_offset(h, luid, instance);
        else tracking(t, h);
    }
    count_stats(t, h, luid, destroyed_descriptor(t, hd), hd->variant, false, &err);

    if ((hd->flags & (MGX_IF_STTR_OFFSET | MGX_IF_HD_MAPPED)) && h->hd_mapping) {
        uint32_t local = 0;
        mgx_hd_mapping_destroy(h, luid, instance, &local);
        if (local) {
            trace(t, Message::destroy_oid_mapping_failed, MGX_SEV_ERROR, std::strerror(static_cast<int>(local)));
            mgx_store_err(h, local);
            return;
        }
    }
    if (!free_it) return;
    if (h->database && luid != MGX_LUID_NONE && h->domain_mode == 1) mgxdb_plat_set_destroy(h, luid, instance);
    if ((hd->flags & MGX_IF_DESC_OWNED) && hd->descriptor) h->inst_free(h->alloc_ctx, luid, hd->descriptor);
    notify(h, &hd->descriptor, sizeof hd->descriptor, luid);
    hd->descriptor = nullptr;
    h->inst_free(h->alloc_ctx, luid, instance);
}

uint32_t size_of(const Type &t, const mgx_handle_t *h) { return tracking(t, h) ? t.tracked_size() : t.size; }

uint32_t size_of_internal(const Type &t, const mgx_handle_t *h, const void *instance, int include_state_flags, int flags_only) {
    uint32_t base = t.size;
    if (t.n_variants > 1 && instance && hdr(instance)->layout == 0) base = t.variants[0].used + 16;
    if (!tracking(t, h)) return flags_only ? 0 : base;
    if (flags_only) return t.sttr_size;
    return base + (include_state_flags ? t.sttr_size : 0);
}

uint32_t get_oid_count(const Type &t, mgx_handle_t *h, uint32_t, const void *instance, uint32_t *err) {
    if (failed(err)) {
        trace(t, Message::oid_count_error_present, MGX_SEV_ERROR);
    } else if (!instance) {
        trace(t, Message::oid_count_null, MGX_SEV_ERROR);
        fail(h, err, MGX_EINVAL);
    }
    return 0;
}

void get_object_references(const Type &t, mgx_handle_t *h, uint32_t, const void *instance, uint64_t *, uint32_t, uint32_t *err) {
    if (failed(err)) {
        trace(t, Message::references_error_present, MGX_SEV_ERROR);
        return;
    }
    if (!instance) {
        trace(t, Message::references_null, MGX_SEV_ERROR);
        fail(h, err, MGX_EINVAL);
    }
}

namespace {

// A type with a single variant cannot be raised past a layout of 0 or more: the runtime would
// cap the domain's variant to 0 and leave such an instance as it is.
bool layout_settled(const Type &t, const void *instance) { return t.n_variants == 1 && hdr(instance)->layout >= 0; }

// The records and enumerations embedded in an instance, at every depth.
void adjust_embedded(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    const uint16_t *plan = t.plan + t.n_owning;
    for (uint16_t i = 0, n = t.n_inline; i < n; ++i) {
        const Field &f = t.fields[plan[i]];
        if (f.kind != Kind::record && f.kind != Kind::enumeration) continue;
        for (uint32_t k = 0; k < f.count; ++k) {
            void *nested = bytes(instance) + f.offset + size_t{k} * f.elem_size;
            if (f.kind == Kind::record && f.type->n_inline) adjust_embedded(*f.type, h, luid, nested, err);
            if (layout_settled(*f.type, nested)) continue;
            if (f.kind == Kind::record)
                mgxlib_adjust_variant(h, luid, nested, mgx_get_manifested_type_info(nested), f.type->last_variant(), err);
            else enum_adjust_variant(*f.type, h, luid, nested, err);
        }
    }
}

} // namespace

// Brings an instance and the records and enumerations embedded in it to the handle's domain, so
// that a decode into it takes every variant the domain knows, at every level.
uint32_t adjust_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!instance) return mgxlib_adjust_variant(h, luid, nullptr, nullptr, t.last_variant(), err);
    adjust_embedded(t, h, luid, instance, err);
    return mgxlib_adjust_variant(h, luid, instance, mgx_get_manifested_type_info(instance), t.last_variant(), err);
}

void raise_variant_walk(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (t.n_inline) adjust_embedded(t, h, luid, instance, err);
    if (!layout_settled(t, instance))
        mgxlib_adjust_variant(h, luid, instance, mgx_get_manifested_type_info(instance), t.last_variant(), err);
}

} // namespace ovrin
