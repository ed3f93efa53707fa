// The trace facility: module registration, emissions rendered with texts from a message-texts
// section, and the binary trace file with its reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "formats/trace_format.h"
#include "mgx/runtime.h"

namespace {

namespace fmt = mgx::tracefmt;

// A message table whose texts are attached from a section built in memory, as the generator
// builds the one it places in a bundle's file.
struct Table {
    mgx_trace_table_t t{};
    std::vector<uint8_t> section;
    explicit Table(const std::vector<std::string> &texts, bool attach = true) : section(fmt::texts_section(texts)) {
        std::string raw;
        for (auto &s : texts) raw += s + '\0';
        t = {MGX_TRACE_TABLE_MAGIC, static_cast<uint32_t>(texts.size()), "test", ".test_texts", fmt::texts_crc(raw), nullptr};
        EXPECT_EQ(attach ? mgx_trace_texts_attach(&t, section.data(), section.size()) : 0, 0);
    }
};

// A module registers once under its name. What the trace facility keeps is bounded, and the names
// it hands out stay put: a module name through later registrations.
TEST(Trace, ModulesRegisterOnceAndRecordsAreBoundedWithNamesThatStayValid) {
    uint16_t id = 0, again = 999;
    uint32_t state = 0, other_state = 0;
    qlog_module_init_fn("mgx_stable_name_module", &id, &state);
    EXPECT_NE(id, 0);
    EXPECT_NE(state, 0u);
    qlog_module_init_fn("mgx_stable_name_module", &again, &state); // state says done: nothing written
    EXPECT_EQ(again, 999);
    qlog_module_init_fn("mgx_stable_name_module", &again, &other_state); // same name, same id
    EXPECT_EQ(again, id);
    const char *name = mgx_trace_module_name(id);
    for (int i = 0; i < 40; ++i) {
        uint16_t other = 0;
        uint32_t fresh = 0;
        qlog_module_init_fn(("mgx_more_module_" + std::to_string(i)).c_str(), &other, &fresh);
    }
    EXPECT_STREQ(name, "mgx_stable_name_module");

    mgx_trace_clear();
    for (uint32_t i = 0; i < 5000; ++i) qlog_emit_0(nullptr, i, 7, MGX_SEV_DEBUG);
    EXPECT_EQ(mgx_trace_count(), 4096u);
    EXPECT_EQ(mgx_trace_dropped(), 904u);
    EXPECT_EQ(mgx_trace_number(0), 904u); // the oldest kept
    EXPECT_STREQ(mgx_trace_text(4095), "message 4999");
    mgx_trace_clear();
    EXPECT_EQ(mgx_trace_dropped(), 0u);

    // The dependent-bundle calls: the newest 256, oldest first.
    mgx_bundle_calls_clear();
    for (uint64_t i = 0; i < 300; ++i) aaa_proxy_bundle_handler_register(i);
    ASSERT_EQ(mgx_bundle_call_count(), 256u);
    EXPECT_STREQ(mgx_bundle_call(0), "aaa_proxy_bundle_handler_register(0x2c)");
    EXPECT_STREQ(mgx_bundle_call(255), "aaa_proxy_bundle_handler_register(0x12b)");
    mgx_bundle_calls_clear();
    EXPECT_EQ(mgx_bundle_call_count(), 0u);
}

TEST(Trace, EmissionsAreRenderedAndCaptured) {
    Table tab({"Corrupted MGX Handle", "error in x create: %s",
               "offset_jump read_len %d offset_jump_base %d _mgx_variant_jump %d",
               "varinfo is NULL variant %u requested only %u variants present"});
    mgx_trace_clear();
    qlog_emit_0(&tab.t, 0, 7, MGX_SEV_EMERG);
    qlog_emit_s(&tab.t, 1, 7, MGX_SEV_ERROR, "Cannot allocate memory");
    qlog_emit_ddd(&tab.t, 2, 8, MGX_SEV_DEBUG, 10, 6, 12);
    qlog_emit_uu(&tab.t, 3, 7, MGX_SEV_INFO, 3, 2);
    qlog_emit_s(&tab.t, 3, 7, MGX_SEV_INFO, "wrong shape"); // shown unformatted, never misread
    const std::pair<const char *, int> want[] = {{"Corrupted MGX Handle", 0},
                                                 {"error in x create: Cannot allocate memory", 3},
                                                 {"offset_jump read_len 10 offset_jump_base 6 _mgx_variant_jump 12", 7},
                                                 {"varinfo is NULL variant 3 requested only 2 variants present", 6},
                                                 {"varinfo is NULL variant %u requested only %u variants present", 6}};
    ASSERT_EQ(mgx_trace_count(), std::size(want));
    for (size_t i = 0; i < std::size(want); ++i) {
        EXPECT_STREQ(mgx_trace_text(i), want[i].first);
        EXPECT_EQ(mgx_trace_severity(i), want[i].second) << i;
    }
    // The names the trace decoder and the standard-error copy render severities with.
    std::string names;
    for (int severity = -1; severity <= 8; ++severity) names += std::string(fmt::severity_name(severity)) + " ";
    EXPECT_EQ(names, "? EMERG ALERT CRIT ERR WARNING NOTICE INFO DEBUG ? ");
}

fmt::Arg u(uint32_t v) { return fmt::Arg{'u', v, {}}; }
fmt::Arg d(int32_t v) { return fmt::Arg{'d', static_cast<uint32_t>(v), {}}; }
fmt::Arg s(const std::string &v) { return fmt::Arg{'s', 0, v}; }
fmt::Arg p(uint64_t v) { return fmt::Arg{'p', v, {}}; }

TEST(Trace, ConversionsTakeTheirArgumentsOrTheTextStandsAsItIs) {
    EXPECT_EQ(fmt::render("%d%% of %u", {d(-5), u(7)}), "-5% of 7");
    EXPECT_EQ(fmt::render("[%5s|%-3u]", {s("ab"), u(4)}), "[   ab|4  ]");
    EXPECT_EQ(fmt::render("oid %p", {p(0x1234)}), "oid 0x1234");
    EXPECT_EQ(fmt::render("%d", {u(0xFFFFFFFFu)}), "-1"); // as a signed conversion reads it
    // wrong count, wrong kind, or a conversion cut off: shown unformatted
    EXPECT_EQ(fmt::render("%u and %u", {u(1)}), "%u and %u");
    EXPECT_EQ(fmt::render("%d", {s("x")}), "%d");
    EXPECT_EQ(fmt::render("50%", {}), "50%");
    // what the texts never use, or use wrongly, is not passed on to be guessed at
    for (const std::string &text :
         std::vector<std::string>{"%*u", "%lu", "%5-3u", "%.-2u", "%n", std::string("%\0u", 3), std::string("%5\0", 3)})
        EXPECT_EQ(fmt::render(text, {u(1)}), text) << text;
    EXPECT_EQ(fmt::render("%--05u|%+.3d|%#x", {u(7), d(4), u(255)}), "7    |+004|0xff");
    // the widest each conversion makes without a width, whole
    EXPECT_EQ(fmt::render("%u|%d|%#o|%p", {u(4294967295u), d(-2147483647 - 1), u(4294967295u), p(0x123456789abcdef0u)}),
              "4294967295|-2147483648|037777777777|0x123456789abcdef0");
}

// Widths and precisions up to the limit are rendered in full; past it (as far as a printf width
// goes, or beyond) the text stands as it is. So an emission yields at most the limit per
// conversion beyond its text and arguments.
TEST(Trace, WidthsAndPrecisionsPastTheLimitLeaveTheTextAsItStands) {
    const std::string limit = std::to_string(fmt::width_limit), past = std::to_string(fmt::width_limit + 1);
    EXPECT_EQ(fmt::render("%" + limit + "u", {u(7)}), std::string(fmt::width_limit - 1, ' ') + "7");
    EXPECT_EQ(fmt::render("%." + limit + "d", {d(-7)}), "-" + std::string(fmt::width_limit - 1, '0') + "7");
    EXPECT_EQ(fmt::render("%-" + limit + "s|", {s("ab")}), "ab" + std::string(fmt::width_limit - 2, ' ') + "|");
    EXPECT_EQ(fmt::render("%." + limit + "s", {s(std::string(5000, 'y'))}), std::string(fmt::width_limit, 'y'));
    EXPECT_EQ(fmt::render("%s", {s(std::string(5000, 'y'))}), std::string(5000, 'y')); // an argument is never cut
    const std::vector<std::pair<std::string, std::vector<fmt::Arg>>> refused = {
        {"%" + past + "u", {u(1)}},
        {"%." + past + "u", {u(1)}},
        {"%2147483000u", {u(1)}},
        {"%99999999999999999999x", {u(1)}},
        {"%" + past + "p", {p(1)}},
        {"%1." + past + "s", {s("a")}},
        {"x %u %" + past + "u", {u(1), u(2)}},
        // widths that a 64-bit reading would wrap round to 5 and to below zero
        {"%18446744073709551621u", {u(1)}},
        {"%9223372036854775808u", {u(1)}},
        {"%.18446744073709551621u", {u(1)}}};
    for (const auto &[text, args] : refused) EXPECT_EQ(fmt::render(text, args), text);

    // Emitted: the capture holds the text as it stands, not 2 GB of spaces.
    Table tab({"%2147483000u", "%" + limit + "u|%" + limit + "u"});
    mgx_trace_clear();
    qlog_emit_u(&tab.t, 0, 3, MGX_SEV_INFO, 9);
    qlog_emit_uu(&tab.t, 1, 3, MGX_SEV_INFO, 1, 2);
    ASSERT_EQ(mgx_trace_count(), 2u);
    EXPECT_STREQ(mgx_trace_text(0), "%2147483000u");
    EXPECT_EQ(std::strlen(mgx_trace_text(1)), 2 * fmt::width_limit + 1);
    mgx_trace_clear();
}

// Expanded texts hold their bytes once and four more per text, however many (empty) texts a
// section numbers; a section that would pass what a reader keeps is refused from its header,
// before anything is expanded.
TEST(Trace, ExpandedTextsCostTheirBytesAndFourPerText) {
    std::vector<uint8_t> section = fmt::texts_section({"one %u", "", "three"});
    fmt::TextSet texts;
    std::string error;
    ASSERT_TRUE(fmt::expand_texts(section, 0, 0, texts, error)) << error;
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(std::make_tuple(texts[0], texts[1], texts[2]), std::make_tuple("one %u", "", "three"));
    EXPECT_EQ(texts.memory(), 14u + 3 * 4);
    // A section numbering more texts than it holds: the ones it lacks are empty.
    std::vector<uint8_t> fewer = section;
    fewer[8] = 5; // the header's count of texts
    ASSERT_TRUE(fmt::expand_texts(fewer, 0, 0, texts, error)) << error;
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_EQ(std::make_tuple(texts[2], texts[3], texts[4]), std::make_tuple("three", "", ""));

    // A section claiming a million texts in its million bytes (all empty): four bytes each.
    std::vector<uint8_t> empties = fmt::texts_section(std::vector<std::string>(1u << 20));
    ASSERT_TRUE(fmt::expand_texts(empties, 1u << 20, 0, texts, error)) << error;
    EXPECT_EQ(texts.memory(), (1u << 20) * 5u);
    EXPECT_EQ(texts[(1u << 20) - 1], "");

    // Refused by size from the header alone: the compressed bytes here are not even zlib.
    std::vector<uint8_t> claimed(section.begin(), section.begin() + fmt::texts_header_size);
    claimed.resize(claimed.size() + 100, 0xA5);
    claimed[20] = 100; // compressed length
    claimed[21] = claimed[22] = claimed[23] = 0;
    EXPECT_FALSE(fmt::expand_texts(claimed.data(), claimed.size(), 0, 0, texts, error, 13 + 3 * 4));
    EXPECT_NE(error.find("more message texts than are kept"), std::string::npos) << error;
    EXPECT_FALSE(fmt::expand_texts(claimed.data(), claimed.size(), 0, 0, texts, error, 14 + 3 * 4));
    EXPECT_EQ(error, "the message texts are damaged");
}

TEST(Trace, TextsMustBelongToTheirTable) {
    Table tab({"one %u", "two"}, false);
    mgx_trace_table_t &t = tab.t;
    const std::vector<uint8_t> &section = tab.section;
    for (void (*spoil)(mgx_trace_table_t &) :
         {+[](mgx_trace_table_t &x) { x.count = 3; }, +[](mgx_trace_table_t &x) { x.texts_crc ^= 1; },
          +[](mgx_trace_table_t &x) { x.magic = 0; }}) {
        mgx_trace_table_t other = t;
        spoil(other);
        EXPECT_EQ(mgx_trace_texts_attach(&other, section.data(), section.size()), EINVAL);
    }
    for (size_t cut : {fmt::texts_header_size - 1, section.size() - 1})
        EXPECT_EQ(mgx_trace_texts_attach(&t, section.data(), cut), EINVAL) << cut;

    // This program has no such section: the table's emissions show their numbers, and why.
    mgx_trace_clear();
    qlog_emit_u(&t, 0, 3, MGX_SEV_INFO, 9);
    ASSERT_EQ(mgx_trace_count(), 1u);
    EXPECT_STREQ(mgx_trace_text(0), "message 0");
    ASSERT_NE(mgx_trace_texts_problem(&t), nullptr);
    EXPECT_NE(std::strstr(mgx_trace_texts_problem(&t), "has no .test_texts section"), nullptr);

    ASSERT_EQ(mgx_trace_texts_attach(&t, section.data(), section.size()), 0);
    EXPECT_EQ(mgx_trace_texts_problem(&t), nullptr);
    qlog_emit_u(&t, 0, 3, MGX_SEV_INFO, 9);
    EXPECT_STREQ(mgx_trace_text(1), "one 9");
    mgx_trace_clear();
}

struct TraceFile : ::testing::Test {
    const std::string path = ::testing::TempDir() + "mgx_trace_" + std::to_string(getpid()) + ".trc";
    void TearDown() override {
        mgx_trace_file_close();
        std::remove(path.c_str());
        mgx_trace_clear();
    }
    // Reads the whole file into tables and emissions; answers the reader's error.
    std::string read() {
        std::ifstream in(path, std::ios::binary);
        const std::vector<uint8_t> file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        fmt::FileReader r(file);
        tables.clear();
        emissions.clear();
        for (uint8_t kind; (kind = r.next()) != 0;)
            kind == fmt::record_table ? tables.push_back(r.table) : emissions.push_back(r.emission);
        return r.error;
    }
    std::vector<fmt::TableRecord> tables;
    std::vector<fmt::EmissionRecord> emissions;
};

uint64_t now_ns() { return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count(); }

TEST_F(TraceFile, EveryEmissionIsRecordedWithItsTableTimeAndArguments) {
    Table a({"Corrupted MGX Handle", "error in x create: %s", "offset_jump %d %d %d", "oid %p. Error %s"});
    Table b({"only %u %u"});
    ASSERT_EQ(mgx_trace_file_open(path.c_str()), 0);
    uint64_t before = now_ns();
    qlog_emit_0(&a.t, 0, 5, MGX_SEV_EMERG);
    qlog_emit_s(&a.t, 1, 5, MGX_SEV_ERROR, std::string(5000, 'y').c_str()); // cut to 4096 bytes
    qlog_emit_ddd(&a.t, 2, 5, MGX_SEV_DEBUG, -1, 0, 7);
    qlog_emit_uu(&b.t, 0, 6, MGX_SEV_INFO, 1, 2);
    qlog_emit_ps(&a.t, 3, 5, MGX_SEV_ERROR, reinterpret_cast<void *>(0xbeef), nullptr);
    uint64_t after = now_ns();
    mgx_trace_file_close();
    qlog_emit_0(&a.t, 0, 5, MGX_SEV_EMERG); // after close: not recorded

    EXPECT_EQ(read(), "");
    char exe[PATH_MAX];
    ASSERT_NE(realpath("/proc/self/exe", exe), nullptr);
    ASSERT_EQ(tables.size(), 2u); // each table described once, before its first emission
    EXPECT_EQ(
        std::make_tuple(tables[0].index, tables[0].module, tables[0].section, tables[0].library, tables[0].count, tables[0].crc),
        std::make_tuple(uint16_t{0}, std::string("test"), std::string(".test_texts"), std::string(exe), 4u, a.t.texts_crc));
    EXPECT_EQ(tables[1].index, 1);
    ASSERT_EQ(emissions.size(), 5u);
    for (const auto &e : emissions) {
        EXPECT_EQ(e.pid, static_cast<uint32_t>(getpid()));
        EXPECT_GE(e.time_ns, before);
        EXPECT_LE(e.time_ns, after);
    }
    EXPECT_EQ(emissions[0].flags, MGX_SEV_EMERG);
    EXPECT_EQ(emissions[1].flags, MGX_SEV_ERROR);
    EXPECT_EQ(emissions[1].args.at(0).text, std::string(4096, 'y'));
    EXPECT_EQ(fmt::render("offset_jump %d %d %d", emissions[2].args), "offset_jump -1 0 7");
    EXPECT_EQ(std::make_tuple(emissions[3].table, emissions[3].number, emissions[3].module),
              std::make_tuple(uint16_t{1}, 0u, uint16_t{6}));
    EXPECT_EQ(fmt::render("oid %p. Error %s", emissions[4].args), "oid 0xbeef. Error (null)");

    // Opening the same file again appends: one header, both runs' records.
    ASSERT_EQ(mgx_trace_file_open(path.c_str()), 0);
    qlog_emit_uu(&b.t, 0, 6, MGX_SEV_INFO, 3, 4);
    mgx_trace_file_close();
    EXPECT_EQ(read(), "");
    EXPECT_EQ(tables.size() + emissions.size(), 2u + 5u + 2u); // the new run describes its table again
    EXPECT_EQ(mgx_trace_file_open((path + ".d/no/such/x.trc").c_str()), ENOENT);
}

} // namespace
