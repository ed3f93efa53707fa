// ovrin-sm demo --clients N: the session manager. One process, one runtime handle for the whole
// run, one epoll loop. Each connection has its own input and output buffers and its own place in
// the script; nothing a client sends reaches another connection's state. A frame is taken only up
// to the limit, answers are queued only up to the output limit, and a client silent for the idle
// time is let go, so one client can hold neither the loop nor more than its share of memory.
#include <dirent.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <vector>

#include "cli/demo/framing.h"
#include "cli/demo/load.h"
#include "cli/demo/messages.h"

namespace ovrin::demo::load {

const char *cause_text(Cause c) {
    static const char *const texts[C_COUNT] = {"hung up",
                                               "closed mid-frame",
                                               "damaged frame",
                                               "truncated frame",
                                               "frame over the limit",
                                               "stopped reading",
                                               "silent",
                                               "gone before its answers",
                                               "neither this user nor the group",
                                               "too many connections"};
    return texts[c];
}

int open_descriptors() {
    DIR *d = ::opendir("/proc/self/fd");
    if (!d) return -1;
    int n = 0;
    while (const dirent *e = ::readdir(d))
        if (e->d_name[0] != '.') ++n;
    ::closedir(d);
    return n - 1; // the directory's own
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxSamples = 1024;
constexpr size_t kReadChunk = 16384;

struct Conn {
    int fd = -1;
    uint64_t id = 0;
    pid_t pid = 0;
    std::vector<uint8_t> in; // the start of a frame not yet whole

    std::vector<uint8_t> out; // answers queued, written up to `written`
    size_t written = 0;
    bool waiting_to_write = false;
    long key = -1;   // the session being played (its number), -1 before the first request
    size_t step = 0; // the request of the script expected next
    Clock::time_point heard;
    std::list<Conn *>::iterator quiet; // place in the list of connections by last heard
};

class Server {
public:
    Server(const ServerConfig &c, int listener, int control) : cfg_(c), listener_(listener), control_(control) {
        h_.set_domain_variant("ovrin_smd_in_event", kManagerInEventVariant);
        h_.set_domain_variant("ovrin_sm_in_event_type", kManagerInEventVariant);
    }

    int run(ServerReport &r);
    const std::vector<Sample> &timeline() const { return samples_; }

private:
    void accept_all();
    void readable(Conn &c);
    // Answers the whole frames of buf from taken up to end, moving taken past them; false when
    // the connection was dropped.
    bool take_frames(Conn &c, const uint8_t *buf, size_t end, size_t &taken);
    bool answer(Conn &c, std::span<const uint8_t> frame);
    bool flush(Conn &c);
    void drop(Conn &c, Cause cause, const std::string &detail = "");
    void watch(Conn &c, bool out);
    void sample(Clock::time_point now, bool force = false);

    const ServerConfig &cfg_;
    int listener_, control_, ep_ = -1;
    mgx::handle h_{kLuid};
    std::vector<std::unique_ptr<Conn>> conns_; // by descriptor
    std::list<Conn *> by_quiet_;               // least recently heard first
    long open_ = 0;
    uint64_t next_id_ = 1;
    ServerReport r_;
    Clock::time_point start_, next_sample_;
    std::chrono::milliseconds every_{100};
    std::vector<Sample> samples_;
    std::vector<uint8_t> scratch_ = std::vector<uint8_t>(kReadChunk);
};

// The session a client's first register request names (its connection handle), or -1.
long register_key(mgx::handle &h, std::span<const uint8_t> frame) {
    try {
        auto m = sm::ovrin_smd_in_event::create(h);
        std::error_code ec;
        m.decode_prefix(frame, ec);
        if (ec || !m.has_reg_client()) return -1;
        return session_of_conn(m.reg_client().rcl_conn_hdl().conn_hdl());
    } catch (const mgx::error &) {
        return -1;
    }
}

void Server::watch(Conn &c, bool out) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP | (out ? EPOLLOUT : 0u);
    ev.data.fd = c.fd;
    ::epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
    c.waiting_to_write = out;
}

void Server::accept_all() {
    for (;;) {
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ECONNABORTED)
                std::fprintf(stderr, "session manager: accept: %s\n", std::strerror(errno));
            return;
        }
        ucred cred{};
        socklen_t len = sizeof cred;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
            (cred.uid != cfg_.uid && !(cfg_.group_given && cred.gid == cfg_.group))) {
            std::fprintf(stderr, "session manager: refused a peer (pid %d, uid %u, gid %u): neither user %u nor %s\n",
                         static_cast<int>(cred.pid), cred.uid, cred.gid, cfg_.uid,
                         cfg_.group_given ? ("group " + std::to_string(cfg_.group)).c_str() : "a group given");
            ++r_.causes[C_REFUSED];
            ::close(fd);
            continue;
        }
        if (open_ >= cfg_.max_connections) {
            std::fprintf(stderr, "session manager: refused a peer (pid %d): %ld connections already\n",
                         static_cast<int>(cred.pid), open_);
            ++r_.causes[C_TOO_MANY];
            ::close(fd);
            continue;
        }
        if (static_cast<size_t>(fd) >= conns_.size()) conns_.resize(static_cast<size_t>(fd) + 1);
        conns_[fd] = std::make_unique<Conn>();
        Conn &c = *conns_[fd];
        c.fd = fd;
        c.id = next_id_++;
        c.pid = cred.pid;
        c.heard = Clock::now();
        c.quiet = by_quiet_.insert(by_quiet_.end(), &c);
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLRDHUP;
        ev.data.fd = fd;
        ::epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev);
        ++open_;
        ++r_.accepted;
    }
}

