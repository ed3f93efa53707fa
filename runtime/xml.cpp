// XML documents (libxml2) and their path queries, the tag writers, and the escaping of element
// text. The paths the readers build (element names and positions) are answered by walking the
// tree directly; any other path goes to libxml2's XPath engine, which gives the same node sets.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include "runtime/prim.h"
#include "runtime/xml_index.h"
#include "runtime/xml_scan.h"

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
    bool excluded = cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE || cp == 0xFFFF ||
                    (cp >= 0xE000 && cp <= 0xE0FF);
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

// One step of a plain path: an element name and, when not 0, the position N of "[N]".
struct Step {
    const char *name;
    size_t length;
    uint32_t position;
    const char *end; // just past the step (its name and position) in the path
};
constexpr size_t max_steps = 32;

// Characters of the element names a plain path may hold: 2 where a name may start, 1 inside.
constexpr struct NameChars {
    uint8_t kind[256] = {};
    constexpr NameChars() {
        for (int c = 0; c < 256; ++c) {
            bool start = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
            kind[c] = start ? 2 : (c >= '0' && c <= '9') || c == '.' || c == '-';
        }
    }
} name_chars;
bool name_start(char c) { return name_chars.kind[static_cast<unsigned char>(c)] == 2; }
bool name_char(char c) { return name_chars.kind[static_cast<unsigned char>(c)] != 0; }

// The element's name is the step's name.
bool same_name(const xmlChar *name, const Step &s) {
    size_t i = 0;
    while (i < s.length && name[i] == static_cast<unsigned char>(s.name[i])) ++i; // stops at name's end
    return i == s.length && name[i] == 0;
}

// Splits a path of the plain form the readers build (an optional leading '/', then element names
// separated by single '/', each with an optional "[N]", N from 1) into steps. Any other path
// answers false and goes to the XPath engine.
bool plain_steps(const char *path, Step (&steps)[max_steps], size_t &n) {
    const char *p = path;
    if (*p == '/') ++p;
    n = 0;
    for (;;) {
        if (n == max_steps || !name_start(*p)) return false;
        Step &s = steps[n++];
        s.name = p;
        while (name_char(*p)) ++p;
        s.length = static_cast<size_t>(p - s.name);
        s.position = 0;
        if (*p == '[') {
            uint64_t v = 0;
            const char *digits = ++p;
            while (*p >= '0' && *p <= '9' && p - digits < 10) v = v * 10 + static_cast<unsigned>(*p++ - '0');
            if (p == digits || *p != ']' || v == 0 || v > INT_MAX) return false;
            s.position = static_cast<uint32_t>(v);
            ++p;
        }
        s.end = p;
        if (*p == '\0') return true;
        if (*p++ != '/') return false;
    }
}

// Calls visit on every element the steps select from the nodes starting at first and their
// siblings, in document order (the order of XPath's node set): children that are elements without
// a namespace (all an unprefixed name matches) and have the step's name, only the N-th of them
// per parent with "[N]". Stops as soon as visit answers false, and answers false then.
template <class Visit> bool walk(xmlNodePtr first, const Step *s, const Step *end, Visit &visit) {
    uint32_t seen = 0;
    for (xmlNodePtr c = first; c; c = c->next) {
        if (c->type != XML_ELEMENT_NODE || c->ns || !same_name(c->name, *s)) continue;
        if (s->position && ++seen != s->position) continue;
        if (!(s + 1 == end ? visit(c) : walk(c->children, s + 1, end, visit))) return false;
        if (s->position) return true;
    }
    return true;
}

// The same over a document's child index: each step one lookup under each element the step
// before it selected, whatever the number of siblings before the element it names.
template <class Visit> bool walk(const XmlChildIndex &index, const void *parent, const Step *s, const Step *end, Visit &visit) {
    auto named = index.children(parent, s->name, s->length);
    if (s->position) named = s->position <= named.size() ? named.subspan(s->position - 1, 1) : named.first(0);
    for (xmlNodePtr c : named)
        if (!(s + 1 == end ? visit(c) : walk(index, c, s + 1, end, visit))) return false;
    return true;
}

