// Inputs that grow with one number a peer or a user controls (records in an array, attributes in
// a list, names, setter calls, trace records, manifest records), one generator per channel, for
// the complexity benchmark (bench/complexity.cpp) and for the gate that counts instructions
// (tests/complexity_probe.cpp, tests/complexity_gate.sh). Both run the same inputs, so a channel
// the gate passes is the channel the benchmark fits.
#ifndef OVRIN_BENCH_COMPLEXITY_INPUTS_H
#define OVRIN_BENCH_COMPLEXITY_INPUTS_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "mgx/runtime.h"

namespace complexity {

// One library operation on an input prepared beforehand: run() is the part that is measured, and
// may be called more than once (the benchmark repeats it). Destroying the work releases all it
// made in the handle, so the handle's accounting shows a leak of the operation itself.
class Work {
public:
    virtual ~Work() = default;
    virtual void run() = 0;
    // Empty when the input was made and every run so far succeeded; otherwise what went wrong.
    const std::string &error() const { return error_; }

protected:
    void fail(const std::string &what) {
        if (error_.empty()) error_ = what;
    }

private:
    std::string error_;
};

struct LibraryChannel {
    const char *name; // e.g. "from_xml.attrs"
    const char *what; // the input at size n
    std::unique_ptr<Work> (*prepare)(mgx_handle_t *h, size_t n);
};

// The command line of ovrin-sm (the arguments after the tool's name) that reads the files a tool
// channel wrote, and the exit status it gives for them.
struct ToolRun {
    std::vector<std::string> args;
    int status = 0;
};

struct ToolChannel {
    const char *name; // e.g. "tool.check"
    const char *what;
    // Writes the input files of size n into dir (which exists); false with error on failure.
    bool (*write)(const std::string &dir, size_t n, ToolRun &run, std::string &error);
};

const std::vector<LibraryChannel> &library_channels();
const std::vector<ToolChannel> &tool_channels();

} // namespace complexity

#endif
