// ovrin-sm demo: a client and a session manager, each a process with its own runtime handle,
// talking over a Unix socket pair with the library's messages (messages.h says what crosses and
// how each side checks it). This file holds the two processes, the client's verdict, and the
// command.
//
// The pieces: options.h (the command line), script.h (the conversation), messages.h (the messages
// of each step, builders.cpp; sending, checking and rendering at one end, side.cpp), framing.h
// (frames over the socket), load.h (the run with many clients).
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "cli/commands.h"
#include "cli/demo/framing.h"
#include "cli/demo/load.h"
#include "cli/demo/messages.h"

namespace ovrin::demo {
namespace {

// Session s of the script at one end: the client sends each request and receives its answers,
// the session manager the other way round. False when the exchange cannot go on.
bool play(Side &side, bool client, long s) {
    for (const Step &step : script()) {
        const char *what = request_name(step.request);
        if (!(client ? side.send(build_request, step.request, what, s) : side.receive(build_request, step.request, what, s)))
            return false;
        for (Answer a : step.answers)
            if (!(client ? side.receive(build_answer, a, answer_name(a), s) : side.send(build_answer, a, answer_name(a), s)))
                return false;
    }
    return true;
}

// The session manager: answers every request of the script, for as many sessions as asked.
int run_manager(const Options &opt, int fd) {
    Side sm("session manager", "client", opt, fd);
    sm.h.set_domain_variant("ovrin_smd_in_event", kManagerInEventVariant);
    sm.h.set_domain_variant("ovrin_sm_in_event_type", kManagerInEventVariant);
    bool going = true;
    for (long s = 1; going && s <= opt.count; ++s)
        if ((going = play(sm, false, s))) sm.report_memory(s);
    // The client hangs up once it has everything; only then is the summary printed, after the
    // client's last line. Anything still arriving is a request the script does not have.
    uint8_t extra;
    if (going && read_all(fd, &extra, 1)) {
        std::fprintf(stderr, "session manager: the client sent more than the script holds\n");
        going = false;
    }
    std::fflush(stdout);
    const uint64_t live = sm.live();
    std::printf("session manager: %ld received, %ld intact, %ld sent; live allocations %" PRIu64 "\n", sm.received, sm.intact,
                sm.sent, live);
    std::fflush(stdout);
    return going && sm.intact == sm.received && live == 0 ? 0 : 1;
}

// The client: plays the script, checks every answer, and reports the verdict with the manager's.
int run_client(const Options &opt, int fd, pid_t manager) {
    Side cl("client", "session manager", opt, fd);
    cl.h.set_state_tracking(true);
    const auto start = std::chrono::steady_clock::now();
    // The first line after the first session, then one a second.
    auto last_progress = start - std::chrono::seconds(1);
    bool progressed = false;
    // Progress (rate and time left, one line rewritten each second) only for a person watching.
    const bool progress = opt.count > 1 && ::isatty(STDERR_FILENO);
    bool going = true;
    long sessions = 0;
    for (long s = 1; going && s <= opt.count; ++s) {
        if ((going = play(cl, true, s))) {
            sessions = s;
            cl.report_memory(s);
        }
        const auto now = std::chrono::steady_clock::now();
        if (progress && now - last_progress >= std::chrono::seconds(1)) {
            last_progress = now;
            progressed = true;
            const double spent = std::chrono::duration<double>(now - start).count();
            const double rate = spent > 0 ? static_cast<double>(s) / spent : 0;
            const long left = rate > 0 ? static_cast<long>(static_cast<double>(opt.count - s) / rate + 0.5) : 0;
            std::fprintf(stderr, "\rprogress: %ld of %ld sessions, %.0f sessions/s, %ld:%02ld left ", s, opt.count, rate,
                         left / 60, left % 60);
        }
    }
    if (progressed) std::fputc('\n', stderr); // end the progress line
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::fflush(stdout);
    ::shutdown(fd, SHUT_WR); // the manager sees the end (and prints its summary after this output)
    int status = 0;
    while (::waitpid(manager, &status, 0) < 0 && errno == EINTR) {
    }
    const bool manager_ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    const uint64_t live = cl.live();
    std::printf("client: %ld sent, %ld received, %ld intact; live allocations %" PRIu64 "\n", cl.sent, cl.received, cl.intact,
                live);
    const long expected = opt.count * static_cast<long>(messages_per_session());
    const long messages = cl.sent + cl.received;
    if (opt.count > 1 || seconds > 1.0)
        std::printf("%ld sessions, %ld messages in %.3f s: %.0f messages per second\n", sessions, messages, seconds,
                    seconds > 0 ? messages / seconds : 0.0);
    const bool pass = going && manager_ok && cl.intact == cl.received && live == 0 && messages == expected;
    if (pass) std::printf("verdict: PASS, all %ld messages arrived intact and both handles hold no allocations\n", messages);
    else
        std::printf("verdict: FAIL, %s\n", !manager_ok ? (WIFEXITED(status) ? "the session manager reported failures"
                                                                            : "the session manager did not end normally")
                                           : cl.intact != cl.received ? "the client received damaged messages"
                                           : live != 0                ? "the client's handle still holds allocations"
                                                                      : "the exchange ended early");
    std::fflush(stdout);
    return pass ? 0 : 1;
}

// One side's run: a failure to set the side up (no memory for a handle) is reported, not thrown.
template <class Run> int guarded(const char *side, Run run) {
    try {
        return run();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "%s: %s\n", side, e.what());
        return 1;
    }
}

} // namespace
} // namespace ovrin::demo

int ovrin_cmd_demo(int argc, char **argv) {
    using namespace ovrin::demo;
    Options opt;
    if (int status = parse(argc, argv, opt); status >= 0) return status;
    if (opt.clients > 0) return load::run_load(opt);
    if (opt.trace) {
        if (int e = mgx_trace_file_open(opt.trace)) {
            std::fprintf(stderr, "ovrin-sm demo: cannot write the trace file %s: %s\n", opt.trace, std::strerror(e));
            return 1;
        }
    }
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        std::perror("ovrin-sm demo: socketpair");
        return 1;
    }
    std::fflush(nullptr); // nothing buffered may be written twice after the fork
    pid_t pid = ::fork();
    if (pid < 0) {
        std::perror("ovrin-sm demo: fork");
        ::close(fds[0]);
        ::close(fds[1]);
        return 1;
    }
    if (pid == 0) {
        ::close(fds[0]);
        int status = guarded("session manager", [&] { return run_manager(opt, fds[1]); });
        ::close(fds[1]);
        std::fflush(nullptr);
        ::_exit(child_status(status));
    }
    ::close(fds[1]);
    int status = guarded("client", [&] { return run_client(opt, fds[0], pid); });
    ::close(fds[0]);
    return status;
}
