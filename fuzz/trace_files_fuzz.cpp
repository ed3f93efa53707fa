// Decodes trace files with "ovrin-sm trace FILE [--library LIBRARY]" (the tool's own command),
// with the library files their table records name written by the fuzzer: the texts of each table
// come from a file the input supplies, so the tool's reading of library files is reached from the
// trace path too.
//
// Input: byte 0 bits 0-1: how many library files follow (0 to 3); bit 2: the first is also named
// with --library. Then each library file: a u32 length (little-endian, cut to what is there) and
// its bytes, written to lib0, lib1, lib2 of a scratch directory (an absent one does not exist).
// The rest is the trace file. The library path of each table record is replaced before the tool
// sees it: "@" followed by any of '.' and '/' (each becomes "./" or "/" in the path) and one of
//   0 1 2   lib0, lib1, lib2        d   the scratch directory     e   an empty file
//   z       /dev/zero               n   /dev/null                 t   the trace file itself
//   f       a FIFO that nothing writes to
// names that file; every other path names a file that does not exist. So several spellings of
// one file are several library paths to the tool.
//
// Whatever the files, the command must not crash, read outside what it read or wait (5 s at most);
// it answers 0 or 1, and holds at most a bounded multiple of its input in memory beyond the message texts it
// expands (at most 128 MiB for the run, however many records name the library files).
#include <sys/stat.h>

#include <chrono>
#include <new>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "fuzz/fuzz_files.h"
#include "fuzz/trace_paths.h"

using fuzz::die;

namespace {

std::string library_path(const std::string &named) {
    const std::string &dir = fuzz::scratch_dir();
    if (named.size() < 2 || named[0] != '@') return dir + "/absent";
    std::string spelling;
    for (size_t i = 1; i + 1 < named.size(); ++i) {
        if (named[i] == '.') spelling += "./";
        else if (named[i] == '/') spelling += "/";
        else return dir + "/absent";
    }
    switch (named.back()) {
    case '0':
    case '1':
    case '2': return dir + "/" + spelling + "lib" + named.back();
    case 'd': return dir + "/" + spelling;
    case 'e': return dir + "/" + spelling + "empty";
    case 't': return dir + "/" + spelling + "trace";
    case 'z': return "/dev/zero";
    case 'n': return "/dev/null";
    case 'f': return dir + "/" + spelling + "fifo";
    default: return dir + "/absent";
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const std::string &dir = fuzz::scratch_dir();
    static const bool made = [&] {
        fuzz::write_file(dir + "/empty", nullptr, 0);
        return ::mkfifo((dir + "/fifo").c_str(), 0600) == 0;
    }();
    (void)made;
    size_t pos = 1;
    unsigned libraries = data[0] & 3;
    for (unsigned k = 0; k < 3; ++k) {
        std::string path = dir + "/lib" + std::to_string(k);
        if (k >= libraries) {
            ::unlink(path.c_str());
            continue;
        }
        size_t length = 0;
        for (int i = 0; i < 4 && pos < size; ++i) length |= size_t{data[pos++]} << (8 * i);
        length = std::min(length, size - pos);
        fuzz::write_file(path, data + pos, length);
        pos += length;
    }
    const std::string trace = dir + "/trace";
    std::vector<uint8_t> file = fuzz::rename_libraries(std::vector<uint8_t>(data + pos, data + size), library_path);
    fuzz::write_file(trace, file.data(), file.size());

    std::vector<std::string> args = {"trace", trace};
    if ((data[0] & 4) && libraries > 0) args.insert(args.end(), {"--library", dir + "/lib0"});
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int status;
    heap::start();
    auto began = std::chrono::steady_clock::now();
    {
        fuzz::Quiet quiet;
        try {
            status = ovrin_cmd_trace(static_cast<int>(args.size()), argv.data());
        } catch (const std::bad_alloc &) {
            status = -1;
        }
    }
    size_t held = heap::peak();
    // A command that waits (a FIFO opened for reading waits for a writer) would wait forever but
    // for libFuzzer's own timer, whose signal interrupts the wait; so the time is checked here.
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - began).count();
    if (seconds >= 5) die("ovrin-sm trace took " + std::to_string(seconds) + " s");
    if (status == -1) die("ovrin-sm trace ran out of memory on " + std::to_string(size) + " bytes of input");
    if (status != 0 && status != 1) die("ovrin-sm trace answered " + std::to_string(status));
    constexpr size_t texts_kept = size_t{128} << 20; // the expanded texts the command keeps for a run
    if (held > 16 * size + texts_kept + (size_t{16} << 20))
        die("ovrin-sm trace held " + std::to_string(held) + " bytes for " + std::to_string(size) + " bytes of input");
    return 0;
}
