// ovrin-sm demo --clients N: the run. The private directory and its socket, the session manager's
// process, the faulty peers, the healthy clients all at once (a burst, as when an access point
// comes back and its clients authenticate again), then the report and the verdict.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "cli/demo/framing.h"
#include "cli/demo/load.h"
#include "cli/demo/script.h"

namespace ovrin::demo::load {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kMemoryGrowthKib = 8192; // the most the last tenth may hold above the first
// Memory is judged over runs of at least this many samples (a tenth of a second apart at first):
// in a shorter run the first tenth is over before the clients have all come in.
constexpr uint32_t kMemorySamples = 30;

// The directory only this user (and the group, which may only pass through) can enter, and the
// session manager's socket in it; both go when the run ends.
struct Place {
    std::string dir, path;
    ~Place() {
        if (!path.empty()) ::unlink(path.c_str());
        if (!dir.empty()) ::rmdir(dir.c_str());
    }
};

int listen_in(const Options &opt, Place &place, std::string &error) {
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ovrin-sm-load.XXXXXX";
    if (!::mkdtemp(pattern.data())) {
        error = "cannot make a directory like " + pattern + ": " + std::strerror(errno);
        return -1;
    }
    place.dir = pattern;
    if (opt.group_given && (::chown(place.dir.c_str(), uid_t(-1), opt.group) != 0 || ::chmod(place.dir.c_str(), 0710) != 0)) {
        error = "cannot open " + place.dir + " to group " + opt.group_name + ": " + std::strerror(errno);
        return -1;
    }
    const std::string path = place.dir + "/session-manager.sock";
    sockaddr_un a{};
    if (path.size() >= sizeof a.sun_path) {
        error = "the socket's path " + path + " is too long for a Unix socket (set TMPDIR to a shorter directory)";
        return -1;
    }
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) != 0) {
        error = "cannot bind " + path + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return -1;
    }
    place.path = path;
    if ((opt.group_given ? ::chown(path.c_str(), uid_t(-1), opt.group) != 0 || ::chmod(path.c_str(), 0770) != 0
                         : ::chmod(path.c_str(), 0700) != 0) ||
        ::listen(fd, SOMAXCONN) != 0) {
        error = "cannot listen on " + path + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

// Every client needs a descriptor in this process and one in the session manager's.
bool enough_descriptors(long need, std::string &error) {
    rlimit l{};
    if (::getrlimit(RLIMIT_NOFILE, &l) != 0) return true;
    if (l.rlim_cur >= static_cast<rlim_t>(need)) return true;
    l.rlim_cur = std::min(l.rlim_max, static_cast<rlim_t>(need));
    ::setrlimit(RLIMIT_NOFILE, &l);
    if (l.rlim_cur >= static_cast<rlim_t>(need)) return true;
    error = std::to_string(need) + " descriptors are needed and the limit is " + std::to_string(l.rlim_max) +
            " (ulimit -n): fewer clients";
    return false;
}

// The peer's end as expected (see start_peer), or what was wrong with it.
struct Peer {
    Role role;
    pid_t pid;
    int status = -1;
    bool ended = false;
};

// What the session manager's drop of a peer of this role is called: the cause it must report.
Cause expected_cause(Role r) {
    static const Cause causes[] = {C_MID_FRAME, C_DAMAGED, C_TRUNCATED, C_OVERSIZE, C_STALLED, C_SILENT, C_REFUSED, C_DONE};
    return causes[r];
}

void wait_peers(std::vector<Peer> &peers, Clock::time_point deadline) {
    for (;;) {
        bool all = true;
        for (Peer &p : peers) {
            if (p.ended) continue;
            if (::waitpid(p.pid, &p.status, WNOHANG) == p.pid) p.ended = true;
            else all = false;
        }
        if (all) return;
        if (Clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (Peer &p : peers)
        if (!p.ended) { // bounded: a peer that does not end is ended, and counts as a failure
            ::kill(p.pid, SIGKILL);
            ::waitpid(p.pid, &p.status, 0);
            p.status = -1;
            p.ended = true;
        }
}

// printf into a string of whatever length the text has.
__attribute__((format(printf, 1, 2))) std::string format(const char *f, ...) {
    va_list a, b;
    va_start(a, f);
    va_copy(b, a);
    const int n = std::vsnprintf(nullptr, 0, f, a);
    va_end(a);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(out.data(), out.size() + 1, f, b);
    va_end(b);
    return out;
}

std::string json_string(const std::string &s) {
    std::string out = "\"";
    for (unsigned char ch : s) {
        if (ch == '"' || ch == '\\') out += '\\', out += static_cast<char>(ch);
        else if (ch < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", ch);
            out += esc;
        } else out += static_cast<char>(ch);
    }
    return out + "\"";
}

struct Totals {
    long sessions = 0, messages = 0, intact = 0;
    uint64_t live = 0;
    Latency latency;
};

} // namespace

int run_load(const Options &opt) {
    std::vector<Role> roles;
    bool stranger_skipped = false;
    for (int i = 0; i < kFaultCount; ++i)
        if (opt.faults & (1u << i)) {
            if (i == R_STRANGER && ::geteuid() != 0) {
                stranger_skipped = true; // acting as another user needs root
                continue;
            }
            roles.push_back(static_cast<Role>(i));
            if (i == R_STRANGER && opt.group_given) roles.push_back(R_MEMBER);
        }
    std::string error;
    if (!enough_descriptors(2 * (opt.clients + static_cast<long>(roles.size())) + 64, error)) {
        std::fprintf(stderr, "ovrin-sm demo: %s\n", error.c_str());
        return 1;
    }
    Place place;
    const int listener = listen_in(opt, place, error);
    if (listener < 0) {
        std::fprintf(stderr, "ovrin-sm demo: %s\n", error.c_str());
        return 1;
    }
    // The session manager reads the end of `control` as the end of the run, and answers on `report`.
    int control[2], report[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) != 0 ||
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, report) != 0) {
        std::perror("ovrin-sm demo: socketpair");
        ::close(listener);
        return 1;
    }
    const ServerConfig cfg{::geteuid(),
                           opt.group_given,
                           opt.group,
                           opt.idle_ms,
                           opt.max_frame,
                           opt.out_limit,
                           opt.clients + static_cast<long>(roles.size()) + 16};
    std::fflush(nullptr);
    const pid_t manager = ::fork();
    if (manager == 0) {
        ::close(control[0]);
        ::close(report[0]);
        const int status = serve(cfg, listener, control[1], report[1]);
        std::fflush(nullptr);
        ::_exit(child_status(status));
    }
    ::close(listener);
    ::close(control[1]);
    ::close(report[1]);
    if (manager < 0) {
        std::perror("ovrin-sm demo: fork");
        ::close(control[0]);
        ::close(report[0]);
        return 1;
    }

    // The faulty peers first (processes forked before any thread), then every client at once.
    const auto start = Clock::now();
    std::vector<Peer> peers;
    std::vector<std::string> reasons;
    for (size_t j = 0; j < roles.size(); ++j) {
        const pid_t pid = start_peer(opt, place.path, roles[j], (opt.clients + static_cast<long>(j)) * opt.count);
        if (pid > 0) peers.push_back({roles[j], pid});
        else reasons.push_back(std::string("the ") + role_name(roles[j]) + " peer could not be started: " + std::strerror(errno));
    }
    std::vector<ClientResult> results(static_cast<size_t>(opt.clients));
    {
        std::vector<std::thread> threads;
        threads.reserve(results.size());
        for (long k = 0; k < opt.clients; ++k) {
            try {
                threads.emplace_back(run_client, std::cref(opt), std::cref(place.path), k, std::ref(results[k]));
            } catch (const std::exception &e) {
                results[k].problem = std::string("no thread for it: ") + e.what();
            }
        }
        for (std::thread &t : threads) t.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    wait_peers(peers, Clock::now() + std::chrono::milliseconds(opt.idle_ms) + std::chrono::seconds(60));

    ::close(control[0]); // the run is over
    ServerReport sr;
    std::vector<Sample> timeline;
    bool reported = read_all(report[0], reinterpret_cast<uint8_t *>(&sr), sizeof sr);
    if (reported) {
        timeline.resize(sr.samples);
        reported = read_all(report[0], reinterpret_cast<uint8_t *>(timeline.data()), timeline.size() * sizeof(Sample));
    }
    ::close(report[0]);
    int manager_status = 0;
    while (::waitpid(manager, &manager_status, 0) < 0 && errno == EINTR) {
    }
    reported = reported && WIFEXITED(manager_status) && WEXITSTATUS(manager_status) == 0;

    // ---- the verdict
    Totals t;
    long troubled = 0;
    for (size_t k = 0; k < results.size(); ++k) {
        const ClientResult &r = results[k];
        t.sessions += r.sessions;
        t.messages += r.sent + r.received;
        t.intact += r.sent + r.intact;
        t.live += r.live;
        t.latency.merge(r.latency);
        if (!r.problem.empty() && troubled++ < 3) reasons.push_back("client " + std::to_string(k) + ": " + r.problem);
    }
    if (troubled > 3) reasons.push_back(std::to_string(troubled - 3) + " more clients had problems");
    const long expected = opt.clients * opt.count * static_cast<long>(messages_per_session());
    if (t.intact != expected)
        reasons.push_back(std::to_string(t.intact) + " of the healthy clients' " + std::to_string(expected) +
                          " messages arrived intact");
    if (t.live != 0) reasons.push_back("the clients' handles hold " + std::to_string(t.live) + " allocations");
    if (!reported) reasons.push_back("the session manager did not end normally or did not report");
    uint64_t expect[C_COUNT] = {};
    long refused_at_directory = 0;
    for (const Peer &p : peers) {
        const bool killed = WIFSIGNALED(p.status) && WTERMSIG(p.status) == SIGKILL;
        const bool exited = p.status != -1 && WIFEXITED(p.status);
        const int code = exited ? WEXITSTATUS(p.status) : -1;
        if (p.role == R_STRANGER && code == kRefusedByDirectory) {
            ++refused_at_directory;
            continue;
        }
        if (p.role == R_KILL ? !killed : code != 0)
            reasons.push_back(std::string("the ") + role_name(p.role) + " peer " +
                              (p.status == -1 ? "did not end in time" : "did not end as it should"));
        if (p.role != R_MEMBER) ++expect[expected_cause(p.role)];
    }
    if (reported) {
        for (int c = C_MID_FRAME; c < C_COUNT; ++c)
            if (sr.causes[c] != expect[c])
                reasons.push_back(std::to_string(sr.causes[c]) + " dropped as " + cause_text(static_cast<Cause>(c)) + ", " +
                                  std::to_string(expect[c]) + " expected");
        if (sr.live_allocations != 0)
            reasons.push_back("the session manager's handle holds " + std::to_string(sr.live_allocations) + " allocations");
        if (sr.fds_end != sr.fds_start)
            reasons.push_back("the session manager has " + std::to_string(sr.fds_end) + " descriptors open at the end, " +
                              std::to_string(sr.fds_start) + " at the start");
        if (sr.samples >= kMemorySamples && sr.rss_last_tenth - sr.rss_first_tenth > kMemoryGrowthKib)
            reasons.push_back("the session manager's resident memory grew by " +
                              std::to_string(sr.rss_last_tenth - sr.rss_first_tenth) +
                              " KiB between the first and the last tenth");
    }
    const bool pass = reasons.empty();
    const uint64_t manager_messages = sr.received + sr.sent;
    const double per_core = sr.cpu_seconds > 0 ? static_cast<double>(manager_messages) / sr.cpu_seconds : 0;

    std::string faults;
    for (int i = 0; i < kFaultCount; ++i)
        if (opt.faults & (1u << i)) faults += std::string(faults.empty() ? "" : " ") + fault_name(i);
    if (opt.json) {
        std::string j = "{\"clients\": " + std::to_string(opt.clients) +
                        ", \"sessions_per_client\": " + std::to_string(opt.count) +
                        ", \"think_us\": " + std::to_string(opt.think_us) + ", \"faults\": [";
        for (int i = 0, n = 0; i < kFaultCount; ++i)
            if (opt.faults & (1u << i)) j += std::string(n++ ? ", " : "") + json_string(fault_name(i));
        j += format("], \"stranger_skipped\": %s, \"seconds\": %.3f, \"sessions\": %ld, \"messages\": %ld, "
                    "\"sessions_per_second\": %.1f, \"messages_per_second\": %.1f, \"manager\": {\"cpu_seconds\": %.3f, "
                    "\"system_seconds\": %.3f, "
                    "\"messages\": %llu, \"messages_per_core_second\": %.1f, \"rss_kib\": {\"start\": %ld, \"peak\": %ld, "
                    "\"end\": %ld, \"first_tenth\": %ld, \"last_tenth\": %ld, \"judged\": %s}, \"live_allocations\": %llu, "
                    "\"descriptors\": {\"start\": %d, \"end\": %d}, \"write_waits\": %llu}, \"latency_us\": {\"exchanges\": "
                    "%llu, \"p50\": %.1f, "
                    "\"p99\": %.1f, \"max\": %.1f}, \"service_us\": {\"p50\": %.1f, \"p99\": %.1f, \"max\": %.1f}, \"drops\": {",
                    stranger_skipped ? "true" : "false", seconds, t.sessions, t.messages,
                    seconds > 0 ? static_cast<double>(t.sessions) / seconds : 0.0,
                    seconds > 0 ? static_cast<double>(t.messages) / seconds : 0.0, sr.cpu_seconds, sr.system_seconds,
                    static_cast<unsigned long long>(manager_messages), per_core, sr.rss_start, sr.rss_peak, sr.rss_end,
                    sr.rss_first_tenth, sr.rss_last_tenth, sr.samples >= kMemorySamples ? "true" : "false",
                    static_cast<unsigned long long>(sr.live_allocations), sr.fds_start, sr.fds_end,
                    static_cast<unsigned long long>(sr.write_waits), static_cast<unsigned long long>(t.latency.count),
                    t.latency.quantile_us(0.5), t.latency.quantile_us(0.99), static_cast<double>(t.latency.max_ns) / 1000.0,
                    sr.service.quantile_us(0.5), sr.service.quantile_us(0.99), static_cast<double>(sr.service.max_ns) / 1000.0);
        for (int c = C_MID_FRAME; c < C_REFUSED; ++c)
            j += std::string(c == C_MID_FRAME ? "" : ", ") + json_string(cause_text(static_cast<Cause>(c))) + ": " +
                 std::to_string(sr.causes[c]);
        j += "}, \"refused\": {" + json_string(cause_text(C_REFUSED)) + ": " + std::to_string(sr.causes[C_REFUSED]) + ", " +
             json_string(cause_text(C_TOO_MANY)) + ": " + std::to_string(sr.causes[C_TOO_MANY]) +
             ", \"by the directory's permissions\": " + std::to_string(refused_at_directory) + "}, \"timeline\": [";
        for (size_t i = 0; i < timeline.size(); ++i) {
            j += format("%s{\"t\": %.3f, \"messages\": %llu, \"rss_kib\": %ld}", i ? ", " : "", timeline[i].t,
                        static_cast<unsigned long long>(timeline[i].messages), timeline[i].rss_kib);
        }
        j += std::string("], \"verdict\": \"") + (pass ? "PASS" : "FAIL") + "\", \"reasons\": [";
        for (size_t i = 0; i < reasons.size(); ++i) j += (i ? ", " : "") + json_string(reasons[i]);
        j += "]}\n";
        std::fwrite(j.data(), 1, j.size(), stdout);
        return pass ? 0 : 1;
    }

    std::printf("load: %ld clients x %ld sessions, faults: %s\n", opt.clients, opt.count,
                faults.empty() ? "none" : faults.c_str());
    if (stranger_skipped) std::printf("load: the stranger was left out: acting as another user needs root\n");
    std::printf("load: %ld sessions, %ld messages in %.3f s: %.0f sessions per second, %.0f messages per second\n", t.sessions,
                t.messages, seconds, seconds > 0 ? static_cast<double>(t.sessions) / seconds : 0.0,
                seconds > 0 ? static_cast<double>(t.messages) / seconds : 0.0);
    std::printf("load: session manager: %llu messages in %.3f s of processor time (%.0f %% in the kernel): %.0f messages "
                "per core-second\n",
                static_cast<unsigned long long>(manager_messages), sr.cpu_seconds,
                sr.cpu_seconds > 0 ? 100 * sr.system_seconds / sr.cpu_seconds : 0.0, per_core);
    std::printf("load: exchange latency: p50 %.0f us, p99 %.0f us, max %.0f us over %llu exchanges\n", t.latency.quantile_us(0.5),
                t.latency.quantile_us(0.99), static_cast<double>(t.latency.max_ns) / 1000.0,
                static_cast<unsigned long long>(t.latency.count));
    std::printf("load: session manager's part: p50 %.0f us, p99 %.0f us, max %.0f us from a client's bytes read to "
                "its answers written\n",
                sr.service.quantile_us(0.5), sr.service.quantile_us(0.99), static_cast<double>(sr.service.max_ns) / 1000.0);
    std::printf("load: session manager memory: rss %ld KiB at the start, %ld KiB at the peak, %ld KiB at the end; "
                "%ld KiB in the first tenth, %ld KiB in the last%s\n",
                sr.rss_start, sr.rss_peak, sr.rss_end, sr.rss_first_tenth, sr.rss_last_tenth,
                sr.samples >= kMemorySamples ? "" : " (a run too short to judge)");
    std::printf("load: session manager: live allocations %llu; descriptors %d at the start, %d at the end\n",
                static_cast<unsigned long long>(sr.live_allocations), sr.fds_start, sr.fds_end);
    std::string drops;
    for (int c = C_MID_FRAME; c < C_COUNT; ++c)
        if (sr.causes[c])
            drops += (drops.empty() ? "" : ", ") + std::to_string(sr.causes[c]) + " " + cause_text(static_cast<Cause>(c));
    if (refused_at_directory)
        drops += (drops.empty() ? "" : ", ") + std::to_string(refused_at_directory) + " refused at the directory";
    std::printf("load: dropped or refused: %s\n", drops.empty() ? "none" : drops.c_str());
    if (pass)
        std::printf("verdict: PASS, every healthy client's %ld messages arrived intact, every fault was survived, "
                    "and the session manager holds no allocation and no descriptor more than at the start\n",
                    t.messages);
    else {
        std::string all;
        for (const std::string &r : reasons) all += (all.empty() ? "" : "; ") + r;
        std::printf("verdict: FAIL, %s\n", all.c_str());
    }
    return pass ? 0 : 1;
}

} // namespace ovrin::demo::load
