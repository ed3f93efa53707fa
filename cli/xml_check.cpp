// The strict document check of encode, walked over the type tables.
#include "cli/xml_check.h"

#include <libxml/tree.h>

#include <cctype>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "cli/tables.h"

namespace ovrin::cli {

namespace {

// The runtime's documents are libxml2 documents (mgx_xml_document_read makes them): the check
// walks the tree the library reads afterwards, so a document is parsed once, under the runtime's
// limits and without entity substitution.
const xmlNode *root_of(const void *doc) { return doc ? xmlDocGetRootElement(static_cast<const xmlDoc *>(doc)) : nullptr; }

std::string_view name_of(const xmlNode *n) { return reinterpret_cast<const char *>(n->name); }

// Only the first problems are shown: a closest-name search, which costs a distance per candidate,
// is made for the first ones and not for every unknown name of a large document.
constexpr size_t hinted_problems = 100;

// The bytes of an element's value as the library reads them: the text of the element and of any
// element inside it, each private-use escape (U+E000 + byte, three bytes in UTF-8) one byte. False
// for a value that refers to an entity, which the library refuses itself ("Invalid value at").
// Entities are never expanded, so a reference used many times costs nothing here.
bool value_bytes(const xmlNode *node, uint64_t &bytes) {
    for (const xmlNode *c = node->children; c; c = c->next) {
        if (c->type == XML_ENTITY_REF_NODE) return false;
        if (c->type == XML_ELEMENT_NODE && !value_bytes(c, bytes)) return false;
        if ((c->type != XML_TEXT_NODE && c->type != XML_CDATA_SECTION_NODE) || !c->content) continue;
        const auto *s = reinterpret_cast<const unsigned char *>(c->content);
        for (size_t i = 0; s[i]; ++i) {
            bool escape = s[i] == 0xEE && (s[i + 1] & 0xFC) == 0x80 && (s[i + 2] & 0xC0) == 0x80;
            bytes += 1;
            i += escape ? 2 : 0;
        }
    }
    return true;
}

// The text of an element's value (as value_bytes reads it, escapes kept), or false.
bool value_text(const xmlNode *node, std::string &out) {
    for (const xmlNode *c = node->children; c; c = c->next) {
        if (c->type == XML_ENTITY_REF_NODE) return false;
        if (c->type == XML_ELEMENT_NODE && !value_text(c, out)) return false;
        if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && c->content)
            out.append(reinterpret_cast<const char *>(c->content));
    }
    return true;
}

std::vector<const xmlNode *> elements_of(const xmlNode *n) {
    std::vector<const xmlNode *> out;
    for (const xmlNode *c = n->children; c; c = c->next)
        if (c->type == XML_ELEMENT_NODE) out.push_back(c);
    return out;
}

bool blank(std::string_view s) {
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

// A composite type's element names, in field order, and the field each name is: made once per
// type for the whole document.
struct Members {
    std::vector<std::string> names;
    std::unordered_map<std::string_view, uint16_t> field; // views into names
};

class Checker {
public:
    explicit Checker(size_t keep) : keep_(keep) {}
    Findings found;

    void composite(const Type &t, const xmlNode *node, const std::string &path);
    void enumeration(const Type &e, const xmlNode *node, const std::string &path);

private:
    std::unordered_map<const Type *, Members> members_;
    std::unordered_map<const Type *, std::unordered_map<std::string_view, const Literal *>> literals_;

    size_t keep_;
    const xmlNode *here_ = nullptr; // the element being checked, whose line a problem is given
    void say(const std::string &path, const std::string &what) {
        if (found.problems.size() < keep_) {
            found.problems.push_back(path + ": " + what);
            found.lines.push_back(here_ ? xmlGetLineNo(here_) : 0);
        }
        ++found.count;
    }
    void number(const Field &f, const xmlNode *node, const std::string &path);
    bool hinting() const { return found.count < hinted_problems; }
    const Members &members_of(const Type &t);
    void no_text(const xmlNode *node, const std::string &path, const char *where);
    void value(const Field &f, const xmlNode *node, const std::string &path);
    void attributes(const xmlNode *node, const std::string &path);
    void counted(const FieldView &f, const std::vector<std::vector<const xmlNode *>> &given, const std::string &path);
    void fresh(const Type &t, const std::string &path);
    const Literal *literal_of(const Type &e, const xmlNode *node);
};

const Members &Checker::members_of(const Type &t) {
    auto [at, made] = members_.try_emplace(&t);
    Members &m = at->second;
    if (made) {
        m.names.reserve(t.n_fields); // the index holds views into the names: no reallocation after
        for (const FieldView &f : fields_of(t))
            m.field.emplace(m.names.emplace_back(f.element()), f.index); // the first of a name wins
    }
    return m;
}

void Checker::no_text(const xmlNode *node, const std::string &path, const char *where) {
    for (const xmlNode *c = node->children; c; c = c->next) {
        if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && c->content) {
            std::string_view text(reinterpret_cast<const char *>(c->content));
            if (blank(text)) continue;
            text.remove_prefix(text.find_first_not_of(" \t\r\n"));
            say(path, "text '" + std::string(text.substr(0, 20)) + "' where " + where + " belong");
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
    here_ = node;
    switch (f.kind) {
    case Kind::record: composite(*f.type, node, path); return;
    case Kind::enumeration: enumeration(*f.type, node, path); return;
    case Kind::aaa_tlv: attributes(node, path); return;
    default:
        for (const xmlNode *c = node->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE) continue;
            say(path + "/" + std::string(name_of(c)),
                "an element inside " + std::string(f.name) + ", which holds a value, not members");
            return;
        }
        number(f, node, path);
        return;
    }
}

// An integer or truth value the library's reader would refuse, with why: "-1: below 0",
// "99999999999: above 4294967295 for u_int32", "abc: not a number". A value that refers to an
// entity is left to the library's reader.
void Checker::number(const Field &f, const xmlNode *node, const std::string &path) {
    static constexpr struct {
        Kind kind;
        const char *name, *max_text;
        uint64_t max;
    } widths[] = {{Kind::u8, "u_int8", "255", 0xFF},
                  {Kind::u16, "u_int16", "65535", 0xFFFF},
                  {Kind::u32, "u_int32", "4294967295", 0xFFFFFFFF},
                  {Kind::u64, "u_int64", "18446744073709551615", UINT64_MAX}};
    std::string text;
    if (!value_text(node, text)) return;
    size_t a = text.find_first_not_of(" \t\r\n"), b = text.find_last_not_of(" \t\r\n");
    text = a == std::string::npos ? std::string() : text.substr(a, b - a + 1);
    const std::string shown = text.size() > 40 ? text.substr(0, 40) + "..." : text;
    if (f.kind == Kind::boolean) {
        if (text != "true" && text != "false" && text != "1" && text != "0")
            say(path, (text.empty() ? "an empty value" : shown) + ": not true, false, 1 or 0");
        return;
    }
    for (const auto &w : widths) {
        if (w.kind != f.kind) continue;
        uint64_t v = 0;
        bool digits = !text.empty(), above = false;
        for (size_t i = text[0] == '-' ? 1 : 0; digits && i < text.size(); ++i) {
            if (!std::isdigit(static_cast<unsigned char>(text[i]))) digits = false;
            else if (v > (UINT64_MAX - 9) / 10 || v * 10 + unsigned(text[i] - '0') > w.max) above = true;
            else v = v * 10 + unsigned(text[i] - '0');
        }
        if (!digits || text == "-") say(path, (text.empty() ? "an empty value" : shown) + ": not a number");
        else if (text[0] == '-') say(path, shown + ": below 0");
        else if (above) say(path, shown + ": above " + w.max_text + " for " + w.name);
        return;
    }
}

// An attribute list: <attr><type>N</type><value>HEX</value></attr>, any number of them.
void Checker::attributes(const xmlNode *node, const std::string &path) {
    no_text(node, path, "only attr elements");
    unsigned k = 0;
    for (const xmlNode *a = node->children; a; a = a->next) {
        if (a->type != XML_ELEMENT_NODE) continue;
        std::string apath = path + "/" + std::string(name_of(a));
        if (name_of(a) != "attr") {
            say(apath, "an attribute list holds attr elements only");
            continue;
        }
        apath += place(++k);
        here_ = a;
        no_text(a, apath, "only type and value elements");
        unsigned types = 0, values = 0;
        for (const xmlNode *c = a->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE) continue;
            std::string_view n = name_of(c);
            if (n == "type") ++types;
            else if (n == "value") ++values;
            else say(apath + "/" + std::string(n), "an attr holds a type and a value only");
        }
        if (types > 1 || values > 1) say(apath, "type or value given more than once; only the first is read");
    }
}

const Literal *Checker::literal_of(const Type &e, const xmlNode *node) {
    const xmlNode *given = nullptr;
    for (const xmlNode *c = node->children; c; c = c->next) {
        if (c->type != XML_ELEMENT_NODE) continue;
        if (given) return nullptr; // more than one
        given = c;
    }
    if (!given) return nullptr;
    auto [at, made] = literals_.try_emplace(&e);
    if (made)
        for (uint16_t i = 0; i < e.n_literals; ++i) at->second.emplace(e.literals[i].name, &e.literals[i]);
    auto found = at->second.find(name_of(given));
    return found == at->second.end() ? nullptr : found->second;
}

void Checker::enumeration(const Type &e, const xmlNode *node, const std::string &path) {
    here_ = node;
    no_text(node, path, "only a literal element (<LITERAL/>) belongs");
    std::vector<const xmlNode *> given = elements_of(node);
    if (given.empty()) {
        say(path, std::string("no literal given; one of ") + e.name + "'s literals, such as <" + e.literals[0].name +
                      "/>, is expected");
        return;
    }
    if (given.size() > 1) say(path, std::to_string(given.size()) + " literals given; an enumeration holds one");
    const std::string lit(name_of(given[0]));
    if (given.size() > 1 || literal_of(e, node)) return;
    std::vector<std::string> names;
    for (uint16_t i = 0; i < e.n_literals; ++i) names.push_back(e.literals[i].name);
    std::string hint = hinting() ? closest(lit, names) : std::string();
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

// The length of a string and the count of a variable array must agree with what follows them. A
// count or text that refers to an entity is left to the library's reader, which refuses it.
void Checker::counted(const FieldView &f, const std::vector<std::vector<const xmlNode *>> &given, const std::string &path) {
    const Field &c = *f.companion();
    const auto &items = given[f.index];
    const auto &counts = given[static_cast<size_t>(f->companion)];
    std::string cpath = path + "/" + c.name;
    uint64_t said = 0;
    std::string count_text;
    bool has_count = !counts.empty() && value_text(counts[0], count_text) && decimal(count_text, said);
    if (f->shape == Shape::var_string) {
        if (!has_count) return; // the length follows the text
        if (items.empty()) {
            if (said != 0) say(cpath, "says " + std::to_string(said) + ", but " + f->name + " is not given");
            return;
        }
        uint64_t bytes = 0;
        if (!value_bytes(items[0], bytes)) return;
        if (said != bytes)
            say(cpath, "says " + std::to_string(said) + ", but " + f->name + " holds " + std::to_string(bytes) +
                           (bytes == 1 ? " byte" : " bytes"));
        return;
    }
    if (counts.empty()) {
        if (!items.empty())
            say(path + "/" + f->name,
                std::to_string(items.size()) + " given, but no " + c.name + " counts them, so none would be read");
        return;
    }
    if (has_count && said != items.size())
        say(cpath, "says " + std::to_string(said) + ", but " + std::to_string(items.size()) + " " + f->name +
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
            say(path, std::string("left out, but a fresh ") + t.name + "'s " + d.name + " (" + lit->name + ") selects " +
                          element_name(t, *m) + ", which a message must carry; give <" + element.substr(0, bracket) +
                          "/> at least");
            return;
        }
    }
    for (const FieldView &f : fields_of(t)) {
        if (f->kind != Kind::record || (f->shape != Shape::scalar && f->shape != Shape::fixed_array)) continue;
        for (uint16_t k = 0; k < f->count; ++k)
            fresh(*f->type, path + "/" + f->name + (f->shape == Shape::fixed_array ? place(k + 1) : std::string()));
    }
}

void Checker::composite(const Type &t, const xmlNode *node, const std::string &path) {
    here_ = node;
    no_text(node, path, "only member elements");
    const Members &members = members_of(t);
    const std::vector<std::string> &names = members.names;
    std::vector<std::vector<const xmlNode *>> given(t.n_fields);
    std::unordered_set<std::string_view> unknown; // each reported once; views into the document
    for (const xmlNode *c = node->children; c; c = c->next) {
        if (c->type != XML_ELEMENT_NODE) continue;
        std::string_view n = name_of(c);
        if (auto known = members.field.find(n); known != members.field.end()) {
            given[known->second].push_back(c);
            continue;
        }
        if (!unknown.insert(n).second) continue;
        here_ = c;
        std::string name(n);
        std::string hint = hinting() ? closest(name, names) : std::string();
        say(path + "/" + name,
            std::string(t.name) + " has no member " + name + (hint.empty() ? "" : "; did you mean " + hint + "?"));
    }
    for (const FieldView &f : fields_of(t)) {
        const auto &items = given[f.index];
        std::string fpath = path + "/" + names[f.index];
        bool array = f->shape == Shape::fixed_array || f->shape == Shape::var_array;
        here_ = items.size() > 1 ? items[1] : node; // a repeat is reported where it repeats
        if (!array && items.size() > 1)
            say(fpath, "given " + std::to_string(items.size()) + " times; it is not an array, and only the first is read");
        if (f->shape == Shape::fixed_array && items.size() > f->count)
            say(fpath, "given " + std::to_string(items.size()) + " times; it holds " + std::to_string(f->count) +
                           ", and the rest are not read");
        for (size_t k = 0; k < items.size(); ++k) {
            if (!array && k > 0) break;
            value(*f, items[k], array ? fpath + place(k + 1) : fpath);
        }
        if (f->kind == Kind::record && f->shape == Shape::scalar && items.empty()) fresh(*f->type, fpath);
        if (f->kind == Kind::record && f->shape == Shape::fixed_array)
            for (size_t k = items.size(); k < f->count; ++k) fresh(*f->type, fpath + place(k + 1));
        here_ = items.empty() ? node : items[0];
        if (f->shape == Shape::var_string || f->shape == Shape::var_array) counted(f, given, path);
    }
    if (t.kind != TypeKind::union_) return;
    // The member given must be the one the discriminator selects (as given, or as a fresh one holds it).
    const Field &d = t.fields[t.discriminator];
    const auto &disc = given[static_cast<size_t>(t.discriminator)];
    const Literal *lit = disc.empty() ? fresh_literal(*d.type) : literal_of(*d.type, disc[0]);
    if (!disc.empty() && !lit) return; // already reported
    const Field *selected = member_selected_by(t, lit);
    for (const FieldView &m : fields_of(t)) {
        if (m->shape != Shape::member || given[m.index].empty() || &*m == selected) continue;
        here_ = given[m.index][0];
        say(path + "/" + names[m.index],
            std::string(d.name) + " is " + (lit ? lit->name : "unset") + (disc.empty() ? " (left out)" : "") +
                ", which selects " + (selected ? element_name(t, *selected) : "no member") + "; this member would not be read");
    }
    // A selected member the document leaves out is created fresh by the reader.
    if (selected && given[static_cast<size_t>(selected - t.fields)].empty())
        fresh(*selected->type, path + "/" + element_name(t, *selected));
}

} // namespace

std::string root_name(const void *doc) {
    const xmlNode *root = root_of(doc);
    return root ? std::string(name_of(root)) : "";
}

Findings check_document(const Type &t, const void *doc, size_t keep) {
    Checker c(keep);
    const xmlNode *root = root_of(doc);
    if (!root) return {{"/: not a well-formed XML document"}, 1, {0}};
    std::string path = std::string("/") + t.name;
    if (name_of(root) != t.name)
        return {{"/" + std::string(name_of(root)) + ": the root element of a " + t.name + " document is <" + t.name + ">"},
                1,
                {xmlGetLineNo(root)}};
    if (t.kind == TypeKind::enumeration) c.enumeration(t, root, path);
    else c.composite(t, root, path);
    return std::move(c.found);
}

} // namespace ovrin::cli
