// The scalar primitives: u_int8, u_int16, u_int32, u_int64 and mgx_boolean.
#include <cstdio>

#include "runtime/prim_fixed.h"

namespace mgx {
namespace {

// Unsigned integers: network byte order on the wire, decimal text.
template <class U> struct UintTraits {
    static constexpr int32_t width = sizeof(U);
    static void encode(U v, uint8_t *p) { put_be(p, v, width); }
    static U decode(const uint8_t *p) { return static_cast<U>(get_be(p, width)); }
    static U normal(U v) { return v; }
    static void format(U v, char (&text)[64]) { std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(v)); }
    static bool parse(std::string_view s, U &v) {
        uint64_t x;
        if (!parse_decimal(s, static_cast<U>(~U{0}), x)) return false;
        v = static_cast<U>(x);
        return true;
    }
    static int32_t compare(U a, U b) { return three_way(a, b); }
};

// Truth values: 4 bytes in memory, one byte 0/1 on the wire, "true"/"false" as text. Any
// non-zero value counts as true and is stored as 1.
struct BoolTraits {
    static constexpr int32_t width = 1;
    static mgx_boolean normal(mgx_boolean v) { return v ? 1 : 0; }
    static void encode(mgx_boolean v, uint8_t *p) { p[0] = v ? 1 : 0; }
    static mgx_boolean decode(const uint8_t *p) { return p[0] ? 1 : 0; }
    static void format(mgx_boolean v, char (&text)[64]) { std::snprintf(text, sizeof text, "%s", v ? "true" : "false"); }
    static bool parse(std::string_view s, mgx_boolean &v) {
        if (s == "true" || s == "1") return v = 1, true;
        if (s == "false" || s == "0") return v = 0, true;
        return false;
    }
    static int32_t compare(mgx_boolean a, mgx_boolean b) { return three_way(normal(a), normal(b)); }
};

using U8 = Fixed<u_int8, UintTraits<u_int8>>;
using U16 = Fixed<u_int16, UintTraits<u_int16>>;
using U32 = Fixed<u_int32, UintTraits<u_int32>>;
using U64 = Fixed<u_int64, UintTraits<u_int64>>;
using Bool = Fixed<mgx_boolean, BoolTraits>;

} // namespace
} // namespace mgx

using namespace mgx;

extern "C" {
MGX_EXPORT_VALUE_OPS(u_int8, U8)
MGX_EXPORT_VALUE_OPS(u_int16, U16)
MGX_EXPORT_VALUE_OPS(u_int32, U32)
MGX_EXPORT_VALUE_OPS(u_int64, U64)
MGX_EXPORT_VALUE_OPS(mgx_boolean, Bool)
MGX_EXPORT_SCALAR_OPS(u_int8, U8)
MGX_EXPORT_SCALAR_OPS(u_int16, U16)
MGX_EXPORT_SCALAR_OPS(u_int32, U32)
MGX_EXPORT_SCALAR_OPS(u_int64, U64)
MGX_EXPORT_SCALAR_OPS(mgx_boolean, Bool)
MGX_EXPORT_INSTANCE_OPS(mgx_boolean, Bool)
}
