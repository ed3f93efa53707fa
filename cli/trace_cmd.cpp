// ovrin-sm trace FILE [--library LIBRARY]: decodes a binary trace file written by the runtime
// (mgx_trace_file_open or MGX_TRACE_FILE) into one line per emission:
//   2026-11-22T07:40:01.123456Z [4242] ERR mgx_ovrin_sm #1234: error in sess_mgr_conn_hdl create: ...
// The running code recorded message numbers and arguments only; the texts come from the
// non-loaded section of the library file each table record names, or of LIBRARY when given (a
// trace carried off the device, decoded beside a copy of its library).
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/input.h"
#include "cli/options.h"
#include "runtime/trace_format.h"

namespace {

namespace fmt = mgx::tracefmt;

struct Texts {
    std::string module;
    std::vector<std::string> texts; // empty when they could not be read
};

// Reads the texts a table record names from library, or from the file the record names when
// library is null, warning once per table when they cannot be had. unreadable is set when the
// library file itself could not be read or is damaged, as opposed to lacking matching texts.
Texts load_texts(const fmt::TableRecord &t, const mgx::elf::File *library, const std::string &library_path,
                 bool &unreadable) {
    Texts out{t.module, {}};
    std::string path = library ? library_path : t.library;
    std::string error;
    std::optional<mgx::elf::File> named;
    if (!library) {
        named = ovrin::input::read_library(path, error);
        library = named ? &*named : nullptr;
        unreadable = unreadable || !named;
    }
    const mgx::elf::Section *section = library ? library->find(t.section) : nullptr;
    if (library && !section) error = path + " has no " + t.section + " section";
    if (section && !fmt::expand_texts(library->contents(*section), t.count, t.crc, out.texts, error))
        error = path + ": " + error;
    if (out.texts.empty())
        std::fprintf(stderr, "ovrin-sm: texts of %s: %s; showing message numbers\n", t.module.c_str(), error.c_str());
    return out;
}

std::string timestamp(uint64_t ns) {
    time_t seconds = static_cast<time_t>(ns / 1000000000u);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char date[32], out[48];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(out, sizeof out, "%s.%06uZ", date, static_cast<unsigned>(ns % 1000000000u / 1000u));
    return out;
}

std::string numbers_only(const fmt::EmissionRecord &e) {
    std::string s = "message " + std::to_string(e.number);
    for (const fmt::Arg &a : e.args) {
        char buf[32];
        if (a.kind == 's')
            s += " \"" + a.text + "\"";
        else {
            std::snprintf(buf, sizeof buf, a.kind == 'p' ? " 0x%llx" : a.kind == 'd' ? " %lld" : " %llu",
                          a.kind == 'd' ? static_cast<unsigned long long>(static_cast<long long>(static_cast<int32_t>(a.value)))
                                        : static_cast<unsigned long long>(a.value));
            s += buf;
        }
    }
    return s;
}

} // namespace

int ovrin_cmd_trace(int argc, char **argv) {
    using namespace ovrin::cli;
    enum { opt_library = 256 };
    static const Command command = {
        "trace", "FILE [--library LIBRARY]",
        "Decodes a binary trace file (FILE, or standard input for '-') into one line per emission: UTC\n"
        "time, process id, severity, trace module, message number and text. The texts are read from the\n"
        "library file each table record of the trace names.\n"
        "\n"
        "  --library LIBRARY     read the texts from LIBRARY instead (a copy of the library that wrote the\n"
        "                        trace); '-' reads it from standard input\n",
        {{"library", required_argument, nullptr, opt_library}}};
    std::string path, library;
    Parser p(command, argc, argv);
    for (bool more = true; more;) {
        int val;
        const char *arg;
        switch (p.next(val, arg)) {
        case Next::help: return show_help(command);
        case Next::error: return exit_usage;
        case Next::option:
            if (!*arg) return usage_error(command, "--library: an empty name");
            library = arg;
            break;
        case Next::done: more = false; break;
        }
    }
    if (p.operands().empty()) return usage_error(command, "a trace FILE is needed");
    if (p.operands().size() > 1) return usage_error(command, std::string("unexpected operand '") + p.operands()[1] + "'");
    path = p.operands()[0];
    if (path == "-" && library == "-") return usage_error(command, "the trace and its library cannot both be standard input");
    std::vector<uint8_t> bytes;
    std::string error;
    if (!ovrin::input::read(path, ovrin::input::file_limit, "the limit for a trace file", bytes, error)) {
        std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
        return 1;
    }
    // A library named on the command line is read once, before any line is printed.
    std::optional<mgx::elf::File> override_file;
    if (!library.empty() && !(override_file = ovrin::input::read_library(library, error))) {
        std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
        return 1;
    }
    bool unreadable_library = false;
    fmt::FileReader reader(bytes);
    std::map<uint16_t, fmt::TableRecord> tables;
    std::map<std::string, Texts> loaded; // by library, section and CRC: each file is read once
    uint64_t emissions = 0;
    for (uint8_t kind; (kind = reader.next()) != 0;) {
        if (kind == fmt::record_table) {
            tables[reader.table.index] = reader.table;
            continue;
        }
        const fmt::EmissionRecord &e = reader.emission;
        ++emissions;
        auto table = tables.find(e.table);
        const Texts *texts = nullptr;
        if (table != tables.end()) {
            const fmt::TableRecord &t = table->second;
            std::string key = (library.empty() ? t.library : library) + '\n' + t.section + '\n' + std::to_string(t.crc);
            auto found = loaded.find(key);
            if (found == loaded.end())
                found = loaded.emplace(key, load_texts(t, override_file ? &*override_file : nullptr, library,
                                                       unreadable_library)).first;
            texts = &found->second;
        }
        std::string text = texts && e.number < texts->texts.size() ? fmt::render(texts->texts[e.number], e.args)
                                                                   : numbers_only(e);
        std::printf("%s [%u] %s %s #%u: %s\n", timestamp(e.time_ns).c_str(), e.pid,
                    fmt::severity_name(static_cast<int>((e.flags >> 24) & 7)),
                    texts ? texts->module.c_str() : "?", e.number, text.c_str());
    }
    if (!reader.error.empty()) {
        std::fprintf(stderr, "ovrin-sm: %s: %s\n", path.c_str(), reader.error.c_str());
        return 1;
    }
    if (emissions == 0) std::fprintf(stderr, "ovrin-sm: %s holds no emissions\n", path.c_str());
    return unreadable_library ? 1 : 0;
}
