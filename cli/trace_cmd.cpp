// ovrin-sm trace FILE [--library LIBRARY]: decodes a binary trace file written by the runtime
// (mgx_trace_file_open or MGX_TRACE_FILE) into one line per emission:
//   2026-11-22T07:40:01.123456Z [4242] ERR mgx_ovrin_sm #1234: error in sess_mgr_conn_hdl create: ...
// The running code recorded message numbers and arguments only; the texts come from the
// non-loaded section of the library file each table record names, or of LIBRARY when given (a
// trace carried off the device, decoded beside a copy of its library).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/input.h"
#include "cli/options.h"
#include "formats/trace_format.h"

namespace {

namespace fmt = mgx::tracefmt;

struct Texts {
    std::string module;
    fmt::TextSet texts; // empty when they could not be read
};

// What the run keeps of one library file: its message texts sections and nothing else, so a file
// of any size costs no more than the texts it holds. The sections are copied out of the file's
// bytes, or the bytes are kept whole when the sections make up most of them (so a file that is
// one large section is not held twice).
struct Library {
    std::string problem; // why the file gives no texts (unreadable, not an ELF file); then empty
    std::vector<uint8_t> bytes;
    std::map<std::string, std::span<const uint8_t>, std::less<>> sections; // into bytes, by name

    static Library of(mgx::elf::File file) {
        Library lib;
        uint64_t total = 0; // sections may overlap: this may pass the file's size
        for (const mgx::elf::Section &s : file.sections) {
            std::span<const uint8_t> v = file.view(s);
            if (v.size() >= sizeof fmt::texts_magic && std::memcmp(v.data(), fmt::texts_magic, sizeof fmt::texts_magic) == 0 &&
                lib.sections.emplace(s.name, v).second) // the first of a name is the one read
                total += v.size();
        }
        if (total > file.bytes.size() / 2) {
            lib.bytes = std::move(file.bytes); // a vector's move keeps its block: the views stay valid
            return lib;
        }
        lib.bytes.reserve(total);
        for (auto &[name, v] : lib.sections) {
            size_t at = lib.bytes.size();
            lib.bytes.insert(lib.bytes.end(), v.begin(), v.end());
            v = std::span<const uint8_t>(lib.bytes.data() + at, v.size());
        }
        return lib;
    }
};

// Everything the command reads besides the trace: the library files its table records name (or
// the one given with --library), and the texts expanded from them. Each file is read once however
// its path is spelt (it is known by its device and inode), a table is checked against a section's
// header before anything is expanded, a section is expanded at most once, and all the expanded
// texts together stay within kept_limit: what a trace can make the command read and hold grows
// with the trace and the files it names, not with the number of records naming them.
class Libraries {
public:
    // Expanded texts kept at once: one section at the largest the runtime reads (64 MiB of texts,
    // a million of them) fits.
    static constexpr uint64_t kept_limit = uint64_t{128} << 20;

    explicit Libraries(std::optional<Library> given, std::string given_path)
        : given_(std::move(given)), given_path_(std::move(given_path)) {}

    // The texts of a table record, warning once per library, section and checksum when they
    // cannot be had.
    const Texts &texts(const fmt::TableRecord &t) {
        std::string path = given_ ? given_path_ : t.library, error;
        const Library *lib = given_ ? &*given_ : nullptr;
        std::string id = given_ ? std::string("given") : std::string();
        if (!lib) lib = named(path, id, error);
        std::string key = id + '\n' + t.section + '\n' + std::to_string(t.count) + '\n' + std::to_string(t.crc);
        auto found = loaded_.find(key);
        if (found != loaded_.end()) return found->second;
        Texts out{t.module, {}};
        if (lib && !lib->problem.empty()) error = lib->problem;
        unreadable = unreadable || !lib || !lib->problem.empty();
        if (lib && lib->problem.empty()) {
            auto section = lib->sections.find(t.section);
            if (section == lib->sections.end()) error = path + " has no message texts section " + t.section;
            else if (!fmt::expand_texts(section->second.data(), section->second.size(), t.count, t.crc, out.texts, error,
                                        kept_ < kept_limit ? kept_limit - kept_ : 0))
                error = path + ": " + error;
            else kept_ += out.texts.memory();
        }
        if (out.texts.empty())
            std::fprintf(stderr, "ovrin-sm: texts of %s: %s; showing message numbers\n", t.module.c_str(), error.c_str());
        return loaded_.emplace(std::move(key), std::move(out)).first->second;
    }

