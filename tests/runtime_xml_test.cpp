// XML documents and queries, the bounded text writers, escaping, and counted strings.
#include <unistd.h>

#include "prim_fixture.h"

namespace {

using XmlTest = RuntimeFixture;

std::string string_xml(const std::string &text, uint32_t size = 4096) {
    std::vector<char> buf(size + 1, '#');
    uint32_t n = var_string_to_xml(nullptr, 0, "s", buf.data(), text.data(), size, uint32_t(text.size()), 0, nullptr);
    EXPECT_TRUE(size ? buf[n] == '\0' : buf[0] == '#');
    return std::string(buf.data(), n);
}

// Writes text as a counted string, parses it, and reads it back as the bundle's string reader does.
std::string round_trip(mgx_handle_t *h, const std::string &text) {
    auto doc = parse_xml(string_xml(text));
    uint32_t length = 0, err = 0;
    EXPECT_EQ(xml_get_element_value(doc.get(), "s", nullptr, 0, &length), text.empty() ? 0u : MGX_ERANGE);
    std::vector<char> out(length + 1);
    var_string_from_xml(h, 0, "s", doc.get(), out.data(), length + 1, &err);
    EXPECT_EQ(err, 0u);
    return std::string(out.data(), length);
}

TEST_F(XmlTest, WritersAreBoundedAndReportWhatTheyWrote) {
    char buf[64];
    EXPECT_EQ(start_tag(buf, sizeof buf, "cl_hdl", 0), 8u);
    EXPECT_STREQ(buf, "<cl_hdl>");
    EXPECT_EQ(end_tag(buf, sizeof buf, "cl_hdl"), 9u);
    EXPECT_STREQ(buf, "</cl_hdl>");
    const std::string full = "<cl_hdl state=\"2\">";
    for (uint32_t size = 0; size <= full.size() + 1; ++size) {
        std::memset(buf, '#', sizeof buf);
        uint32_t n = start_tag(buf, size, "cl_hdl", 2);
        ASSERT_EQ(n, size ? std::min<uint32_t>(size - 1, uint32_t(full.size())) : 0u);
        EXPECT_EQ(size ? std::string(buf) : std::string(1, buf[0]), size ? full.substr(0, n) : "#");
    }
    EXPECT_EQ(xml_enum_print(buf, 5, "<ABC/>", 6), 4u);
    EXPECT_EQ(mgx_snprintf(h, 0, buf, 5, &err, "%s@%s", "hello", "world"), 4u);
    EXPECT_STREQ(buf, "hell");
    EXPECT_EQ(mgx_print_space(h, 0, buf, 6, 4, &err), 3u);
    uint32_t pending = 22;
    std::strcpy(buf, "kept");
    EXPECT_EQ(mgx_snprintf(h, 0, buf, sizeof buf, &pending, "x") + mgx_print_space(h, 0, buf, 4, 9, &pending), 0u);
    EXPECT_STREQ(buf, "kept");
}

TEST_F(XmlTest, EscapedTextReadsBackExactly) {
    const std::string text = "a<b & \"c\" 'd' >e\r\n\tf ]]> &amp;";
    EXPECT_EQ(string_xml(text), "<s>a&lt;b &amp; &quot;c&quot; &apos;d&apos; &gt;e&#13;\n\tf ]]&gt; &amp;amp;</s>");
    EXPECT_EQ(round_trip(h, text), text);
    EXPECT_EQ(round_trip(h, ""), "");

    // Every byte value, valid UTF-8 (kept as it is), a literal U+E041 and a cut-off sequence.
    std::string bytes;
    for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
    const std::string utf8 = "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
    bytes += utf8 + "\xee\x81\x81" + "\xe2\x82";
    const std::string xml = string_xml(bytes);
    for (const std::string &part : {std::string("&#xE000;"), std::string("&#xE0EE;&#xE081;&#xE081;"), utf8})
        EXPECT_NE(xml.find(part), std::string::npos) << part;
    EXPECT_EQ(round_trip(h, bytes), bytes);

    const std::string whole = string_xml("a&b\x01z");
    ASSERT_EQ(whole, "<s>a&amp;b&#xE001;z</s>");
    for (uint32_t size = 0; size <= whole.size(); ++size) { // a cut never splits an escape
        std::string got = string_xml("a&b\x01z", size);
        EXPECT_EQ(whole.compare(0, got.size(), got), 0);
        EXPECT_EQ(got.rfind('&') == std::string::npos || got.find(';', got.rfind('&')) != std::string::npos, true)
            << got;
    }
}

TEST_F(XmlTest, ElementValueAndNodeCountStatuses) {
    auto doc = parse_xml("<r><a>hello</a><e/><n>1</n><n>2</n><n>3</n></r>");
    ASSERT_NE(doc, nullptr);
    char buf[16];
    uint32_t length = 99, count = 99;
    EXPECT_EQ(xml_get_element_value(doc.get(), "r/a", buf, sizeof buf, &length), 0u);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(xml_get_element_value(doc.get(), "r/a", nullptr, 0, &length), MGX_ERANGE);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(xml_get_element_value(doc.get(), "r/a", buf, 5, &length), MGX_ERANGE);
    EXPECT_STREQ(buf, "hell");
    EXPECT_EQ(xml_get_element_value(doc.get(), "r/e", nullptr, 0, &length), 0u) << "nothing to read";
    EXPECT_EQ(xml_get_element_value(doc.get(), "r/n[2]", buf, sizeof buf, &length), 0u);
    EXPECT_STREQ(buf, "2");
    for (const char *path : {"r/missing", "r/[", "count(r/n)"})
        EXPECT_EQ(xml_get_element_value(doc.get(), path, buf, sizeof buf, &length), MGX_ENOENT) << path;
    EXPECT_EQ(xml_get_element_value(nullptr, "r/a", buf, sizeof buf, &length), MGX_ENOENT);
    EXPECT_EQ(xml_get_element_nodecount(doc.get(), "r/n", &count), 0u);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(xml_get_element_nodecount(doc.get(), "r/none", &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(xml_get_element_nodecount(doc.get(), "r/[", &count), 0u);
}

TEST_F(XmlTest, DocumentsMustBeWellFormedAndLoadNothingFromOutside) {
    for (const std::string bad : {"", "<a><b></a>", "<a>&undefined;</a>", "<a></a><b/>", "text"})
        EXPECT_EQ(parse_xml(bad), nullptr) << bad;
    char path[] = "/tmp/mgx_xml_secret_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "TOPSECRET", 9), 9);
    close(fd);
    auto doc = parse_xml(std::string("<!DOCTYPE r [<!ENTITY x SYSTEM \"file://") + path + "\">]><r>[&x;]</r>");
    unlink(path);
    char value[64] = "";
    uint32_t length = 0;
    if (doc) {
        EXPECT_EQ(xml_get_element_value(doc.get(), "r", value, sizeof value, &length), 0u);
    }
    EXPECT_EQ(std::string(value).find("TOPSECRET"), std::string::npos);
}

TEST_F(XmlTest, CountedStrings) {
    char buf[64];
    EXPECT_EQ(var_string_print(h, 0, buf, 2, "client_name", "abcdef", sizeof buf, 3, &err), 19u);
    EXPECT_STREQ(buf, "  client_name: abc\n");
    var_string_print(h, 0, buf, 0, "client_name", nullptr, sizeof buf, 5, &err);
    EXPECT_STREQ(buf, "client_name: \n");

    auto doc = parse_xml("<r><name>hello</name></r>");
    char out[6] = "xxxxx";
    var_string_from_xml(h, 0, "r/name", doc.get(), out, 5, &err);
    EXPECT_EQ(err, MGX_ERANGE);
    EXPECT_STREQ(out, "xxxxx") << "a text that does not fit leaves the buffer alone";
    err = 0;
    var_string_from_xml(h, 0, "r/other", doc.get(), out, sizeof out, &err);
    EXPECT_EQ(err, MGX_ENOENT);
    EXPECT_EQ(mgx_handle_last_error(h), MGX_ENOENT);
    uint32_t pending = 12;
    EXPECT_EQ(var_string_to_xml(h, 0, "s", buf, "x", sizeof buf, 1, 0, &pending), 0u);
    EXPECT_STREQ(buf, "client_name: \n");
}

} // namespace
