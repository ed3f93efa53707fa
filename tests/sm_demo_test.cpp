// ovrin-sm demo end to end: the tool is run as a user would run it, and its report is read back.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

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

// One session: seven requests and six answers, every one intact, and the variant and state rules
// visible on the way: requests leave the tracking client at variant 2 with state bytes and land
// at variant 1 in the session manager; answers come without state bytes.
TEST(Demo, OneSessionArrivesIntactAcrossVariantsAndTracking) {
    Outcome r = demo("");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("verdict: PASS, all 13 messages arrived intact"), std::string::npos) << r.out;
    EXPECT_EQ(occurrences(r.out, "  intact  hash "), 13u) << r.out;
    EXPECT_EQ(occurrences(r.out, "wire v2 +state -> v1  intact"), 7u) << r.out;
    EXPECT_EQ(occurrences(r.out, "wire v0 -> v0  intact"), 6u) << r.out;
    EXPECT_NE(r.out.find("session manager: 7 received, 7 intact, 6 sent; live allocations 0"), std::string::npos);
    EXPECT_NE(r.out.find("client: 7 sent, 6 received, 6 intact; live allocations 0"), std::string::npos);
    // The print form shows what was decoded, down to the bound domain names of the policy.
    EXPECT_NE(r.out.find("dot1x-wlan-client"), std::string::npos);
    EXPECT_NE(r.out.find("mail.corp.example"), std::string::npos);
    EXPECT_EQ(r.out.find("DAMAGED"), std::string::npos);
}

TEST(Demo, RenderingsAndRepeatedSessions) {
    Outcome xml = demo("--xml");
    ASSERT_EQ(xml.status, 0) << xml.out;
    EXPECT_NE(xml.out.find("<ovrin_smd_in_event>"), std::string::npos) << xml.out;
    EXPECT_NE(xml.out.find("<ovrin_smd_resp_event>"), std::string::npos);

    Outcome hex = demo("--hex");
    ASSERT_EQ(hex.status, 0) << hex.out;
    EXPECT_NE(hex.out.find("\n    02 08 "), std::string::npos) << hex.out; // variant 2, state bytes follow

    Outcome many = demo("--quiet --count 40");
    ASSERT_EQ(many.status, 0) << many.out;
    EXPECT_NE(many.out.find("40 sessions, 520 messages in "), std::string::npos) << many.out;
    EXPECT_NE(many.out.find("messages per second"), std::string::npos);
    EXPECT_NE(many.out.find("verdict: PASS, all 520 messages"), std::string::npos);
    EXPECT_NE(many.out.find("session manager: 280 received, 280 intact, 240 sent; live allocations 0"),
              std::string::npos);
    EXPECT_EQ(occurrences(many.out, "hash "), 13u) << "only the first session is shown message by message";
}

// A damaged frame in either direction is reported by its receiver, the session goes on to the
// end, and the verdict and the exit status say so; nothing crashes.
TEST(Demo, DamagedFrameIsReportedNotFatal) {
    // Frames 1, 3 and 12 are requests (register, start, stop); 8 and 10 are answers (the policy
    // binding and the bulk query's result).
    for (int frame : {1, 3, 8, 10, 12}) {
        SCOPED_TRACE("frame " + std::to_string(frame));
        Outcome r = demo("--quiet --corrupt " + std::to_string(frame));
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_EQ(occurrences(r.out, "DAMAGED: "), 1u) << r.out;
        EXPECT_EQ(occurrences(r.out, "  intact  hash "), 12u) << r.out;
        EXPECT_NE(r.out.find("verdict: FAIL"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("session manager: 7 received"), std::string::npos) << r.out;
    }
}

TEST(Demo, RefusesUnknownArguments) {
    EXPECT_EQ(demo("--count 0").status, 2);
    EXPECT_EQ(demo("--count").status, 2);
    EXPECT_EQ(demo("--loud").status, 2);
}

} // namespace
