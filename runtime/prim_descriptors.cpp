// Descriptors of the runtime's instance-like primitives. Each has one variant whose used length is
// the in-memory width of the type; the fingerprint is derived from the type's name in the "mgx"
// domain, so it is stable across builds and distinct from every bundle type.
#include <string_view>

#include "runtime/internal.h"

namespace {

constexpr uint64_t fnv1a64(std::string_view s, uint64_t basis) {
    uint64_t h = basis;
    for (char c : s) {
        h ^= static_cast<uint8_t>(c);
        h *= 0x100000001b3ULL;
    }
    return h;
}

template <size_t N> constexpr void copy_text(char (&dst)[N], std::string_view s) {
    for (size_t i = 0; i < s.size() && i + 1 < N; ++i) dst[i] = s[i];
}

constexpr mgx_type_info_t make_info(std::string_view name, mgx_type_variant_info_t *variants) {
    mgx_type_info_t t{};
    t.magic = MGX_TYPE_INFO_MAGIC;
    uint64_t hi = fnv1a64(name, fnv1a64("mgx:type:", 0xcbf29ce484222325ULL));
    uint64_t lo = fnv1a64(name, hi ^ 0x9e3779b97f4a7c15ULL);
    const char digits[] = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) {
        uint64_t half = i < 8 ? hi : lo;
        auto byte = static_cast<uint8_t>(half >> (56 - 8 * (i % 8)));
        t.fingerprint[i] = byte;
        t.fingerprint_text[2 * i] = digits[byte >> 4];
        t.fingerprint_text[2 * i + 1] = digits[byte & 15];
    }
    copy_text(t.type_name, name);
    copy_text(t.domain_name, "mgx");
    copy_text(t.kind, "type");
    t.registry_slot = -1;
    t.variant_info = variants;
    return t;
}

} // namespace

#define MGX_PRIM_DESCRIPTOR(T, WIDTH)                                                                                            \
    namespace {                                                                                                                  \
    mgx_variant_entry_t T##_entries[1] = {{0, WIDTH, 0, 0, {0, 0, 0}}};                                                          \
    mgx_type_variant_info_t T##_variants = {1, {}, T##_entries};                                                                 \
    }                                                                                                                            \
    extern "C" {                                                                                                                 \
    constinit mgx_type_info_t _##T##_type_info_internal = make_info(#T, &T##_variants);                                          \
    }

MGX_PRIM_DESCRIPTOR(mgx_boolean, sizeof(mgx_boolean))
MGX_PRIM_DESCRIPTOR(mgx_mac_addr, sizeof(mgx_mac_addr))
MGX_PRIM_DESCRIPTOR(ipv4_addr, sizeof(ipv4_addr))
MGX_PRIM_DESCRIPTOR(ipv6_addr, sizeof(ipv6_addr))
MGX_PRIM_DESCRIPTOR(aaa_tlv, sizeof(aaa_tlv))

static_assert(sizeof(mgx_mac_addr) == 6 && sizeof(ipv6_addr) == 16 && sizeof(aaa_tlv) == 32);
