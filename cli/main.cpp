// ovrin-sm: the command-line tool of the ovrin_sm message library.
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "cli/commands.h"

namespace {

void usage(FILE *out) {
    std::fputs("usage: ovrin-sm COMMAND [ARGS]\n"
               "\n"
               "commands:\n"
               "  types                 list the 79 message types with their variants and sizes\n"
               "  manifest [LIBRARY]    print the type manifest and build record of a library file\n"
               "  decode TYPE [FILE]    wire bytes (binary, or hex with --hex) to the print form, or XML with --xml\n"
               "  encode TYPE [FILE]    an XML document to wire bytes (binary, or hex with --hex)\n"
               "  trace FILE [--library LIBRARY]\n"
               "                        a binary trace file to timestamped lines, texts from the library file\n"
               "  demo [--xml|--hex|--quiet] [--count N] [--corrupt FRAME] [--trace FILE] [--memory-every N]\n"
               "                        a client and a session manager exchanging messages in two processes\n"
               "  help                  show this text\n",
               out);
}

int dispatch(int argc, char **argv) {
    if (argc < 2 || !std::strcmp(argv[1], "help") || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        usage(stdout);
        return 0;
    }
    if (!std::strcmp(argv[1], "demo")) return ovrin_cmd_demo(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "types")) return ovrin_cmd_types(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "manifest")) return ovrin_cmd_manifest(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "decode")) return ovrin_cmd_decode(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "encode")) return ovrin_cmd_encode(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "trace")) return ovrin_cmd_trace(argc - 1, argv + 1);
    std::fprintf(stderr, "ovrin-sm: unknown command '%s'\n\n", argv[1]);
    usage(stderr);
    return 2;
}

} // namespace

// The commands report what they meet and return 1; anything that still escapes one ends the
// tool with status 1 and a message rather than an abort.
int main(int argc, char **argv) {
    try {
        return dispatch(argc, argv);
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "ovrin-sm: out of memory\n");
    } catch (const std::exception &e) {
        std::fprintf(stderr, "ovrin-sm: internal error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "ovrin-sm: internal error: an unknown exception\n");
    }
    return 1;
}
