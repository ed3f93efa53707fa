// The strict document check of encode, walked over the type tables.
#include "cli/xml_check.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "cli/tables.h"

namespace ovrin::cli {

namespace {

using Doc = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

// The same reading options as the runtime's reader: no network, no entity substitution.
Doc parse(const char *text, size_t length) {
    return Doc(xmlReadMemory(text, static_cast<int>(length), nullptr, nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
               xmlFreeDoc);
}

std::string name_of(const xmlNode *n) { return reinterpret_cast<const char *>(n->name); }

std::string content_of(const xmlNode *n) {
    xmlChar *c = xmlNodeGetContent(n);
    std::string s = c ? reinterpret_cast<const char *>(c) : "";
    xmlFree(c);
    return s;
}

std::vector<const xmlNode *> elements_of(const xmlNode *n) {
    std::vector<const xmlNode *> out;
    for (const xmlNode *c = n->children; c; c = c->next)
        if (c->type == XML_ELEMENT_NODE) out.push_back(c);
    return out;
}

bool blank(const std::string &s) {
    for (unsigned char c : s)
        if (!std::isspace(c)) return false;
    return true;
}

// A whole decimal number, as the readers take it (blanks around it allowed).
bool decimal(const std::string &text, uint64_t &out) {
    size_t a = text.find_first_not_of(" \t\r\n"), b = text.find_last_not_of(" \t\r\n");
    if (a == std::string::npos) return false;
    uint64_t v = 0;
    for (size_t i = a; i <= b; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i])) || v > (UINT64_MAX - 9) / 10) return false;
        v = v * 10 + static_cast<unsigned>(text[i] - '0');
    }
    out = v;
    return true;
}

// "[k]", the 1-based place of an array element or attr in a path. Built by appending: GCC 12 at
// -O3 misreads `"[" + std::to_string(k) + "]"` as an overlapping copy (-Wrestrict).
std::string place(size_t k) {
    std::string s(1, '[');
    s.append(std::to_string(k)).push_back(']');
    return s;
}

std::string member_element(const Type &u, const Field &m) { return std::string(u.fields[u.discriminator].name) + "-" + m.name; }

std::string element_name(const Type &t, const Field &f) { return f.shape == Shape::member ? member_element(t, f) : f.name; }

class Checker {
public:
    std::vector<std::string> problems;

    void composite(const Type &t, const xmlNode *node, const std::string &path);
    void enumeration(const Type &e, const xmlNode *node, const std::string &path);

private:
    void say(const std::string &path, const std::string &what) { problems.push_back(path + ": " + what); }
    void no_text(const xmlNode *node, const std::string &path, const char *where);
    void value(const Field &f, const xmlNode *node, const std::string &path);
    void attributes(const xmlNode *node, const std::string &path);
    void counted(const Type &t, const Field &f, const std::vector<std::vector<const xmlNode *>> &given,
                 const std::string &path);
    void fresh(const Type &t, const std::string &path);
    const Literal *literal_of(const Type &e, const xmlNode *node);
};

void Checker::no_text(const xmlNode *node, const std::string &path, const char *where) {
    for (const xmlNode *c = node->children; c; c = c->next) {
        if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && !blank(content_of(c))) {
            std::string text = content_of(c);
            size_t a = text.find_first_not_of(" \t\r\n");
            text = text.substr(a, 20);
            say(path, "text '" + text + "' where " + where + " belong");
            return;
        }
        if (c->type == XML_ENTITY_REF_NODE) {
            say(path, std::string("an entity reference where ") + where + " belong");
            return;
        }
    }
}

// One element of field f (a member, an array element or a scalar) at path.
void Checker::value(const Field &f, const xmlNode *node, const std::string &path) {
    switch (f.kind) {
    case Kind::record: composite(*f.type, node, path); return;
    case Kind::enumeration: enumeration(*f.type, node, path); return;
    case Kind::aaa_tlv: attributes(node, path); return;
    default:
        if (!elements_of(node).empty())
            say(path + "/" + name_of(elements_of(node)[0]), "an element inside " + std::string(f.name) +
                                                                 ", which holds a value, not members");
        return;
    }
}

