// "ovrin-sm trace" on hostile traces: what it holds and what it reads may grow with the trace and
// the library files it names, never with how many records name one file or one section. Judged by
// counts (the counting heap's peak, the bytes the process reads), and by running the tool in a
// bounded address space; never by time.
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "formats/trace_format.h"
#include "tests/elf_write.h"
#include "tests/sm_heap.h"

namespace {

namespace fmt = mgx::tracefmt;
namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// A library file holding the given sections (PROGBITS) and their name table, nothing else.
Bytes elf_file(const std::vector<std::pair<std::string, Bytes>> &sections) {
    std::vector<ovrin::testing::ElfSection> out;
    for (const auto &[name, bytes] : sections) out.push_back({name, SHT_PROGBITS, bytes});
    return ovrin::testing::elf_file(out);
}

// A texts section claiming a million texts with a checksum no table below states, and `size` bytes
// of compressed texts that are never looked at.
Bytes unmatched_section(uint32_t size) {
    std::string head(fmt::texts_magic, sizeof fmt::texts_magic);
    for (uint32_t v : {1u, 1u << 20, 0x12345678u, size}) fmt::put(head, v, 4);
    Bytes section(head.begin(), head.end());
    section.resize(head.size() + size);
    return section;
}

uint32_t crc_of(const std::vector<std::string> &texts) {
    std::string raw;
    for (const std::string &t : texts) raw += t + '\0';
    return fmt::texts_crc(raw);
}

// A trace: for each table, its record and then one emission (message 0, the given arguments).
std::string trace_of(const std::vector<fmt::TableRecord> &tables, const std::vector<fmt::Arg> &args = {}) {
    std::string out = fmt::file_header();
    for (const fmt::TableRecord &t : tables) {
        fmt::EmissionRecord e;
        e.table = t.index;
        e.flags = 6u << 24;
        e.args = args;
        out += fmt::table_record(t) + fmt::emission_record(e);
    }
    return out;
}

// What the process has read so far, from any file; reading the count itself adds a few bytes more
// or less as its digits grow, within read_slack.
constexpr uint64_t read_slack = 4096;
uint64_t bytes_read() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value)
        if (key == "rchar:") return value;
    return 0;
}

struct Outcome {
    int status = -1;
    size_t peak = 0;   // the most C++ heap held at once
    uint64_t read = 0; // bytes read
    std::string out, err;
};

struct TraceTool : ::testing::Test {
    std::string dir;
    void SetUp() override {
        dir = ::testing::TempDir() + "ovrin-trace-XXXXXX";
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
    }
    void TearDown() override { fs::remove_all(dir); }

    std::string write(const std::string &name, const void *bytes, size_t n) {
        std::string path = dir + "/" + name;
        std::ofstream(path, std::ios::binary).write(static_cast<const char *>(bytes), static_cast<std::streamsize>(n));
        return path;
    }
    std::string write(const std::string &name, const Bytes &b) { return write(name, b.data(), b.size()); }
    std::string write(const std::string &name, const std::string &s) { return write(name, s.data(), s.size()); }