void Server::drop(Conn &c, Cause cause, const std::string &detail) {
    ++r_.causes[cause];
    if (cause != C_DONE)
        std::fprintf(stderr, "session manager: dropped client %" PRIu64 " (pid %d): %s%s%s\n", c.id, static_cast<int>(c.pid),
                     cause_text(cause), detail.empty() ? "" : ": ", detail.c_str());
    ::epoll_ctl(ep_, EPOLL_CTL_DEL, c.fd, nullptr);
    ::close(c.fd);
    by_quiet_.erase(c.quiet);
    --open_;
    conns_[c.fd].reset(); // c is gone
}

void Server::readable(Conn &c) {
    // Bytes are read into the server's one scratch buffer and whole frames answered from there;
    // only the unfinished rest of a frame is kept by the connection, so an idle connection holds
    // no buffer. While a frame is unfinished, what follows is read onto its end.
    bool started = false;
    Clock::time_point first_read;
    const uint64_t sent_before = r_.sent;
    for (int round = 0; round < 4; ++round) { // a few chunks per wakeup: no client holds the loop
        const size_t kept = c.in.size();
        if (kept > 0) c.in.resize(kept + kReadChunk);
        uint8_t *buf = kept > 0 ? c.in.data() : scratch_.data();
        ssize_t n = ::recv(c.fd, buf + kept, kReadChunk, MSG_DONTWAIT);
        const size_t end = kept + static_cast<size_t>(n > 0 ? n : 0);
        if (kept > 0) c.in.resize(end);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (n <= 0) { // the end, or the connection reset
            if (kept == 0) drop(c, C_DONE);
            else drop(c, C_MID_FRAME, std::to_string(kept) + " bytes of a frame were all that came");
            return;
        }
        const auto read_at = c.heard = Clock::now();
        by_quiet_.splice(by_quiet_.end(), by_quiet_, c.quiet);
        if (!started) started = true, first_read = read_at;
        size_t taken = 0;
        if (!take_frames(c, buf, end, taken)) return;
        if (kept == 0) {
            c.in.assign(buf + taken, buf + end);
        } else {
            std::memmove(c.in.data(), c.in.data() + taken, end - taken);
            c.in.resize(end - taken);
        }
        if (c.in.empty()) std::vector<uint8_t>().swap(c.in); // its room goes back
        if (static_cast<size_t>(n) < kReadChunk) break;
    }
    if (c.out.size() > c.written && !c.waiting_to_write && !flush(c)) return;
    if (r_.sent != sent_before)
        r_.service.add(
            static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - first_read).count()));
}

bool Server::take_frames(Conn &c, const uint8_t *buf, size_t end, size_t &taken) {
    for (;;) {
        const size_t avail = end - taken;
        if (avail < 4) return true;
        const uint8_t *p = buf + taken;
        const uint32_t n = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
        if (n == 0) { // no message is empty
            drop(c, C_DAMAGED, "an empty frame");
            return false;
        }
        if (n > static_cast<uint32_t>(cfg_.max_frame)) {
            drop(c, C_OVERSIZE, std::to_string(n) + " bytes announced, the limit is " + std::to_string(cfg_.max_frame));
            return false;
        }
        if (avail < 4 + size_t{n}) return true;
        taken += 4 + size_t{n};
        if (!answer(c, {p + 4, n})) return false;
    }
}

bool Server::answer(Conn &c, std::span<const uint8_t> frame) {
    ++r_.received;
    const Step &step = script()[c.step];
    if (c.step == 0 && c.key < 0) c.key = register_key(h_, frame);
    Checked<sm::ovrin_smd_in_event> got;
    if (c.key <= 0) got.problem = "its first request names no session";
    else got = check_frame(h_, frame, build_request, step.request, c.key, "client");
    if (!got.problem.empty()) {
        drop(c, got.truncated ? C_TRUNCATED : C_DAMAGED,
             std::string(request_name(step.request)) + " of session " + std::to_string(c.key) + " " + got.problem);
        return false;
    }
    ++r_.intact;
    got = {}; // the request's blocks go back before the answers are built
    for (Answer a : step.answers) {
        std::vector<uint8_t> bytes;
        try {
            bytes = build_answer(h_.get(), a, c.key).encode();
        } catch (const mgx::error &e) {
            drop(c, C_GONE, std::string("cannot answer: error ") + std::to_string(e.value()));
            return false;
        }
        const uint32_t n = static_cast<uint32_t>(bytes.size());
        const uint8_t head[4] = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
        c.out.insert(c.out.end(), head, head + 4);
        c.out.insert(c.out.end(), bytes.begin(), bytes.end());
        ++r_.sent;
    }
    if (++c.step == script().size()) {
        c.step = 0;
        ++c.key;
    }
    if (c.out.size() - c.written > static_cast<size_t>(cfg_.out_limit)) {
        drop(c, C_STALLED,
             std::to_string(c.out.size() - c.written) + " bytes of answers unread, the limit is " +
                 std::to_string(cfg_.out_limit));
        return false;
    }
    return true;
}

