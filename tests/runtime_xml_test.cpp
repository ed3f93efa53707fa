// XML documents and queries, escaping, and the document limits.
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include <libxml/xpath.h>

#include "prim_fixture.h"

namespace {

using XmlTest = RuntimeFixture;

std::string string_xml(const std::string &text, uint32_t size = 4096) {
    std::vector<char> buf(size + 1, '#');
    uint32_t n = var_string_to_xml(nullptr, 0, "s", buf.data(), text.data(), size, uint32_t(text.size()), 0, nullptr);
    EXPECT_TRUE(size ? buf[n] == '\0' : buf[0] == '#');
    return std::string(buf.data(), n);
}

// Why the document reader refuses text, or "read".
std::string read_answer(const std::string &text) {
    char why[128] = "";
    void *doc = mgx_xml_document_read(text.data(), text.size(), why, sizeof why);
    mgx_xml_document_free(doc);
    return doc ? "read" : why;
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

    // Long text is escaped a block at a time: no character is split where a block ends, whatever
    // its width and wherever it falls.
    for (const std::string ch : {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
        for (size_t lead = 0; lead < 4; ++lead) {
            std::string text(lead, 'a');
            while (text.size() < 9000) text += ch;
            EXPECT_EQ(string_xml(text, 20000), "<s>" + text + "</s>") << ch.size() << "-byte characters after " << lead;
        }
    }

    const std::string whole = string_xml("a&b\x01z");
    ASSERT_EQ(whole, "<s>a&amp;b&#xE001;z</s>");
    for (uint32_t size = 0; size <= whole.size(); ++size) { // a cut never splits an escape
        std::string got = string_xml("a&b\x01z", size);
        EXPECT_EQ(whole.compare(0, got.size(), got), 0);
        EXPECT_EQ(got.rfind('&') == std::string::npos || got.find(';', got.rfind('&')) != std::string::npos, true) << got;
    }
}

// Every path, simple or not, selects what libxml2's XPath engine selects from the document node:
// the same count, and the text of the first node with entities expanded and comments left out.
// Documents the reader made are answered through their child index; a document libxml2 parsed
// for someone else, by walking its children.
TEST_F(XmlTest, PathQueriesAnswerAsXPathDoes) {
    const char *docs[] = {
        "<r><a><b>1</b><b>2</b><c/></a><a><b>3</b></a><a/><b>top</b><a><b>4</b><b>5<!--c-->6</b></a></r>",
        "<r xmlns:p='urn:p'><p:a>ns</p:a><a>plain</a><q xmlns='urn:d'><a>default</a></q><q><a>none</a></q></r>",
        "<r>lead<!--c--><m>x<i>y</i>z</m><e>ent<i>in</i></e><e>&amp;&#65;</e>"
        "<d><![CDATA[<raw>]]></d><d><![CDATA[a]]>b</d><?pi x?><w> </w><w/><u-v.w_1>h</u-v.w_1><and>k</and>"
        "<text>t</text></r>",
        // Where a step without a position names several elements, the first one's subtree may
        // lack what the next path asks for: a reader that went on from where the last path led
        // would answer from the wrong one.
        "<r><a><x>0</x></a><a><y>2</y><x>1</x></a><b><c><d>5</d></c></b><b><c><e>6</e><d>7</d></c></b></r>",
        // Same-named siblings apart, among namespaced namesakes and others' children of their name.
        "<r><b>0</b><a><b>1</b></a><p:a xmlns:p='urn:p'><b>x</b></p:a><q><a>in</a></q><a/><a xmlns='urn:d'>d</a>"
        "<a><b>2</b><b>3</b></a><b>4</b><a><b>5</b><c/></a></r>",
        // Names that begin one another.
        "<r><ab>1</ab><abc><a>2</a></abc><a><b>3</b></a><b2>4</b2><a><bb>5</bb><b>6</b></a></r>",
    };
    // Many short paths to a line (left unformatted, which would give each its own).
    // clang-format off
    const char *paths[] = {
        "r", "/r", "r/a", "r/a/b", "/r/a/b", "r/a[2]/b", "r/a/b[2]", "r/a[4]/b[2]", "r/a[1]/b[1]", "r/a[007]/b",
        "r/a[9]", "r/b", "r/a/c", "r/a/b/x", "a", "r/q/a", "r/q[2]/a", "r/p:a", "r/m", "r/m/i", "r/e", "r/e[2]",
        "r/e/i", "r/d", "r/d[2]", "r/w", "r/w[2]", "r/u-v.w_1", "r/and", "r/text", "r/a/y", "r/a/x", "r/a[2]/y",
        "r/a[2]", "r/a[2]/x", "r/b/c/e", "r/b/c/d", "r/b[2]/c/e", "r/b[2]/c", "r/b[2]/c/d", "r/ab", "r/abc/a",
        "r/a[2]/bb", "r/b2",
        // not of the simple form: left to the XPath engine
        "//b", "r//b", "r/*", "r/a/..", ".", "r/.", "r/a[0]", "r/a[99999999999]", "r/a[last()]", "r/a[1][1]",
        "r/a[b]", "r/a[ 1]", "r /a", "r/@x", "r/a/b/text()", "r/comment()", "r/namespace::*", "r/a/b | r/b", "/",
        "", "r/", "r//", "r/[", "r/-a", "r/1a", "count(r/a)", "r/a[1.0]",
    };
    // clang-format on
    auto foreign = [](const char *text) {
        return std::unique_ptr<void, void (*)(void *)>(xmlReadMemory(text, int(std::strlen(text)), nullptr, nullptr, 0),
                                                       [](void *d) { xmlFreeDoc(static_cast<xmlDocPtr>(d)); });
    };
    for (const char *text : docs) {
        std::unique_ptr<void, void (*)(void *)> both[] = {parse_xml(text), foreign(text)};
        for (auto &doc : both) {
            ASSERT_NE(doc, nullptr) << text;
            for (const char *path : paths) {
                SCOPED_TRACE(std::string(text) + " @ " + path);
                xmlXPathContextPtr ctx = xmlXPathNewContext(static_cast<xmlDocPtr>(doc.get()));
                ctx->error = [](void *, xmlErrorPtr) {};
                ctx->node = static_cast<xmlNodePtr>(doc.get());
                xmlXPathObjectPtr obj = xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(path), ctx);
                bool nodes = obj && obj->type == XPATH_NODESET;
                uint32_t want_count = nodes && obj->nodesetval ? obj->nodesetval->nodeNr : 0;
                std::string want;
                if (want_count) {
                    xmlChar *content = xmlNodeGetContent(obj->nodesetval->nodeTab[0]);
                    want = content ? reinterpret_cast<const char *>(content) : "";
                    xmlFree(content);
                }
                xmlXPathFreeObject(obj);
                xmlXPathFreeContext(ctx);

                uint32_t count = 99, length = 99;
                EXPECT_EQ(xml_get_element_nodecount(doc.get(), path, &count), nodes ? 0u : MGX_ENOENT);
                EXPECT_EQ(count, want_count);
                char buf[64];
                uint32_t status = want_count ? 0u : MGX_ENOENT;
                EXPECT_EQ(xml_get_element_value(doc.get(), path, buf, sizeof buf, &length), status);
                if (status) continue;
                EXPECT_EQ(std::string(buf), want);
                EXPECT_EQ(length, want.size());
                EXPECT_EQ(xml_get_element_value(doc.get(), path, nullptr, 0, &length), want.empty() ? 0u : MGX_ERANGE);
                EXPECT_EQ(length, want.size());
                var_string_from_xml(h, 0, path, doc.get(), buf, sizeof buf, &err);
                EXPECT_EQ(take_err(), 0u);
                EXPECT_EQ(std::string(buf), want);
            }
        }
    }
    // Two documents of the same shape read in turns, on one thread and path by path as records
    // are: each answers from itself, whichever was read last.
    auto one = parse_xml("<r><a><b>1</b></a><a><b>2</b><c>3</c></a></r>");
    auto two = parse_xml("<r><a><b>4</b></a><a><b>5</b><c>6</c></a></r>");
    for (const char *path : {"r/a[2]/b", "r/a[2]/c", "r/a/b", "r/a[1]/b"})
        for (void *doc : {one.get(), two.get(), one.get()}) {
            char got[8] = "";
            uint32_t n = 0;
            ASSERT_EQ(xml_get_element_value(doc, path, got, sizeof got, &n), 0u) << path;
            int want = path[4] == '2' ? (path[7] == 'b' ? 2 : 3) : 1;
            EXPECT_EQ(got[0] - '0', want + (doc == two.get() ? 3 : 0)) << path;
        }
    // A document freed and another read (most likely into the same memory): the reader answers
    // from the new one.
    for (const char *text : {"<r><a><b>old</b></a></r>", "<r><a><b>new</b></a></r>"}) {
        auto again = parse_xml(text);
        char got[8];
        uint32_t n = 0;
        ASSERT_EQ(xml_get_element_value(again.get(), "r/a/b", got, sizeof got, &n), 0u);
        EXPECT_STREQ(got, text[9] == 'o' ? "old" : "new");
    }

    // A short buffer keeps a prefix of the text, with the escapes undone on the way.
    auto doc = parse_xml("<s>a&#xE001;b&#xE0FF;</s>");
    char buf[4];
    uint32_t length = 0;
    EXPECT_EQ(xml_get_element_value(nullptr, "s", buf, sizeof buf, &length), MGX_ENOENT);
    EXPECT_EQ(xml_get_element_value(doc.get(), "s", buf, 3, &length), MGX_ERANGE);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(std::string(buf), "a\x01");
    EXPECT_EQ(xml_get_element_value(doc.get(), "/s", buf, 4, &length), MGX_ERANGE);
    EXPECT_EQ(std::string(buf), std::string("a\1b"));
}

TEST_F(XmlTest, DocumentsMustBeWellFormedAndLoadNothingFromOutside) {
    for (const std::string bad : {"", "<a><b></a>", "<a>&undefined;</a>", "<a></a><b/>", "text"})
        EXPECT_EQ(parse_xml(bad), nullptr) << bad;
    EXPECT_EQ(read_answer("<a>\n  <b></a>"), "line 2, column 10: Opening and ending tag mismatch: b line 2 and a");

    // Entities other than the predefined ones are refused where a value is read (22, with the
    // place), never expanded: not a file's contents, not a small entity referred to many times.
    const std::string secret = ::testing::TempDir() + "mgx_xml_secret_" + std::to_string(getpid());
    ASSERT_TRUE(std::ofstream(secret) << "TOPSECRET");
    std::string many = "<!DOCTYPE r [<!ENTITY x \"" + std::string(100000, 'x') + "\">]><r><v>";
    for (int i = 0; i < 100000; ++i) many += "&x;";
    many += "</v><w>&lt;&#65;</w></r>";
    for (const std::string &text :
         {"<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + secret + "\">]><r><v>[&x;]</v><w>&lt;&#65;</w></r>", many}) {
        auto doc = parse_xml(text);
        ASSERT_NE(doc, nullptr);
        char value[64] = "";
        uint32_t length = 0;
        EXPECT_EQ(xml_get_element_value(doc.get(), "r/v", value, sizeof value, &length), MGX_EINVAL);
        EXPECT_EQ(std::string(value).find("TOPSECRET"), std::string::npos);
        EXPECT_EQ(xml_get_element_value(doc.get(), "r", value, sizeof value, &length), MGX_EINVAL);
        char msg[64] = "";
        u_int32 v = 0;
        u_int32_from_xml(h, 0, "r/v", doc.get(), &v, &err, msg, sizeof msg);
        EXPECT_EQ(take_err(), MGX_EINVAL);
        EXPECT_STREQ(msg, "Invalid value at r/v");
        // The predefined entities and character references were replaced by the parser.
        EXPECT_EQ(xml_get_element_value(doc.get(), "r/w", value, sizeof value, &length), 0u);
        EXPECT_STREQ(value, "<A");
    }
    std::remove(secret.c_str());
}

// The documented limits, refused with a reason before libxml2 sees the text: one element with many
// attributes costs it the square of their number, each node a hundred bytes or more however short
// its text, and its dictionary slows down past some tens of thousands of distinct names.
TEST_F(XmlTest, DocumentLimitsAreCountedBeforeParsing) {
    auto element = [](unsigned attributes) {
        std::string text = "<!-- a=1 b=2 --><r";
        for (unsigned i = 0; i < attributes; ++i) text += " a" + std::to_string(i) + "='='";
        return text + "/>";
    };
    EXPECT_EQ(read_answer(element(MGX_XML_MAX_ATTRIBUTES)), "read");
    EXPECT_EQ(read_answer("<x>\n" + element(MGX_XML_MAX_ATTRIBUTES + 1) + "</x>"),
              "line 2: an element has more than 256 attributes");
    EXPECT_EQ(read_answer(std::string("<z/>\n\0<r a='1'/>", 16)), "line 2: a NUL character, which no XML document holds");
    EXPECT_EQ(read_answer(std::string("<z/>\0\0", 6)), "read"); // a length counting terminators
    EXPECT_EQ(read_answer(std::string(MGX_XML_MAX_DOCUMENT + 1, ' ')), "the document is larger than 67108864 bytes");

    // Nodes: elements, CDATA sections, references to declared entities (in text and in attribute
    // values) and declarations count; comments, processing instructions, the predefined entities
    // and character references do not (none of them stays a node).
    std::string nodes = "<!DOCTYPE r [<!ENTITY e 'x'><!-- <a/> --><?p <b/>?>]>\n<r a='&e;&amp;'><![CDATA[<c/>]]>&e;&lt;&#65;";
    const size_t counted = 5; // the declaration, r, the reference in a, the CDATA section, the reference in text
    nodes += std::string(4 * (MGX_XML_MAX_NODES - counted), '*');
    for (size_t i = nodes.size() - 4 * (MGX_XML_MAX_NODES - counted); i < nodes.size(); i += 4) std::memcpy(&nodes[i], "<a/>", 4);
    for (int i = 0; i < 1000; ++i) nodes += "<!--<a/>--><?pi <a/>?>";
    EXPECT_EQ(read_answer(nodes + "</r>"), "read");
    EXPECT_EQ(read_answer(nodes + "\n<b></b></r>"),
              "line 3: the document has more than 1048576 nodes (elements, CDATA sections, entity references, declarations)");

    // Depth: elements that close themselves are not a level.
    auto nested = [](unsigned levels) {
        std::string text = "<e/>";
        for (unsigned i = 0; i < levels; ++i) text = "<d>" + text + "</d>";
        return text;
    };
    EXPECT_EQ(read_answer(nested(MGX_XML_MAX_DEPTH)), "read");
    EXPECT_EQ(read_answer(nested(MGX_XML_MAX_DEPTH + 1)), "line 1: elements nest deeper than 128 levels");
    EXPECT_EQ(read_answer("<r>" + std::string(MGX_XML_MAX_DEPTH, '\n') + "<a/><a/></r>"), "read");

    // Names: of elements, attributes and entities, and every word of a declaration (DOCTYPE, r,
    // ENTITY, e0 here), each counted once however often it is used.
    std::string names = "<!DOCTYPE r [<!ENTITY e0 'x y'>]><r>&e0;&e0;";
    for (unsigned i = 1; i < MGX_XML_MAX_NAMES - 4; i += 2)
        names += "<n" + std::to_string(i) + " n" + std::to_string(i + 1) + "='1'/><r/>";
    EXPECT_EQ(read_answer(names + "</r>"), "read");
    EXPECT_EQ(read_answer(names + "<r x='1'/></r>"), "line 1: the document has more than 10000 distinct names");
    std::string declared = "<!DOCTYPE r [";
    for (unsigned i = 0; i < MGX_XML_MAX_NAMES; ++i) declared += "\n<!ENTITY e" + std::to_string(i) + " 'x'>";
    EXPECT_EQ(read_answer(declared + "]><r/>"), "line 9999: the document has more than 10000 distinct names");
}

} // namespace
