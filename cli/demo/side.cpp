// ovrin-sm demo: one end of the exchange: sending, checking each message on arrival against the
// one rebuilt here, and rendering it.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli/demo/demo.h"
#include "cli/render.h"

namespace ovrin::demo {

// The two message types' entries of the operations table, found once.
namespace {
const ovrin_sm_type_ops &entry(const char *name) {
    const ovrin_sm_type_ops *ops = ovrin_sm_optable_find(name);
    if (!ops) {
        std::fprintf(stderr, "ovrin-sm demo: the library has no type %s\n", name);
        std::abort();
    }
    return *ops;
}
} // namespace

const ovrin_sm_type_ops &in_event_ops() {
    static const ovrin_sm_type_ops &ops = entry("ovrin_smd_in_event");
    return ops;
}

const ovrin_sm_type_ops &resp_event_ops() {
    static const ovrin_sm_type_ops &ops = entry("ovrin_smd_resp_event");
    return ops;
}

bool Side::send(const ovrin_sm_type_ops &ops, void *msg, uint32_t build_err, const char *what, long session) {
    if (!msg || build_err) {
        std::fprintf(stderr, "%s: cannot build %s: error %u\n", name, what, build_err);
        if (msg) ops.destroy(h, kLuid, msg);
        return false;
    }
    // Under state tracking the length is an upper bound (strings and arrays are counted with a
    // state byte per character or element); the encoder says how much it wrote.
    uint32_t err = 0;
    std::vector<uint8_t> bytes(ops.len(h, kLuid, msg));
    uint32_t n = ops.marshal(h, kLuid, bytes.data(), msg, static_cast<int32_t>(bytes.size()), &err);
    ops.destroy(h, kLuid, msg);
    if (err || n == 0 || n > bytes.size()) {
        std::fprintf(stderr, "%s: cannot encode %s: error %u\n", name, what, err);
        return false;
    }
    bytes.resize(n);
    if (session == 1 && ++frame_no == opt.corrupt)
        for (size_t i = bytes.size() / 2; i < bytes.size(); ++i) bytes[i] ^= 0xff;
    std::fflush(stdout); // the peer prints next; keep the two outputs in order
    if (!send_frame(fd, bytes)) {
        std::fprintf(stderr, "%s: the %s is gone\n", name, peer);
        return false;
    }
    ++sent;
    return true;
}

bool Side::receive(const ovrin_sm_type_ops &ops, Rebuild rebuild, int kind, const char *what, long session) {
    std::vector<uint8_t> bytes;
    if (!receive_frame(fd, bytes)) {
        std::fprintf(stderr, "%s: no %s frame from the %s\n", name, what, peer);
        return false;
    }
    ++received;
    if (session == 1) ++frame_no;
    std::string problem;
    uint32_t err = 0;
    void *got = ops.create(h, kLuid);
    int8_t decoded_variant = 0;
    if (!got) {
        problem = "no memory for the message";
    } else {
        ops.adjust_variant(h, kLuid, got, &err);
        uint32_t used = ops.unmarshal(h, kLuid, bytes.data(), got, static_cast<int32_t>(bytes.size()), 0, &err);
        decoded_variant = static_cast<const mgx_instance_hdr_t *>(got)->variant;
        if (err)
            problem = "does not decode: error " + std::to_string(err) + " after " + std::to_string(used) + " bytes";
        else if (used != bytes.size())
            problem = "decodes from " + std::to_string(used) + " of " + std::to_string(bytes.size()) + " bytes";
    }
    uint32_t hash = 0;
    void *want = nullptr;
    if (problem.empty()) {
        uint32_t build_err = 0;
        want = rebuild(h, kind, session, &build_err);
        void *copy = nullptr;
        if (!want || build_err) {
            problem = "the expected message cannot be rebuilt: error " + std::to_string(build_err);
        } else {
            hash = ops.hash(got, kHashSeed);
            if (ops.compare(got, want) != 0)
                problem = "differs from what the " + std::string(peer) + " sent";
            else if (hash != ops.hash(want, kHashSeed))
                problem = "compares equal but hashes differently";
            else {
                std::vector<uint8_t> work(ops.len(h, kLuid, got) + 64);
                ops.clone(h, kLuid, got, &copy, work.data(), static_cast<uint32_t>(work.size()), &err);
                if (err || !copy)
                    problem = "cannot be cloned: error " + std::to_string(err);
                else if (ops.compare(copy, want) != 0 || ops.hash(copy, kHashSeed) != hash)
                    problem = "its clone differs from it";
            }
        }
        if (copy) ops.destroy(h, kLuid, copy);
    }
    const bool ok = problem.empty();
    if (ok) ++intact;
    if (verbose(session) || !ok) {
        std::printf("%-15s <- %-15s %-20s %5zu bytes  wire v%d%s -> v%d  %s",
                    name, peer, what, bytes.size(), static_cast<int8_t>(bytes[0]),
                    bytes.size() > 1 && (bytes[1] & 0x08) ? " +state" : "", decoded_variant,
                    ok ? "intact" : "DAMAGED: ");
        if (ok)
            std::printf("  hash %08" PRIx32 "\n", hash);
        else
            std::printf("%s (session %ld)\n", problem.c_str(), session);
        render(ops, got, bytes);
        if (!ok && want && opt.render != Render::none && opt.render != Render::hex) {
            std::printf("%s: the %s meant:\n", name, peer);
            render(ops, want, bytes);
        }
    }
    if (want) ops.destroy(h, kLuid, want);
    if (got) ops.destroy(h, kLuid, got);
    return true;
}

void Side::render(const ovrin_sm_type_ops &ops, const void *msg, const std::vector<uint8_t> &bytes) {
    switch (opt.render) {
    case Render::none: return;
    case Render::hex:
        for (size_t i = 0; i < bytes.size(); ++i) {
            std::printf("%s%02x", i % 32 == 0 ? "    " : " ", bytes[i]);
            if (i % 32 == 31 || i + 1 == bytes.size()) std::putchar('\n');
        }
        return;
    case Render::print:
    case Render::xml: {
        if (!msg) return;
        long n = ovrin::cli::render(ops, h, msg, opt.render == Render::xml, text);
        if (n < 0) {
            std::printf("    (%s cannot be rendered: error %u)\n", ops.name, mgx_handle_last_error(h));
            return;
        }
        std::fwrite(text.data, 1, static_cast<size_t>(n), stdout);
        if (n == 0 || text.data[n - 1] != '\n') std::putchar('\n');
        return;
    }
    }
}

void Side::report_memory(long session) {
    if (opt.memory_every == 0 || session % opt.memory_every != 0) return;
    long rss = -1, peak = -1;
    if (FILE *f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f)) {
            std::sscanf(line, "VmRSS: %ld", &rss);
            std::sscanf(line, "VmHWM: %ld", &peak);
        }
        std::fclose(f);
    }
    if (rss < 0 || peak < 0) {
        std::fprintf(stderr, "%s: no resident set size in /proc/self/status\n", name);
        return;
    }
    std::fflush(stdout);
    std::printf("memory: %s after %ld sessions: rss %ld KiB, peak %ld KiB, live allocations %" PRIu64 "\n", name,
                session, rss, peak, live());
    std::fflush(stdout);
}

} // namespace ovrin::demo
