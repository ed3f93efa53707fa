// The summary tables after a benchmark run (see summary.h).
#include "bench/summary.h"

#include <cmath>

namespace bench {

namespace {

const char *const kMessages[] = {"small", "medium", "large", "bulk1", "bulk64"};

double nanoseconds(const benchmark::BenchmarkReporter::Run &run) {
    double t = run.GetAdjustedCPUTime();
    switch (run.time_unit) {
    case benchmark::kSecond: return t * 1e9;
    case benchmark::kMillisecond: return t * 1e6;
    case benchmark::kMicrosecond: return t * 1e3;
    default: return t;
    }
}

double counter(const benchmark::BenchmarkReporter::Run &run, const char *name) {
    auto it = run.counters.find(name);
    return it == run.counters.end() ? 0 : it->second.value;
}

std::string num(double v, const char *format = "%.0f") {
    if (std::isnan(v)) return "-";
    char text[64];
    std::snprintf(text, sizeof text, format, v);
    return text;
}

std::string ratio(double v) { return num(v, "%.2f"); }

} // namespace

void SummaryReporter::ReportRuns(const std::vector<Run> &runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
        if (run.error_occurred) {
            failed_ = true;
            continue;
        }
        bool median = run.run_type == Run::RT_Aggregate;
        if (median && run.aggregate_name != "median") continue;
        Result &r = results_[run.run_name.function_name];
        if (r.median && !median) continue;
        r = Result{nanoseconds(run),           counter(run, "bytes"),
                   counter(run, "rt_allocs"),  counter(run, "heap_allocs"),
                   counter(run, "text_bytes"), median};
    }
}

const SummaryReporter::Result *SummaryReporter::find(const std::string &name) const {
    auto it = results_.find(name);
    return it == results_.end() ? nullptr : &it->second;
}

