// ovrin-sm demo --clients N: exchange times in buckets about 3 % apart. Below 64 ns each
// nanosecond has its bucket; above, each power of two has 32, so a bucket's width is at most 1/32
// of its lower edge and a quantile read from its upper edge is at most about 3 % high.
#include "cli/demo/latency.h"

#include <algorithm>

namespace ovrin::demo::load {

void Latency::add(uint64_t ns) {
    ++count;
    max_ns = std::max(max_ns, ns);
    size_t b = ns;
    if (ns >= 2 * kSub) {
        const int msb = 63 - __builtin_clzll(ns);
        b = static_cast<size_t>((msb - 5) * kSub + kSub) + ((ns >> (msb - 5)) & (kSub - 1));
    }
    ++buckets[std::min(b, buckets.size() - 1)];
}

void Latency::merge(const Latency &o) {
    for (size_t i = 0; i < buckets.size(); ++i) buckets[i] += o.buckets[i];
    count += o.count;
    max_ns = std::max(max_ns, o.max_ns);
}

double Latency::quantile_us(double q) const {
    if (count == 0) return 0;
    const uint64_t want = static_cast<uint64_t>(q * static_cast<double>(count) + 0.999999);
    uint64_t seen = 0;
    for (size_t b = 0; b < buckets.size(); ++b) {
        seen += buckets[b];
        if (seen < want || buckets[b] == 0) continue;
        uint64_t upper = b + 1;
        if (b >= 2 * kSub) {
            const size_t msb = (b - kSub) / kSub + 5, sub = (b - kSub) % kSub;
            upper = (kSub + sub + 1) << (msb - 5);
        }
        return static_cast<double>(std::min(upper, max_ns)) / 1000.0;
    }
    return static_cast<double>(max_ns) / 1000.0;
}

} // namespace ovrin::demo::load
