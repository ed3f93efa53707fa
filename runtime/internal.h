// Private state of the reference MGX runtime. Nothing here is visible to bundles.
#ifndef MGX_RUNTIME_INTERNAL_H
#define MGX_RUNTIME_INTERNAL_H

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mgx/runtime.h"
#include "runtime/blocks.h"
#include "runtime/offset_table.h"

namespace mgx {

// Type names looked up by the const char * the descriptors hold, without building a string: the
// encoders ask for every record and enumeration they write.
struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
using DomainVariants = std::unordered_map<std::string, int8_t, NameHash, std::equal_to<>>;

using NameTable = std::unordered_map<std::string, void *, NameHash, std::equal_to<>>;

struct OidEntry {
    void *instance;
    uint32_t refs;        // outstanding references besides the mapping itself
    bool destroy_pending; // mapping removal was asked while references were outstanding
};

struct Runtime {
    mgx_handle_t *handle = nullptr; // the handle this is the state of
    // instance allocator: live blocks and their accounting, guard bytes (none by default), freed
    // blocks kept for reuse (not live, not counted)
    BlockPool blocks;
    uint32_t fail_nth = 0;
    // blocks found written past their end, frees of blocks the handle did not own
    uint64_t overruns = 0, foreign_frees = 0;
    // set when an entry goes into sttr_offsets, retained or the OID tables, so that a free looks
    // at them only while one of them may hold something
    bool bookkeeping = false;
    // registry
    uint32_t registry_fail_nth = 0;
    std::vector<void *> registry_blocks;
    NameTable registry; // looked up by the caller's key without building a string
    // variant domain: per type name, the variant its instances have in this handle
    DomainVariants domain_variants;
    mgx_sttr_record_t sttr_record{};
    // observability: the recorders switched on (MGX_RECORD_*), none in a new handle
    uint32_t recorders = 0;
    std::vector<mgx_write_record_t> journal;
    std::vector<mgx_hook_record_t> hooks;
    std::vector<uint32_t> callsite_tags;
    // OIDs and mappings
    uint64_t next_oid = 0x1000;
    std::unordered_map<uint64_t, OidEntry> oids;
    std::unordered_map<const void *, uint64_t> oid_of;
    uint32_t fail_oid_destroy = 0, fail_ref_release = 0, fail_hd_destroy = 0, fail_stats = 0;
    // state-flag offsets by field address; retained data by instance address (ordered so that a
    // freed block can drop every entry that lies inside it)
    OffsetTable sttr_offsets;
    std::map<uintptr_t, std::vector<uint8_t>> retained;
    // encoder work space
    std::vector<uint8_t> work_space;
};

inline Runtime *rt(const mgx_handle_t *h) { return static_cast<Runtime *>(h->runtime); }

// Call the handle's write hook, when it has one, before a write of length bytes at addr.
inline void write_notify(mgx_handle_t *h, const void *addr, size_t length, uint32_t luid, const void *base) {
    if (h && h->write_hook) h->write_hook(h, addr, length, luid, base);
}

// Allocation through the handle's instance allocator / free callbacks.
inline void *handle_alloc(mgx_handle_t *h, uint32_t luid, size_t size) { return h->inst_alloc(h->alloc_ctx, luid, size); }
inline void handle_free(mgx_handle_t *h, uint32_t luid, void *p) {
    if (p) h->inst_free(h->alloc_ctx, luid, p);
}

// Set the error slot and the handle's error store.
inline void fail(mgx_handle_t *h, uint32_t *err, uint32_t code) {
    if (err) *err = code;
    if (h) mgx_store_err(h, code);
}

// Appends to a recorder. A recorder that cannot grow drops the record: the operation it watches
// goes on as it would with the recorder off.
template <class Log, class Item> void record(Log &log, Item &&item) noexcept {
    try {
        log.push_back(std::forward<Item>(item));
    } catch (...) {
    }
}

// Runs the body of an exported function so that no C++ exception leaves the runtime: running out
// of memory in the runtime's own containers becomes 12 in the error slot and the handle, anything
// else 22, and the function returns fallback. Every exported function whose work can allocate
// through the C++ library runs its body this way.
template <class R, class Body> R guarded(mgx_handle_t *h, uint32_t *err, R fallback, Body &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        fail(h, err, MGX_ENOMEM);
    } catch (const std::length_error &) {
        fail(h, err, MGX_ENOMEM);
    } catch (...) {
        fail(h, err, MGX_EINVAL);
    }
    return fallback;
}
template <class Body> void guarded(mgx_handle_t *h, uint32_t *err, Body &&body) noexcept {
    guarded(h, err, 0, [&] {
        body();
        return 0;
    });
}

// Big-endian helpers for the wire form. The widths the primitives use are one load or store and a
// byte swap (every caller's width is a constant once inlined); any other width goes byte by byte.
template <class U> inline U to_big(U v) {
    if constexpr (std::endian::native == std::endian::big || sizeof(U) == 1) return v;
    else if constexpr (sizeof(U) == 2) return __builtin_bswap16(v);
    else if constexpr (sizeof(U) == 4) return __builtin_bswap32(v);
    else return __builtin_bswap64(v);
}
inline void put_be(uint8_t *p, uint64_t v, unsigned width) {
    auto store = [p](auto x) {
        x = to_big(x);
        std::memcpy(p, &x, sizeof x);
    };
    switch (width) {
    case 1: *p = static_cast<uint8_t>(v); return;
    case 2: return store(static_cast<uint16_t>(v));
    case 4: return store(static_cast<uint32_t>(v));
    case 8: return store(v);
    default:
        for (unsigned i = 0; i < width; ++i) p[i] = static_cast<uint8_t>(v >> (8 * (width - 1 - i)));
    }
}
inline uint64_t get_be(const uint8_t *p, unsigned width) {
    auto load = [p](auto x) {
        std::memcpy(&x, p, sizeof x);
        return static_cast<uint64_t>(to_big(x));
    };
    switch (width) {
    case 1: return *p;
    case 2: return load(uint16_t{});
    case 4: return load(uint32_t{});
    case 8: return load(uint64_t{});
    default: {
        uint64_t v = 0;
        for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
        return v;
    }
    }
}

} // namespace mgx

#endif