// An attribute list: <attr><type>N</type><value>HEX</value></attr>, any number of them.
void Checker::attributes(const xmlNode *node, const std::string &path) {
    no_text(node, path, "only attr elements");
    unsigned k = 0;
    for (const xmlNode *a : elements_of(node)) {
        std::string apath = path + "/" + name_of(a);
        if (name_of(a) != "attr") {
            say(apath, "an attribute list holds attr elements only");
            continue;
        }
        apath += place(++k);
        no_text(a, apath, "only type and value elements");
        unsigned types = 0, values = 0;
        for (const xmlNode *c : elements_of(a)) {
            std::string n = name_of(c);
            if (n == "type") ++types;
            else if (n == "value") ++values;
            else say(apath + "/" + n, "an attr holds a type and a value only");
        }
        if (types > 1 || values > 1) say(apath, "type or value given more than once; only the first is read");
    }
}

const Literal *Checker::literal_of(const Type &e, const xmlNode *node) {
    std::vector<const xmlNode *> given = elements_of(node);
    if (given.size() != 1) return nullptr;
    for (uint16_t i = 0; i < e.n_literals; ++i)
        if (name_of(given[0]) == e.literals[i].name) return &e.literals[i];
    return nullptr;
}

void Checker::enumeration(const Type &e, const xmlNode *node, const std::string &path) {
    no_text(node, path, "only a literal element (<LITERAL/>) belongs");
    std::vector<const xmlNode *> given = elements_of(node);
    if (given.empty()) {
        say(path, std::string("no literal given; one of ") + e.name + "'s literals, such as <" + e.literals[0].name +
                      "/>, is expected");
        return;
    }
    if (given.size() > 1) say(path, std::to_string(given.size()) + " literals given; an enumeration holds one");
    const std::string lit = name_of(given[0]);
    if (literal_of(e, node) || given.size() > 1) return;
    std::vector<std::string> names;
    for (uint16_t i = 0; i < e.n_literals; ++i) names.push_back(e.literals[i].name);
    std::string hint = closest(lit, names);
    if (!hint.empty()) {
        hint = "; did you mean " + hint + "?";
    } else if (names.size() <= 6) {
        hint = "; the literals are";
        for (const std::string &n : names) hint += " " + n;
    } else {
        hint = "; 'ovrin-sm types " + std::string(e.name) + "' lists them";
    }
    say(path, lit + " is not a literal of " + e.name + hint);
}

// The length of a string and the count of a variable array must agree with what follows them.
void Checker::counted(const Type &t, const Field &f, const std::vector<std::vector<const xmlNode *>> &given,
                      const std::string &path) {
    const Field &c = t.fields[f.companion];
    const auto &items = given[static_cast<size_t>(&f - t.fields)];
    const auto &counts = given[static_cast<size_t>(&c - t.fields)];
    std::string cpath = path + "/" + c.name;
    uint64_t said = 0;
    bool has_count = !counts.empty() && decimal(content_of(counts[0]), said);
    if (f.shape == Shape::var_string) {
        if (!has_count) return; // the length follows the text
        if (items.empty()) {
            if (said != 0) say(cpath, "says " + std::to_string(said) + ", but " + f.name + " is not given");
            return;
        }
        size_t bytes = content_of(items[0]).size();
        if (said != bytes)
            say(cpath, "says " + std::to_string(said) + ", but " + f.name + " holds " + std::to_string(bytes) +
                           (bytes == 1 ? " byte" : " bytes"));
        return;
    }
    if (counts.empty()) {
        if (!items.empty())
            say(path + "/" + f.name, std::to_string(items.size()) + " given, but no " + c.name +
                                         " counts them, so none would be read");
        return;
    }
    if (has_count && said != items.size())
        say(cpath, "says " + std::to_string(said) + ", but " + std::to_string(items.size()) + " " + f.name +
                       (items.size() == 1 ? " element is" : " elements are") + " given");
}

// A record or union left out of the document keeps a fresh instance's values. Where a fresh union
// selects a member, that member's slot stays empty and the message cannot be encoded.
void Checker::fresh(const Type &t, const std::string &path) {
    if (t.kind == TypeKind::union_) {
        const Field &d = t.fields[t.discriminator];
        const Literal *lit = fresh_literal(*d.type);
        if (const Field *m = member_selected_by(t, lit)) {
            std::string element = path.substr(path.rfind('/') + 1);
            size_t bracket = element.find('[');
            say(path, std::string("left out, but a fresh ") + t.name + "'s " + d.name + " (" + lit->name +
                          ") selects " + member_element(t, *m) + ", which a message must carry; give <" +
                          element.substr(0, bracket) + "/> at least");
            return;
        }
    }
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (f.kind != Kind::record || (f.shape != Shape::scalar && f.shape != Shape::fixed_array)) continue;
        for (uint16_t k = 0; k < f.count; ++k)
            fresh(*f.type, path + "/" + f.name + (f.shape == Shape::fixed_array ? place(k + 1) : std::string()));
    }
}

