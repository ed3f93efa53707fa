// ovrin-sm demo end to end: the tool is run as a user would run it, and its report is read back.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Outcome {
    int status = -1; // exit status, or -1 when the tool did not end normally
    std::string out;
};

Outcome demo(const std::string &args) {
    Outcome r;
    const std::string command = std::string(OVRIN_SM_TOOL) + " demo " + args + " 2>/dev/null";
    FILE *p = ::popen(command.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int raw = ::pclose(p);
    if (raw != -1 && WIFEXITED(raw)) r.status = WEXITSTATUS(raw);
    return r;
}

size_t occurrences(const std::string &text, const std::string &what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

// Each of the texts is in the report.
void expect_report(const Outcome &r, const std::vector<std::string> &texts) {
    for (const std::string &text : texts) EXPECT_NE(r.out.find(text), std::string::npos) << text << " in\n" << r.out;
}

// One session: seven requests and six answers, every one intact, and the variant and state rules
// visible on the way: requests leave the tracking client at variant 2 with state bytes and land
// at variant 1 in the session manager; answers come without state bytes. The print form shows
// what was decoded, down to the bound domain names of the policy.
TEST(Demo, OneSessionArrivesIntactAcrossVariantsAndTracking) {
    Outcome r = demo("");
    ASSERT_EQ(r.status, 0) << r.out;
    expect_report(r, {"verdict: PASS, all 13 messages arrived intact",
                      "session manager: 7 received, 7 intact, 6 sent; live allocations 0",
                      "client: 7 sent, 6 received, 6 intact; live allocations 0", "dot1x-wlan-client", "mail.corp.example"});
    EXPECT_EQ(occurrences(r.out, "  intact  hash "), 13u) << r.out;
    EXPECT_EQ(occurrences(r.out, "wire v2 +state -> v1  intact"), 7u) << r.out;
    EXPECT_EQ(occurrences(r.out, "wire v0 -> v0  intact"), 6u) << r.out;
}

TEST(Demo, RendersTheMessagesAsXmlOrHex) {
    for (const auto &[args, text] : {std::pair{"--xml", "<ovrin_smd_resp_event>"}, {"--hex", "\n    02 08 "}}) {
        Outcome r = demo(args); // in hex: variant 2, state bytes follow
        ASSERT_EQ(r.status, 0) << args << ":\n" << r.out;
        expect_report(r, {text});
    }
}

TEST(Demo, RepeatedSessionsShowOnlyTheFirstMessageByMessage) {
    Outcome r = demo("--quiet --count 40");
    ASSERT_EQ(r.status, 0) << r.out;
    expect_report(r, {"40 sessions, 520 messages in ", "verdict: PASS, all 520 messages",
                      "session manager: 280 received, 280 intact, 240 sent; live allocations 0"});
    EXPECT_EQ(occurrences(r.out, "hash "), 13u);
}

// --memory-every N: both processes report their memory after every Nth session, with their
// handles holding nothing between sessions.
TEST(Demo, BothSidesReportTheirMemoryEveryNSessions) {
    Outcome r = demo("--quiet --count 4 --memory-every 2");
    ASSERT_EQ(r.status, 0) << r.out;
    for (const char *side : {"client", "session manager"})
        for (const char *after : {" after 2 sessions: rss ", " after 4 sessions: rss "})
            EXPECT_EQ(occurrences(r.out, std::string("memory: ") + side + after), 1u) << side << after << " in\n" << r.out;
    EXPECT_EQ(occurrences(r.out, "memory: "), 4u) << r.out;
    EXPECT_EQ(occurrences(r.out, ", live allocations 0\n"), 4u) << r.out;
}

// A damaged frame in either direction is reported by its receiver, the session goes on to the
// end, and the verdict and the exit status say so; nothing crashes. (Arguments the tool refuses
// are the tool tests'.)
TEST(Demo, DamagedFrameIsReportedNotFatal) {
    // Frames 1, 3 and 12 are requests (register, start, stop); 8 and 10 are answers (the policy
    // binding and the bulk query's result).
    for (int frame : {1, 3, 8, 10, 12}) {
        SCOPED_TRACE("frame " + std::to_string(frame));
        Outcome r = demo("--quiet --corrupt " + std::to_string(frame));
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_EQ(occurrences(r.out, "DAMAGED: "), 1u) << r.out;
        EXPECT_EQ(occurrences(r.out, "  intact  hash "), 12u) << r.out;
        expect_report(r, {"verdict: FAIL", "session manager: 7 received"});
    }
}

} // namespace
