// Test support: fills instances of any type through the type tables (see sm_fill.h).
#include "tests/sm_fill.h"

#include "ops/common.h"

#include <dlfcn.h>

#include <cstring>
#include <stdexcept>

namespace testfill {

// The filler reaches each type's exported operations by name, through pointer types of its own (an
// instance is a void * here): exempt from clang's function-type check, which every other call in
// the sanitized builds keeps.
#if defined(__clang__)
#define OVRIN_CALLS_BY_NAME __attribute__((no_sanitize("function")))
#else
#define OVRIN_CALLS_BY_NAME
#endif

using ovrin::Field, ovrin::Kind, ovrin::Shape, ovrin::Type;

namespace {

uint8_t *at(void *instance, const Field &f) { return static_cast<uint8_t *>(instance) + f.offset; }

void fill_enum(const Type &t, void *instance, unsigned seed) {
    const int8_t variant = ovrin::hdr(instance)->variant;
    std::vector<const ovrin::Literal *> usable;
    for (uint16_t i = 0; i < t.n_literals; ++i)
        if (t.literals[i].from_variant <= variant) usable.push_back(&t.literals[i]);
    uint32_t value = usable.empty() ? 0 : usable[seed % usable.size()]->user;
    std::memcpy(static_cast<uint8_t *>(instance) + 12, &value, sizeof value);
}

void fill_element(const Field &f, mgx_handle_t *h, void *element, unsigned seed, unsigned arm) {
    auto *b = static_cast<uint8_t *>(element);
    switch (f.kind) {
    case Kind::u8: *b = static_cast<uint8_t>(seed * 7 + 1); break;
    case Kind::u16: *reinterpret_cast<uint16_t *>(b) = static_cast<uint16_t>(seed * 257 + 3); break;
    case Kind::u32: *reinterpret_cast<uint32_t *>(b) = seed * 0x01010101u + 5; break;
    case Kind::u64: *reinterpret_cast<uint64_t *>(b) = (uint64_t{seed} << 40) + seed * 11 + 7; break;
    case Kind::boolean: *reinterpret_cast<uint32_t *>(b) = seed & 1; break;
    case Kind::mac_addr:
        for (int i = 0; i < 6; ++i) b[i] = static_cast<uint8_t>(seed + i * 17);
        break;
    case Kind::ipv4_addr: *reinterpret_cast<uint32_t *>(b) = 0x0a000001u + seed; break;
    case Kind::ipv6_addr:
        for (int i = 0; i < 16; ++i) b[i] = static_cast<uint8_t>(seed * 3 + i);
        break;
    case Kind::aaa_tlv: {
        uint32_t err = 0;
        std::string value = "attr-" + std::to_string(seed) + std::string("\0<&\"", 4);
        aaa_tlv_attr_add(h, 1, static_cast<aaa_tlv *>(element), seed % 64 + 1, value.data(), static_cast<uint32_t>(value.size()),
                         &err);
        aaa_tlv_attr_add(h, 1, static_cast<aaa_tlv *>(element), 31, "\x01\x02", 2, &err);
        break;
    }
    case Kind::enumeration: fill_enum(*f.type, element, seed); break;
    case Kind::record: fill(*f.type, h, element, seed, arm); break;
    case Kind::character: break;
    }
}

} // namespace

OVRIN_CALLS_BY_NAME void fill(const Type &t, mgx_handle_t *h, void *instance, unsigned seed, unsigned arm) {
    if (t.kind == ovrin::TypeKind::enumeration) {
        fill_enum(t, instance, seed);
        return;
    }
    const int8_t variant = ovrin::hdr(instance)->variant;
    unsigned member_index = 0, n_members = members(t);
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        unsigned s = seed * 31 + i + 1;
        bool is_member = f.shape == Shape::member;
        unsigned this_member = member_index;
        member_index += is_member;
        if (f.from_variant > variant) continue;
        if (f.companion >= 0 && f.shape == Shape::scalar) continue; // set with its string or array
        switch (f.shape) {
        case Shape::scalar:
            if (static_cast<int>(i) == t.discriminator) continue; // set with the member
            fill_element(f, h, at(instance, f), s, arm);
            break;
        case Shape::fixed_array:
            for (uint16_t k = 0; k < f.count; ++k) fill_element(f, h, at(instance, f) + k * f.elem_size, s + k, arm);
            break;
        case Shape::var_string: {
            std::string text = std::string(f.name) + "-" + std::to_string(s) + " <&\"'>";
            auto *p = static_cast<char *>(h->inst_alloc(h->alloc_ctx, 1, text.size() + 1));
            std::memcpy(p, text.c_str(), text.size() + 1);
            *reinterpret_cast<char **>(at(instance, f)) = p;
            ovrin::store_count(instance, t.fields[f.companion], static_cast<uint32_t>(text.size()));
            break;
        }
        case Shape::var_array: {
            // Laid out as the engine lays out a block (elements, then a flag slot each when tracked).
            const uint32_t n = 2;
            bool tracked = h->sttr && h->sttr->marker == MGX_STTR_TRACKED;
            const ovrin::ArrayLayout layout(f);
            size_t size = layout.size(n, tracked);
            auto *block = static_cast<uint8_t *>(h->inst_alloc(h->alloc_ctx, 1, size));
            std::memset(block, 0, size);
            uint8_t *flags = layout.flags(block, n, tracked);
            for (uint32_t k = 0; k < n; ++k) {
                uint32_t err = 0;
                auto init = reinterpret_cast<void (*)(mgx_handle_t *, uint32_t, void *, const void *, int, int, uint32_t,
                                                      uint8_t *, uint32_t *)>(op(*f.type, "initialize"));
                init(h, 1, layout.element(block, k), f.type->descriptor, 0, 0, MGX_IF_NESTED, layout.slot_of(flags, k), &err);
                fill(*f.type, h, layout.element(block, k), s + k, arm);
            }
            *reinterpret_cast<void **>(at(instance, f)) = block;
            ovrin::store_count(instance, t.fields[f.companion], n);
            break;
        }
        case Shape::member: {
            if (n_members == 0 || (arm != every_arm && this_member != arm % n_members)) break;
            void *member = create(*f.type, h);
            fill(*f.type, h, member, s, arm);
            *reinterpret_cast<void **>(at(instance, f)) = member;
            const Field &d = t.fields[t.discriminator];
            if (arm != every_arm || this_member == 0) std::memcpy(at(instance, d) + 12, &f.select, sizeof f.select);
            break;
        }
        }
    }
}

uint32_t members(const Type &t) {
    uint32_t n = 0;
    for (uint16_t i = 0; i < t.n_fields; ++i) n += t.fields[i].shape == Shape::member;
    return n;
}

const std::vector<const Type *> &types() {
    static const std::vector<const Type *> list(ovrin::bundle.types, ovrin::bundle.types + ovrin::bundle.type_count);
    return list;
}

const Type &type(const std::string &name) {
    for (const Type *t : types())
        if (name == t->name) return *t;
    throw std::invalid_argument("no type " + name);
}

void *op(const Type &t, const char *name) {
    std::string symbol = std::string(t.name) + "_" + name;
    void *p = dlsym(RTLD_DEFAULT, symbol.c_str());
    if (!p) throw std::runtime_error("no operation " + symbol);
    return p;
}

OVRIN_CALLS_BY_NAME void *create(const Type &t, mgx_handle_t *h) {
    return reinterpret_cast<void *(*)(mgx_handle_t *, uint32_t)>(op(t, "create"))(h, 1);
}

} // namespace testfill
