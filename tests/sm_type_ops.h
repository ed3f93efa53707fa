// Test and fuzzing support: the exported operations of every type, from the bundle's generated
// operations table, and filled instances made through them (the filling itself is sm_fill.h's).
#ifndef OVRIN_TESTS_SM_TYPE_OPS_H
#define OVRIN_TESTS_SM_TYPE_OPS_H

#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "tests/sm_fill.h"

// A test program links one bundle, and only that bundle's generated headers are on its path;
// OVRIN_TEST_OPTABLE(x) names that bundle's x.
#if __has_include("ovrin_sm/optable.h")
#include "ovrin_sm/optable.h"
#define OVRIN_TEST_OPTABLE(x) ovrin_sm_##x
#elif __has_include("shapes/optable.h")
#include "shapes/optable.h"
#define OVRIN_TEST_OPTABLE(x) shapes_##x
#else
#error "no bundle's operations table on the include path"
#endif

namespace typeops {

using Entry = OVRIN_TEST_OPTABLE(type_ops);
inline std::span<const Entry> table() { return {OVRIN_TEST_OPTABLE(optable), OVRIN_TEST_OPTABLE(optable_count)}; }
inline const Entry *find(const char *name) { return OVRIN_TEST_OPTABLE(optable_find)(name); }

// A type's entry of the generated operations table, with the test program's own description of
// the type.
struct Ops : Entry {
    const ovrin::Type *type;

    bool is_enum() const { return type->kind == ovrin::TypeKind::enumeration; }
    bool is_union() const { return type->kind == ovrin::TypeKind::union_; }
    unsigned arms() const { return is_union() ? testfill::members(*type) : 1; } // fill's member choices
};

// Every type in registration order (the order of the descriptor table). The test program's copy
// of the type tables and the library's operations table must name the same types in the same
// order.
inline const std::vector<Ops> &all() {
    static const std::vector<Ops> list = [] {
        std::vector<Ops> out;
        const std::vector<const ovrin::Type *> &types = testfill::types();
        std::span<const Entry> entries = table();
        if (entries.size() != types.size()) std::abort();
        for (size_t i = 0; i < types.size(); ++i) {
            const Entry &e = entries[i];
            if (std::strcmp(e.name, types[i]->name)) std::abort();
            out.push_back(Ops{e, types[i]});
        }
        return out;
    }();
    return list;
}

inline const Ops &of(const char *name) {
    for (const Ops &o : all())
        if (!std::strcmp(o.name, name)) return o;
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
    uint32_t n = o.is_enum() ? 5 : o.len(h, 1, instance);
    std::vector<uint8_t> out(n + 1); // a tracked encoder may store one state byte past the space
    *err = 0;
    out.resize(o.marshal(h, 1, out.data(), instance, static_cast<int32_t>(n), err));
    return out;
}

// A clone through `_clone`, with work space enough for the instance's wire form; null when refused.
inline void *clone(const Ops &o, mgx_handle_t *h, const void *instance, uint32_t *err) {
    std::vector<uint8_t> work(o.len(h, 1, instance) + 64);
    void *copy = nullptr;
    o.clone(h, 1, instance, &copy, work.data(), static_cast<uint32_t>(work.size()), err);
    return copy;
}

// The whole print text (or XML text) through `_print_whole` (`_toxml_whole`); "(failed)" when refused.
inline std::string whole_text(const Ops &o, mgx_handle_t *h, const void *instance, bool xml = false) {
    char *text = nullptr;
    size_t size = 0;
    int64_t n = (xml ? o.toxml_whole : o.print_whole)(h, instance, &text, &size);
    std::string out = n >= 0 ? std::string(text, static_cast<size_t>(n)) : "(failed)";
    std::free(text);
    return out;
}

} // namespace typeops

#endif
