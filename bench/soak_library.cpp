// The library alone over a long run: round trips of the benchmarks' medium message (a session
// start with eight identity attributes and wireless parameters) on one handle, created as an
// application creates it, and nothing else set on it. Each round trip builds the message, takes
// its length, encodes it, decodes it into a new instance, compares the two and destroys both.
//
//   ovrin_soak_library ROUND_TRIPS [TOLERANCE_KIB]
//
// Every tenth of the run it prints the process's resident set size and the handle's live
// allocations (the same line as `ovrin-sm demo --memory-every`). It exits 0 when every round trip
// came back equal, the last resident size is within TOLERANCE_KIB (4096) of the first one (taken
// after a tenth of the run, once the allocator and the handle have settled), and the handle holds
// no allocation at the end. It stops at the first sample past the allowed growth. 77 when built with a sanitizer, whose own bookkeeping makes resident
// memory meaningless and the run slow.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/content.h"
#include "bench/ours.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OVRIN_SOAK_INSTRUMENTED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OVRIN_SOAK_INSTRUMENTED 1
#endif
#endif

namespace {

struct Memory {
    long rss = -1, peak = -1; // KiB
};

Memory memory_now() {
    Memory m;
    if (FILE *f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f)) {
            std::sscanf(line, "VmRSS: %ld", &m.rss);
            std::sscanf(line, "VmHWM: %ld", &m.peak);
        }
        std::fclose(f);
    }
    return m;
}

bool parse_count(const char *text, long max, long &out) {
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (!*text || *end || v < 1 || v > max) return false;
    out = v;
    return true;
}

// One round trip; false (with a line on standard error) when any step fails or the decoded
// message differs from the one built.
bool round_trip(mgx_handle_t *h, std::vector<uint8_t> &wire, long n) {
    using namespace bench;
    uint32_t err = 0;
    ovrin_smd_in_event *sent = build(h, medium());
    if (!sent) {
        std::fprintf(stderr, "round trip %ld: the message cannot be built\n", n);
        return false;
    }
    const uint32_t length = ovrin_smd_in_event_len(h, kLuid, sent);
    if (wire.size() < length) wire.resize(length);
    const uint32_t written = ovrin_smd_in_event_marshal(h, kLuid, wire.data(), sent, static_cast<int32_t>(length), &err);
    ovrin_smd_in_event *received = ovrin_smd_in_event_create(h, kLuid);
    uint32_t used = 0;
    if (received) {
        ovrin_smd_in_event_adjust_variant(h, kLuid, received, &err);
        used = ovrin_smd_in_event_unmarshal(h, kLuid, wire.data(), received, static_cast<int32_t>(written), 0, &err);
    }
    bool ok = true;
    if (err || !received || written == 0) {
        std::fprintf(stderr, "round trip %ld: error %u\n", n, err);
        ok = false;
    } else if (used != written || ovrin_smd_in_event_compare(sent, received) != 0) {
        std::fprintf(stderr, "round trip %ld: decoded %u of %u bytes into a different message\n", n, used, written);
        ok = false;
    }
    ovrin_smd_in_event_destroy(h, kLuid, sent);
    if (received) ovrin_smd_in_event_destroy(h, kLuid, received);
    return ok;
}

} // namespace

int main(int argc, char **argv) {
    long rounds = 0, tolerance = 4096;
    if (argc < 2 || argc > 3 || !parse_count(argv[1], 1000000000L, rounds) ||
        (argc == 3 && !parse_count(argv[2], 1L << 30, tolerance)) || rounds < 10) {
        std::fprintf(stderr, "usage: ovrin_soak_library ROUND_TRIPS (10 or more) [TOLERANCE_KIB]\n");
        return 2;
    }
#ifdef OVRIN_SOAK_INSTRUMENTED
    std::printf("skipped: a sanitizer build, where resident memory says nothing about the library\n");
    return 77;
#endif
    mgx_handle_t *h = mgx_handle_create();
    if (!h) {
        std::fprintf(stderr, "no runtime handle\n");
        return 1;
    }
    std::vector<uint8_t> wire;
    std::vector<Memory> samples;
    const long every = rounds / 10;
    bool ok = true;
    for (long n = 1; ok && n <= rounds; ++n) {
        ok = round_trip(h, wire, n);
        if (ok && n % every == 0 && samples.size() < 10) {
            const Memory m = memory_now();
            if (m.rss < 0) {
                std::fprintf(stderr, "no resident set size in /proc/self/status\n");
                ok = false;
                break;
            }
            samples.push_back(m);
            std::printf("memory: library after %ld round trips: rss %ld KiB, peak %ld KiB, live allocations %" PRIu64 "\n", n,
                        m.rss, m.peak, mgx_handle_live_allocations(h));
            std::fflush(stdout);
            if (m.rss - samples.front().rss > tolerance) break; // a leak: no need to fill the machine
        }
    }
    const uint64_t live = mgx_handle_live_allocations(h);
    mgx_handle_destroy(h);
    if (!ok) return 1;

    const long growth = samples.back().rss - samples.front().rss;
    std::printf("resident memory from round trip %ld to %ld: %+ld KiB (at most %ld allowed); live allocations at "
                "the end %" PRIu64 "\n",
                every, every * static_cast<long>(samples.size()), growth, tolerance, live);
    if (growth > tolerance || live != 0) {
        std::printf("verdict: FAIL, %s\n", live != 0 ? "the handle still holds allocations" : "resident memory grows");
        return 1;
    }
    std::printf("verdict: PASS\n");
    return 0;
}