// The elements the last plain path read on this thread led through, so that the next path that
// begins with the same steps starts below them: a record is read one path per field, each its
// record's path and one step more, so all but the first read walk one level instead of the whole
// depth. A level is taken again only where it names one element for certain: a step with a
// position, or a step without one whose element has no sibling of its name (with such a sibling,
// a later one may hold what the next path asks for where the earlier one does not, and document
// order decides). The chain belongs to one document, known by the serial of the index its reading
// hung on it: documents are opaque to their users and not changed between their reading and their
// free, a document freed takes its index with it, and one that mgx_xml_document_read did not make
// carries none and is never kept.
constexpr size_t chain_path_size = 512;
struct Chain {
    const void *doc = nullptr;
    uint64_t serial = 0;   // of the document's index
    size_t n = 0;          // levels kept
    size_t end[max_steps]; // where each level's step ends in path
    xmlNodePtr node[max_steps];
    uint8_t certain[max_steps]; // 1 one element for certain, 0 not, 2 not yet known
    char path[chain_path_size];
};
thread_local Chain chain; // trivially destructible: nothing to run at thread exit

// The chain's address found once per read: a thread-local's address is a call in a shared
// library, which the compiler would otherwise repeat inside the loops below.
[[gnu::noinline]] Chain &this_thread_chain() { return chain; }

constexpr uintptr_t stamp_bit = uintptr_t{1} << (sizeof(uintptr_t) * 8 - 1); // no user-space pointer has it

// The child index mgx_xml_document_read hung on the document (its _private, marked by the top
// bit), or null for a document it did not make.
const XmlChildIndex *index_of(const void *doc) {
    auto p = reinterpret_cast<uintptr_t>(static_cast<const xmlDoc *>(doc)->_private);
    return p & stamp_bit ? reinterpret_cast<const XmlChildIndex *>(p & ~stamp_bit) : nullptr;
}

bool only_of_its_name(const XmlChildIndex &index, xmlNodePtr node) {
    const auto *name = reinterpret_cast<const char *>(node->name);
    return index.children(node->parent, name, std::strlen(name)).size() == 1;
}

// A path split into steps, the leading ones perhaps answered by the chain: the walk starts below
// `parent` (the document, or the last level reused) with the steps after `reused`; `last` is that
// level's element when one was reused. Documents the reader made walk their index; any other
// walks the children from `parent` on.
struct PathPlan {
    Step steps[max_steps];
    size_t n = 0, reused = 0;
    const XmlChildIndex *index = nullptr;
    xmlNodePtr parent = nullptr, last = nullptr;

    template <class Visit> void walk(Visit &visit) const {
        if (index) mgx::walk(*index, parent, steps, steps + n, visit);
        else mgx::walk(parent->children, steps, steps + n, visit);
    }
};

bool plan_walk(void *doc, const char *path, PathPlan &q) {
    if (!doc || !path) return false;
    q.parent = static_cast<xmlNodePtr>(doc);
    q.reused = 0;
    q.index = index_of(doc);
    Chain &c = this_thread_chain();
    if (q.index && c.n && c.doc == doc && c.serial == q.index->serial) {
        // The deepest level whose steps the path repeats, then back to the last certain one.
        size_t length = std::strlen(path), k = c.n;
        for (; k > 0; --k) {
            size_t end = c.end[k - 1];
            if (end <= length && (path[end] == '/' || path[end] == '\0') && std::memcmp(path, c.path, end) == 0) break;
        }
        for (size_t j = 0; j < k; ++j) {
            if (c.certain[j] == 2) c.certain[j] = only_of_its_name(*q.index, c.node[j]);
            if (!c.certain[j]) k = j;
        }
        if (k) {
            q.reused = k;
            q.last = q.parent = c.node[k - 1];
            const char *rest = path + c.end[k - 1];
            if (*rest == '\0') return true; // the whole path was the chain's
            return plain_steps(rest, q.steps, q.n) && k + q.n <= max_steps;
        }
    }
    return plain_steps(path, q.steps, q.n);
}

