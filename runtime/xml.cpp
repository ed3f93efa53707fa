// XML documents (libxml2) queried with XPath, the tag writers, and the escaping of element text.
#include <climits>
#include <cstdio>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include "runtime/prim.h"

namespace mgx {

namespace {

void ensure_parser() {
    static const bool ready = [] {
        xmlInitParser();
        return true;
    }();
    (void)ready;
}

void quiet(void *, xmlErrorPtr) {}

// Length of the UTF-8 sequence at s for a character that XML 1.0 carries as it is (CR excluded,
// the escaping writes it as a reference) and that is not in the private-use escape range; 0 when
// the byte must be escaped.
size_t plain_char_length(const unsigned char *s, size_t n) {
    unsigned c = s[0];
    if (c < 0x80) return (c >= 0x20 || c == '\t' || c == '\n') ? 1 : 0;
    size_t len;
    uint32_t cp, min;
    if ((c & 0xE0) == 0xC0) {
        len = 2, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        len = 3, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        len = 4, cp = c & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (n < len) return 0;
    for (size_t i = 1; i < len; ++i) {
        if ((s[i] & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (s[i] & 0x3F);
    }
    bool excluded = cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE ||
                    cp == 0xFFFF || (cp >= 0xE000 && cp <= 0xE0FF);
    return excluded ? 0 : len;
}

// One XPath evaluation against a document; frees what it made.
struct Query {
    xmlXPathContextPtr ctx = nullptr;
    xmlXPathObjectPtr obj = nullptr;
    uint32_t status = 0;

    Query(void *doc, const char *path) {
        if (!doc || !path) {
            status = MGX_ENOENT;
            return;
        }
        ctx = xmlXPathNewContext(static_cast<xmlDocPtr>(doc));
        if (!ctx) {
            status = MGX_ENOMEM;
            return;
        }
        ctx->error = quiet;
        ctx->node = reinterpret_cast<xmlNodePtr>(doc); // relative paths start at the document
        obj = xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(path), ctx);
        if (!obj || obj->type != XPATH_NODESET) status = MGX_ENOENT;
    }
    ~Query() {
        xmlXPathFreeObject(obj);
        xmlXPathFreeContext(ctx);
    }
    Query(const Query &) = delete;
    Query &operator=(const Query &) = delete;

    int count() const { return status == 0 && obj->nodesetval ? obj->nodesetval->nodeNr : 0; }
};

void write_start(TextOut &out, const char *name, uint8_t state_flag) {
    if (state_flag)
        out.fmt("<%s state=\"%u\">", name ? name : "", state_flag);
    else
        out.fmt("<%s>", name ? name : "");
}

void write_end(TextOut &out, const char *name) { out.fmt("</%s>", name ? name : ""); }

} // namespace

std::string xml_escape(const char *s, size_t n) {
    std::string out;
    out.reserve(n);
    const auto *u = reinterpret_cast<const unsigned char *>(s);
    for (size_t i = 0; i < n;) {
        const char *entity = nullptr;
        switch (s[i]) {
        case '<': entity = "&lt;"; break;
        case '>': entity = "&gt;"; break;
        case '&': entity = "&amp;"; break;
        case '"': entity = "&quot;"; break;
        case '\'': entity = "&apos;"; break;
        case '\r': entity = "&#13;"; break;
        default: break;
        }
        if (entity) {
            out += entity;
            ++i;
            continue;
        }
        size_t len = plain_char_length(u + i, n - i);
        if (len) {
            out.append(s + i, len);
            i += len;
        } else {
            char ref[12];
            std::snprintf(ref, sizeof ref, "&#x%X;", 0xE000u + u[i]);
            out += ref;
            ++i;
        }
    }
    return out;
}

void xml_unescape_private(std::string &text) {
    // U+E000 + b is EE, 80 | b >> 6, 80 | (b & 3F) in UTF-8.
    size_t w = 0;
    for (size_t r = 0; r < text.size(); ++w) {
        auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
        if (at(r) == 0xEE && r + 2 < text.size() && (at(r + 1) & 0xFC) == 0x80 && (at(r + 2) & 0xC0) == 0x80) {
            text[w] = static_cast<char>((at(r + 1) & 3) << 6 | (at(r + 2) & 0x3F));
            r += 3;
        } else {
            text[w] = text[r++];
        }
    }
    text.resize(w);
}

uint32_t xml_value(void *doc, const char *path, std::string &out) {
    Query q(doc, path);
    if (q.status) return q.status;
    if (q.count() == 0) return MGX_ENOENT;
    xmlBufferPtr b = xmlBufferCreate();
    if (!b) return MGX_ENOMEM;
    uint32_t status = 0;
    if (xmlNodeBufGetContent(b, q.obj->nodesetval->nodeTab[0]) != 0) {
        status = MGX_ENOMEM;
    } else {
        out.assign(reinterpret_cast<const char *>(xmlBufferContent(b)), static_cast<size_t>(xmlBufferLength(b)));
        xml_unescape_private(out);
    }
    xmlBufferFree(b);
    return status;
}

uint32_t xml_element(char *buf, uint32_t size, const char *name, uint8_t state_flag, const char *text,
                     size_t length) {
    TextOut out(buf, size);
    write_start(out, name, state_flag);
    if (text) out.xml_text(text, length);
    write_end(out, name);
    return out.count();
}

} // namespace mgx

using namespace mgx;

extern "C" {

void *mgx_xml_document_parse(const char *text, size_t length) {
    if (!text || length > static_cast<size_t>(INT_MAX)) return nullptr;
    ensure_parser();
    // No network, no external DTD and no substitution of entities (external entities are never
    // loaded); malformed input gives no document.
    return xmlReadMemory(text, static_cast<int>(length), nullptr, nullptr,
                         XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
}

void mgx_xml_document_free(void *document) {
    if (document) xmlFreeDoc(static_cast<xmlDocPtr>(document));
}

uint32_t xml_get_element_nodecount(void *doc, const char *path, uint32_t *count) {
    Query q(doc, path);
    if (count) *count = static_cast<uint32_t>(q.count());
    return q.status;
}

// The text of the first node at path. With no buffer, an empty text answers 0 (nothing to read)
// and any other text 28, *length_out holding its length either way. A text that does not fit is
// cut to size-1 characters and answers 28.
uint32_t xml_get_element_value(void *doc, const char *path, char *buf, uint32_t size, uint32_t *length_out) {
    if (length_out) *length_out = 0;
    std::string text;
    uint32_t status = xml_value(doc, path, text);
    if (status) return status;
    uint32_t length = text.size() > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(text.size());
    if (length_out) *length_out = length;
    if (!buf || !size) return length ? MGX_ERANGE : 0;
    TextOut out(buf, size);
    out.raw(text);
    return length < size ? 0 : MGX_ERANGE;
}

uint32_t start_tag(char *buf, uint32_t size, const char *name, uint8_t state_flag) {
    TextOut out(buf, size);
    write_start(out, name, state_flag);
    return out.count();
}

uint32_t end_tag(char *buf, uint32_t size, const char *name) {
    TextOut out(buf, size);
    write_end(out, name);
    return out.count();
}

// The enumeration writers hand over ready markup ("<LITERAL/>"): copied as it is.
uint32_t xml_enum_print(char *buf, uint32_t size, const char *text, uint32_t length) {
    TextOut out(buf, size);
    if (text) out.raw(text, strnlen(text, length));
    return out.count();
}

} // extern "C"
