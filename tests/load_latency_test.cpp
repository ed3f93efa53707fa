// The load report's exchange times: a bounded histogram whose quantiles may be read a bucket high,
// never low, and never above the largest time seen.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "cli/demo/latency.h"

namespace {

using ovrin::demo::load::Latency;

// For times spread over ten powers of ten, every quantile read back lies between the true one and
// one bucket (1/32) above it, capped at the maximum; the count and the maximum are exact.
TEST(LoadLatency, QuantilesAreTheTrueOnesOrABucketAbove) {
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> exponent(0.0, 10.0);
    std::vector<uint64_t> times(20000);
    Latency l;
    for (uint64_t &t : times) {
        t = static_cast<uint64_t>(std::pow(10.0, exponent(rng)));
        l.add(t);
    }
    std::sort(times.begin(), times.end());
    EXPECT_EQ(l.count, times.size());
    EXPECT_EQ(l.max_ns, times.back());
    for (double q : {0.01, 0.5, 0.9, 0.99, 0.999, 1.0}) {
        const double truth = static_cast<double>(times[static_cast<size_t>(std::ceil(q * times.size())) - 1]) / 1000.0;
        const double read = l.quantile_us(q);
        EXPECT_GE(read, truth) << q;
        EXPECT_LE(read, std::min(truth * (1 + 1.0 / 32) + 0.001, static_cast<double>(times.back()) / 1000.0)) << q;
    }
    EXPECT_EQ(l.quantile_us(1.0), static_cast<double>(times.back()) / 1000.0);
}

// Below 64 ns each nanosecond is a bucket of its own (read at its upper edge, one more); a histogram of nothing reads 0; merging two
// halves gives the histogram of the whole.
TEST(LoadLatency, SmallTimesAreExactAndHalvesMergeIntoTheWhole) {
    Latency none;
    EXPECT_EQ(none.quantile_us(0.99), 0.0);
    Latency whole, first, second;
    for (uint64_t ns = 1; ns <= 200; ++ns) {
        whole.add(ns * 37);
        (ns % 2 ? first : second).add(ns * 37);
    }
    first.merge(second);
    EXPECT_EQ(first.buckets, whole.buckets);
    EXPECT_EQ(first.count, whole.count);
    EXPECT_EQ(first.max_ns, whole.max_ns);
    Latency small;
    for (uint64_t ns = 1; ns <= 63; ++ns) small.add(ns);
    EXPECT_DOUBLE_EQ(small.quantile_us(0.5), 0.033); // the 32nd of 63, at its bucket's upper edge
    EXPECT_DOUBLE_EQ(small.quantile_us(1.0), 0.063);
}

} // namespace