// After a walk that found `found` for path: the chain now leads to it.
void keep_chain(void *doc, const char *path, const PathPlan &q, xmlNodePtr found) {
    size_t length = std::strlen(path);
    Chain &c = this_thread_chain();
    if (!q.index || length >= chain_path_size) {
        c.n = 0;
        return;
    }
    // Levels before the reused ones are the chain's own: it was for this document, or none were reused.
    size_t total = q.reused + q.n;
    xmlNodePtr node = found;
    for (size_t j = q.n; j-- > 0; node = node->parent) {
        size_t level = q.reused + j;
        c.node[level] = node;
        c.end[level] = static_cast<size_t>(q.steps[j].end - path);
        c.certain[level] = q.steps[j].position ? 1 : 2;
    }
    c.doc = doc;
    c.serial = q.index->serial;
    c.n = total;
    std::memcpy(c.path, path, length + 1);
}

// How many nodes path selects: status 0, or 2 for no document or a path that is not a node set.
uint32_t node_count(void *doc, const char *path, uint32_t &count) {
    count = 0;
    PathPlan q;
    if (plan_walk(doc, path, q)) {
        if (!q.n) return count = 1, 0u; // the chain's own element, one for certain
        auto visit = [&count](xmlNodePtr) { return ++count, true; };
        q.walk(visit);
        return 0;
    }
    Query x(doc, path);
    count = static_cast<uint32_t>(x.count());
    return x.status;
}

// Hands the first node path selects to use and answers what it answers; 2 when there is none.
// The node lives only as long as the call (XPath copies some nodes into its result).
template <class Use> uint32_t with_first_node(void *doc, const char *path, Use use) {
    PathPlan q;
    if (plan_walk(doc, path, q)) {
        xmlNodePtr found = q.n ? nullptr : q.last;
        if (q.n) {
            auto visit = [&found](xmlNodePtr node) { return found = node, false; };
            q.walk(visit);
            if (found) keep_chain(doc, path, q, found);
        }
        return found ? use(found) : MGX_ENOENT;
    }
    Query x(doc, path);
    if (x.status) return x.status;
    if (x.count() == 0) return MGX_ENOENT;
    return use(x.obj->nodesetval->nodeTab[0]);
}

// Appends the text of node's subtree to out: text and CDATA, element by element, comments and
// processing instructions passed over. An entity reference is refused with 22: the parser has
// already replaced the five predefined entities and character references, and any other entity
// would be expanded here, as often as the document refers to it.
uint32_t gather_text(xmlNodePtr node, std::string &out) {
    for (xmlNodePtr c = node->children; c; c = c->next) {
        switch (c->type) {
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
            if (c->content) out.append(reinterpret_cast<const char *>(c->content));
            break;
        case XML_ELEMENT_NODE:
            if (uint32_t status = gather_text(c, out)) return status;
            break;
        case XML_ENTITY_REF_NODE: return MGX_EINVAL;
        default: break;
        }
    }
    return 0;
}

// The string value of node, escapes not yet undone: the content of an element's only text child
// read in place, else the text of the whole subtree gathered into scratch (22 for an entity
// reference in it).
uint32_t raw_text(xmlNodePtr node, std::string &scratch, std::string_view &text) {
    text = {};
    switch (node->type) {
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
    case XML_COMMENT_NODE:
    case XML_PI_NODE:
        if (node->content) text = reinterpret_cast<const char *>(node->content);
        return 0;
    case XML_NAMESPACE_DECL: { // XPath hands namespace nodes over as xmlNs, not xmlNode
        const xmlChar *href = reinterpret_cast<xmlNsPtr>(node)->href;
        if (href) text = reinterpret_cast<const char *>(href);
        return 0;
    }
    case XML_ENTITY_REF_NODE: return MGX_EINVAL;
    case XML_ELEMENT_NODE:
    case XML_ATTRIBUTE_NODE:
    case XML_DOCUMENT_NODE:
    case XML_DOCUMENT_FRAG_NODE: {
        xmlNodePtr c = node->children;
        if (c && !c->next && (c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE)) {
            if (c->content) text = reinterpret_cast<const char *>(c->content);
            return 0;
        }
        scratch.clear();
        uint32_t status = gather_text(node, scratch);
        text = scratch;
        return status;
    }
    default: return 0;
    }
}

