// The runtime handle: allocation accounting and failure injection, the write-hook journal, the
// registry, the error store, variant bookkeeping, OID mappings, state-flag offsets, statistics,
// database-hook recording, call-site tags, retained data and the encoder work space.
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "runtime/internal.h"

using mgx::rt;
using mgx::Runtime;

namespace {

// In the static TLS block: reached without a call (a shared library's thread-local storage
// otherwise costs a call of the dynamic linker's per access). Eight bytes, which the C library's
// reserve for libraries loaded later holds.
[[gnu::tls_model("initial-exec")]] thread_local uint32_t pending_callsite_tag = 0;
[[gnu::tls_model("initial-exec")]] thread_local bool callsite_tag_pending = false;
// Tags set by any thread and not yet consumed: while none is, an allocation does not look at its
// thread's own (reaching thread-local storage from a shared library is a call per access).
std::atomic<uint32_t> callsite_tags_pending{0};

// A countdown that fires on its nth step: 1 = the next one; 0 = never.
bool countdown_fires(uint32_t &nth) {
    if (nth == 0) return false;
    return --nth == 0;
}

bool recording(const Runtime *r, uint32_t recorder) { return (r->recorders & recorder) != 0; }

void record_hook(mgx_handle_t *h, mgx_hook_kind_t kind, uint32_t luid, const void *object, const void *container, int64_t arg) {
    Runtime *r = rt(h);
    if (recording(r, MGX_RECORD_HOOKS)) mgx::record(r->hooks, mgx_hook_record_t{kind, luid, object, container, arg});
}

// Drops the bookkeeping of every address inside [p, p + size) when a block goes away.
template <class Map> void erase_range(Map &m, const void *p, size_t size) {
    auto lo = m.lower_bound(reinterpret_cast<uintptr_t>(p));
    auto hi = m.lower_bound(reinterpret_cast<uintptr_t>(p) + size);
    m.erase(lo, hi);
}

// A guarded block's pattern, as it was written when the block was made.
void check_guard(Runtime *r, const void *p, size_t size) {
    const uint8_t *guard = static_cast<const uint8_t *>(p) + size;
    for (uint32_t i = 0; i < r->blocks.guard(); ++i)
        if (guard[i] != mgx::BlockPool::guard_pattern) {
            r->overruns++;
            std::fprintf(stderr, "mgx: block %p of %zu bytes was written past its end (guard byte %u)\n", p, size, i);
            return;
        }
}

// The pending tag of the calling thread, consumed by the allocation being made. Recorded only
// when asked for: a long-running process would otherwise collect one tag per union member it ever
// decoded.
[[gnu::noinline, gnu::cold]] void consume_callsite_tag(Runtime *r) {
    if (!callsite_tag_pending) return; // another thread's
    if (recording(r, MGX_RECORD_CALLSITE_TAGS)) mgx::record(r->callsite_tags, pending_callsite_tag);
    callsite_tag_pending = false;
    callsite_tags_pending.fetch_sub(1, std::memory_order_relaxed);
}

// Every allocation that is not served from a kept block without guard bytes: a pending call-site
// tag, an armed failure, guard bytes, a new block from the heap.
[[gnu::noinline]] void *allocate_any(Runtime *r, size_t size) {
    if (callsite_tags_pending.load(std::memory_order_relaxed) != 0) consume_callsite_tag(r);
    if (countdown_fires(r->fail_nth)) return nullptr;
    if (void *p = r->blocks.take_kept(size)) return p;
    return r->blocks.allocate(size);
}

// The allocator's context is the handle's runtime state.
void *instance_alloc(void *ctx, uint32_t, size_t size) {
    auto *r = static_cast<Runtime *>(ctx);
    if (callsite_tags_pending.load(std::memory_order_relaxed) == 0 && r->fail_nth == 0)
        if (void *p = r->blocks.take_kept(size)) return p;
    return allocate_any(r, size);
}

[[gnu::noinline, gnu::cold]] void foreign_free(Runtime *r, void *p) {
    std::fprintf(stderr, "mgx: free of a block this handle does not own: %p\n", p);
    if (!r->blocks.guard()) std::abort();
    r->foreign_frees++; // looking for faults: counted, and the test that made it fails
}

// Drops the state-flag offsets, retained data and OID mappings that lie inside a freed block.
[[gnu::noinline]] void drop_bookkeeping(Runtime *r, const void *p, size_t size) {
    if (!r->sttr_offsets.empty())
        r->sttr_offsets.erase_range(reinterpret_cast<uintptr_t>(p), reinterpret_cast<uintptr_t>(p) + size);
    if (!r->retained.empty()) erase_range(r->retained, p, size);
    if (!r->oid_of.empty()) {
        auto oid = r->oid_of.find(p);
        if (oid != r->oid_of.end()) {
            r->oids.erase(oid->second);
            r->oid_of.erase(oid);
        }
    }
    r->bookkeeping = !r->sttr_offsets.empty() || !r->retained.empty() || !r->oid_of.empty() || !r->oids.empty();
}

// Every free that release_plain declines: guard bytes, bookkeeping to drop, a block the kept ones
// have no room for, and a block that is not the handle's.
[[gnu::noinline]] void free_any(Runtime *r, void *p) {
    mgx::BlockHeader *b = r->blocks.claim(p);
    if (!b) {
        if (p) foreign_free(r, p);
        return;
    }
    const size_t size = b->size;
    if (r->blocks.guard()) check_guard(r, p, size);
    if (r->bookkeeping) drop_bookkeeping(r, p, size);
    r->blocks.recycle(b, size);
}

void instance_free(void *ctx, uint32_t, void *p) {
    auto *r = static_cast<Runtime *>(ctx);
    if (!r->bookkeeping && r->blocks.release_plain(p)) return;
    free_any(r, p);
}

// The handle's write hook while the journal records: called before every write an operation makes.
void journal_write(mgx_handle_t *h, const void *addr, size_t length, uint32_t luid, const void *base) {
    Runtime *r = rt(h);
    if (recording(r, MGX_RECORD_JOURNAL)) mgx::record(r->journal, mgx_write_record_t{addr, length, luid, base});
}

void *registry_alloc(void *ctx, uint32_t, size_t size) {
    auto *r = static_cast<Runtime *>(ctx);
    if (countdown_fires(r->registry_fail_nth)) return nullptr;
    void *p = std::calloc(1, size);
    if (!p) return nullptr;
    try {
        r->registry_blocks.push_back(p);
    } catch (...) {
        std::free(p);
        return nullptr;
    }
    return p;
}

void *registry_lookup(void *ctx, uint32_t, const char *key) {
    auto *r = static_cast<Runtime *>(ctx);
    if (!key) return nullptr;
    auto it = r->registry.find(std::string_view(key));
    return it == r->registry.end() ? nullptr : it->second;
}

// A copy that cannot be inserted is not found by later lookups; the handle's error store says 12.
void registry_insert(void *ctx, uint32_t, const char *key, void *descriptor) {
    auto *r = static_cast<Runtime *>(ctx);
    if (!key) return;
    mgx::guarded(r->handle, nullptr, [&] { r->registry.insert_or_assign(std::string(key), descriptor); });
}

const mgx_type_info_t *info_of(const void *descriptor) { return static_cast<const mgx_type_info_t *>(descriptor); }

int8_t highest_variant(const void *descriptor) {
    const mgx_type_info_t *d = info_of(descriptor);
    if (!d || !d->variant_info || d->variant_info->n_variants < 1) return 0;
    return static_cast<int8_t>(d->variant_info->n_variants - 1);
}

} // namespace

