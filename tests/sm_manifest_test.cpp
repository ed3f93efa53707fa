// What the library file carries beside its code: the manifest section and the exported symbol set.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cli/elf_sections.h"
#include "formats/trace_format.h"
#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/elf_write.h"
#include "tests/prim_fixture.h"

namespace {

std::string library_path() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&ovrin_sm_typeinfo_initialize), &info) || !info.dli_fname) return {};
    return info.dli_fname;
}

struct LibraryFile : RuntimeFixture {
    ovrin::elf::File file;
    void SetUp() override {
        RuntimeFixture::SetUp();
        std::string error;
        auto f = ovrin::elf::read(library_path(), error);
        ASSERT_TRUE(f) << error;
        file = std::move(*f);
    }
    std::vector<ovrin::elf::ManifestRecord> manifest() {
        std::vector<ovrin::elf::ManifestRecord> records;
        EXPECT_TRUE(ovrin::elf::manifest_records(file.contents(*file.find(".ovrin_sm_manifest")), records));
        return records;
    }
};

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The trace texts are in the file only: the compressed section is not loaded and no loaded
// section carries its bytes, yet the runtime renders the bundle's emissions from it, each type
// with its own numbered copy of the messages.
TEST_F(LibraryFile, TraceTextsLiveOnlyInANonLoadedSection) {
    const ovrin::elf::Section *section = file.find(".ovrin_sm_trace_texts");
    ASSERT_NE(section, nullptr);
    EXPECT_EQ(section->flags & SHF_ALLOC, 0u);
    std::vector<uint8_t> bytes = file.contents(*section);
    mgx::tracefmt::TextSet texts;
    std::string error;
    ASSERT_TRUE(mgx::tracefmt::expand_texts(bytes, 0, 0, texts, error)) << error;
    ASSERT_GT(bytes.size(), mgx::tracefmt::texts_header_size + 64);
    std::vector<uint8_t> probe(bytes.begin() + mgx::tracefmt::texts_header_size,
                               bytes.begin() + mgx::tracefmt::texts_header_size + 64);
    for (const ovrin::elf::Section &s : file.sections) {
        if (!(s.flags & SHF_ALLOC)) continue;
        std::vector<uint8_t> loaded = file.contents(s);
        EXPECT_EQ(std::search(loaded.begin(), loaded.end(), probe.begin(), probe.end()), loaded.end()) << s.name;
    }

    mgx_handle_fail_stats(h, 12);
    EXPECT_EQ(sess_mgr_session_start_create(h, 1), nullptr);
    size_t at = 0; // the create's own message (the statistics failure is traced before it)
    while (at < mgx_trace_count() && std::string(mgx_trace_text(at)).rfind("error in", 0) != 0) ++at;
    ASSERT_LT(at, mgx_trace_count());
    uint32_t number = mgx_trace_number(at);
    ASSERT_LT(number, texts.size());
    EXPECT_EQ(texts[number], "error in sess_mgr_session_start create: %s");
    EXPECT_STREQ(mgx_trace_text(at), "error in sess_mgr_session_start create: Cannot allocate memory");
    EXPECT_STREQ(mgx_trace_module_name(mgx_trace_module(at)), "mgx_ovrin_sm");
}

TEST_F(LibraryFile, ManifestSectionIsNotLoadedAndHoldsTheTwoRecords) {
    const ovrin::elf::Section *section = file.find(".ovrin_sm_manifest");
    ASSERT_NE(section, nullptr);
    EXPECT_EQ(section->flags & SHF_ALLOC, 0u);
    std::vector<ovrin::elf::ManifestRecord> records = manifest();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].kind == 2u && records[1].kind == 1u);

    std::vector<std::string> build = lines_of(records[1].text);
    ASSERT_EQ(build.size(), 7u);
    EXPECT_EQ(build[0], "ovrin_sm");
    // Nothing of who built it or in which process: the record is the same from any build.
    EXPECT_EQ(build[2], "built by: ovrin_gen");
    EXPECT_EQ(build[4], "pid: 0");
}

TEST_F(LibraryFile, TypeManifestHasOneLinePerTypeSortedByName) {
    std::vector<ovrin::elf::ManifestRecord> records = manifest();
    ASSERT_FALSE(records.empty());
    std::vector<std::string> lines = lines_of(records[0].text);
    ASSERT_EQ(lines.size(), 80u);
    EXPECT_EQ(lines[0], "# ovrin_sm manifest");

    std::map<std::string, const mgx_type_info_t *> by_fingerprint;
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next)
        if (!std::strcmp(n->domain_name, "ovrin_sm"))
            for (const void *const *d = n->descriptor_table; *d; ++d) {
                auto *info = static_cast<const mgx_type_info_t *>(*d);
                by_fingerprint[info->fingerprint_text] = info;
            }
    ASSERT_EQ(by_fingerprint.size(), 79u);

    std::map<std::string, std::string> line_of; // by type name
    std::string previous;
    std::set<std::string> second_digests;
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::string &line = lines[i];
        ASSERT_EQ(line.size(), 79u) << line;
        auto it = by_fingerprint.find(line.substr(0, 32));
        ASSERT_NE(it, by_fingerprint.end()) << line;
        const mgx_type_info_t *d = it->second;
        EXPECT_EQ(line.substr(33, 32).find_first_not_of("0123456789abcdef"), std::string::npos) << line;
        EXPECT_TRUE(second_digests.insert(line.substr(33, 32)).second) << line;
        EXPECT_EQ(line.substr(65, 4), d->kind);
        EXPECT_EQ(std::stoi(line.substr(69, 3)), d->variant_info->n_variants - 1) << line;
        uint32_t last_used = d->variant_info->entries[d->variant_info->n_variants - 1].used_length;
        EXPECT_EQ(std::stoul(line.substr(73, 5)), (last_used + 7) / 8 * 8) << line;
        EXPECT_TRUE(line[32] == ':' && line[72] == ':' && line[78] == 'N') << line;
        EXPECT_LT(previous, d->type_name) << "not sorted by name";
        previous = d->type_name;
        line_of[d->type_name] = line;
    }
    // kind, last variant and its used length rounded up to 8 (sm_dot11_params uses 45)
    for (auto [type, tail] : {std::pair{"sess_mgr_session_start", "type001:00184N"},
                              {"sm_dot11_params", "type000:00048N"},
                              {"ovrin_sm_in_event_type", "enum002:00016N"}})
        EXPECT_EQ(line_of[type].substr(65), tail) << type;
}