// Undoes the private-use escapes of text (U+E000 + b is EE, 80 | b >> 6, 80 | (b & 3F) in UTF-8),
// writing at most cap bytes of the result to dst; answers the whole result's length. dst may be
// text's own storage: nothing is written ahead of what has been read.
size_t unescape_private(std::string_view text, char *dst, size_t cap) {
    const auto *s = reinterpret_cast<const unsigned char *>(text.data());
    const size_t n = text.size();
    const void *escape = n ? std::memchr(s, 0xEE, n) : nullptr;
    size_t r = escape ? static_cast<size_t>(static_cast<const unsigned char *>(escape) - s) : n;
    if (dst != text.data() && r && cap) std::memmove(dst, s, r < cap ? r : cap);
    size_t w = r;
    for (; r < n; ++w) {
        unsigned char c;
        if (s[r] == 0xEE && r + 2 < n && (s[r + 1] & 0xFC) == 0x80 && (s[r + 2] & 0xC0) == 0x80) {
            c = static_cast<unsigned char>((s[r + 1] & 3) << 6 | (s[r + 2] & 0x3F));
            r += 3;
        } else {
            c = s[r++];
        }
        if (w < cap) dst[w] = static_cast<char>(c);
    }
    return w;
}

struct FirstError {
    bool seen = false;
    int line = 0, column = 0;
    char message[256] = {};
};

void write_start(TextOut &out, const char *name, uint8_t state_flag) {
    if (state_flag) out.fmt("<%s state=\"%u\">", name ? name : "", state_flag);
    else out.fmt("<%s>", name ? name : "");
}

void write_end(TextOut &out, const char *name) { out.fmt("</%s>", name ? name : ""); }

} // namespace

void xml_escape_pieces(const char *s, size_t n, void (*piece)(void *, const char *, size_t), void *sink) {
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
            piece(sink, entity, std::strlen(entity));
            ++i;
            continue;
        }
        size_t len = plain_char_length(u + i, n - i);
        if (len) {
            piece(sink, s + i, len);
            i += len;
        } else {
            char ref[12];
            int k = std::snprintf(ref, sizeof ref, "&#x%X;", 0xE000u + u[i]);
            piece(sink, ref, static_cast<size_t>(k));
            ++i;
        }
    }
}

std::string xml_escape(const char *s, size_t n) {
    std::string out;
    out.reserve(n);
    xml_escape_pieces(
        s, n, [](void *sink, const char *p, size_t k) { static_cast<std::string *>(sink)->append(p, k); }, &out);
    return out;
}

void xml_unescape_private(std::string &text) { text.resize(unescape_private(text, text.data(), text.size())); }

uint32_t xml_value(void *doc, const char *path, std::string &out) {
    return with_first_node(doc, path, [&out](xmlNodePtr node) {
        std::string_view text;
        uint32_t status = raw_text(node, out, text);
        if (status) return status;
        if (text.data() != out.data()) out.assign(text);
        xml_unescape_private(out);
        return 0u;
    });
}

uint32_t xml_element(char *buf, uint32_t size, const char *name, uint8_t state_flag, const char *text, size_t length) {
    TextOut out(buf, size);
    write_start(out, name, state_flag);
    if (text) out.xml_text(text, length);
    write_end(out, name);
    return out.count();
}

} // namespace mgx

using namespace mgx;