extern "C" {

// ------------------------------------------------------------------ the handle's own API

mgx_handle_t *mgx_handle_create(void) {
    auto *h = new (std::nothrow) mgx_handle_t{};
    if (!h) return nullptr;
    auto *r = new (std::nothrow) Runtime{};
    if (!r) {
        delete h;
        return nullptr;
    }
    h->runtime = r;
    r->handle = h;
    h->inst_alloc = instance_alloc;
    h->inst_free = instance_free;
    h->alloc_ctx = r;
    h->write_hook = nullptr; // the journal, off until asked for
    h->reg_alloc = registry_alloc;
    h->reg_mem_ctx = r;
    h->reg_lookup = registry_lookup;
    h->reg_insert = registry_insert;
    h->reg_ctx = r;
    h->variant_domain.impl = &r->domain_variants;
    h->desc_call_luid = MGX_LUID_NONE;
    return h;
}

void mgx_handle_destroy(mgx_handle_t *h) {
    if (!h) return;
    Runtime *r = rt(h);
    r->blocks.release_live([r](void *p, size_t size) {
        if (r->blocks.guard()) check_guard(r, p, size);
    });
    for (void *p : r->registry_blocks) std::free(p);
    delete r;
    delete h;
}

void mgx_handle_set_state_tracking(mgx_handle_t *h, int present, uint32_t marker) {
    rt(h)->sttr_record.marker = marker;
    h->sttr = present ? &rt(h)->sttr_record : nullptr;
}

int mgx_handle_set_domain_variant(mgx_handle_t *h, const char *type_name, int8_t variant) {
    if (!type_name) return MGX_EINVAL;
    uint32_t err = 0;
    mgx::guarded(h, &err, [&] { rt(h)->domain_variants.insert_or_assign(std::string(type_name), variant); });
    return static_cast<int>(err);
}

void mgx_handle_set_domain_mode(mgx_handle_t *h, uint32_t mode) { h->domain_mode = mode; }
uint32_t mgx_handle_last_error(const mgx_handle_t *h) { return h->last_error; }
uint64_t mgx_handle_live_allocations(const mgx_handle_t *h) { return rt(h)->blocks.live_count(); }
uint64_t mgx_handle_live_bytes(const mgx_handle_t *h) { return rt(h)->blocks.live_bytes(); }
int mgx_handle_set_guard_bytes(mgx_handle_t *h, uint32_t bytes) {
    if (!h || bytes > 4096 || !rt(h)->blocks.set_guard(bytes)) return MGX_EINVAL;
    return 0;
}
uint64_t mgx_handle_overruns(const mgx_handle_t *h) { return rt(h)->overruns; }
uint64_t mgx_handle_foreign_frees(const mgx_handle_t *h) { return rt(h)->foreign_frees; }
size_t mgx_handle_bookkeeping(const mgx_handle_t *h) {
    const Runtime *r = rt(h);
    return r->oids.size() + r->oid_of.size() + r->sttr_offsets.size() + r->retained.size();
}
uint64_t mgx_handle_total_allocations(const mgx_handle_t *h) { return rt(h)->blocks.total(); }
void mgx_handle_fail_allocation(mgx_handle_t *h, uint32_t nth) { rt(h)->fail_nth = nth; }
uint32_t mgx_handle_allocation_failure_pending(const mgx_handle_t *h) { return rt(h)->fail_nth; }
void mgx_handle_fail_registry_allocation(mgx_handle_t *h, uint32_t nth) { rt(h)->registry_fail_nth = nth; }
uint32_t mgx_handle_registry_count(const mgx_handle_t *h) { return static_cast<uint32_t>(rt(h)->registry.size()); }

const void *mgx_handle_registry_lookup(const mgx_handle_t *h, const char *fingerprint_text) {
    return registry_lookup(rt(h), 0, fingerprint_text);
}

void mgx_handle_set_flags(mgx_handle_t *h, uint32_t flags) {
    h->database = (flags & MGX_HANDLE_DATABASE) ? 1 : 0;
    h->placeholder = (flags & MGX_HANDLE_PLACEHOLDER) ? 1 : 0;
    h->hd_mapping = (flags & MGX_HANDLE_MAPPING) ? 1 : 0;
}

void mgx_handle_set_descriptor_luid(mgx_handle_t *h, uint32_t luid) { h->desc_call_luid = luid; }

size_t mgx_journal_count(const mgx_handle_t *h) { return rt(h)->journal.size(); }
const mgx_write_record_t *mgx_journal_entry(const mgx_handle_t *h, size_t i) {
    return i < rt(h)->journal.size() ? &rt(h)->journal[i] : nullptr;
}
void mgx_journal_clear(mgx_handle_t *h) { rt(h)->journal.clear(); }
// With the journal off, the handle carries no write hook at all (when the journal is its hook), so
// that bundles skip the call before every write; turning it on puts the journal in as the hook. A
// hook of the caller's own is left in place either way.
void mgx_handle_set_recorders(mgx_handle_t *h, uint32_t recorders) {
    rt(h)->recorders = recorders & MGX_RECORD_ALL;
    bool journal = recorders & MGX_RECORD_JOURNAL;
    if (journal && !h->write_hook) h->write_hook = journal_write;
    else if (!journal && h->write_hook == journal_write) h->write_hook = nullptr;
}
uint32_t mgx_handle_recorders(const mgx_handle_t *h) { return rt(h)->recorders; }

size_t mgx_hook_count(const mgx_handle_t *h) { return rt(h)->hooks.size(); }
const mgx_hook_record_t *mgx_hook_entry(const mgx_handle_t *h, size_t i) {
    return i < rt(h)->hooks.size() ? &rt(h)->hooks[i] : nullptr;
}
size_t mgx_hook_count_kind(const mgx_handle_t *h, mgx_hook_kind_t kind) {
    size_t n = 0;
    for (const auto &rec : rt(h)->hooks) n += rec.kind == kind;
    return n;
}
void mgx_hook_clear(mgx_handle_t *h) { rt(h)->hooks.clear(); }

// ------------------------------------------------------------------ errors and identity

void mgx_store_err(mgx_handle_t *h, uint32_t code) {
    if (h) h->last_error = code;
}

void mgx_store_epoch_err(mgx_handle_t *h, uint32_t code, uint32_t *err) {
    mgx_store_err(h, code);
    if (err) *err = code;
}

void mgx_clear_last_error(mgx_handle_t *h, uint32_t, const void *) {
    if (h) h->last_error = 0;
}

uint32_t mgx_get_luid(mgx_handle_t *h, uint32_t luid) {
    if (luid != MGX_LUID_NONE || !h) return luid;
    return h->desc_call_luid;
}

void *mgxlib_get_handle_ws(mgx_handle_t *h, uint32_t min_length, uint32_t *length_out) {
    std::vector<uint8_t> &ws = rt(h)->work_space;
    size_t want = min_length < 65536 ? 65536 : min_length;
    if (ws.size() < want) {
        try {
            ws.resize(want);
        } catch (...) {
            if (length_out) *length_out = 0;
            return nullptr;
        }
    }
    if (length_out) *length_out = static_cast<uint32_t>(ws.size());
    return ws.data();
}

// ------------------------------------------------------------------ registry and descriptors

void *mgx_type_info_ptr_get(mgx_handle_t *h, uint32_t luid, const void *static_descriptor, mgx_register_fn register_fn) {
    const char *key = info_of(static_descriptor)->fingerprint_text;
    void *found = h->reg_lookup(h->reg_ctx, luid, key);
    if (!found && register_fn) {
        uint32_t err = 0;
        register_fn(h, luid, &err);
        found = h->reg_lookup(h->reg_ctx, luid, key);
    }
    return found;
}

void **mgx_get_manifested_type_info_ptr_mem(void *instance) {
    return instance ? &static_cast<mgx_instance_hdr_t *>(instance)->descriptor : nullptr;
}

void *mgx_get_manifested_type_info(const void *instance) {
    return instance ? static_cast<const mgx_instance_hdr_t *>(instance)->descriptor : nullptr;
}

void mgx_update_variant_info(mgx_handle_t *h, uint32_t luid, void *registered, const void *static_descriptor, int is_new) {
    auto *copy = static_cast<mgx_type_info_t *>(registered);
    if (copy && static_descriptor) copy->variant_info = info_of(static_descriptor)->variant_info;
    record_hook(h, MGX_HOOK_UPDATE_VARIANT_INFO, luid, registered, static_descriptor, is_new);
}

// ------------------------------------------------------------------ variants

// Kept out of line: the encoder asks for every record and enumeration it writes, nearly always of
// a handle that sets no variant, and that answer needs neither a stack frame nor the name.
[[gnu::noinline]] static int8_t lookup_set_variant(const mgx::DomainVariants &table, const void *descriptor) {
    auto it = table.find(std::string_view(info_of(descriptor)->type_name));
    return it != table.end() ? it->second : highest_variant(descriptor);
}

int8_t mgx_domain_lookup_variant(mgx_handle_t *, mgx_variant_domain_t *domain, const void *descriptor, uint32_t *) {
    if (!descriptor) return -1;
    if (domain && domain->impl) {
        auto *table = static_cast<const mgx::DomainVariants *>(domain->impl);
        if (!table->empty()) return lookup_set_variant(*table, descriptor);
    }
    return highest_variant(descriptor);
}

int8_t mgx_get_instance_variant(const void *instance, int, int) {
    return instance ? static_cast<const mgx_instance_hdr_t *>(instance)->variant : -1;
}

uint8_t mgx_get_instance_obj_flag(const void *instance, int, int) {
    return instance ? static_cast<const mgx_instance_hdr_t *>(instance)->flags : 0;
}

// The layout byte raised to the domain's variant for the type, capped to highest, when that is
// above it (through the write hook).
[[gnu::noinline]] static uint32_t raise_layout(mgx_handle_t *h, uint32_t luid, mgx_instance_hdr_t *hdr, const void *descriptor,
                                               int32_t highest, uint32_t *err) {
    int8_t target = mgx_domain_lookup_variant(h, &h->variant_domain, descriptor, err);
    if (target > highest) target = static_cast<int8_t>(highest);
    if (target > hdr->layout) {
        mgx::write_notify(h, &hdr->layout, 1, luid, hdr);
        hdr->layout = target;
    }
    return static_cast<uint32_t>(hdr->layout);
}

// Brings an instance up to the variant that the handle's domain gives its type (capped to the
// type's highest variant): the layout byte, the ceiling of later decodes, is raised to it. The
// instance's variant is left alone. An inline state-flag area stays where it is: every layout of
// a type shares one allocation, and the area lies behind it (at the untracked size).
//
// Every setter calls it first. The usual instance is already laid out for its type's highest
// variant, which nothing the domain gives can raise: that answer takes one comparison, without a
// stack frame or the domain's table.
uint32_t mgxlib_adjust_variant(mgx_handle_t *h, uint32_t luid, void *instance, const void *descriptor, int32_t highest,
                               uint32_t *err) {
    if (!instance || !descriptor) return 0;
    auto *hdr = static_cast<mgx_instance_hdr_t *>(instance);
    if (hdr->layout >= highest) return static_cast<uint32_t>(hdr->layout);
    return raise_layout(h, luid, hdr, descriptor, highest, err);
}

// ------------------------------------------------------------------ OIDs and mappings

uint64_t mgx_oid_map(mgx_handle_t *h, void *instance) {
    Runtime *r = rt(h);
    if (!instance) return 0;
    auto it = r->oid_of.find(instance);
    if (it != r->oid_of.end()) return it->second;
    uint64_t oid = r->next_oid;
    uint32_t err = 0;
    r->bookkeeping = true;
    mgx::guarded(h, &err, [&] {
        r->oids.emplace(oid, mgx::OidEntry{instance, 0, false});
        try {
            r->oid_of.emplace(instance, oid);
        } catch (...) {
            r->oids.erase(oid);
            throw;
        }
    });
    if (err) return 0;
    r->next_oid++;
    static_cast<mgx_instance_hdr_t *>(instance)->flags |= MGX_IF_OID_MAPPED;
    return oid;
}

void mgx_oid_add_ref(mgx_handle_t *h, uint64_t oid) {
    auto it = rt(h)->oids.find(oid);
    if (it != rt(h)->oids.end()) it->second.refs++;
}

uint32_t mgx_oid_ref_count(const mgx_handle_t *h, uint64_t oid) {
    auto it = rt(h)->oids.find(oid);
    return it == rt(h)->oids.end() ? 0 : it->second.refs;
}

int mgx_oid_exists(const mgx_handle_t *h, uint64_t oid) { return rt(h)->oids.count(oid) ? 1 : 0; }

void mgx_handle_fail_oid_mapping_destroy(mgx_handle_t *h, uint32_t code) { rt(h)->fail_oid_destroy = code; }
void mgx_handle_fail_oid_ref_release(mgx_handle_t *h, uint32_t code) { rt(h)->fail_ref_release = code; }
void mgx_handle_fail_hd_mapping_destroy(mgx_handle_t *h, uint32_t code) { rt(h)->fail_hd_destroy = code; }

static uint32_t take_failure(uint32_t &slot) {
    uint32_t code = slot;
    slot = 0;
    return code;
}

static void remove_mapping(Runtime *r, uint64_t oid) {
    auto it = r->oids.find(oid);
    if (it == r->oids.end()) return;
    static_cast<mgx_instance_hdr_t *>(it->second.instance)->flags &= static_cast<uint8_t>(~MGX_IF_OID_MAPPED);
    r->oid_of.erase(it->second.instance);
    r->oids.erase(it);
}

int mgx_request_oid_mapping_destroy(mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    Runtime *r = rt(h);
    int result = 0;
    if (uint32_t code = take_failure(r->fail_oid_destroy)) {
        if (err) *err = code;
    } else if (auto it = r->oid_of.find(instance); it == r->oid_of.end()) {
        if (err) *err = MGX_ENOENT;
    } else if (auto entry = r->oids.find(it->second); entry != r->oids.end() && entry->second.refs > 0) {
        entry->second.destroy_pending = true;
    } else {
        remove_mapping(r, it->second);
        result = 1;
    }
    record_hook(h, MGX_HOOK_OID_MAPPING_DESTROY, luid, instance, nullptr, result);
    return result;
}

// Releasing the last reference of an object whose destruction was deferred finishes it: the
// runtime reaches the type's destroy operation by its exported name.
void mgxlib_lookup_and_update_oid_ref_count(mgx_handle_t *h, uint32_t luid, uint64_t oid, int, uint32_t *err) {
    Runtime *r = rt(h);
    record_hook(h, MGX_HOOK_OID_REF_RELEASE, luid, nullptr, nullptr, static_cast<int64_t>(oid));
    if (uint32_t code = take_failure(r->fail_ref_release)) {
        if (err) *err = code;
        return;
    }
    auto it = r->oids.find(oid);
    if (it == r->oids.end() || it->second.refs == 0) {
        if (err) *err = MGX_ENOENT;
        return;
    }
    if (--it->second.refs > 0 || !it->second.destroy_pending) return;
    void *instance = it->second.instance;
    remove_mapping(r, oid);
    const mgx_type_info_t *d = info_of(mgx_get_manifested_type_info(instance));
    if (!d || d->magic != MGX_TYPE_INFO_MAGIC) return;
    char name[sizeof d->type_name + sizeof "_destroy"];
    std::snprintf(name, sizeof name, "%.*s_destroy", static_cast<int>(sizeof d->type_name), d->type_name);
    using destroy_fn = void (*)(mgx_handle_t *, uint32_t, void *);
    if (auto fn = reinterpret_cast<destroy_fn>(dlsym(RTLD_DEFAULT, name))) fn(h, luid, instance);
}

void mgx_hd_mapping_destroy(mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    Runtime *r = rt(h);
    record_hook(h, MGX_HOOK_HD_MAPPING_DESTROY, luid, instance, nullptr, 0);
    if (uint32_t code = take_failure(r->fail_hd_destroy)) {
        if (err) *err = code;
        return;
    }
    r->sttr_offsets.erase(reinterpret_cast<uintptr_t>(instance));
    r->retained.erase(reinterpret_cast<uintptr_t>(instance));
}

// ------------------------------------------------------------------ state-flag offsets

int64_t mgxlib_get_sttr_offset(mgx_handle_t *h, uint32_t, const void *instance) {
    const int64_t *offset = rt(h)->sttr_offsets.find(reinterpret_cast<uintptr_t>(instance));
    return offset ? *offset : 0;
}

// An offset that cannot be recorded leaves the field without a state-flag area (its flags are
// then neither read nor written) and 12 in the handle's error store.
void mgxlib_update_sttr_offset(mgx_handle_t *h, uint32_t luid, const void *field, int64_t offset) {
    rt(h)->bookkeeping = true;
    mgx::guarded(h, nullptr, [&] { rt(h)->sttr_offsets.insert_or_assign(reinterpret_cast<uintptr_t>(field), offset); });
    record_hook(h, MGX_HOOK_STTR_OFFSET, luid, field, nullptr, offset);
}

int mgx_sttr_offset_lookup(const mgx_handle_t *h, const void *field, int64_t *offset_out) {
    const int64_t *offset = rt(h)->sttr_offsets.find(reinterpret_cast<uintptr_t>(field));
    if (!offset) return 0;
    if (offset_out) *offset_out = *offset;
    return 1;
}

int mgx_sttr_offset_set(mgx_handle_t *h, const void *instance, int64_t offset) {
    uint32_t err = 0;
    rt(h)->bookkeeping = true;
    mgx::guarded(h, &err, [&] { rt(h)->sttr_offsets.insert_or_assign(reinterpret_cast<uintptr_t>(instance), offset); });
    return static_cast<int>(err);
}

// ------------------------------------------------------------------ statistics

static void count_object(mgx_handle_t *h, void *block, int slot, uint32_t *err) {
    if (uint32_t code = take_failure(rt(h)->fail_stats)) {
        if (err) *err = code;
        return;
    }
    if (block) __atomic_add_fetch(&static_cast<uint64_t *>(block)[slot], 1, __ATOMIC_RELAXED);
}

void mgxlib_type_stats_create_object(mgx_handle_t *h, uint32_t, const void *, void *block, uint32_t *err) {
    count_object(h, block, 0, err);
}

void mgxlib_type_stats_destroy_object(mgx_handle_t *h, uint32_t, const void *, void *block, uint32_t *err) {
    count_object(h, block, 1, err);
}

static uint64_t read_stat(const void *descriptor, int variant, int slot) {
    const mgx_type_info_t *d = info_of(descriptor);
    if (!d || !d->variant_info || variant < 0 || variant >= d->variant_info->n_variants) return 0;
    return __atomic_load_n(&d->variant_info->entries[variant].stats[slot], __ATOMIC_RELAXED);
}

uint64_t mgx_stats_created(const void *descriptor, int variant) { return read_stat(descriptor, variant, 0); }
uint64_t mgx_stats_destroyed(const void *descriptor, int variant) { return read_stat(descriptor, variant, 1); }
void mgx_handle_fail_stats(mgx_handle_t *h, uint32_t code) { rt(h)->fail_stats = code; }

// ------------------------------------------------------------------ database hooks and call-site tags

void mgxdb_record_containment2(mgx_handle_t *h, uint32_t luid, const void *object, const void *container, int flag) {
    record_hook(h, MGX_HOOK_CONTAINMENT, luid, object, container, flag);
}
void mgxdb_plat_set_dirty(mgx_handle_t *h, uint32_t luid, const void *object) {
    record_hook(h, MGX_HOOK_DIRTY, luid, object, nullptr, 0);
}
void mgxdb_plat_set_destroy(mgx_handle_t *h, uint32_t luid, const void *object) {
    record_hook(h, MGX_HOOK_DESTROY, luid, object, nullptr, 0);
}
void mgxdb_plat_set_detach(mgx_handle_t *h, uint32_t luid, const void *object) {
    record_hook(h, MGX_HOOK_DETACH, luid, object, nullptr, 0);
}

void plinth_set_callsite_tag(uint32_t tag) {
    pending_callsite_tag = tag;
    if (!callsite_tag_pending) callsite_tags_pending.fetch_add(1, std::memory_order_relaxed);
    callsite_tag_pending = true;
}

size_t mgx_callsite_tag_count(const mgx_handle_t *h) { return rt(h)->callsite_tags.size(); }
uint32_t mgx_callsite_tag(const mgx_handle_t *h, size_t i) {
    return i < rt(h)->callsite_tags.size() ? rt(h)->callsite_tags[i] : 0;
}

// ------------------------------------------------------------------ retained data

// 1, or 0 (and 12 in the handle's error store) when the bytes cannot be kept.
int mgx_retained_data_set(mgx_handle_t *h, const void *instance, const void *bytes, uint16_t length) {
    const auto *p = static_cast<const uint8_t *>(bytes);
    rt(h)->bookkeeping = true;
    return mgx::guarded(h, nullptr, 0, [&] {
        rt(h)->retained.insert_or_assign(reinterpret_cast<uintptr_t>(instance), std::vector<uint8_t>(p, p + length));
        return 1;
    });
}

uint16_t mgx_retained_data_get(const mgx_handle_t *h, const void *instance, const void **bytes) {
    auto &m = rt(h)->retained;
    auto it = m.find(reinterpret_cast<uintptr_t>(instance));
    if (it == m.end()) {
        if (bytes) *bytes = nullptr;
        return 0;
    }
    if (bytes) *bytes = it->second.data();
    return static_cast<uint16_t>(it->second.size());
}

} // extern "C"
