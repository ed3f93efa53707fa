// Test and fuzzing support: the exported operations of every type, looked up by name, and filled
// instances made through them (the filling itself is sm_fill.h's). Operations a build does not
// have yet are null, so that callers can use them when present.
#ifndef OVRIN_TESTS_SM_TYPE_OPS_H
#define OVRIN_TESTS_SM_TYPE_OPS_H

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/sm_fill.h"

namespace typeops {

struct Ops {
    const ovrin::Type *type;
    void *(*create)(mgx_handle_t *, uint32_t);
    void (*destroy)(mgx_handle_t *, uint32_t, void *);
    uint32_t (*adjust_variant)(mgx_handle_t *, uint32_t, void *, uint32_t *);
    uint32_t (*marshal)(mgx_handle_t *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
    uint32_t (*unmarshal)(mgx_handle_t *, uint32_t, const uint8_t *, void *, int32_t, uint32_t, uint32_t *);
    uint32_t (*record_len)(mgx_handle_t *, uint32_t, const void *); // records and unions
    void (*clone)(mgx_handle_t *, uint32_t, const void *, void **, uint8_t *, uint32_t, uint32_t *);
    int32_t (*compare)(const void *, const void *);
    uint32_t (*to_xml)(mgx_handle_t *, uint32_t, const char *, char *, const void *, uint32_t, uint8_t, uint32_t *);
    void (*from_xml)(mgx_handle_t *, uint32_t, const char *, void *, void *, uint32_t *, char *, uint32_t);

    bool is_enum() const { return type->kind == ovrin::TypeKind::enumeration; }
    bool is_union() const { return type->kind == ovrin::TypeKind::union_; }
    const char *name() const { return type->name; }
    unsigned arms() const { return is_union() ? testfill::members(*type) : 1; } // fill's member choices
};

template <class Fn> Fn lookup(const ovrin::Type &t, const char *op) {
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, (std::string(t.name) + "_" + op).c_str()));
}

// Every type in registration order (the order of the descriptor table).
inline const std::vector<Ops> &all() {
    static const std::vector<Ops> list = [] {
        std::vector<Ops> out;
        for (const ovrin::Type *t : testfill::types()) {
            Ops o{};
            o.type = t;
            o.create = lookup<decltype(o.create)>(*t, "create");
            o.destroy = lookup<decltype(o.destroy)>(*t, "destroy");
            o.adjust_variant = lookup<decltype(o.adjust_variant)>(*t, "adjust_variant");
            o.marshal = lookup<decltype(o.marshal)>(*t, "marshal");
            o.unmarshal = lookup<decltype(o.unmarshal)>(*t, "unmarshal");
            if (!o.is_enum()) {
                o.record_len = lookup<decltype(o.record_len)>(*t, "len");
                o.clone = lookup<decltype(o.clone)>(*t, "clone");
            }
            o.compare = lookup<decltype(o.compare)>(*t, "compare");
            o.to_xml = lookup<decltype(o.to_xml)>(*t, "to_xml");
            o.from_xml = lookup<decltype(o.from_xml)>(*t, "from_xml");
            if (!o.create || !o.destroy || !o.adjust_variant || !o.marshal || !o.unmarshal) std::abort();
            out.push_back(o);
        }
        return out;
    }();
    return list;
}

inline const Ops &of(const char *name) {
    for (const Ops &o : all())
        if (!std::strcmp(o.name(), name)) return o;
    std::abort();
}

// A new instance that follows the handle's domain, as a receiver makes it: created, then its
// variant adjusted.
inline void *make(const Ops &o, mgx_handle_t *h) {
    void *instance = o.create(h, 1);
    if (!instance) std::abort();
    uint32_t err = 0;
    o.adjust_variant(h, 1, instance, &err);
    return instance;
}

// A made instance with every field filled; in a union the member numbered arm.
inline void *make_filled(const Ops &o, mgx_handle_t *h, unsigned seed, unsigned arm = 0) {
    void *instance = make(o, h);
    testfill::fill(*o.type, h, instance, seed, arm);
    return instance;
}

// The wire form through `_len` (5 for an enumeration) and `_marshal`; err gets the error cell.
inline std::vector<uint8_t> encode(const Ops &o, mgx_handle_t *h, const void *instance, uint32_t *err) {
    uint32_t n = o.is_enum() ? 5 : o.record_len(h, 1, instance);
    std::vector<uint8_t> out(n + 1); // a tracked encoder may store one state byte past the space
    *err = 0;
    out.resize(o.marshal(h, 1, out.data(), instance, static_cast<int32_t>(n), err));
    return out;
}

} // namespace typeops

#endif