extern "C" {

void *mgx_xml_document_parse(const char *text, size_t length) { return mgx_xml_document_read(text, length, nullptr, 0); }

void *mgx_xml_document_read(const char *text, size_t length, char *message, size_t message_size) {
    auto say = [&](auto... args) -> void * {
        if (message && message_size) std::snprintf(message, message_size, args...);
        return nullptr;
    };
    if (message && message_size) message[0] = '\0';
    if (!text) return say("%s", "no document");
    if (length > MGX_XML_MAX_DOCUMENT)
        return say("the document is larger than %u bytes", static_cast<unsigned>(MGX_XML_MAX_DOCUMENT));
    // No XML document holds a NUL character: libxml2 would end the document at one and take what
    // came before it, whatever follows. Trailing NULs (a length that counts the terminator) end
    // the text; anything after a NUL refuses it.
    if (const void *nul = std::memchr(text, '\0', length)) {
        size_t at = static_cast<const char *>(nul) - text;
        if (std::any_of(text + at, text + length, [](char c) { return c != '\0'; }))
            return say("line %zu: a NUL character, which no XML document holds",
                       static_cast<size_t>(1 + std::count(text, text + at, '\n')));
        length = at;
    }
    try {
        if (std::string why = xml_over_limits(text, length); !why.empty()) return say("%s", why.c_str());
    } catch (const std::bad_alloc &) {
        return say("%s", "out of memory");
    }
    ensure_parser();
    // No network, no external DTD and no substitution of entities (external entities are never
    // loaded, internal ones are refused where a value is read); malformed input gives no document.
    xmlParserCtxtPtr ctx = xmlNewParserCtxt();
    if (!ctx) return say("%s", "out of memory");
    // The first error is the one that says what is wrong; later ones follow from it.
    FirstError first;
    ctx->_private = &first;
    // Comments and processing instructions are kept out of the tree: no reader looks at them, and
    // a document of nothing else would cost a node for every few bytes.
    ctx->sax->comment = nullptr;
    ctx->sax->processingInstruction = nullptr;
    ctx->sax->serror = [](void *user, xmlErrorPtr e) {
        auto *f = static_cast<FirstError *>(static_cast<xmlParserCtxtPtr>(user)->_private);
        if (f->seen || !e || e->level < XML_ERR_ERROR) return;
        f->seen = true;
        f->line = e->line;
        f->column = e->int2;
        std::snprintf(f->message, sizeof f->message, "%s", e->message ? e->message : "not well-formed");
        for (size_t n = std::strlen(f->message); n && f->message[n - 1] == '\n';) f->message[--n] = '\0';
    };
    xmlDocPtr doc = xmlCtxtReadMemory(ctx, text, static_cast<int>(length), nullptr, nullptr,
                                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (!doc) {
        if (first.seen) say("line %d, column %d: %s", first.line, first.column, first.message);
        else say("%s", "not a well-formed XML document");
    }
    xmlFreeParserCtxt(ctx);
    if (doc) {
        // The path readers look children up in the index and may keep where they were in it.
        try {
            doc->_private = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(new XmlChildIndex(doc)) | stamp_bit);
        } catch (const std::bad_alloc &) {
            xmlFreeDoc(doc);
            return say("%s", "out of memory");
        }
    }
    return doc;
}

void mgx_xml_document_free(void *document) {
    if (!document) return;
    if (Chain &c = this_thread_chain(); c.doc == document) c.n = 0;
    delete index_of(document);
    xmlFreeDoc(static_cast<xmlDocPtr>(document));
}

uint32_t xml_get_element_nodecount(void *doc, const char *path, uint32_t *count) {
    uint32_t n = 0;
    uint32_t status = guarded(nullptr, &status, MGX_ENOMEM, [&] { return node_count(doc, path, n); });
    if (count) *count = n;
    return status;
}

// The text of the first node at path. With no buffer, an empty text answers 0 (nothing to read)
// and any other text 28, *length_out holding its length either way. A text that does not fit is
// cut to size-1 characters and answers 28.
uint32_t xml_get_element_value(void *doc, const char *path, char *buf, uint32_t size, uint32_t *length_out) {
    if (length_out) *length_out = 0;
    uint32_t ignored = 0;
    return guarded(nullptr, &ignored, MGX_ENOMEM, [&] {
        return with_first_node(doc, path, [&](xmlNodePtr node) {
            std::string scratch;
            std::string_view text;
            uint32_t status = raw_text(node, scratch, text);
            if (status) return status;
            // The text goes straight from the document into buf, escapes undone on the way.
            size_t room = buf && size ? size - 1 : 0;
            size_t full = unescape_private(text, buf, room);
            uint32_t length = full > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(full);
            if (length_out) *length_out = length;
            if (!buf || !size) return length ? MGX_ERANGE : 0u;
            buf[full < room ? full : room] = '\0';
            return length < size ? 0u : MGX_ERANGE;
        });
    });
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
