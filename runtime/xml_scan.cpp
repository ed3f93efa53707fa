// The reader's limits, checked by one pass over the text. libxml2 checks each attribute of an
// element against the ones before it (one element with very many attributes costs the square of
// their number), keeps a node for every element, CDATA section and entity reference it meets
// (about 120 bytes for as little as three bytes of text), and its dictionary of names slows down
// with the square of their number past some tens of thousands: so each is counted here, where it
// costs one look at each byte. Comments, processing instructions and CDATA sections are stepped
// over whole, text between tags is searched a block at a time, and lines are counted only for
// the answer.
#include "runtime/xml_scan.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unordered_set>

#include "runtime/prim.h"

namespace mgx {

namespace {

bool space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// A character of a name in a declaration (any byte of a multi-byte character among them).
bool word_char(char c) {
    auto u = static_cast<unsigned char>(c);
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '_' || u == '-' || u == '.' ||
           u == ':' || u >= 0x80;
}

struct Scan {
    const char *text;
    size_t n, i = 0;
    size_t nodes = 0, depth = 0;
    std::unordered_set<std::string_view> names;
    std::string why;

    bool fail(size_t at, const char *what, unsigned limit) {
        char reason[160];
        std::snprintf(reason, sizeof reason, what, limit);
        why = "line " + std::to_string(1 + std::count(text, text + at, '\n')) + ": " + reason;
        return false;
    }
    bool node(size_t at) {
        return ++nodes <= MGX_XML_MAX_NODES ||
               fail(at, "the document has more than %u nodes (elements, CDATA sections, entity references, declarations)",
                    MGX_XML_MAX_NODES);
    }
    bool name(size_t at, std::string_view s) {
        return !names.insert(s).second || names.size() <= MGX_XML_MAX_NAMES ||
               fail(at, "the document has more than %u distinct names", MGX_XML_MAX_NAMES);
    }
    bool starts(std::string_view s) const { return n - i >= s.size() && std::memcmp(text + i, s.data(), s.size()) == 0; }
    void skip_to(std::string_view end) {
        size_t at = std::string_view(text, n).find(end, i);
        i = at == std::string_view::npos ? n : at + end.size();
    }

    // An entity reference at at ('&'), in text or an attribute value: a node and a name unless it
    // is a character reference or one of the five predefined entities, which the parser replaces.
    bool reference(size_t at, size_t end) {
        size_t j = at + 1;
        if (j < end && text[j] == '#') return true;
        while (j < end && text[j] != ';' && !space(text[j]) && text[j] != '<' && text[j] != '&') ++j;
        std::string_view entity(text + at + 1, j - at - 1);
        for (std::string_view predefined : {"amp", "lt", "gt", "quot", "apos"})
            if (entity == predefined) return true;
        return node(at) && name(at, entity);
    }
    bool references(size_t from, size_t end) {
        for (const char *p = text + from; (p = static_cast<const char *>(std::memchr(p, '&', end - (p - text))));)
            if (!reference(static_cast<size_t>(p++ - text), end)) return false;
        return true;
    }

    // A declaration, up to its '>' outside brackets and quotes; each markup declaration in an
    // internal subset is a node, and each word outside quotes a name (the names it declares, and a
    // few keywords). Comments and processing instructions in it are stepped over whole: a quote in
    // them opens nothing.
    bool declaration() {
        int brackets = 0;
        char quote = 0;
        size_t word = 0; // where the word being read began, 0 outside one
        for (++i; i < n; ++i) {
            char c = text[i];
            if (!quote && word_char(c)) {
                if (!word) word = i;
                continue;
            }
            if (word && !name(word, {text + word, i - word})) return false;
            word = 0;
            if (!quote && (starts("<!--") || starts("<?"))) {
                skip_to(starts("<?") ? "?>" : "-->");
                --i; // the loop steps past the end marker's last character
                continue;
            }
            if (quote) {
                if (c == quote) quote = 0;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '<') {
                if (!node(i)) return false;
            } else if (c == '[' || c == ']') {
                brackets += c == '[' ? 1 : -1;
            } else if (c == '>' && brackets <= 0) {
                ++i;
                break;
            }
        }
        return true;
    }

    // A start or end tag, up to its '>' outside quotes: its name and its attributes' names (one
    // '=' outside quotes each), the references in its attribute values, and the depth it leaves.
    bool tag() {
        const size_t at = i;
        const bool end_tag = starts("</");
        size_t from = i + (end_tag ? 2 : 1), k = from;
        while (k < n && !space(text[k]) && text[k] != '/' && text[k] != '>') ++k;
        if (!end_tag && (!node(at) || !name(at, {text + from, k - from}))) return false;
        unsigned attributes = 0;
        char quote = 0;
        for (i = k; i < n; ++i) {
            char c = text[i];
            if (quote) {
                if (c == quote) quote = 0;
                else if (c == '&' && !reference(i, n)) return false;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '=') {
                if (++attributes > MGX_XML_MAX_ATTRIBUTES)
                    return fail(at, "an element has more than %u attributes", MGX_XML_MAX_ATTRIBUTES);
                size_t e = i;
                while (e > k && space(text[e - 1])) --e;
                size_t b = e;
                while (b > k && !space(text[b - 1]) && text[b - 1] != '"' && text[b - 1] != '\'') --b;
                if (!name(at, {text + b, e - b})) return false;
            } else if (c == '>') {
                ++i;
                break;
            }
        }
        if (end_tag) {
            depth -= depth > 0;
        } else if (!(i >= 2 && text[i - 2] == '/') && ++depth > MGX_XML_MAX_DEPTH) {
            return fail(at, "elements nest deeper than %u levels", MGX_XML_MAX_DEPTH);
        }
        return true;
    }

    bool run() {
        while (i < n) {
            const void *open = std::memchr(text + i, '<', n - i);
            size_t next = open ? static_cast<size_t>(static_cast<const char *>(open) - text) : n;
            if (!references(i, next)) return false;
            if ((i = next) == n) break;
            if (starts("<!--")) {
                skip_to("-->");
            } else if (starts("<![CDATA[")) {
                if (!node(i)) return false;
                skip_to("]]>");
            } else if (starts("<?")) {
                skip_to("?>");
            } else if (!(starts("<!") ? declaration() : tag())) {
                return false;
            }
        }
        return true;
    }
};

} // namespace

std::string xml_over_limits(const char *text, size_t n) {
    Scan scan{text, n, 0, 0, 0, {}, {}};
    scan.run();
    return scan.why;
}

} // namespace mgx