    bool unreadable = false; // a library file could not be read or is damaged

private:
    // The library file at path, read the first time the file is met; null when it cannot be
    // opened. id names the file (device and inode), or the path when it cannot be opened.
    const Library *named(const std::string &path, std::string &id, std::string &error) {
        struct stat st {};
        int fd = mgx::elf::detail::open_for_reading(path, true, st, error);
        if (fd < 0) {
            id = "path " + path;
            return nullptr;
        }
        id = "file " + std::to_string(st.st_dev) + ':' + std::to_string(st.st_ino);
        auto found = files_.find({st.st_dev, st.st_ino});
        if (found == files_.end()) {
            std::vector<uint8_t> bytes;
            std::optional<mgx::elf::File> file;
            if (mgx::elf::detail::read_open_file(fd, st, path, mgx::elf::file_limit, bytes, error))
                file = mgx::elf::parse(std::move(bytes), path, error);
            Library lib = file ? Library::of(std::move(*file)) : Library{error, {}, {}};
            found = files_.emplace(std::make_pair(st.st_dev, st.st_ino), std::move(lib)).first;
        }
        ::close(fd);
        return &found->second;
    }

    std::optional<Library> given_;
    std::string given_path_;
    std::map<std::pair<dev_t, ino_t>, Library> files_;
    std::map<std::string, Texts> loaded_; // by library file, section, count and checksum
    uint64_t kept_ = 0;                   // what the texts in loaded_ take
};

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
        if (a.kind == 's') s += " \"" + a.text + "\"";
        else {
            std::snprintf(buf, sizeof buf,
                          a.kind == 'p'   ? " 0x%llx"
                          : a.kind == 'd' ? " %lld"
                                          : " %llu",
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
        "trace",
        "FILE [--library LIBRARY]",
        "Decodes a binary trace file (FILE, or standard input for '-') into one line per emission: UTC\n"
        "time, process id, severity, trace module, message number and text. The texts are read from the\n"
        "library file each table record of the trace names.\n"
        "\n"
        "  --library LIBRARY     read the texts from LIBRARY instead (a copy of the library that wrote the\n"
        "                        trace); '-' reads it from standard input\n",
        {{"library", required_argument, nullptr, opt_library}}};
    std::string path, library;
    Parser p(command, argc, argv);
    int status = p.run([&](int, const char *arg) {
        if (!*arg) return usage_error(command, "--library: an empty name");
        library = arg;
        return -1;
    });
    if (status >= 0) return status;
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
    std::optional<Library> given;
    if (!library.empty()) {
        std::optional<mgx::elf::File> file = ovrin::input::read_library(library, error);
        if (!file) {
            std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
            return 1;
        }
        given = Library::of(std::move(*file));
    }
    Libraries libraries(std::move(given), library);
    fmt::FileReader reader(bytes);
    // Each table as last described, with its texts once an emission has asked for them.
    std::map<uint16_t, std::pair<fmt::TableRecord, const Texts *>> tables;
    uint64_t emissions = 0;
    for (uint8_t kind; (kind = reader.next()) != 0;) {
        if (kind == fmt::record_table) {
            tables[reader.table.index] = {reader.table, nullptr};
            continue;
        }
        const fmt::EmissionRecord &e = reader.emission;
        ++emissions;
        auto table = tables.find(e.table);
        const Texts *texts = nullptr;
        if (table != tables.end()) {
            auto &[record, known] = table->second;
            texts = known ? known : (known = &libraries.texts(record));
        }
        std::string text = texts && e.number < texts->texts.size() ? fmt::render(texts->texts[e.number], e.args)
                                                                   : numbers_only(e);
        std::printf("%s [%u] %s %s #%u: %s\n", timestamp(e.time_ns).c_str(), e.pid,
                    fmt::severity_name(static_cast<int>((e.flags >> 24) & 7)), texts ? texts->module.c_str() : "?", e.number,
                    text.c_str());
    }
    if (!reader.error.empty()) {
        std::fprintf(stderr, "ovrin-sm: %s: %s\n", path.c_str(), reader.error.c_str());
        return 1;
    }
    if (emissions == 0) std::fprintf(stderr, "ovrin-sm: %s holds no emissions\n", path.c_str());
    return libraries.unreadable ? 1 : 0;
}
