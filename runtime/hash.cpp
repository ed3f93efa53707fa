// SuperFastHash, Paul Hsieh's byte hash, with the caller's seed as the initial hash value (the
// published function starts from the length, so a seed equal to the length gives it exactly).
#include "runtime/prim.h"

namespace {

// Two bytes, little-endian, as the published function reads them on the usual targets.
inline uint32_t get16(const unsigned char *p) { return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8; }

// The published code adds the odd trailing byte as a signed char, sign-extended.
inline uint32_t signed_byte(unsigned char c) { return static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c))); }

} // namespace

extern "C" uint32_t SuperFastHash(const char *data, int len, uint32_t seed) {
    if (len <= 0 || !data) return seed;
    const auto *p = reinterpret_cast<const unsigned char *>(data);
    uint32_t hash = seed;
    int rem = len & 3;
    for (int blocks = len >> 2; blocks > 0; --blocks, p += 4) {
        hash += get16(p);
        uint32_t tmp = (get16(p + 2) << 11) ^ hash;
        hash = (hash << 16) ^ tmp;
        hash += hash >> 11;
    }
    switch (rem) {
    case 3:
        hash += get16(p);
        hash ^= hash << 16;
        hash ^= signed_byte(p[2]) << 18;
        hash += hash >> 11;
        break;
    case 2:
        hash += get16(p);
        hash ^= hash << 11;
        hash += hash >> 17;
        break;
    case 1:
        hash += signed_byte(p[0]);
        hash ^= hash << 10;
        hash += hash >> 1;
        break;
    default: break;
    }
    // Final avalanche.
    hash ^= hash << 3;
    hash += hash >> 5;
    hash ^= hash << 4;
    hash += hash >> 17;
    hash ^= hash << 25;
    hash += hash >> 6;
    return hash;
}
