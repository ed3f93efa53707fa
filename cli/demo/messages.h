// ovrin-sm demo: the messages at either end: building them, and checking them on arrival.
//
// The client speaks ovrin_smd_in_event at its highest variant and tracks state; the session
// manager knows ovrin_smd_in_event (and its event-type enumeration) only up to variant 1 and does
// not track state. So every request crosses a variant boundary and carries state bytes that the
// receiver steps over, and every answer arrives without state bytes at a tracking receiver. The
// requests chosen use only members that variant 1 knows, so they must all arrive intact.
//
// The receiver decodes each frame into a fresh instance, rebuilds the message that the peer meant
// to send with the same builder, and compares the two by value and by hash, then once more through
// a clone of the decoded one.
//
// Of the demo's headers only this one includes the library's generated C++ interface, which every
// catalogue edit regenerates: the files that need no message type include the others alone.
#ifndef OVRIN_CLI_DEMO_MESSAGES_H
#define OVRIN_CLI_DEMO_MESSAGES_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cli/demo/options.h"
#include "cli/demo/script.h"
#include "ovrin_sm/ovrin_sm.hpp"

namespace ovrin::demo {

constexpr uint32_t kLuid = 1;
constexpr uint32_t kHashSeed = 0x5eed;
// The variant of ovrin_smd_in_event that the session manager's domain knows.
constexpr int8_t kManagerInEventVariant = 1;

// ------------------------------------------------------------------ message builders
//
// Builders are deterministic in (kind, session number), so the receiver can rebuild exactly what
// the sender meant. A refused step throws mgx::error.
sm::ovrin_smd_in_event build_request(mgx_handle_t *h, Request kind, long session);
sm::ovrin_smd_resp_event build_answer(mgx_handle_t *h, Answer kind, long session);

// The connection handle of a session's messages, and the session whose handle it is (or -1).
uint32_t conn_of(long session);
long session_of_conn(uint32_t conn);

// ------------------------------------------------------------------ checking on arrival

// One received frame checked: decoded into `got` from all its bytes, equal to `want` (rebuilt
// here with the same builder) by value and by hash, and so is its clone. `problem` is empty when
// the message is intact; `truncated` says the encoding stopped short (error 90).
template <class M> struct Checked {
    M got, want;
    int8_t variant = 0;
    uint32_t hash = 0;
    std::string problem;
    bool truncated = false;
};
template <class M, class Kind>
Checked<M> check_frame(mgx::handle &h, std::span<const uint8_t> bytes, M (*build)(mgx_handle_t *, Kind, long), Kind kind,
                       long session, const char *peer);

// ------------------------------------------------------------------ one side of the exchange

struct Side {
    const char *name; // "client" or "session manager"
    const char *peer;
    const Options &opt;
    int fd;
    mgx::handle h;
    long sent = 0, received = 0, intact = 0;
    int frame_no = 0; // frames of the first session so far, both directions, for --corrupt

    Side(const char *n, const char *p, const Options &o, int f) : name(n), peer(p), opt(o), fd(f), h(kLuid) {}

    bool verbose(long session) const { return session == 1; }

    // Builds the message of kind, encodes and sends it; false when it cannot be built, encoded or
    // sent.
    template <class M, class Kind> bool send(M (*build)(mgx_handle_t *, Kind, long), Kind kind, const char *what, long session);

    // Receives one message, checks it against the one rebuilt here (build of kind), renders it.
    // False only when the exchange cannot go on (no frame); a damaged message is counted and
    // reported.
    template <class M, class Kind>
    bool receive(M (*build)(mgx_handle_t *, Kind, long), Kind kind, const char *what, long session);

    template <class M> void render(const M &msg, const std::vector<uint8_t> &bytes);

    uint64_t live() const { return h.live_allocations(); }

    // One line with this process's resident set size now and at its peak, in KiB as the kernel
    // counts them, and the allocations its handle holds, after `session` when it is a multiple of
    // --memory-every. Written at once, as one line, between the peer's lines.
    void report_memory(long session);
};

} // namespace ovrin::demo

#endif
