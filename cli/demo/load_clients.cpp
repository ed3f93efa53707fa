// ovrin-sm demo --clients N: the session manager's peers. A healthy client plays the script on its
// own handle and connection and checks every answer on arrival; a faulty peer is a process that
// plays a session or two and then misbehaves in the one way its role names.
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "cli/demo/framing.h"
#include "cli/demo/load.h"
#include "cli/demo/messages.h"
#include "cli/options.h"

namespace ovrin::demo::load {

namespace {

const char *const kRoleNames[] = {"kill", "damage", "truncate", "oversize", "stall", "silent", "stranger", "member"};

using Clock = std::chrono::steady_clock;

// A connection to the session manager, with timeouts so that no peer waits on it for ever.
int connect_to(const std::string &path, std::string &error) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1); // the run checked that it fits
    // A full backlog (every client of a burst at once) answers EAGAIN: try again a while.
    for (int attempt = 0;; ++attempt) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) == 0) break;
        if (errno == EINTR || (errno == EAGAIN && attempt < 10000)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        error = std::string("connect: ") + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    const timeval limit{30, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

std::vector<uint8_t> request_bytes(mgx::handle &h, Request kind, long key) { return build_request(h.get(), kind, key).encode(); }

// A client's pauses: random, about think_us on average (exponentially distributed, at most ten
// times the mean), so that a thousand clients do not stay in step and arrive in waves.
struct Pauses {
    uint64_t state;
    long mean_us;
    std::chrono::microseconds next() {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17; // xorshift64
        const double u = static_cast<double>(state >> 11) / 9007199254740992.0;
        return std::chrono::microseconds(static_cast<long>(std::min(-std::log1p(-u), 10.0) * static_cast<double>(mean_us)));
    }
};

// Sends a frame in two writes a moment apart, as a slow peer's frames arrive: the session manager
// sees the first part alone and must keep it until the rest comes.
bool send_split(int fd, const std::vector<uint8_t> &bytes) {
    const uint32_t n = static_cast<uint32_t>(bytes.size());
    std::vector<uint8_t> frame{uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    frame.insert(frame.end(), bytes.begin(), bytes.end());
    const size_t half = frame.size() / 2;
    if (!write_all(fd, frame.data(), half)) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    return write_all(fd, frame.data() + half, frame.size() - half);
}

// One answer received, checked against the one rebuilt here: counted as received and, when it
// checks, as intact; false with the problem said when it does not.
bool intact_answer(mgx::handle &h, const std::vector<uint8_t> &frame, Answer a, long session, ClientResult &r) {
    ++r.received;
    auto c = check_frame(h, frame, build_answer, a, session, "session manager");
    if (!c.problem.empty()) {
        r.problem = std::string(answer_name(a)) + " of session " + std::to_string(session) + " " + c.problem;
        return false;
    }
    ++r.intact;
    return true;
}

// After the script: false, said, when the session manager sent more than it holds.
bool nothing_more(const FrameReader &in, ClientResult &r) {
    if (in.holding()) r.problem = "the session manager sent more than the script holds";
    return !in.holding();
}

// Plays sessions key+1 ... key+count on fd, checking every answer; false at the first problem.
// A slow client sends each request in two parts.
bool play(mgx::handle &h, int fd, long key, long count, long think_us, ClientResult &r, bool slow = false) {
    FrameReader in(fd);
    Pauses pause{0x9e3779b97f4a7c15ull ^ static_cast<uint64_t>(key + 1) * 0xbf58476d1ce4e5b9ull, think_us};
    // With pauses, the first comes before the first request too: the clients come in over the
    // first pause or two, as stations do when their access point is back, not all in one instant.
    if (think_us > 0) std::this_thread::sleep_for(pause.next());
    for (long s = 1; s <= count; ++s) {
        const long session = key + s;
        for (const Step &step : script()) {
            std::vector<uint8_t> bytes;
            try {
                bytes = request_bytes(h, step.request, session);
            } catch (const mgx::error &e) {
                r.problem = std::string("cannot build ") + request_name(step.request) + ": error " + std::to_string(e.value());
                return false;
            }
            if (!(slow ? send_split(fd, bytes) : send_frame(fd, bytes))) {
                r.problem = std::string("cannot send ") + request_name(step.request) + ": " + std::strerror(errno);
                return false;
            }
            const auto sent_at = Clock::now(); // an exchange: from the request sent to its last answer read
            ++r.sent;
            std::vector<std::vector<uint8_t>> answers(step.answers.size());
            for (auto &frame : answers)
                if (!in.next(frame)) {
                    r.problem = std::string("no answer to ") + request_name(step.request) + " of session " +
                                std::to_string(session);
                    return false;
                }
            if (!answers.empty())
                r.latency.add(
                    static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - sent_at).count()));
            for (size_t i = 0; i < answers.size(); ++i)
                if (!intact_answer(h, answers[i], step.answers[i], session, r)) return false;
            if (think_us > 0) std::this_thread::sleep_for(pause.next());
        }
        r.sessions = s;
    }
    return nothing_more(in, r);
}

// A batching client: sends every request of a window of 360 sessions before reading any answer,
// then reads and checks them all. A window's answers (about 360 KB) are more than a socket takes
// while its reader is away: its buffer (208 KiB by default) and, past it, at most one more piece
// of up to half the buffer that a large send may slip in (a session manager that has fallen behind
// writes its answers in large sends: 300 sessions' answers then fitted). So the session manager
// must queue the rest and write it when the socket drains, while staying under its output limit
// (256 KiB past what the socket took). Its exchanges are not timed: they wait on one another by
// design.
bool play_batched(mgx::handle &h, int fd, long key, long count, ClientResult &r) {
    constexpr long kWindow = 360;
    FrameReader in(fd);
    for (long first = 1; first <= count; first += kWindow) {
        const long last = std::min(count, first + kWindow - 1);
        for (long s = first; s <= last; ++s)
            for (const Step &step : script()) {
                if (!send_frame(fd, request_bytes(h, step.request, key + s))) {
                    r.problem = std::string("cannot send ") + request_name(step.request) + ": " + std::strerror(errno);
                    return false;
                }
                ++r.sent;
            }
        for (long s = first; s <= last; ++s) {
            for (const Step &step : script())
                for (Answer a : step.answers) {
                    std::vector<uint8_t> frame;
                    if (!in.next(frame)) {
                        r.problem = std::string("no ") + answer_name(a) + " of session " + std::to_string(key + s);
                        return false;
                    }
                    if (!intact_answer(h, frame, a, key + s, r)) return false;
                }
            r.sessions = s;
        }
    }
    return nothing_more(in, r);
}

// After its last frame a peer hangs up its sending half and waits for the session manager to
// close: true when nothing more came.
bool hang_up(int fd) {
    ::shutdown(fd, SHUT_WR);
    uint8_t extra;
    ssize_t n;
    while ((n = ::read(fd, &extra, 1)) < 0 && errno == EINTR) {
    }
    return n <= 0;
}

// Waits for the session manager to let this peer go: true when the connection ends (closed or
// reset) with nothing sent to it first.
bool let_go(int fd) {
    uint8_t b;
    for (;;) {
        ssize_t n = ::read(fd, &b, 1);
        if (n < 0 && errno == EINTR) continue;
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }
}

// The other user that strangers and members play: nobody, in group `gid`, with `extra` as the
// one supplementary group (or none).
bool become_nobody(gid_t gid, const gid_t *extra) {
    const passwd *pw = ::getpwnam("nobody");
    if (!pw) return false;
    return ::setgroups(extra ? 1 : 0, extra) == 0 && ::setgid(gid == gid_t(-1) ? pw->pw_gid : gid) == 0 &&
           ::setuid(pw->pw_uid) == 0;
}

int fail(Role role, const std::string &what) {
    std::fprintf(stderr, "%s peer: %s\n", kRoleNames[role], what.c_str());
    return 1;
}

int play_role(const Options &opt, const std::string &path, Role role, long key) {
    if (role == R_STRANGER && !become_nobody(gid_t(-1), opt.group_given ? &opt.group : nullptr))
        return fail(role, std::string("cannot become nobody: ") + std::strerror(errno));
    if (role == R_MEMBER && !become_nobody(opt.group, nullptr))
        return fail(role, std::string("cannot become nobody in the group: ") + std::strerror(errno));
    mgx::handle h(kLuid);
    h.set_state_tracking(true);
    std::string error;
    int fd = connect_to(path, error);
    if (fd < 0) {
        if (role == R_STRANGER && error.find(std::strerror(EACCES)) != std::string::npos) return kRefusedByDirectory;
        return fail(role, error);
    }
    ClientResult r;
    switch (role) {
    case R_SILENT: return let_go(fd) ? 0 : fail(role, "was not let go");
    case R_STALL:
        // Requests without end, answers never read: the session manager must let it go.
        for (long s = 1; s <= 1000000; ++s)
            for (const Step &step : script())
                if (!send_frame(fd, request_bytes(h, step.request, key + s))) return 0;
        return fail(role, "a million sessions' requests were taken without reading one answer");
    case R_STRANGER: {
        // Let in, the stranger would be answered; refused, the connection ends.
        send_frame(fd, request_bytes(h, REQ_REGISTER, key + 1));
        return let_go(fd) ? 0 : fail(role, "was let in");
    }
    case R_MEMBER:
        if (!play(h, fd, key, opt.count, opt.think_us, r)) return fail(role, r.problem);
        return hang_up(fd) && h.live_allocations() == 0 ? 0 : fail(role, "did not end cleanly");
    default: break;
    }
    // The others play one session well first, so that the session manager holds their state.
    if (!play(h, fd, key, 1, 0, r)) return fail(role, r.problem);
    std::vector<uint8_t> bytes = request_bytes(h, REQ_REGISTER, key + 2);
    std::vector<uint8_t> frame;
    uint32_t n = static_cast<uint32_t>(bytes.size());
    switch (role) {
    case R_KILL: // half a frame, and the process dies
        frame = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
        frame.insert(frame.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2));
        write_all(fd, frame.data(), frame.size());
        ::kill(::getpid(), SIGKILL);
        return fail(role, "outlived SIGKILL");
    case R_DAMAGE: { // the connection handle altered: the message decodes, but not to what was meant
        const uint32_t conn = conn_of(key + 2);
        const uint8_t be[4] = {uint8_t(conn >> 24), uint8_t(conn >> 16), uint8_t(conn >> 8), uint8_t(conn)};
        const uint8_t le[4] = {be[3], be[2], be[1], be[0]};
        auto at = std::search(bytes.begin(), bytes.end(), be, be + 4);
        if (at != bytes.end()) at[3] ^= 0x01;
        else if ((at = std::search(bytes.begin(), bytes.end(), le, le + 4)) != bytes.end()) at[0] ^= 0x01;
        else return fail(role, "no connection handle in the request to alter");
        send_frame(fd, bytes);
        break;
    }
    case R_TRUNCATE: // two thirds of the encoding, framed as if whole
        bytes.resize(bytes.size() * 2 / 3);
        send_frame(fd, bytes);
        break;
    case R_OVERSIZE: // a length past the limit, and a few bytes of it
        n = static_cast<uint32_t>(opt.max_frame) + 1;
        frame = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n), 2, 8, 0, 0};
        write_all(fd, frame.data(), frame.size());
        break;
    default: break;
    }
    return let_go(fd) ? 0 : fail(role, "was not let go");
}

} // namespace

