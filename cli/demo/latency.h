// ovrin-sm demo --clients N: exchange times, kept in a bounded histogram.
#ifndef OVRIN_CLI_DEMO_LATENCY_H
#define OVRIN_CLI_DEMO_LATENCY_H

#include <array>
#include <cstdint>

namespace ovrin::demo::load {

// Request/answer times in buckets about 3 % apart (32 per power of two of nanoseconds): bounded
// whatever the run's length, mergeable across clients.
struct Latency {
    static constexpr int kSub = 32;
    std::array<uint32_t, 42 * kSub> buckets{};
    uint64_t count = 0, max_ns = 0;
    void add(uint64_t ns);
    void merge(const Latency &other);
    double quantile_us(double q) const; // the bucket's upper edge
};

} // namespace ovrin::demo::load

#endif