// Only the catalogue's operations and data leave the library.
TEST_F(LibraryFile, ExportsExactlyTheCataloguesSymbols) {
    // A plain array of literals: thousands of std::string initialisers take the compiler minutes.
    static const char *const expected_list[] = {
#include "ovrin_sm/exports.inc"
    };
    std::set<std::string> expected(std::begin(expected_list), std::end(expected_list));
    std::vector<std::string> exported_list = ovrin::elf::defined_dynamic_symbols(file);
    std::set<std::string> exported(exported_list.begin(), exported_list.end());
    for (const std::string &name : exported) EXPECT_TRUE(expected.count(name)) << "exported but not in the catalogue: " << name;
    for (const std::string &name : expected) EXPECT_TRUE(exported.count(name)) << "missing: " << name;
}

// The file readers at their bounds: what ends exactly at the end of the file or section is read,
// what ends one byte past it is refused.
TEST(FileReaders, WhatEndsAtTheEndIsReadAndOneBytePastIsRefused) {
    std::vector<uint8_t> file = ovrin::testing::elf_file({{".t", SHT_PROGBITS, {1, 2, 3}}});
    Elf64_Ehdr eh;
    std::memcpy(&eh, file.data(), sizeof eh);
    ASSERT_EQ(eh.e_shoff + eh.e_shnum * sizeof(Elf64_Shdr), file.size()); // the headers end the file
    std::string error;
    EXPECT_TRUE(mgx::elf::parse(file, "f", error)) << error;
    EXPECT_FALSE(mgx::elf::parse({file.begin(), file.end() - 1}, "f", error));
    EXPECT_EQ(error, "f: 3 section headers at byte " + std::to_string(eh.e_shoff) + " lie outside the file (" +
                         std::to_string(file.size() - 1) + " bytes)");

    // Section headers that start one header short of the end: the first would be read past it.
    std::vector<uint8_t> short_table = file;
    reinterpret_cast<Elf64_Ehdr *>(short_table.data())->e_shoff = file.size() - sizeof(Elf64_Shdr) + 1;
    EXPECT_FALSE(mgx::elf::parse(short_table, "f", error));
    EXPECT_EQ(error, "f: section headers lie outside the file");

    // The name table's index one past the last section; a name of the longest length a reader
    // looks for is kept, one byte longer is no name.
    std::vector<uint8_t> past = file;
    reinterpret_cast<Elf64_Ehdr *>(past.data())->e_shstrndx = eh.e_shnum;
    EXPECT_FALSE(mgx::elf::parse(past, "f", error));
    EXPECT_EQ(error, "f: the section name table is section 3 of 3");
    const std::string longest(mgx::elf::detail::max_name, 'n');
    auto named = mgx::elf::parse(ovrin::testing::elf_file({{longest, SHT_PROGBITS, {1}}, {longest + "n", SHT_PROGBITS, {2}}}),
                                 "f", error);
    ASSERT_TRUE(named) << error;
    EXPECT_EQ(named->sections[1].name, longest);
    EXPECT_EQ(named->sections[2].name, "");

    // Section 1 stretched to the end of the file, then one byte further.
    for (uint64_t past : {0, 1}) {
        std::vector<uint8_t> stretched = ovrin::testing::stretch_section(file, 1, past);
        auto f = mgx::elf::parse(stretched, "f", error);
        ASSERT_EQ(bool(f), !past) << error;
        const uint64_t offset = sizeof(Elf64_Ehdr), size = file.size() - offset + past;
        if (f) EXPECT_EQ(f->contents(*f->find(".t")).size(), size);
        else
            EXPECT_EQ(error, "f: section 1 (.t) at byte " + std::to_string(offset) + ", " + std::to_string(size) +
                                 " bytes, lies outside the file (" + std::to_string(file.size()) + " bytes)");
    }

    // Manifest records: the last one ending at the section's end (no padding after it), or past it;
    // fewer than a record header's bytes left over are not a record.
    using ovrin::testing::manifest_record;
    std::vector<uint8_t> section = manifest_record(4, 1, std::string("abc\0", 4));
    std::vector<uint8_t> last = manifest_record(3, 2, "xyz");
    section.insert(section.end(), last.begin(), last.end());
    std::vector<ovrin::elf::ManifestRecord> records;
    ASSERT_TRUE(ovrin::elf::manifest_records(section, records));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].kind, 2u);
    EXPECT_EQ(records[1].text, "xyz");
    section.insert(section.end(), 7, 0);
    records.clear();
    EXPECT_TRUE(ovrin::elf::manifest_records(section, records));
    EXPECT_EQ(records.size(), 2u);
    section.resize(section.size() - 7);
    section[section.size() - 11] = 4; // the last record's length, one past the section
    records.clear();
    EXPECT_FALSE(ovrin::elf::manifest_records(section, records));
}

} // namespace
