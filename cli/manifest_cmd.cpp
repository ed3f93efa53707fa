// ovrin-sm manifest [LIBRARY]: prints the records of a library file's manifest section, which is
// not loaded into memory and so is read from the file itself. The default library is the
// libovrin_sm.so this tool runs with.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/elf_sections.h"
#include "cli/input.h"
#include "cli/options.h"
#include "ovrin_sm/ops.h"

namespace {

const char *const manifest_section = ".ovrin_sm_manifest";

std::string loaded_bundle_path() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&ovrin_sm_typeinfo_initialize), &info) && info.dli_fname) return info.dli_fname;
    return {};
}

const char *record_name(uint32_t kind) {
    switch (kind) {
    case 1: return "build record";
    case 2: return "type manifest";
    default: return "unknown record";
    }
}

} // namespace

int ovrin_cmd_manifest(int argc, char **argv) {
    using namespace ovrin::cli;
    static const Command command = {
        "manifest",
        "[LIBRARY]",
        "Prints the records of the .ovrin_sm_manifest section of a library file: the type manifest and\n"
        "the build record. Without LIBRARY it reads the libovrin_sm.so this tool runs with; '-' reads the\n"
        "library from standard input.\n",
        {}};
    Parser p(command, argc, argv);
    if (int status = p.run(); status >= 0) return status;
    if (p.operands().size() > 1) return usage_error(command, std::string("unexpected operand '") + p.operands()[1] + "'");
    std::string path = p.operands().empty() ? loaded_bundle_path() : p.operands()[0];
    const std::string shown = path == "-" ? "standard input" : path;
    if (path.empty()) {
        std::fprintf(stderr, "ovrin-sm: cannot tell where libovrin_sm.so was loaded from; name the library\n");
        return exit_failure;
    }
    std::string error;
    auto file = ovrin::input::read_library(path, error);
    if (!file) {
        std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
        return 1;
    }
    const ovrin::elf::Section *section = file->find(manifest_section);
    if (!section) {
        std::fprintf(stderr, "ovrin-sm: %s has no %s section\n", shown.c_str(), manifest_section);
        return 1;
    }
    std::vector<ovrin::elf::ManifestRecord> records;
    bool whole = ovrin::elf::manifest_records(file->contents(*section), records);
    std::printf("%s: %s\n", shown.c_str(), manifest_section);
    for (const auto &r : records) {
        std::printf("\n-- record kind %u (%s), %zu bytes\n%s", r.kind, record_name(r.kind), r.text.size() + 1, r.text.c_str());
        if (!r.text.empty() && r.text.back() != '\n') std::printf("\n");
    }
    if (!whole) {
        std::fprintf(stderr, "ovrin-sm: %s: the last record runs past the end of the section\n", shown.c_str());
        return 1;
    }
    return 0;
}
