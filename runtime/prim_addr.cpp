// The address primitives: mgx_mac_addr, ipv4_addr and ipv6_addr.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include "runtime/prim_fixed.h"

namespace mgx {
namespace {

int32_t bytes_compare(const void *a, const void *b, size_t n) {
    int c = std::memcmp(a, b, n);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

// An address that is its bytes, the same in memory and on the wire: kept, compared and carried as
// they stand.
template <class T> struct OctetTraits {
    static_assert(std::is_trivially_copyable_v<T>);
    static constexpr int32_t width = sizeof(T);
    static T normal(const T &v) { return v; }
    static void encode(const T &v, uint8_t *p) { std::memcpy(p, &v, sizeof v); }
    static T decode(const uint8_t *p) {
        T v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
    static int32_t compare(const T &a, const T &b) { return bytes_compare(&a, &b, sizeof a); }
};

// Six octets, as they are on the wire; text "00:1a:2b:3c:4d:5e" (either case accepted).
static_assert(sizeof(mgx_mac_addr) == 6 && sizeof(ipv6_addr) == 16, "addresses are their octets");
struct MacTraits : OctetTraits<mgx_mac_addr> {
    static void format(const mgx_mac_addr &v, char (&text)[64]) {
        const uint8_t *o = v.octet;
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", o[0], o[1], o[2], o[3], o[4], o[5]);
    }
    static bool parse(std::string_view s, mgx_mac_addr &v) {
        if (s.size() != 17) return false;
        std::string hex;
        for (size_t i = 0; i < 6; ++i) {
            if (i < 5 && s[3 * i + 2] != ':') return false;
            hex += s.substr(3 * i, 2);
        }
        std::string octets;
        if (!hex_decode(hex, octets)) return false;
        std::memcpy(v.octet, octets.data(), 6);
        return true;
    }
};

// Host order in memory, four bytes in network order on the wire, dotted-quad text.
struct Ipv4Traits {
    static constexpr int32_t width = 4;
    static ipv4_addr normal(ipv4_addr v) { return v; }
    static void encode(ipv4_addr v, uint8_t *p) { put_be(p, v, 4); }
    static ipv4_addr decode(const uint8_t *p) { return static_cast<ipv4_addr>(get_be(p, 4)); }
    static void format(ipv4_addr v, char (&text)[64]) {
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", v >> 24, (v >> 16) & 255, (v >> 8) & 255, v & 255);
    }
    static bool parse(std::string_view s, ipv4_addr &v) {
        in_addr a;
        if (inet_pton(AF_INET, std::string(s).c_str(), &a) != 1) return false;
        v = ntohl(a.s_addr);
        return true;
    }
    static int32_t compare(ipv4_addr a, ipv4_addr b) { return three_way(a, b); }
};

// Sixteen bytes in network order, in memory and on the wire; the usual text forms.
struct Ipv6Traits : OctetTraits<ipv6_addr> {
    static void format(const ipv6_addr &v, char (&text)[64]) {
        if (!inet_ntop(AF_INET6, v.word, text, sizeof text)) text[0] = '\0';
    }
    static bool parse(std::string_view s, ipv6_addr &v) { return inet_pton(AF_INET6, std::string(s).c_str(), v.word) == 1; }
};

using Mac = Fixed<mgx_mac_addr, MacTraits>;
using Ipv4 = Fixed<ipv4_addr, Ipv4Traits>;
using Ipv6 = Fixed<ipv6_addr, Ipv6Traits>;

} // namespace
} // namespace mgx

using namespace mgx;

extern "C" {
MGX_EXPORT_VALUE_OPS(mgx_mac_addr, Mac)
MGX_EXPORT_VALUE_OPS(ipv4_addr, Ipv4)
MGX_EXPORT_VALUE_OPS(ipv6_addr, Ipv6)
MGX_EXPORT_INSTANCE_OPS(mgx_mac_addr, Mac)
MGX_EXPORT_INSTANCE_OPS(ipv4_addr, Ipv4)
MGX_EXPORT_INSTANCE_OPS(ipv6_addr, Ipv6)
}