bool Server::flush(Conn &c) {
    while (c.written < c.out.size()) {
        ssize_t w = ::send(c.fd, c.out.data() + c.written, c.out.size() - c.written, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!c.waiting_to_write) ++r_.write_waits, watch(c, true);
            return true;
        }
        if (w <= 0) {
            drop(c, C_GONE, std::strerror(errno));
            return false;
        }
        c.written += static_cast<size_t>(w);
    }
    c.out.clear();
    c.written = 0;
    if (c.out.capacity() > 4 * kReadChunk) c.out.shrink_to_fit(); // a burst's room is not kept
    if (c.waiting_to_write) watch(c, false);
    return true;
}

void Server::sample(Clock::time_point now, bool force) {
    if (now < next_sample_ && !force) return;
    if (samples_.size() == kMaxSamples) { // keep every other sample and sample half as often
        for (size_t i = 0; i < kMaxSamples / 2; ++i) samples_[i] = samples_[2 * i + 1];
        samples_.resize(kMaxSamples / 2);
        every_ *= 2;
    }
    long rss, peak;
    resident_kib(rss, peak);
    samples_.push_back({std::chrono::duration<double>(now - start_).count(), r_.received + r_.sent, rss});
    next_sample_ = now + every_;
}

int Server::run(ServerReport &r) {
    r_.fds_start = open_descriptors(); // the listener, the two pipes and what the process began with
    long peak;
    resident_kib(r_.rss_start, peak);
    ep_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (ep_ < 0) {
        std::perror("session manager: epoll_create1");
        return 1;
    }
    for (int fd : {listener_, control_}) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        ::epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev);
    }
    samples_.reserve(kMaxSamples);
    start_ = next_sample_ = Clock::now();
    const auto idle = std::chrono::milliseconds(cfg_.idle_ms);
    epoll_event events[256];
    bool stopping = false;
    while (!stopping) {
        int n = ::epoll_wait(ep_, events, 256, 50);
        if (n < 0 && errno != EINTR) {
            std::perror("session manager: epoll_wait");
            break;
        }
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listener_) accept_all();
            else if (fd == control_) stopping = true; // the demo's end of the pipe closed: the run is over
            else if (static_cast<size_t>(fd) < conns_.size() && conns_[fd]) {
                Conn &c = *conns_[fd];
                if (events[i].events & EPOLLOUT) {
                    if (!flush(c)) continue;
                }
                if (events[i].events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) readable(c);
            }
        }
        const auto now = Clock::now();
        sample(now);
        while (!by_quiet_.empty() && now - by_quiet_.front()->heard >= idle) {
            Conn &c = *by_quiet_.front();
            drop(c, C_SILENT, c.in.empty() ? "" : "in the middle of a frame");
        }
    }
    // The demo ends the run once every client has gone; any connection still open is let go.
    while (!by_quiet_.empty()) drop(*by_quiet_.front(), C_DONE);
    sample(Clock::now(), true);
    ::close(ep_);
    r_.fds_end = open_descriptors();
    ::close(listener_);
    r_.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    r_.system_seconds = static_cast<double>(u.ru_stime.tv_sec) + static_cast<double>(u.ru_stime.tv_usec) / 1e6;
    r_.cpu_seconds = static_cast<double>(u.ru_utime.tv_sec) + static_cast<double>(u.ru_utime.tv_usec) / 1e6 + r_.system_seconds;
    resident_kib(r_.rss_end, r_.rss_peak);
    // Memory at its highest within the first and the last tenth of the run: the same when nothing
    // grows per message.
    const double t_end = samples_.empty() ? 0 : samples_.back().t;
    for (const Sample &s : samples_) {
        if (s.t <= t_end / 10) r_.rss_first_tenth = std::max(r_.rss_first_tenth, s.rss_kib);
        if (s.t >= t_end * 9 / 10) r_.rss_last_tenth = std::max(r_.rss_last_tenth, s.rss_kib);
    }
    r_.live_allocations = h_.live_allocations();
    r_.samples = static_cast<uint32_t>(samples_.size());
    r = r_;
    return 0;
}

} // namespace

int serve(const ServerConfig &config, int listener, int control, int report) {
    int status = 1;
    ServerReport r;
    std::vector<Sample> samples;
    try {
        Server s(config, listener, control);
        status = s.run(r);
        samples = s.timeline();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "session manager: %s\n", e.what());
        return 1;
    }
    if (!write_all(report, reinterpret_cast<const uint8_t *>(&r), sizeof r) ||
        !write_all(report, reinterpret_cast<const uint8_t *>(samples.data()), samples.size() * sizeof(Sample)))
        return 1;
    return status;
}

} // namespace ovrin::demo::load
