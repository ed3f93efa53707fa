// The complexity gate's harness (tests/complexity_gate.sh): runs one channel's operation at one
// size, with callgrind counting the operation alone, or writes a tool channel's input files.
//
//   complexity_probe --list                              every channel: "library NAME" or "tool NAME"
//   complexity_probe --channel NAME --size N             a library channel: its input made (not
//                                                        counted), the operation run once (counted)
//   complexity_probe --channel NAME --size N --dir DIR   a tool channel: its files written into DIR,
//                                                        then the exit status ovrin-sm gives for them
//                                                        and its arguments, one a line
//
// Under valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no only the operation is
// instrumented and counted; outside valgrind the markers do nothing. Exit status 0, or 1 when the
// input could not be made, the operation failed, or it left an allocation in the handle.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/complexity_inputs.h"

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else // built without valgrind's headers: the gate skips itself then (no valgrind to run under)
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_TOGGLE_COLLECT
#endif

namespace {

int fail(const std::string &what) {
    std::fprintf(stderr, "complexity_probe: %s\n", what.c_str());
    return 1;
}

__attribute__((noinline)) void counted(complexity::Work &work) {
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_TOGGLE_COLLECT;
    work.run();
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_STOP_INSTRUMENTATION;
}

// The gate's own check: work made to grow quadratically (pairs of n items compared), which the gate
// must refuse whatever the library does.
class Pairs : public complexity::Work {
public:
    explicit Pairs(size_t n) : n(n) {}
    void run() override {
        volatile size_t equal = 0;
        for (size_t i = 0; i < n; ++i)
            for (size_t j = 0; j < i; ++j) equal = equal + ((i ^ j) == 0);
    }
    size_t n;
};

// And memory made to grow quadratically (a table of n x n bytes, not touched) by linear work.
class Table : public complexity::Work {
public:
    explicit Table(size_t n) : n(n) {}
    void run() override {
        volatile size_t sum = 0;
        for (size_t i = 0; i < n; ++i) sum = sum + i;
        table.reset(new char[n * n]); // kept until the work is destroyed, so never left out
    }
    size_t n;
    std::unique_ptr<char[]> table;
};

const complexity::LibraryChannel gate_checks[] = {
    {"gate.quadratic", "n items compared pairwise (the gate must fail it)",
     [](mgx_handle_t *, size_t n) -> std::unique_ptr<complexity::Work> { return std::make_unique<Pairs>(n); }},
    {"gate.quadratic_memory", "n x n bytes allocated by linear work (the gate must fail it)",
     [](mgx_handle_t *, size_t n) -> std::unique_ptr<complexity::Work> { return std::make_unique<Table>(n); }},
};

int run_library(const complexity::LibraryChannel &c, size_t n) {
    mgx_handle_t *h = mgx_handle_create();
    if (!h) return fail("cannot create a handle");
    std::string error;
    {
        std::unique_ptr<complexity::Work> work = c.prepare(h, n);
        if (work->error().empty()) counted(*work);
        error = work->error();
    }
    uint64_t live = mgx_handle_live_allocations(h);
    mgx_handle_destroy(h);
    if (!error.empty()) return fail(std::string(c.name) + ": " + error);
    if (live != 0) return fail(std::string(c.name) + ": " + std::to_string(live) + " allocations left in the handle");
    return 0;
}

int run_tool(const complexity::ToolChannel &c, size_t n, const std::string &dir) {
    complexity::ToolRun run;
    std::string error;
    if (!c.write(dir, n, run, error)) return fail(std::string(c.name) + ": " + error);
    std::printf("%d\n", run.status);
    for (const std::string &a : run.args) std::printf("%s\n", a.c_str());
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    std::string channel, dir;
    size_t size = 0;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--list") {
            for (const auto &c : complexity::library_channels()) std::printf("library %s\n", c.name);
            for (const auto &c : complexity::tool_channels()) std::printf("tool %s\n", c.name);
            return 0;
        }
        if (i + 1 >= argc) return fail("usage: complexity_probe --list | --channel NAME --size N [--dir DIR]");
        if (a == "--channel") channel = argv[++i];
        else if (a == "--size") size = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--dir") dir = argv[++i];
        else return fail("unknown option " + a);
    }
    if (size == 0) return fail("--size: a number of at least 1 is needed");
    for (const auto &c : gate_checks)
        if (channel == c.name) return run_library(c, size);
    for (const auto &c : complexity::library_channels())
        if (channel == c.name) return run_library(c, size);
    for (const auto &c : complexity::tool_channels())
        if (channel == c.name) return dir.empty() ? fail(channel + " needs --dir") : run_tool(c, size, dir);
    return fail("unknown channel '" + channel + "' (--list names them)");
}
