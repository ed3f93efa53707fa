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
    if (argc > 2 || (argc == 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")))) {
        std::fprintf(stderr, "usage: ovrin-sm manifest [LIBRARY]\n");
        return argc > 2 ? 2 : 0;
    }
    std::string path = argc == 2 ? argv[1] : loaded_bundle_path();
    if (path.empty()) {
        std::fprintf(stderr, "ovrin-sm: cannot tell where libovrin_sm.so was loaded from; name the library\n");
        return 1;
    }
    std::string error;
    auto file = ovrin::input::read_library(path, error);
    if (!file) {
        std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
        return 1;
    }
    const ovrin::elf::Section *section = file->find(manifest_section);
    if (!section) {
        std::fprintf(stderr, "ovrin-sm: %s has no %s section\n", path.c_str(), manifest_section);
        return 1;
    }
    std::vector<ovrin::elf::ManifestRecord> records;
    bool whole = ovrin::elf::manifest_records(file->contents(*section), records);
    std::printf("%s: %s\n", path.c_str(), manifest_section);
    for (const auto &r : records) {
        std::printf("\n-- record kind %u (%s), %zu bytes\n%s", r.kind, record_name(r.kind), r.text.size() + 1, r.text.c_str());
        if (!r.text.empty() && r.text.back() != '\n') std::printf("\n");
    }
    if (!whole) {
        std::fprintf(stderr, "ovrin-sm: %s: the last record runs past the end of the section\n", path.c_str());
        return 1;
    }
    return 0;
}