void Checker::composite(const Type &t, const xmlNode *node, const std::string &path) {
    no_text(node, path, "only member elements");
    std::vector<std::vector<const xmlNode *>> given(t.n_fields);
    std::vector<std::string> names;
    for (uint16_t i = 0; i < t.n_fields; ++i) names.push_back(element_name(t, t.fields[i]));
    std::vector<std::string> unknown; // each reported once
    for (const xmlNode *c : elements_of(node)) {
        std::string n = name_of(c);
        size_t i = 0;
        while (i < names.size() && names[i] != n) ++i;
        if (i < names.size()) {
            given[i].push_back(c);
            continue;
        }
        if (std::find(unknown.begin(), unknown.end(), n) != unknown.end()) continue;
        unknown.push_back(n);
        std::string hint = closest(n, names);
        say(path + "/" + n, std::string(t.name) + " has no member " + n + (hint.empty() ? "" : "; did you mean " + hint + "?"));
    }
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        const auto &items = given[i];
        std::string fpath = path + "/" + names[i];
        bool array = f.shape == Shape::fixed_array || f.shape == Shape::var_array;
        if (!array && items.size() > 1)
            say(fpath, "given " + std::to_string(items.size()) + " times; it is not an array, and only the first is read");
        if (f.shape == Shape::fixed_array && items.size() > f.count)
            say(fpath, "given " + std::to_string(items.size()) + " times; it holds " + std::to_string(f.count) +
                           ", and the rest are not read");
        for (size_t k = 0; k < items.size(); ++k) {
            if (!array && k > 0) break;
            value(f, items[k], array ? fpath + place(k + 1) : fpath);
        }
        if (f.kind == Kind::record && f.shape == Shape::scalar && items.empty()) fresh(*f.type, fpath);
        if (f.kind == Kind::record && f.shape == Shape::fixed_array)
            for (size_t k = items.size(); k < f.count; ++k) fresh(*f.type, fpath + place(k + 1));
        if (f.shape == Shape::var_string || f.shape == Shape::var_array) counted(t, f, given, path);
    }
    if (t.kind != TypeKind::union_) return;
    // The member given must be the one the discriminator selects (as given, or as a fresh one holds it).
    const Field &d = t.fields[t.discriminator];
    const auto &disc = given[static_cast<size_t>(t.discriminator)];
    const Literal *lit = disc.empty() ? fresh_literal(*d.type) : literal_of(*d.type, disc[0]);
    if (!disc.empty() && !lit) return; // already reported
    const Field *selected = member_selected_by(t, lit);
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &m = t.fields[i];
        if (m.shape != Shape::member || given[i].empty() || &m == selected) continue;
        say(path + "/" + names[i], std::string(d.name) + " is " + (lit ? lit->name : "unset") + (disc.empty() ? " (left out)" : "") +
                                       ", which selects " + (selected ? member_element(t, *selected) : "no member") +
                                       "; this member would not be read");
    }
    // A selected member the document leaves out is created fresh by the reader.
    if (selected && given[static_cast<size_t>(selected - t.fields)].empty())
        fresh(*selected->type, path + "/" + member_element(t, *selected));
}

} // namespace

std::string root_name(const char *text, size_t length) {
    Doc doc = parse(text, length);
    const xmlNode *root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    return root ? name_of(root) : "";
}

std::vector<std::string> check_document(const Type &t, const char *text, size_t length) {
    Checker c;
    Doc doc = parse(text, length);
    const xmlNode *root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    if (!root) return {"/: not a well-formed XML document"};
    std::string path = std::string("/") + t.name;
    if (name_of(root) != t.name) return {"/" + name_of(root) + ": the root element of a " + t.name + " document is <" + t.name + ">"};
    if (t.kind == TypeKind::enumeration)
        c.enumeration(t, root, path);
    else
        c.composite(t, root, path);
    return c.problems;
}

} // namespace ovrin::cli
