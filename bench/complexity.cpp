// How each channel's time grows with its input: every channel of bench/complexity_inputs.h over
// sizes N to 64N (doubling), with Google Benchmark's fit of the order (->Complexity(): O(1), N,
// N log N, N^2 or N^3, whichever fits the times best). The library's channels run their operation
// on an input made before the timed loop; the tool's channels run the ovrin-sm command in this
// process (the command functions of cli/, linked in, with standard output and error sent to
// /dev/null), so that the CPU time measured is the command's own.
//
//   ovrin_sm_complexity [--benchmark_filter=REGEX] [--benchmark_out=FILE --benchmark_out_format=json]
//
// tools/plot_complexity.py charts the JSON (docs/performance.md, "Growth with the input").
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "bench/complexity_inputs.h"
#include "cli/commands.h"
#include "tests/quiet.h"

namespace {

// Each channel's smallest size: the largest (64 times it) takes a few seconds at most on the
// channels that grew quadratically when the benchmark was written, and stays within the limits
// an input is held to (the check's 8192 distinct names, under a document's 10,000).
const std::map<std::string, int64_t> first_size = {
    {"from_xml", 128},         {"from_xml.attrs", 512},      {"from_xml.domain_names", 256}, {"attr_add", 512},
    {"array_set", 512},        {"tool.check", 128},          {"tool.encode", 128},           {"tool.decode_print", 1024},
    {"tool.decode_xml", 1024}, {"tool.trace_spellings", 64}, {"tool.trace_checksums", 128},  {"tool.manifest", 1024},
    {"from_json.depth", 2}, // 2 to 128 deep: the reader's limit
};
constexpr int64_t default_first_size = 256;

void library(benchmark::State &state, const complexity::LibraryChannel &c) {
    mgx_handle_t *h = mgx_handle_create();
    std::string error;
    {
        std::unique_ptr<complexity::Work> work = c.prepare(h, static_cast<size_t>(state.range(0)));
        for (auto _ : state) work->run();
        error = work->error();
    }
    if (error.empty() && mgx_handle_live_allocations(h) != 0) error = "the channel left allocations in the handle";
    mgx_handle_destroy(h);
    if (!error.empty()) state.SkipWithError(error.c_str());
    state.SetComplexityN(state.range(0));
}

int (*command(const std::string &name))(int, char **) {
    if (name == "encode") return ovrin_cmd_encode;
    if (name == "decode") return ovrin_cmd_decode;
    if (name == "trace") return ovrin_cmd_trace;
    if (name == "manifest") return ovrin_cmd_manifest;
    return nullptr;
}

// Standard output and error go to /dev/null while it lives (the commands print what a user
// reads; the benchmark's own report is printed between benchmarks).
using ovrin::testing::Quiet;

void tool(benchmark::State &state, const complexity::ToolChannel &c) {
    char dir_name[] = "/tmp/ovrin-complexity-XXXXXX";
    if (!::mkdtemp(dir_name)) {
        state.SkipWithError("cannot make a directory for the input files");
        return;
    }
    const std::filesystem::path dir = dir_name;
    complexity::ToolRun run;
    std::string error;
    auto cmd = c.write(dir, static_cast<size_t>(state.range(0)), run, error) ? command(run.args.at(0)) : nullptr;
    if (!cmd && error.empty()) error = "no such command: " + run.args.at(0);
    int status = run.status;
    if (cmd) {
        Quiet quiet;
        for (auto _ : state) {
            std::vector<std::string> args = run.args; // getopt_long reorders what it is given
            std::vector<char *> argv;
            for (std::string &a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            status = cmd(static_cast<int>(args.size()), argv.data());
        }
    }
    std::filesystem::remove_all(dir);
    if (error.empty() && status != run.status)
        error = "ovrin-sm " + run.args[0] + " exited " + std::to_string(status) + ", not " + std::to_string(run.status);
    if (!error.empty()) state.SkipWithError(error.c_str());
    state.SetComplexityN(state.range(0));
}

template <class Channel> void add(const Channel &c, void (*body)(benchmark::State &, const Channel &)) {
    auto it = first_size.find(c.name);
    const int64_t n = it == first_size.end() ? default_first_size : it->second;
    benchmark::RegisterBenchmark((std::string("complexity/") + c.name).c_str(), body, c)
        ->RangeMultiplier(2)
        ->Range(n, 64 * n)
        ->Complexity()
        ->Unit(benchmark::kMillisecond);
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (const auto &c : complexity::library_channels()) add(c, library);
    for (const auto &c : complexity::tool_channels()) add(c, tool);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