const char *fault_name(int index) { return kRoleNames[index]; }
const char *role_name(Role r) { return kRoleNames[r]; }

bool parse_faults(const std::string &text, unsigned &faults, std::string &error) {
    faults = 0;
    size_t at = 0;
    for (;;) {
        const size_t comma = text.find(',', at);
        const std::string name = text.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        int found = -1;
        for (int i = 0; i < kFaultCount; ++i)
            if (name == kRoleNames[i]) found = i;
        if (name == "all") faults |= (1u << kFaultCount) - 1;
        else if (found >= 0) faults |= 1u << found;
        else {
            std::vector<std::string> names(kRoleNames, kRoleNames + kFaultCount);
            names.push_back("all");
            error = "--faults: unknown fault '" + name +
                    "' (faults: kill, damage, truncate, oversize, stall, silent, "
                    "stranger, or all)" +
                    cli::did_you_mean(name, names);
            return false;
        }
        if (comma == std::string::npos) return true;
        at = comma + 1;
    }
}

void run_client(const Options &opt, const std::string &path, long index, ClientResult &r) {
    try {
        mgx::handle h(kLuid);
        h.set_state_tracking(true); // as the demo's client: requests carry state bytes
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 5);
        int fd = connect_to(path, r.problem);
        if (fd < 0) return;
        // One client in sixteen is slow (its frames arrive in parts), one batches its requests.
        const bool played = index % 16 == 7 ? play_batched(h, fd, index * opt.count, opt.count, r)
                                            : play(h, fd, index * opt.count, opt.count, opt.think_us, r, index % 16 == 15);
        if (played && !hang_up(fd)) r.problem = "the session manager sent more than the script holds";
        ::close(fd);
        r.live = h.live_allocations();
    } catch (const std::exception &e) {
        if (r.problem.empty()) r.problem = e.what();
    }
}

pid_t start_peer(const Options &opt, const std::string &path, Role role, long key) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    // Nothing of the demo's own stays open here: the session manager must see the end of the run
    // when the demo closes its side, whatever a peer does.
    ::close_range(3, ~0u, 0);
    int status;
    try {
        status = play_role(opt, path, role, key);
    } catch (const std::exception &e) {
        status = fail(role, e.what());
    }
    std::fflush(nullptr);
    // The stranger and the member have become another user, whom the leak check may not trace.
    ::_exit(role == R_STRANGER || role == R_MEMBER ? status : child_status(status));
}

} // namespace ovrin::demo::load
