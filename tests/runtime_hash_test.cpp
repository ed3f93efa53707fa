// The byte hash, against reference values of an independent implementation.
#include "prim_fixture.h"

namespace {

using HashTest = RuntimeFixture;

uint32_t published(const std::string &s) { // the published function: seed = length
    return SuperFastHash(s.data(), static_cast<int>(s.size()), static_cast<uint32_t>(s.size()));
}

TEST_F(HashTest, MatchesReferenceValuesOfAnIndependentImplementation) {
    // Values from another project's unit tests of the published function, computed by its own
    // implementation: every length remainder, embedded NULs, and a high-bit final byte (which the
    // published code adds as a signed char).
    std::string long_text;
    for (int i = 0; i < 4096; ++i) long_text += static_cast<char>((i % 256) - 128);
    const std::pair<std::string, uint32_t> reference[] = {
        {"", 0u}, {"hello world", 2794219650u}, {"helmo world", 1006697176u},
        {std::string("hello\0 world", 12), 2319902537u}, {std::string("hello\0 worle", 12), 553904462u},
        {long_text, 2797962408u}, {"hello w\xab", 615571198u}, {"hello wo\xab", 623474296u},
        {"hello wor\xab", 4278562408u}, {"hello worl\xab", 3224633008u}};
    for (const auto &[text, value] : reference) EXPECT_EQ(published(text), value) << text.size();
}

TEST_F(HashTest, SeedIsTheInitialValueAndEmptyInputGivesItBack) {
    EXPECT_NE(SuperFastHash("hello world", 11, 0), published("hello world"));
    for (int len : {0, -5}) EXPECT_EQ(SuperFastHash("abc", len, 1234), 1234u);
    EXPECT_EQ(SuperFastHash(nullptr, 8, 1234), 1234u);
    EXPECT_NE(SuperFastHash("b", 1, SuperFastHash("a", 1, 0)), SuperFastHash("a", 1, SuperFastHash("b", 1, 0)));
    u_int32 v = 0x01020304; // a scalar hashes its bytes as they lie in memory
    EXPECT_EQ(u_int32_hash(&v, 9), SuperFastHash(reinterpret_cast<const char *>(&v), 4, 9));
    EXPECT_EQ(u_int32_hash(nullptr, 9), 9u);
}

} // namespace
