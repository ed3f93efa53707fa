// ovrin-sm demo: one end of the exchange: sending, checking each message on arrival against the
// one rebuilt here, and rendering it.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "cli/demo/framing.h"
#include "cli/demo/messages.h"

namespace ovrin::demo {

template <class M, class Kind>
Checked<M> check_frame(mgx::handle &h, std::span<const uint8_t> bytes, M (*build)(mgx_handle_t *, Kind, long), Kind kind,
                       long session, const char *peer) {
    Checked<M> c;
    std::string &problem = c.problem;
    // One step of the check: a refusal becomes the problem, named by what was being done.
    auto step = [&problem](const char *doing, auto body) {
        if (!problem.empty()) return;
        try {
            body();
        } catch (const mgx::error &e) {
            problem = doing + std::to_string(e.value());
        }
    };
    step("no memory for the message: error ", [&] { c.got = M::create(h); });
    if (problem.empty()) {
        std::error_code ec;
        size_t used = c.got.decode_prefix(bytes, ec);
        c.variant = reinterpret_cast<const mgx_instance_hdr_t *>(c.got.get())->variant;
        c.truncated = ec.value() == static_cast<int>(MGX_ESHORT);
        if (ec) problem = "does not decode: error " + std::to_string(ec.value()) + " after " + std::to_string(used) + " bytes";
        else if (used != bytes.size())
            problem = "decodes from " + std::to_string(used) + " of " + std::to_string(bytes.size()) + " bytes";
    }
    step("the expected message cannot be rebuilt: error ", [&] { c.want = build(h.get(), kind, session); });
    if (problem.empty()) {
        c.hash = c.got.hash(kHashSeed);
        if (c.got != c.want) problem = "differs from what the " + std::string(peer) + " sent";
        else if (c.hash != c.want.hash(kHashSeed)) problem = "compares equal but hashes differently";
    }
    step("cannot be cloned: error ", [&] {
        M copy = c.got.clone();
        if (copy != c.want || copy.hash(kHashSeed) != c.hash) problem = "its clone differs from it";
    });
    return c;
}

template <class M, class Kind>
bool Side::send(M (*build)(mgx_handle_t *, Kind, long), Kind kind, const char *what, long session) {
    M msg;
    try {
        msg = build(h.get(), kind, session);
    } catch (const mgx::error &e) {
        std::fprintf(stderr, "%s: cannot build %s: error %u\n", name, what, e.value());
        return false;
    }
    // Under state tracking the length is an upper bound (strings and arrays are counted with a
    // state byte per character or element); the encoding is as long as the encoder wrote.
    std::vector<uint8_t> bytes;
    try {
        bytes = msg.encode();
    } catch (const mgx::error &e) {
        std::fprintf(stderr, "%s: cannot encode %s: error %u\n", name, what, e.value());
        return false;
    }
    msg.reset();
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

template <class M, class Kind>
bool Side::receive(M (*build)(mgx_handle_t *, Kind, long), Kind kind, const char *what, long session) {
    std::vector<uint8_t> bytes;
    if (!receive_frame(fd, bytes)) {
        std::fprintf(stderr, "%s: no %s frame from the %s\n", name, what, peer);
        return false;
    }
    ++received;
    if (session == 1) ++frame_no;
    Checked<M> c = check_frame(h, bytes, build, kind, session, peer);
    const std::string &problem = c.problem;
    const M &got = c.got, &want = c.want;
    const int8_t decoded_variant = c.variant;
    const uint32_t hash = c.hash;
    const bool ok = problem.empty();
    if (ok) ++intact;
    if (verbose(session) || !ok) {
        std::printf("%-15s <- %-15s %-20s %5zu bytes  wire v%d%s -> v%d  %s", name, peer, what, bytes.size(),
                    static_cast<int8_t>(bytes[0]), bytes.size() > 1 && (bytes[1] & 0x08) ? " +state" : "", decoded_variant,
                    ok ? "intact" : "DAMAGED: ");
        if (ok) std::printf("  hash %08" PRIx32 "\n", hash);
        else std::printf("%s (session %ld)\n", problem.c_str(), session);
        render(got, bytes);
        if (!ok && want && opt.render != Render::none && opt.render != Render::hex) {
            std::printf("%s: the %s meant:\n", name, peer);
            render(want, bytes);
        }
    }
    return true;
}

template <class M> void Side::render(const M &msg, const std::vector<uint8_t> &bytes) {
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
        std::string text;
        try {
            text = opt.render == Render::xml ? msg.to_xml() : msg.to_string();
        } catch (const mgx::error &e) {
            std::printf("    (%s cannot be rendered: error %u)\n", M::type_name(), e.value());
            return;
        }
        std::fwrite(text.data(), 1, text.size(), stdout);
        if (text.empty() || text.back() != '\n') std::putchar('\n');
        return;
    }
    }
}

// The two directions of the exchange.
template Checked<sm::ovrin_smd_in_event> check_frame(mgx::handle &, std::span<const uint8_t>,
                                                     sm::ovrin_smd_in_event (*)(mgx_handle_t *, Request, long), Request, long,
                                                     const char *);
template Checked<sm::ovrin_smd_resp_event> check_frame(mgx::handle &, std::span<const uint8_t>,
                                                       sm::ovrin_smd_resp_event (*)(mgx_handle_t *, Answer, long), Answer, long,
                                                       const char *);
template bool Side::send(sm::ovrin_smd_in_event (*)(mgx_handle_t *, Request, long), Request, const char *, long);
template bool Side::send(sm::ovrin_smd_resp_event (*)(mgx_handle_t *, Answer, long), Answer, const char *, long);
template bool Side::receive(sm::ovrin_smd_in_event (*)(mgx_handle_t *, Request, long), Request, const char *, long);
template bool Side::receive(sm::ovrin_smd_resp_event (*)(mgx_handle_t *, Answer, long), Answer, const char *, long);

void Side::report_memory(long session) {
    if (opt.memory_every == 0 || session % opt.memory_every != 0) return;
    long rss, peak;
    if (!resident_kib(rss, peak)) {
        std::fprintf(stderr, "%s: no resident set size in /proc/self/status\n", name);
        return;
    }
    std::fflush(stdout);
    std::printf("memory: %s after %ld sessions: rss %ld KiB, peak %ld KiB, live allocations %" PRIu64 "\n", name, session, rss,
                peak, live());
    std::fflush(stdout);
}

} // namespace ovrin::demo
