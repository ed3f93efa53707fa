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
    const std::pair<std::string, uint32_t> reference[] = {{"", 0u},
                                                          {"hello world", 2794219650u},
                                                          {"helmo world", 1006697176u},
                                                          {std::string("hello\0 world", 12), 2319902537u},
                                                          {std::string("hello\0 worle", 12), 553904462u},
                                                          {long_text, 2797962408u},
                                                          {"hello w\xab", 615571198u},
                                                          {"hello wo\xab", 623474296u},
                                                          {"hello wor\xab", 4278562408u},
                                                          {"hello worl\xab", 3224633008u}};
    for (const auto &[text, value] : reference) EXPECT_EQ(published(text), value) << text.size();
}

} // namespace
