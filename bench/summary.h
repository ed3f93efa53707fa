// A console reporter that also keeps every result, and prints afterwards the tables of
// docs/performance.md: bytes, time and messages per second, allocations per operation, the
// ratios against the comparator measured in the same run, and the targets met or missed.
#ifndef OVRIN_BENCH_SUMMARY_H
#define OVRIN_BENCH_SUMMARY_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace bench {

class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override;
    void print_summary(std::FILE *out) const;
    bool failed() const { return failed_; }

private:
    struct Result {
        double ns = 0; // cpu time per operation
        double bytes = 0, rt_allocs = 0, heap_allocs = 0, text_bytes = 0;
        bool median = false;
    };
    const Result *find(const std::string &name) const;
    std::map<std::string, Result> results_;
    bool failed_ = false;
};

} // namespace bench

#endif
