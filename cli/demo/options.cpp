// ovrin-sm demo: the command line.
#include <grp.h>

#include <string>

#include "cli/demo/framing.h"
#include "cli/demo/load.h"
#include "cli/demo/options.h"
#include "cli/demo/script.h"
#include "cli/options.h"

namespace ovrin::demo {

int parse(int argc, char **argv, Options &o) {
    using namespace ovrin::cli;
    enum {
        opt_xml = 256,
        opt_hex,
        opt_quiet,
        opt_count,
        opt_corrupt,
        opt_trace,
        opt_memory_every,
        opt_clients,
        opt_faults,
        opt_group,
        opt_json,
        opt_think,
        opt_idle,
        opt_max_frame,
        opt_out_limit
    };
    static const Command command = {
        "demo",
        "[--xml | --hex | --quiet] [--count N] [--corrupt FRAME] [--trace FILE] [--memory-every N]\n"
        "       ovrin-sm demo --clients N [--count M] [--faults LIST] [--group GROUP] [--think US] [--idle MS]\n"
        "                     [--max-frame BYTES] [--out-limit BYTES] [--json]",
        "A client and a session manager, two processes with their own runtime handles, exchange one\n"
        "session's messages over a socket pair; each side checks every message it receives against the\n"
        "one its peer meant to send. Exits 0 only when all arrived intact and no allocation is left.\n"
        "\n"
        "  --xml                 show each message of the first session as XML\n"
        "  --hex                 show each message's bytes as received\n"
        "  --quiet               show only the per-message lines and the summary\n"
        "  --count N             play N sessions (1 to 1000000000); on a terminal, progress on standard error\n"
        "  --corrupt FRAME       the sender of frame FRAME of the first session (1-based, both directions\n"
        "                        counted) damages it: the receiver must report it and the demo fails\n"
        "  --trace FILE          both processes append their trace emissions to the binary trace FILE\n"
        "  --memory-every N      after every N sessions each process reports its memory and allocations\n"
        "\n"
        "With --clients, one session manager (one process, one runtime handle, an epoll loop) serves N\n"
        "clients at once over a Unix socket in a private directory; each client (a thread with its own\n"
        "handle) plays --count sessions. The report gives the rates, the exchange latency, the session\n"
        "manager's memory, allocations and descriptors, and every drop with its cause; exit 0 only when\n"
        "every healthy client's messages arrived intact and every fault was survived.\n"
        "\n"
        "  --clients N           the healthy clients (1 to 100000)\n"
        "  --faults LIST         misbehaving peers, one each, comma-separated: kill (killed mid-frame),\n"
        "                        damage, truncate, oversize (frames past the limit), stall (never reads),\n"
        "                        silent (says nothing), stranger (another user, needs root), or all\n"
        "  --group GROUP         peers whose group is GROUP are let in too (name or number)\n"
        "  --think US            each client pauses about US microseconds after each exchange (random,\n"
        "                        exponentially distributed; 0: none)\n"
        "  --idle MS             a client silent for MS milliseconds is dropped (2000)\n"
        "  --max-frame BYTES     the longest frame the session manager takes (65536)\n"
        "  --out-limit BYTES     the most answer bytes queued for a client that does not read (262144)\n"
        "  --json                the report as one JSON object\n",
        {flag("xml", opt_xml), flag("hex", opt_hex), flag("quiet", opt_quiet), valued("count", opt_count),
         valued("corrupt", opt_corrupt), valued("trace", opt_trace), valued("memory-every", opt_memory_every),
         valued("clients", opt_clients), valued("faults", opt_faults), valued("group", opt_group), flag("json", opt_json),
         valued("think", opt_think), valued("idle", opt_idle), valued("max-frame", opt_max_frame),
         valued("out-limit", opt_out_limit)}};
    Parser p(command, argc, argv);
    const char *render_option = nullptr;
    const long frames = static_cast<long>(messages_per_session());
    const int status = p.run([&](int val, const char *arg) -> int {
        std::string error;
        long v = 0;
        // The options that take a whole number within bounds, and where each goes.
        static const struct {
            int val;
            const char *name;
            long min, max;
            long Options::*field;
        } numbers[] = {{opt_count, "--count", 1, 1000000000L, &Options::count},
                       {opt_memory_every, "--memory-every", 1, 1000000000L, &Options::memory_every},
                       {opt_clients, "--clients", 1, 100000, &Options::clients},
                       {opt_think, "--think", 0, 10000000L, &Options::think_us},
                       {opt_idle, "--idle", 10, 3600000L, &Options::idle_ms},
                       {opt_max_frame, "--max-frame", 64, kMaxFrame, &Options::max_frame},
                       {opt_out_limit, "--out-limit", 4096, 1L << 30, &Options::out_limit}};
        for (const auto &n : numbers)
            if (val == n.val) {
                if (!number(n.name, arg, n.min, n.max, v, error)) return usage_error(command, error);
                o.*n.field = v;
            }
        switch (val) {
        case opt_xml:
        case opt_hex:
        case opt_quiet: {
            const char *name = val == opt_xml ? "--xml" : val == opt_hex ? "--hex" : "--quiet";
            if (render_option && std::string(render_option) != name)
                return usage_error(command, std::string(render_option) + " and " + name + " cannot go together");
            render_option = name;
            o.render = val == opt_xml ? Render::xml : val == opt_hex ? Render::hex : Render::none;
            break;
        }
        case opt_corrupt:
            if (!number("--corrupt", arg, 1, frames, v, error))
                return usage_error(command, error + " (the frames of one session)");
            o.corrupt = static_cast<int>(v);
            break;
        case opt_faults:
            if (!load::parse_faults(arg, o.faults, error)) return usage_error(command, error);
            break;
        case opt_group: {
            const group *g = ::getgrnam(arg);
            long gid = -1;
            if (!g && !number("--group", arg, 0, 0x7fffffffL, gid, error))
                return usage_error(command, std::string("--group: no group '") + arg + "'");
            o.group_given = true;
            o.group = g ? g->gr_gid : static_cast<gid_t>(gid);
            o.group_name = g ? g->gr_name : arg;
            break;
        }
        case opt_json: o.json = true; break;
        case opt_trace:
            if (!*arg) return usage_error(command, "--trace: an empty file name");
            o.trace = arg;
            break;
        }
        return -1;
    });
    if (status >= 0) return status;
    if (!p.operands().empty()) return usage_error(command, std::string("unexpected operand '") + p.operands()[0] + "'");
    // The options that belong to one mode only.
    const bool load_option = o.faults || o.group_given || o.json || o.think_us || o.idle_ms != Options().idle_ms ||
                             o.max_frame != Options().max_frame || o.out_limit != Options().out_limit;
    if (o.clients == 0 && load_option)
        return usage_error(command, "--faults, --group, --json, --think, --idle, --max-frame and --out-limit go with --clients");
    if (o.clients > 0 && (render_option || o.corrupt || o.trace || o.memory_every))
        return usage_error(command, "--clients shows no messages and takes no --xml, --hex, --quiet, --corrupt, "
                                    "--trace or --memory-every");
    // A client pauses up to ten times --think: that must not look like silence.
    if (o.think_us / 100 >= o.idle_ms)
        return usage_error(command, "--think " + std::to_string(o.think_us) +
                                        ": a client pauses up to ten times that, "
                                        "which must stay below --idle (" +
                                        std::to_string(o.idle_ms) + " ms)");
    // Every session of the run has its own number (the builders' identifiers are 32-bit).
    if (o.clients > 0 && (o.clients + 8) * o.count > 0x7fffffffL)
        return usage_error(command, "--clients times --count is past 2147483647 sessions");
    return -1;
}

} // namespace ovrin::demo
