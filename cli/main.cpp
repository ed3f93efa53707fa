// ovrin-sm: the command-line tool of the ovrin_sm message library.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/options.h"
#include "mgx/runtime.h"
#include "ovrin_sm/version.h"

namespace {

using ovrin::cli::exit_ok;
using ovrin::cli::exit_usage;

struct Entry {
    const char *name;
    int (*run)(int, char **);
    const char *line;
};

const Entry commands[] = {
    {"types", ovrin_cmd_types, "types [TYPE]          the types; with TYPE, its members, literals and a skeleton"},
    {"manifest", ovrin_cmd_manifest, "manifest [LIBRARY]    the type manifest and build record of a library file"},
    {"decode", ovrin_cmd_decode, "decode TYPE [FILE]    wire bytes to the print form, or to XML or JSON (--xml, --json)"},
    {"encode", ovrin_cmd_encode, "encode TYPE [FILE]    an XML or JSON document, checked against TYPE, to wire bytes"},
    {"trace", ovrin_cmd_trace, "trace FILE            a binary trace file to timestamped lines"},
    {"demo", ovrin_cmd_demo, "demo                  a client and a session manager exchanging messages"},
    {"compat", ovrin_cmd_compat, "compat OLD NEW        whether peers of two catalogue files still read each other"},
};

void usage(FILE *out) {
    std::fputs("usage: ovrin-sm [--version] [--help] COMMAND [ARGS]\n\ncommands:\n", out);
    for (const Entry &e : commands) std::fprintf(out, "  %s\n", e.line);
    std::fputs("  help [COMMAND]        this text, or the command's own (as COMMAND --help)\n"
               "\n"
               "Each command takes --help. FILE may be '-' for standard input.\n"
               "Exit status: 0 success; 1 input or data that does not read, check, decode or encode, or a\n"
               "failed run; 2 a bad command line (an unknown option, command or type, a bad value).\n",
               out);
}

int version() {
    std::printf("ovrin-sm %s\nlibovrin_sm %s\nlibmgx %s\n", OVRIN_SM_VERSION_STRING, ovrin_sm_version(), mgx_runtime_version());
    return exit_ok;
}

const Entry *find(const char *name) {
    for (const Entry &e : commands)
        if (!std::strcmp(e.name, name)) return &e;
    return nullptr;
}

int dispatch(int argc, char **argv) {
    if (argc < 2) { // nothing asked: the usage, as for any other bad command line
        usage(stderr);
        return exit_usage;
    }
    if (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        usage(stdout);
        return exit_ok;
    }
    if (!std::strcmp(argv[1], "--version") || !std::strcmp(argv[1], "-V")) return version();
    if (!std::strcmp(argv[1], "help")) {
        if (argc == 2) {
            usage(stdout);
            return exit_ok;
        }
        const Entry *e = find(argv[2]);
        if (!e || argc > 3) {
            std::fprintf(stderr, "ovrin-sm help: %s '%s'\n", e ? "unexpected operand" : "no command", argv[e ? 3 : 2]);
            return exit_usage;
        }
        char help[] = "--help";
        char *args[] = {argv[2], help, nullptr};
        return e->run(2, args);
    }
    if (const Entry *e = find(argv[1])) return e->run(argc - 1, argv + 1);
    std::vector<std::string> names = {"help"};
    for (const Entry &e : commands) names.push_back(e.name);
    if (argv[1][0] == '-')
        std::fprintf(stderr, "ovrin-sm: unknown option '%s'%s\n\n", argv[1],
                     ovrin::cli::did_you_mean(argv[1], {"--help", "--version"}).c_str());
    else std::fprintf(stderr, "ovrin-sm: unknown command '%s'%s\n\n", argv[1], ovrin::cli::did_you_mean(argv[1], names).c_str());
    usage(stderr);
    return exit_usage;
}

} // namespace

// The commands report what they meet and return 1; anything that still escapes one ends the
// tool with status 1 and a message rather than an abort.
// Every command's output is checked once it is all written: a full disk or a closed pipe is a
// failure with the system's words, not a silent success.
int main(int argc, char **argv) {
    try {
        int status = dispatch(argc, argv);
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            if (status == exit_ok)
                std::fprintf(stderr, "ovrin-sm: cannot write the output: %s\n", std::strerror(errno ? errno : EIO));
            return status == exit_ok ? 1 : status;
        }
        return status;
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "ovrin-sm: out of memory\n");
    } catch (const std::exception &e) {
        std::fprintf(stderr, "ovrin-sm: internal error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "ovrin-sm: internal error: an unknown exception\n");
    }
    return 1;
}
