// The manifest: a section that is not loaded into memory, read from the library file by tools.
// It holds records of (u32 length, u32 kind, length bytes), each starting at a multiple of 4:
//   kind 2, the type manifest: "# ovrin_sm manifest", then one 79-character line per type sorted
//           by name (fingerprint ":" second digest, kind word, last variant index ":" rounded
//           last used length "N"), NUL-terminated;
//   kind 1, the build record: the domain, package id, builder, platform, pid, time and catalogue.
#include <nettle/sha1.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "tools/ovrin_gen/emit.h"

namespace gen {

namespace {

constexpr uint32_t build_record_kind = 1;
constexpr uint32_t type_manifest_kind = 2;

std::string type_line(const Type &t) {
    unsigned rounded = (t.last_used() + 7) / 8 * 8;
    return hex(t.fingerprint.data(), 16) + ":" + hex(t.second_digest.data(), 16) + t.kind_word() +
           format("%03d:%05uN", t.n_variants - 1, rounded);
}

std::string type_manifest(const Catalogue &c) {
    std::vector<const Type *> sorted;
    for (const auto &t : c.types) sorted.push_back(t.get());
    std::sort(sorted.begin(), sorted.end(), [](const Type *a, const Type *b) { return a->name < b->name; });
    std::string text = "# " + c.domain + " manifest\n"; // compressed below: named here, not by the writer
    for (const Type *t : sorted) {
        std::string line = type_line(*t);
        if (line.size() != 79) throw std::runtime_error("manifest line of " + t->name + " is not 79 characters");
        text += line + "\n";
    }
    return text + '\0';
}

// The package id names the catalogue the bundle was built from: the SHA-1 of its text.
std::string package_id(const Catalogue &c) {
    sha1_ctx ctx;
    sha1_init(&ctx);
    sha1_update(&ctx, c.text.size(), reinterpret_cast<const uint8_t *>(c.text.data()));
    uint8_t digest[SHA1_DIGEST_SIZE];
    sha1_digest(&ctx, sizeof digest, digest);
    return hex(digest, sizeof digest);
}

// The build time: SOURCE_DATE_EPOCH when it is set, so that a build from the same sources gives
// the same bytes; the time of generation otherwise.
std::string build_time() {
    std::time_t when = std::time(nullptr);
    if (const char *epoch = std::getenv("SOURCE_DATE_EPOCH"); epoch && *epoch) {
        char *end = nullptr;
        long long seconds = std::strtoll(epoch, &end, 10);
        if (*end || seconds < 0)
            throw std::runtime_error(std::string("SOURCE_DATE_EPOCH '") + epoch + "' is not a count of seconds since 1970");
        when = static_cast<std::time_t>(seconds);
    }
    std::tm tm{};
    gmtime_r(&when, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

// Nothing in the record depends on who builds, where or in which process: "built by" names the
// generator, "on host" the platform built for, "pid" is 0 and "comment" is the catalogue's path in
// the source tree.
std::string build_record(const Catalogue &c, const BuildInfo &build) {
    std::string text = c.domain + "\n";
    text += "pkg_id: " + package_id(c) + "\n";
    text += "built by: ovrin_gen\n";
    text += "on host: " + build.platform + "\n";
    text += "pid: 0\n";
    text += "at: " + build_time() + "\n";
    text += "comment: " + build.comment + "\n";
    return text + '\0';
}

void append_record(std::vector<uint8_t> &section, uint32_t kind, const std::string &text) {
    auto put32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) section.push_back(static_cast<uint8_t>(v >> (8 * i)));
    };
    put32(static_cast<uint32_t>(text.size()));
    put32(kind);
    section.insert(section.end(), text.begin(), text.end());
    while (section.size() % 4) section.push_back(0);
}

} // namespace

// The bytes as an assembler section with no SHF_ALLOC flag: kept in the file, never mapped.
std::string nonloaded_section(const char *name, const std::vector<uint8_t> &bytes) {
    std::string s = format("asm(R\"(\n    .pushsection %s,\"\",@progbits\n    .p2align 2\n", name);
    for (size_t i = 0; i < bytes.size(); i += 16) {
        s += "    .byte ";
        for (size_t j = i; j < std::min(bytes.size(), i + 16); ++j) s += format("%s%u", j > i ? "," : "", bytes[j]);
        s += "\n";
    }
    s += "    .popsection\n)\");\n";
    return s;
}

std::string emit_manifest(const Catalogue &c, const BuildInfo &build) {
    std::vector<uint8_t> section;
    append_record(section, type_manifest_kind, type_manifest(c));
    append_record(section, build_record_kind, build_record(c, build));
    std::string s = format("// The manifest section (not loaded): the type manifest and the build record. %s\n",
                           generated_banner);
    // The catalogue's own text beside it, also not loaded, so that a library file says what it
    // was built from whole (ovrin-sm compat reads it).
    return s + nonloaded_section(".@D@_manifest", section) +
           nonloaded_section(".@D@_catalogue", std::vector<uint8_t>(c.text.begin(), c.text.end()));
}

} // namespace gen
