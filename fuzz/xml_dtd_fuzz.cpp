// Documents that declare things: a document type with an internal subset (entities, external
// entities and DTDs, parameter entities, notations, attribute defaults), entity references in
// values and attributes, and elements with very many attributes, read into any type of the bundle.
// The XML reader must read no file and no network resource, refuse a value that refers to an
// entity other than the five predefined ones, never let an entity's replacement text into an
// instance, and take no element with more than MGX_XML_MAX_ATTRIBUTES attributes.
//
// Input: byte 0 picks an instance allocation of the read to refuse (0: none, k: the k-th); byte
// 1 the type and handle as in the XML target; byte 2 a document type declaration put before the
// document (0: none, else one of the prologues below); byte 3 something put into the document
// (low 4 bits: what, see inject(); high 4 bits: where, counted in tags); byte 4 how many
// attributes, halved, when attributes are put in; the rest is the document. The XML seeds (one
// document of every type) give the fuzzer well-formed documents to put these into; the
// dictionary (xml.dict) gives it the tokens to build its own.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <fstream>

#include "fuzz/xml_check.h"

using fuzz::die;

namespace {

// What no document may smuggle into an instance: the replacement text of the entities the
// prologues declare (ENTMARK; the same prologue with another text must give the same instance),
// and the first line of /etc/passwd, which the external ones name.

const std::string &passwd_line() {
    static const std::string line = [] {
        std::ifstream in("/etc/passwd");
        std::string first;
        std::getline(in, first);
        return first;
    }();
    return line;
}

const char *const prologues[] = {
    "<!DOCTYPE r [<!ENTITY e \"ENTMARK\">]>",
    // nested entities: ten to the seventh power copies when expanded
    "<!DOCTYPE r [<!ENTITY e0 \"ENTMARK\">"
    "<!ENTITY e1 \"&e0;&e0;&e0;&e0;&e0;&e0;&e0;&e0;&e0;&e0;\"><!ENTITY e2 \"&e1;&e1;&e1;&e1;&e1;&e1;&e1;&e1;&e1;&e1;\">"
    "<!ENTITY e3 \"&e2;&e2;&e2;&e2;&e2;&e2;&e2;&e2;&e2;&e2;\"><!ENTITY e4 \"&e3;&e3;&e3;&e3;&e3;&e3;&e3;&e3;&e3;&e3;\">"
    "<!ENTITY e5 \"&e4;&e4;&e4;&e4;&e4;&e4;&e4;&e4;&e4;&e4;\"><!ENTITY e6 \"&e5;&e5;&e5;&e5;&e5;&e5;&e5;&e5;&e5;&e5;\">"
    "<!ENTITY e \"&e6;&e6;&e6;&e6;&e6;&e6;&e6;&e6;&e6;&e6;\">]>",
    "<!DOCTYPE r [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>",
    "<!DOCTYPE r SYSTEM \"file:///etc/passwd\" [<!ENTITY e \"ENTMARK\">]>",
    "<!DOCTYPE r [<!ENTITY % p SYSTEM \"file:///etc/passwd\">%p;<!ENTITY e \"ENTMARK\">]>",
    "<!DOCTYPE r [<!ENTITY e \"<q>ENTMARK</q>\">]>",
    "<!DOCTYPE r [<!ENTITY e \"&#60;q&#62;ENTMARK&#60;/q&#62;\">]>",
    "<!DOCTYPE r [<!-- it's --><!ENTITY e \"ENTMARK\">]>",
    "<!DOCTYPE r [<?pi it's?><!ENTITY e \"ENTMARK\">]>",
    "<!DOCTYPE r [<!NOTATION n SYSTEM \"file:///etc/passwd\"><!ENTITY e SYSTEM \"file:///etc/passwd\" NDATA n>]>",
    "<!DOCTYPE r [<!ENTITY lt \"ENTMARK\"><!ENTITY amp \"ENTMARK\"><!ENTITY e \"ENTMARK\">]>",
    "<!DOCTYPE r [<!ENTITY e \"&e;\">]>",
    "<!DOCTYPE r [<!ATTLIST r z0 CDATA \"ENTMARK\"><!ENTITY e \"ENTMARK\"><!ENTITY f \"]>\">]>",
    "<!DOCTYPE r PUBLIC \"-//O//X\" \"http://127.0.0.1:9/x.dtd\" [<!ENTITY e SYSTEM \"http://127.0.0.1:9/e\">]>",
};
constexpr size_t prologue_count = sizeof prologues / sizeof prologues[0];

// The document with its prologue: after an XML declaration, when it starts with one. [begin,
// end) is where the prologue went.
std::string with_prologue(const std::string &doc, unsigned which, size_t &begin, size_t &end) {
    begin = end = 0;
    if (which % (prologue_count + 1) == 0) return doc;
    const std::string p = prologues[which % (prologue_count + 1) - 1];
    if (doc.compare(0, 5, "<?xml") == 0) {
        size_t close = doc.find("?>");
        begin = close == std::string::npos ? doc.size() : close + 2;
    }
    end = begin + p.size();
    return doc.substr(0, begin) + p + doc.substr(begin);
}

// Puts something into the document, at or in its place-th tag (the last when it has fewer).
std::string inject(std::string doc, unsigned what, unsigned place, unsigned attributes) {
    static const char *const texts[] = {"&e;",        "&x;", "&amp;&lt;&gt;&quot;&apos;", "&#65;&#x42;&#0;", "<![CDATA[&e;]]>",
                                        "<?pi it's?>"};
    what %= 9;
    if (what == 0) return doc;
    bool in_tag = what >= 7;
    // The place-th tag's '>', or for attributes the place-th start tag's end.
    size_t at = std::string::npos;
    unsigned seen = 0;
    for (size_t i = 0; i < doc.size(); ++i) {
        if (doc[i] != '<' || i + 1 >= doc.size()) continue;
        char c = doc[i + 1];
        if (in_tag && (c == '/' || c == '!' || c == '?')) continue;
        size_t gt = doc.find('>', i);
        if (gt == std::string::npos) break;
        at = in_tag && doc[gt - 1] == '/' ? gt - 1 : in_tag ? gt : gt + 1;
        if (seen++ == place) break;
    }
    if (at == std::string::npos) return doc;
    std::string piece;
    if (in_tag) {
        for (unsigned k = 0; k < attributes; ++k) piece += " z" + std::to_string(k) + (what == 7 ? "=\"v\"" : "=\"&e;\"");
    } else {
        piece = texts[what - 1];
    }
    return doc.insert(at, piece);
}

bool contains(const std::string &s, const std::string &what) { return !what.empty() && s.find(what) != std::string::npos; }

// Walks a parsed document: every element's attributes counted (namespace declarations too), and
// every text, attribute value and entity declaration looked at for what must not be there. The
// children of an entity reference are the entity's own, so they are looked at once, through the
// declaration, however often the document refers to it.
struct Walk {
    size_t most_attributes = 0;
    bool external_loaded = false;
    std::string found; // a text holding the passwd line

