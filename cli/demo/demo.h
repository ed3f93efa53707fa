// ovrin-sm demo: a client and a session manager, each a process with its own runtime handle,
// talking over a Unix socket pair with the library's messages.
//
// The client speaks ovrin_smd_in_event at its highest variant and tracks state; the session
// manager knows ovrin_smd_in_event (and its event-type enumeration) only up to variant 1 and does
// not track state. So every request crosses a variant boundary and carries state bytes that the
// receiver steps over, and every answer arrives without state bytes at a tracking receiver. The
// requests chosen use only members that variant 1 knows, so they must all arrive intact.
//
// Each frame is a 4-byte big-endian length followed by the encoded message. The receiver decodes
// into a fresh instance, rebuilds the message that the peer meant to send with the same builder,
// and compares the two by value and by hash, then once more through a clone of the decoded one.
//
// The pieces: script.cpp (the conversation), builders.cpp (the messages of each step),
// framing.cpp (frames over the socket), side.cpp (sending, checking and rendering at one end),
// options.cpp (the command line), run.cpp (the two processes and the verdict).
#ifndef OVRIN_CLI_DEMO_DEMO_H
#define OVRIN_CLI_DEMO_DEMO_H

#include <cstdint>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "cli/render.h"
#include "ovrin_sm/optable.h"

namespace ovrin::demo {

constexpr uint32_t kLuid = 1;
constexpr uint32_t kHashSeed = 0x5eed;
constexpr uint32_t kMaxFrame = 1u << 20;
// The variant of ovrin_smd_in_event that the session manager's domain knows.
constexpr int8_t kManagerInEventVariant = 1;

enum class Render { print, xml, hex, none };

struct Options {
    Render render = Render::print;
    long count = 1;
    // Frame of the first session (1-based, both directions in order) whose sender inverts the
    // second half of the encoding before sending it: the receiver must notice.
    int corrupt = 0;
    // Binary trace file both processes append their emissions to ("ovrin-sm trace FILE" reads it).
    const char *trace = nullptr;
    // Each process reports its resident memory and its handle's live allocations after every
    // this many sessions (0: never), so that a long run shows whether anything grows.
    long memory_every = 0;
};

// Reads the command line into o: -1 to go on, otherwise the exit status (the help was shown, or
// a usage error named what is wrong).
int parse(int argc, char **argv, Options &o);

// ------------------------------------------------------------------ the conversation

enum Request { REQ_REGISTER, REQ_START, REQ_ACCT, REQ_IDENTITY, REQ_QUERY, REQ_CAPWAP, REQ_STOP };
enum Answer { ANS_REG_RESULT, ANS_NEW_CLIENT, ANS_START_RESP, ANS_AUTHC_RESULT, ANS_QUERY_RESP, ANS_DISCONNECT };

struct Step {
    Request request;
    std::vector<Answer> answers;
};

// One session: each request of the client and what the session manager answers to it.
const std::vector<Step> &script();
size_t messages_per_session();
const char *request_name(Request r);
const char *answer_name(Answer a);

// ------------------------------------------------------------------ message builders
//
// Builders are deterministic in (kind, session number), so the receiver can rebuild exactly what
// the sender meant. Setters short-circuit once the error word is set; the caller checks it once.
ovrin_smd_in_event *build_request(mgx_handle_t *h, Request kind, long session, uint32_t *err);
ovrin_smd_resp_event *build_answer(mgx_handle_t *h, Answer kind, long session, uint32_t *err);

// A builder as the receiving side calls it, with the kind of message it expects.
using Rebuild = void *(*)(mgx_handle_t *h, int kind, long session, uint32_t *err);
void *rebuild_request(mgx_handle_t *h, int kind, long session, uint32_t *err);
void *rebuild_answer(mgx_handle_t *h, int kind, long session, uint32_t *err);

// ------------------------------------------------------------------ the two message types

// The operations of the two top-level message types, from the bundle's operations table.
const ovrin_sm_type_ops &in_event_ops();
const ovrin_sm_type_ops &resp_event_ops();

// ------------------------------------------------------------------ framing

bool write_all(int fd, const uint8_t *p, size_t n);
bool read_all(int fd, uint8_t *p, size_t n);
bool send_frame(int fd, const std::vector<uint8_t> &bytes);
// A frame, or false when the peer is gone or announces a length no message of this library has.
bool receive_frame(int fd, std::vector<uint8_t> &bytes);

// ------------------------------------------------------------------ one side of the exchange

struct Side {
    const char *name; // "client" or "session manager"
    const char *peer;
    const Options &opt;
    int fd;
    mgx_handle_t *h = mgx_handle_create();
    ovrin::cli::Text text; // rendering room, grown to the largest message rendered so far
    long sent = 0, received = 0, intact = 0;
    int frame_no = 0; // frames of the first session so far, both directions, for --corrupt

    Side(const char *n, const char *p, const Options &o, int f) : name(n), peer(p), opt(o), fd(f) {}
    ~Side() { mgx_handle_destroy(h); }
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;

    bool verbose(long session) const { return session == 1; }

    // Encodes msg (then destroys it) and sends it; false when it cannot be built, encoded or sent.
    bool send(const ovrin_sm_type_ops &ops, void *msg, uint32_t build_err, const char *what, long session);

    // Receives one message, checks it against the one rebuilt here (rebuild of kind), renders it.
    // False only when the exchange cannot go on (no frame); a damaged message is counted and
    // reported.
    bool receive(const ovrin_sm_type_ops &ops, Rebuild rebuild, int kind, const char *what, long session);

    void render(const ovrin_sm_type_ops &ops, const void *msg, const std::vector<uint8_t> &bytes);

    uint64_t live() const { return mgx_handle_live_allocations(h); }

    // One line with this process's resident set size now and at its peak, in KiB as the kernel
    // counts them, and the allocations its handle holds, after `session` when it is a multiple of
    // --memory-every. Written at once, as one line, between the peer's lines.
    void report_memory(long session);
};

} // namespace ovrin::demo

#endif