void SummaryReporter::print_summary(std::FILE *out) const {
    if (results_.empty()) return; // nothing ran (a filter that matched nothing, or only a listing)
    const double nan = std::nan("");
    auto ns = [&](const std::string &name) {
        const Result *r = find(name);
        return r ? r->ns : nan;
    };
    auto allocs = [&](const std::string &name) {
        const Result *r = find(name);
        return r ? r->rt_allocs + r->heap_allocs : nan;
    };
    auto bytes = [&](const std::string &name) {
        const Result *r = find(name);
        return r ? r->bytes : nan;
    };
    auto rate = [](double t) { return std::isnan(t) ? t : 1e9 / t; };
    bool encode_ok = true, decode_ok = true, floor_ok = true, encode_alloc_ok = true, reuse_alloc_ok = true;
    bool have_comparator = false;

    std::fprintf(out, "\n## Summary\n\nTimes are CPU nanoseconds per message; a ratio is the comparator's time "
                      "over ours (above 1: ours is faster). Allocations per operation count both the runtime's "
                      "instance allocator and the global operator new.\n");

    std::fprintf(out, "\n### Encode\n\n| message | bytes ours | bytes pb | marshal ns | msg/s | serialize ns | ratio "
                      "| len+marshal ns | byte_size+serialize ns | ratio | memcpy ns | marshal/memcpy | allocs ours "
                      "| allocs pb |\n|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (const char *m : kMessages) {
        std::string o = std::string("ours/") + m + "/", p = std::string("pb/") + m + "/";
        double mar = ns(o + "marshal"), ser = ns(p + "serialize"), len = ns(o + "len"), size = ns(p + "byte_size");
        double copy = ns(std::string("memcpy/") + m);
        double r = ser / mar, floor = mar / copy;
        if (!std::isnan(ser)) have_comparator = true;
        if (!std::isnan(r) && r < 2) encode_ok = false;
        if (!(floor <= 10)) floor_ok = false;
        if (allocs(o + "marshal") != 0) encode_alloc_ok = false;
        std::fprintf(out, "| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", m,
                     num(bytes(o + "marshal")).c_str(), num(bytes(p + "serialize")).c_str(), num(mar, "%.1f").c_str(),
                     num(rate(mar), "%.3g").c_str(), num(ser, "%.1f").c_str(), ratio(r).c_str(), num(len + mar, "%.1f").c_str(),
                     num(size + ser, "%.1f").c_str(), ratio((size + ser) / (len + mar)).c_str(), num(copy, "%.1f").c_str(),
                     ratio(floor).c_str(), num(allocs(o + "marshal"), "%.2f").c_str(),
                     num(allocs(p + "serialize"), "%.2f").c_str());
    }

    std::fprintf(out, "\n### Decode\n\n| message | unmarshal new ns | msg/s | parse new ns | ratio | parse arena ns "
                      "| ratio | unmarshal reuse ns | parse reuse ns | ratio | allocs ours new / reuse "
                      "| allocs pb new / arena / reuse |\n|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (const char *m : kMessages) {
        std::string o = std::string("ours/") + m + "/", p = std::string("pb/") + m + "/";
        double un = ns(o + "unmarshal_new"), ur = ns(o + "unmarshal_reuse");
        double pn = ns(p + "parse_new"), pa = ns(p + "parse_arena"), pr = ns(p + "parse_reuse");
        for (double r : {pn / un, pa / un, pr / ur})
            if (!std::isnan(r) && r < 2) decode_ok = false;
        if (allocs(o + "unmarshal_reuse") != 0) reuse_alloc_ok = false;
        std::fprintf(out, "| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s / %s | %s / %s / %s |\n", m,
                     num(un, "%.1f").c_str(), num(rate(un), "%.3g").c_str(), num(pn, "%.1f").c_str(), ratio(pn / un).c_str(),
                     num(pa, "%.1f").c_str(), ratio(pa / un).c_str(), num(ur, "%.1f").c_str(), num(pr, "%.1f").c_str(),
                     ratio(pr / ur).c_str(), num(allocs(o + "unmarshal_new"), "%.2f").c_str(),
                     num(allocs(o + "unmarshal_reuse"), "%.2f").c_str(), num(allocs(p + "parse_new"), "%.2f").c_str(),
                     num(allocs(p + "parse_arena"), "%.2f").c_str(), num(allocs(p + "parse_reuse"), "%.2f").c_str());
    }

    static const char *const kPairs[][2] = {{"len", "byte_size"},   {"clone", "copy"},          {"compare", "equals"},
                                            {"hash", nullptr},      {"to_xml", "to_json"},      {"from_xml", "from_json"},
                                            {"to_json", "to_json"}, {"from_json", "from_json"}, {"print", "debug_string"},
                                            {"build", "build"}};
    std::fprintf(out, "\n### Other operations\n\nfrom_xml includes parsing the document; build is create, fill "
                      "from the shared content, and destroy.\n\n| message | op | ns | allocs | comparator op | ns "
                      "| allocs | ratio |\n|---|---|---|---|---|---|---|---|\n");
    for (const char *m : kMessages)
        for (const auto &pair : kPairs) {
            std::string o = std::string("ours/") + m + "/" + pair[0];
            std::string p = pair[1] ? std::string("pb/") + m + "/" + pair[1] : std::string();
            double a = ns(o), b = pair[1] ? ns(p) : nan;
            std::fprintf(out, "| %s | %s | %s | %s | %s | %s | %s | %s |\n", m, pair[0], num(a, "%.1f").c_str(),
                         num(allocs(o), "%.2f").c_str(), pair[1] ? pair[1] : "-", num(b, "%.1f").c_str(),
                         num(pair[1] ? allocs(p) : nan, "%.2f").c_str(), ratio(b / a).c_str());
        }

    std::fprintf(out, "\n### JSON\n\nEach side's own JSON text of the same message: written into a new block, "
                      "and read into a new instance (ours: created, read, destroyed). Ratios are the comparator's "
                      "time over ours. Our text's block comes from malloc (one block, grown by realloc past "
                      "4 KiB), which the allocation counts do not see.\n\n| message | text bytes ours | text bytes pb | to_json "
                      "ns | pb ns | ratio "
                      "| from_json ns | pb ns | ratio | allocs ours to / from | allocs pb to / from |\n"
                      "|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (const char *m : kMessages) {
        std::string o = std::string("ours/") + m + "/", p = std::string("pb/") + m + "/";
        const Result *text_ours = find(o + "to_json"), *text_pb = find(p + "to_json");
        double to = ns(o + "to_json"), pto = ns(p + "to_json"), from = ns(o + "from_json"), pfrom = ns(p + "from_json");
        if (std::isnan(to) && std::isnan(from) && std::isnan(pto) && std::isnan(pfrom)) continue;
        std::fprintf(out, "| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s / %s | %s / %s |\n", m,
                     num(text_ours ? text_ours->text_bytes : nan).c_str(), num(text_pb ? text_pb->text_bytes : nan).c_str(),
                     num(to, "%.1f").c_str(), num(pto, "%.1f").c_str(), ratio(pto / to).c_str(), num(from, "%.1f").c_str(),
                     num(pfrom, "%.1f").c_str(), ratio(pfrom / from).c_str(), num(allocs(o + "to_json"), "%.2f").c_str(),
                     num(allocs(o + "from_json"), "%.2f").c_str(), num(allocs(p + "to_json"), "%.2f").c_str(),
                     num(allocs(p + "from_json"), "%.2f").c_str());
    }

    bool linear_ok = true;
    std::fprintf(out, "\n### Cost per entry (bulk: 1 and 64 entries of 4 attributes)\n\nper entry = (bulk64 - "
                      "bulk1) / 63; linear when bulk64 <= 64 x bulk1 + a constant, i.e. per entry <= bulk1.\n\n"
                      "| op | bulk1 ns | bulk64 ns | bulk64 / bulk1 | per entry ns | per entry / bulk1 |\n"
                      "|---|---|---|---|---|---|\n");
    for (const char *op : {"len", "marshal", "unmarshal_new", "unmarshal_reuse", "clone", "compare", "hash", "to_xml", "from_xml",
                           "to_json", "from_json", "print", "build"}) {
        double one = ns(std::string("ours/bulk1/") + op), many = ns(std::string("ours/bulk64/") + op);
        double per = (many - one) / 63;
        if (!(per <= one) && (std::string(op) == "marshal" || std::string(op).rfind("unmarshal", 0) == 0)) linear_ok = false;
        std::fprintf(out, "| %s | %s | %s | %s | %s | %s |\n", op, num(one, "%.1f").c_str(), num(many, "%.1f").c_str(),
                     ratio(many / one).c_str(), num(per, "%.1f").c_str(), ratio(per / one).c_str());
    }

    auto verdict = [](bool ok) { return ok ? "met" : "MISSED"; };
    std::fprintf(out, "\n### Targets\n\n");
    if (have_comparator) {
        std::fprintf(out, "- encode >= 2x the comparator's throughput, every message: %s\n", verdict(encode_ok));
        std::fprintf(out, "- decode >= 2x the comparator's throughput (new, arena, reuse), every message: %s\n",
                     verdict(decode_ok));
    } else {
        std::fprintf(out, "- comparator not built (libprotobuf-dev and protobuf-compiler missing): no ratios\n");
    }
    std::fprintf(out, "- encode within 10x of memcpy of its bytes: %s\n", verdict(floor_ok));
    std::fprintf(out, "- no allocation while encoding: %s\n", verdict(encode_alloc_ok));
    std::fprintf(out, "- no allocation decoding into a reused instance of the same sizes: %s\n", verdict(reuse_alloc_ok));
    std::fprintf(out, "- encode and decode linear in the entries of the bulk message: %s\n", verdict(linear_ok));
}

} // namespace bench