    void text(const xmlChar *t) {
        if (t && found.empty() && contains(reinterpret_cast<const char *>(t), passwd_line()))
            found = reinterpret_cast<const char *>(t);
    }
    void nodes(xmlNodePtr n) {
        for (; n; n = n->next) {
            switch (n->type) {
            case XML_ELEMENT_NODE: {
                size_t count = 0;
                for (xmlAttrPtr a = n->properties; a; a = a->next, ++count) nodes(a->children);
                for (xmlNsPtr ns = n->nsDef; ns; ns = ns->next) ++count;
                most_attributes = std::max(most_attributes, count);
                nodes(n->children);
                break;
            }
            case XML_TEXT_NODE:
            case XML_CDATA_SECTION_NODE:
            case XML_COMMENT_NODE:
            case XML_PI_NODE: text(n->content); break;
            case XML_DTD_NODE: declarations(n->children); break;
            default: break; // entity references among them: see above
            }
        }
    }
    void declarations(xmlNodePtr n) {
        for (; n; n = n->next) {
            if (n->type == XML_ENTITY_DECL) {
                auto *e = reinterpret_cast<xmlEntityPtr>(n);
                // An external entity's content is what was read from it, but for an unparsed
                // one it holds the notation's name.
                if (e->etype == XML_EXTERNAL_GENERAL_UNPARSED_ENTITY) {
                    if (e->children) external_loaded = true;
                } else if (e->etype == XML_EXTERNAL_GENERAL_PARSED_ENTITY || e->etype == XML_EXTERNAL_PARAMETER_ENTITY) {
                    if (e->content || e->children) external_loaded = true;
                } else {
                    text(e->content);
                }
                nodes(e->children);
            } else if (n->type == XML_ATTRIBUTE_DECL) {
                text(reinterpret_cast<xmlAttributePtr>(n)->defaultValue);
            }
        }
    }
};

Walk walk(xmlDocPtr doc) {
    Walk w;
    if (doc->extSubset) w.external_loaded = true;
    w.nodes(doc->children);
    return w;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 5) return 0;
    const fuzz::TypeOps &t = fuzz::type_picked(data[1]);
    if (!t.from_xml || !t.to_xml) return 0;
    mgx_handle_t *h = fuzz::handle(fuzz::tracked_picked(data[1]));
    std::string body = inject(std::string(reinterpret_cast<const char *>(data + 5), size - 5), data[3] & 15, data[3] >> 4,
                              2u * data[4]);
    size_t begin, end;
    std::string text = with_prologue(body, data[2], begin, end);

