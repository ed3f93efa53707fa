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

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "ovrin_sm/ovrin_sm.hpp"

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

    // The load run (load.h): with clients > 0, one session manager serves this many clients at
    // once, each playing `count` sessions.
    long clients = 0;
    unsigned faults = 0;      // bits of load::Fault: misbehaving peers mixed in
    bool json = false;        // the report as one JSON object
    bool group_given = false; // peers whose group is `group` are let in beside this user's
    gid_t group = 0;
    std::string group_name;
    long think_us = 0;        // each client's pause between one exchange and the next
    long idle_ms = 2000;      // a client silent this long is dropped
    long max_frame = 65536;   // the longest frame the session manager takes
    long out_limit = 262144;  // the most answer bytes it queues for a client that does not read
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
// the sender meant. A refused step throws mgx::error.
sm::ovrin_smd_in_event build_request(mgx_handle_t *h, Request kind, long session);
sm::ovrin_smd_resp_event build_answer(mgx_handle_t *h, Answer kind, long session);

// The connection handle of a session's messages, and the session whose handle it is (or -1).
uint32_t conn_of(long session);
long session_of_conn(uint32_t conn);

// ------------------------------------------------------------------ framing

bool write_all(int fd, const uint8_t *p, size_t n);
bool read_all(int fd, uint8_t *p, size_t n);
bool send_frame(int fd, const std::vector<uint8_t> &bytes);
// A frame, or false when the peer is gone or announces a length no message of this library has.
bool receive_frame(int fd, std::vector<uint8_t> &bytes);

// Frames read in chunks: one read takes every frame that has come (a step's answers come together).
class FrameReader {
public:
    explicit FrameReader(int fd) : fd_(fd) {}
    // As receive_frame.
    bool next(std::vector<uint8_t> &bytes);
    // True when bytes have come that no frame has taken yet.
    bool holding() const { return end_ > start_; }

private:
    bool fill(size_t want); // at least want bytes from start_ on
    int fd_;
    std::vector<uint8_t> buf_;
    size_t start_ = 0, end_ = 0;
};

// This process's resident set size and its peak, in KiB as the kernel counts them; false when
// /proc does not say.
bool resident_kib(long &rss, long &peak);

// The status a forked process ends with by _exit (which runs no exit handlers): under
// LeakSanitizer, 1 when the process leaks, so that a child's leak is not missed.
int child_status(int status);

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