    // The command run in this process, its output kept in files.
    Outcome trace(std::vector<std::string> args) {
        args.insert(args.begin(), "trace");
        std::vector<char *> argv;
        for (std::string &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::fflush(nullptr);
        int saved[2] = {dup(1), dup(2)};
        for (int fd : {1, 2}) {
            int to = open((dir + "/fd" + std::to_string(fd)).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(to, fd);
            close(to);
        }
        Outcome r;
        uint64_t before = bytes_read();
        heap::start();
        r.status = ovrin_cmd_trace(static_cast<int>(args.size()), argv.data());
        r.peak = heap::peak();
        r.read = bytes_read() - before;
        std::fflush(nullptr);
        for (int fd : {1, 2}) {
            dup2(saved[fd - 1], fd);
            close(saved[fd - 1]);
            std::ifstream in(dir + "/fd" + std::to_string(fd), std::ios::binary);
            (fd == 1 ? r.out : r.err).assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        return r;
    }
};

size_t lines(const std::string &s) { return static_cast<size_t>(std::count(s.begin(), s.end(), '\n')); }

// A library of a million short texts (16 MiB expanded from 32 KiB): every spelling of its path
// reaches the one file, read once and expanded once.
TEST_F(TraceTool, EachLibraryFileIsReadAndExpandedOnceWhateverItsPathsSpelling) {
    std::vector<std::string> texts(1u << 20, std::string(15, 'a'));
    const std::string library = write("lib.so", elf_file({{".t", fmt::texts_section(texts)}}));
    const uint64_t library_size = fs::file_size(library);
    const uint32_t crc = crc_of(texts);
    auto spellings = [&](unsigned n) {
        std::vector<fmt::TableRecord> tables;
        for (unsigned i = 0; i < n; ++i) {
            std::string path = dir + std::string(i % 2 ? 1 : i + 1, '/');
            for (unsigned k = 0; i % 2 && k < i; ++k) path += "./";
            tables.push_back({static_cast<uint16_t>(i), 1u << 20, crc, "m", ".t", path + "lib.so"});
        }
        return write("t" + std::to_string(n) + ".trc", trace_of(tables));
    };
    std::string one = spellings(1), forty = spellings(40);
    Outcome a = trace({one}), b = trace({forty});
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_EQ(lines(b.out), 40u);
    EXPECT_NE(b.out.find("INFO m #0: aaaaaaaaaaaaaaa\n"), std::string::npos) << b.out.substr(0, 200);
    EXPECT_EQ(b.err, "");
    EXPECT_LE(b.peak, a.peak + (64u << 10)) << "one spelling " << a.peak << ", forty " << b.peak;
    EXPECT_LT(b.peak, size_t{40} << 20); // the texts and their positions, and no second copy
    const uint64_t trace_growth = fs::file_size(forty) - fs::file_size(one);
    EXPECT_LE(b.read, a.read + trace_growth + read_slack) << "the library is " << library_size << " bytes";
}

// The texts a run expands stay within what the command keeps (128 MiB) however many tables ask
// for them: each table of this trace expands 20 MiB (16 MiB of texts, four bytes per text), six
// fit, and every later one shows message numbers and says why.
TEST_F(TraceTool, ExpandedTextsStayWithinWhatTheCommandKeeps) {
    std::vector<std::string> texts(1u << 20, std::string(15, 'a'));
    const Bytes section = fmt::texts_section(texts);
    const std::string library = write("lib.so", elf_file({{".t0", section}, {".t1", section}, {".t2", section}}));
    const uint32_t crc = crc_of(texts);
    std::vector<fmt::TableRecord> tables;
    for (const char *name : {".t0", ".t1", ".t2"})
        for (uint32_t count : {0u, 1u << 20})
            for (uint32_t sum : {0u, crc}) // each a different table, so expanded apart
                tables.push_back({static_cast<uint16_t>(tables.size()), count, sum, "m", name, library});
    Outcome r = trace({write("kept.trc", trace_of(tables))});
    EXPECT_EQ(lines(r.out), 12u);
    size_t shown = 0, refused = 0;
    for (size_t at = 0; (at = r.out.find("#0: aaaaaaaaaaaaaaa\n", at)) != std::string::npos; ++at) ++shown;
    for (size_t at = 0; (at = r.err.find("more message texts than are kept", at)) != std::string::npos; ++at) ++refused;
    EXPECT_EQ(shown, 6u) << r.out.substr(0, 300);
    EXPECT_EQ(refused, 6u) << r.err.substr(0, 300);
    EXPECT_LT(r.peak, size_t{136} << 20);
}

// Headers of type SHT_NULL are not checked against the file when it is read, so one may claim
// bytes past the file's end: named as a texts section and starting at real texts, it still gives
// nothing (no byte past the file is looked at).
TEST_F(TraceTool, ASectionReachingPastTheFilesEndGivesNoTexts) {
    const std::vector<std::string> texts = {"hello %u"};
    Bytes file = elf_file({{".t", fmt::texts_section(texts)}});
    Elf64_Ehdr eh;
    std::memcpy(&eh, file.data(), sizeof eh);
    Elf64_Shdr sh;
    uint8_t *at = file.data() + eh.e_shoff + sizeof sh; // the first after the null header
    std::memcpy(&sh, at, sizeof sh);
    sh.sh_type = SHT_NULL;
    sh.sh_size = file.size() - sh.sh_offset + 32; // no larger than the file, past its end from where it starts
    std::memcpy(at, &sh, sizeof sh);
    const std::string library = write("short.so", file);
    Outcome r = trace({write("short.trc", trace_of({{0, 1, crc_of(texts), "m", ".t", library}}, {fmt::Arg{'u', 7, {}}}))});
    EXPECT_EQ(r.out.find("hello 7"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("has no message texts section .t"), std::string::npos) << r.err;
}

// Table records whose checksum the section's header already refuses cost nothing per byte of the
// section, named by path or given with --library; each still says why its texts are not shown.
TEST_F(TraceTool, RecordsTheSectionCannotMatchCostNothingPerSectionByte) {
    constexpr uint32_t section_size = 16u << 20;
    const std::string library = write("big.so", elf_file({{".t", unmatched_section(section_size)}}));
    auto records = [&](unsigned n) {
        std::vector<fmt::TableRecord> tables;
        for (unsigned i = 0; i < n; ++i) tables.push_back({0, 1, 1000 + i, "m", ".t", library});
        return write("r" + std::to_string(n) + ".trc", trace_of(tables));
    };
    std::string one = records(1), many = records(64);
    const uint64_t trace_growth = fs::file_size(many) - fs::file_size(one);
    for (bool given : {false, true}) {
        auto with = [&](const std::string &t) {
            return given ? std::vector<std::string>{t, "--library", library} : std::vector<std::string>{t};
        };
        Outcome a = trace(with(one)), b = trace(with(many));
        EXPECT_EQ(b.status, 0) << b.err;
        EXPECT_EQ(lines(b.out), 64u);
        EXPECT_EQ(lines(b.err), 64u); // one warning per checksum
        EXPECT_NE(b.err.find("do not belong to this code"), std::string::npos) << b.err.substr(0, 200);
        EXPECT_LE(b.read, a.read + trace_growth + read_slack) << given;
        EXPECT_LE(b.peak, a.peak + (64u << 10)) << given;
        EXPECT_LT(b.peak, size_t{section_size} + (4u << 20)) << given; // the file once, no copy beside it
    }
}

// A text asking for a width past the limit shows as it stands: one emission costs what its text
// and arguments do.
TEST_F(TraceTool, AWidthPastTheLimitShowsTheTextAsItStands) {
    std::vector<std::string> texts = {"%2147483000u", "[%4096u]"};
    const std::string library = write("w.so", elf_file({{".t", fmt::texts_section(texts)}}));
    std::string file = fmt::file_header() + fmt::table_record({0, 2, crc_of(texts), "m", ".t", library});
    for (uint32_t number : {0u, 1u}) {
        fmt::EmissionRecord e;
        e.number = number;
        e.args = {fmt::Arg{'u', 7, {}}};
        file += fmt::emission_record(e);
    }
    Outcome r = trace({write("w.trc", file)});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("#0: %2147483000u\n"), std::string::npos) << r.out.substr(0, 200);
    EXPECT_NE(r.out.find("#1: [" + std::string(4095, ' ') + "7]\n"), std::string::npos);
    EXPECT_LT(r.out.size(), 4096u + 200u);
}

// The reproducers through the built tool in an address space of 100 MiB (the tool's
// libraries take about 40 of it): none may fail for want of memory. Skipped under sanitizers,
// which reserve far more address space up front.
TEST_F(TraceTool, ReproducersRunInAHundredMiB) {
    if (OVRIN_TOOL_MEMORY_KIB == 0) GTEST_SKIP() << "an instrumented build";
    std::vector<std::string> texts(1u << 20, std::string(15, 'a'));
    const std::string library = write("lib.so", elf_file({{".t", fmt::texts_section(texts)}}));
    std::vector<fmt::TableRecord> spellings;
    const uint32_t crc = crc_of(texts);
    for (unsigned i = 0; i < 40; ++i)
        spellings.push_back({static_cast<uint16_t>(i), 1u << 20, crc, "m", ".t", dir + std::string(i + 1, '/') + "lib.so"});
    const std::string big = write("big.so", elf_file({{".t", unmatched_section(32u << 20)}}));
    std::vector<fmt::TableRecord> checksums;
    for (unsigned i = 0; i < 80; ++i) checksums.push_back({0, 1, 1000 + i, "m", ".t", big});
    std::vector<std::string> wide = {"%2147483000u"};
    const std::string wide_library = write("w.so", elf_file({{".t", fmt::texts_section(wide)}}));
    for (const std::string &trace :
         {write("spellings.trc", trace_of(spellings)), write("checksums.trc", trace_of(checksums)),
          write("wide.trc", trace_of({{0, 1, crc_of(wide), "m", ".t", wide_library}}, {fmt::Arg{'u', 7, {}}}))}) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            rlimit limit{rlim_t{OVRIN_TOOL_MEMORY_KIB} << 10, rlim_t{OVRIN_TOOL_MEMORY_KIB} << 10};
            setrlimit(RLIMIT_AS, &limit);
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            execl(OVRIN_SM_TOOL, OVRIN_SM_TOOL, "trace", trace.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << trace << ": status " << status;
    }
}

} // namespace