    char message[256];
    void *doc = mgx_xml_document_read(text.data(), text.size(), message, sizeof message);
    if (!doc) {
        // A refusal for attributes must be for an element that really has too many.
        if (std::strstr(message, "attributes")) {
            xmlDocPtr plain = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                            XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
            if (plain) {
                size_t most = walk(plain).most_attributes;
                xmlFreeDoc(plain);
                if (most <= MGX_XML_MAX_ATTRIBUTES)
                    die(std::string("refused as \"") + message + "\", but no element has more than " + std::to_string(most) +
                        " attributes");
            }
        }
        return 0;
    }
    Walk w = walk(static_cast<xmlDocPtr>(doc));
    if (w.most_attributes > MGX_XML_MAX_ATTRIBUTES)
        die("a document with an element of " + std::to_string(w.most_attributes) + " attributes was taken:\n" +
            text.substr(0, 300));
    if (w.external_loaded) die("an external entity or DTD was read:\n" + text.substr(0, 300));
    bool passwd_given = contains(text, passwd_line());
    if (!passwd_given && !w.found.empty()) die("the document holds a file's contents:\n" + w.found);

    std::string written;
    if (fuzz::read_and_write_back(t, h, doc, data[0], written) == 0) {
        if (!passwd_given && contains(written, passwd_line())) die(t, ": a file's contents reached the instance:\n" + written);
        // The same document with other replacement texts must read the same.
        std::string other = text;
        for (size_t at = begin; (at = other.find("ENTMARK", at)) < end;) other.replace(at, 7, "MKOTHER");
        if (other != text) {
            void *again = mgx_xml_document_parse(other.data(), other.size());
            if (!again) die("the document no longer parses with other entity texts:\n" + other.substr(0, 300));
            std::string written_again;
            uint32_t e = fuzz::read_and_write_back(t, h, again, 0, written_again);
            mgx_xml_document_free(again);
            if (e || written_again != written)
                die(t, ": an entity's replacement text reached the instance (error " + std::to_string(e) + "):\n" + written +
                           "\n" + written_again);
        }
    }
    mgx_xml_document_free(doc);
    return 0;
}
