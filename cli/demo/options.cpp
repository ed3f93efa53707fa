// ovrin-sm demo: the command line.
#include <string>

#include "cli/demo/demo.h"
#include "cli/options.h"

namespace ovrin::demo {

int parse(int argc, char **argv, Options &o) {
    using namespace ovrin::cli;
    enum { opt_xml = 256, opt_hex, opt_quiet, opt_count, opt_corrupt, opt_trace, opt_memory_every };
    static const Command command = {
        "demo", "[--xml | --hex | --quiet] [--count N] [--corrupt FRAME] [--trace FILE] [--memory-every N]",
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
        "  --memory-every N      after every N sessions each process reports its memory and allocations\n",
        {{"xml", no_argument, nullptr, opt_xml},
         {"hex", no_argument, nullptr, opt_hex},
         {"quiet", no_argument, nullptr, opt_quiet},
         {"count", required_argument, nullptr, opt_count},
         {"corrupt", required_argument, nullptr, opt_corrupt},
         {"trace", required_argument, nullptr, opt_trace},
         {"memory-every", required_argument, nullptr, opt_memory_every}}};
    Parser p(command, argc, argv);
    const char *render_option = nullptr;
    const long frames = static_cast<long>(messages_per_session());
    for (;;) {
        int val;
        const char *arg;
        Next next = p.next(val, arg);
        if (next == Next::help) return show_help(command);
        if (next == Next::error) return exit_usage;
        if (next == Next::done) break;
        std::string error;
        long v = 0;
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
        case opt_count:
            if (!number("--count", arg, 1, 1000000000L, v, error)) return usage_error(command, error);
            o.count = v;
            break;
        case opt_memory_every:
            if (!number("--memory-every", arg, 1, 1000000000L, v, error)) return usage_error(command, error);
            o.memory_every = v;
            break;
        case opt_corrupt:
            if (!number("--corrupt", arg, 1, frames, v, error))
                return usage_error(command, error + " (the frames of one session)");
            o.corrupt = static_cast<int>(v);
            break;
        case opt_trace:
            if (!*arg) return usage_error(command, "--trace: an empty file name");
            o.trace = arg;
            break;
        }
    }
    if (!p.operands().empty()) return usage_error(command, std::string("unexpected operand '") + p.operands()[0] + "'");
    return -1;
}

} // namespace ovrin::demo
