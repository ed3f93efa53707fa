// Reads catalogue/ovrin_sm.types (format: catalogue/FORMAT.md) into the model. Only the syntax
// is checked here; names are resolved and cross-checked in resolve().
#include <cctype>
#include <sstream>

#include "tools/ovrin_gen/model.h"

namespace gen {

namespace {

std::vector<std::string> words_of(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream in(line.substr(0, line.find('#')));
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

bool is_identifier(const std::string &s) {
    if (s.empty() || !(std::isalpha(static_cast<unsigned char>(s[0])) || s[0] == '_')) return false;
    for (char ch : s)
        if (!(std::isalnum(static_cast<unsigned char>(ch)) || ch == '_')) return false;
    return true;
}

uint32_t number(int line, const std::string &s, const char *what) {
    if (s.empty() || s.size() > 10) throw Error(line, std::string("expected ") + what + ", got '" + s + "'");
    uint64_t v = 0;
    for (char ch : s) {
        if (!std::isdigit(static_cast<unsigned char>(ch)))
            throw Error(line, std::string("expected ") + what + ", got '" + s + "'");
        v = v * 10 + static_cast<unsigned>(ch - '0');
    }
    if (v > 0xFFFFFFFFu) throw Error(line, std::string(what) + " out of range: " + s);
    return static_cast<uint32_t>(v);
}

std::string identifier(int line, const std::string &s, const char *what) {
    if (!is_identifier(s)) throw Error(line, std::string("invalid ") + what + " '" + s + "'");
    return s;
}

// Consumes the optional trailing "from <variant>" of a member line.
int take_from(int line, std::vector<std::string> &w, size_t first_optional) {
    int from = 0;
    if (w.size() >= first_optional + 2 && w[w.size() - 2] == "from") {
        from = static_cast<int>(number(line, w.back(), "a variant"));
        w.resize(w.size() - 2);
    }
    return from;
}

// "<kind> <name> [variants N] [discriminator <field>] [select_by user_value|stored_value]"
std::unique_ptr<Type> parse_type_line(int line, const std::vector<std::string> &w) {
    auto t = std::make_unique<Type>();
    t->line = line;
    if (w[0] == "record") t->kind = TypeKind::record;
    else if (w[0] == "union") t->kind = TypeKind::union_;
    else if (w[0] == "enum") t->kind = TypeKind::enumeration;
    else throw Error(line, "expected 'record', 'union' or 'enum' at the start of a type, got '" + w[0] + "'");
    if (w.size() < 2) throw Error(line, "missing type name after '" + w[0] + "'");
    t->name = identifier(line, w[1], "type name");
    for (size_t i = 2; i < w.size(); i += 2) {
        if (i + 1 >= w.size()) throw Error(line, "'" + w[i] + "' needs a value");
        if (w[i] == "variants") {
            uint32_t n = number(line, w[i + 1], "a variant count");
            if (n < 1 || n > 127) throw Error(line, "variant count must be 1 to 127");
            t->n_variants = static_cast<int>(n);
        } else if (w[i] == "discriminator" && t->kind == TypeKind::union_) {
            t->discriminator_name = identifier(line, w[i + 1], "discriminator field");
        } else if (w[i] == "select_by" && t->kind == TypeKind::union_) {
            if (w[i + 1] == "user_value") t->select_by_user_value = true;
            else if (w[i + 1] != "stored_value")
                throw Error(line, "select_by takes 'user_value' or 'stored_value', not '" + w[i + 1] + "'");
        } else {
            throw Error(line, "unexpected '" + w[i] + "' in the definition of " + t->name);
        }
    }
    if (t->kind == TypeKind::union_ && t->discriminator_name.empty())
        throw Error(line, "union " + t->name + " needs 'discriminator <field>'");
    return t;
}

// "<LITERAL> <user value> [wire <wire value>] [from <variant>]"
Literal parse_literal(int line, std::vector<std::string> w) {
    Literal l;
    l.line = line;
    l.from = take_from(line, w, 2);
    l.name = identifier(line, w[0], "literal name");
    if (w.size() < 2) throw Error(line, "literal " + l.name + " needs a value");
    l.user = number(line, w[1], "a literal value");
    l.wire = l.user;
    if (w.size() == 4 && w[2] == "wire") l.wire = number(line, w[3], "a wire value");
    else if (w.size() != 2) throw Error(line, "unexpected '" + w[2] + "' after literal " + l.name);
    return l;
}

// One member line of a record or union (see catalogue/FORMAT.md).
Field parse_field(int line, std::vector<std::string> w) {
    Field f;
    f.line = line;
    f.from = take_from(line, w, 2);
    if (w[0] == "member") {
        if (w.size() != 5 || w[3] != "select")
            throw Error(line, "expected 'member <name> <record type> select <LITERAL> [from <variant>]'");
        f.shape = Shape::member;
        f.name = identifier(line, w[1], "member name");
        f.type_name = identifier(line, w[2], "member type");
        f.select_name = identifier(line, w[4], "selector literal");
        return f;
    }
    if (w.size() < 2) throw Error(line, "field " + w[0] + " needs a type");
    f.name = identifier(line, w[0], "field name");
    std::string type = w[1];
    if (type == "var_string") {
        if (w.size() != 4 || w[2] != "length") throw Error(line, "expected '" + f.name + " var_string length <length field>'");
        f.shape = Shape::var_string;
        f.type_name = type;
        f.companion_name = identifier(line, w[3], "length field");
        return f;
    }
    size_t bracket = type.find('[');
    if (bracket != std::string::npos) {
        if (type.back() != ']') throw Error(line, "malformed array type '" + type + "'");
        std::string bound = type.substr(bracket + 1, type.size() - bracket - 2);
        f.type_name = identifier(line, type.substr(0, bracket), "element type");
        if (bound.empty()) {
            if (w.size() != 4 || w[2] != "count") throw Error(line, "expected '" + f.name + " " + type + " count <count field>'");
            f.shape = Shape::var_array;
            f.companion_name = identifier(line, w[3], "count field");
        } else {
            f.shape = Shape::fixed_array;
            f.count = number(line, bound, "an array bound");
            if (f.count < 1 || f.count > 255) throw Error(line, "array bound must be 1 to 255");
            if (w.size() != 2) throw Error(line, "unexpected '" + w[2] + "' after " + f.name);
        }
        return f;
    }
    f.type_name = identifier(line, type, "field type");
    if (w.size() != 2) throw Error(line, "unexpected '" + w[2] + "' after " + f.name);
    return f;
}

} // namespace

std::optional<Prim> primitive(const std::string &name) {
    static const std::map<std::string, Prim> prims = {
#define OVRIN_PRIM(K, T, S, A) {#T, Prim::K},
        OVRIN_ALL_PRIMS(OVRIN_PRIM)
#undef OVRIN_PRIM
    };
    auto it = prims.find(name);
    if (it == prims.end()) return std::nullopt;
    return it->second;
}

const char *prim_c_type(Prim p) {
    switch (p) {
#define OVRIN_PRIM(K, T, S, A)                                                                                                   \
    case Prim::K: return #T;
        OVRIN_ALL_PRIMS(OVRIN_PRIM)
#undef OVRIN_PRIM
    }
    return "?";
}

Catalogue parse_catalogue(const std::string &path, const std::string &text) {
    Catalogue c;
    c.path = path;
    c.text = text;
    std::istringstream in(text);
    Type *current = nullptr;
    int line = 0;
    // Comment lines at the start of a line gather into a paragraph: a blank line after it makes it
    // the heading of the types that follow; a type line right after it makes it that type's note.
    // The paragraph the file opens with describes the whole catalogue and heads no group.
    std::string paragraph, group;
    int paragraph_line = 0;
    for (std::string raw; std::getline(in, raw);) {
        ++line;
        if (!raw.empty() && raw[0] == '#') {
            size_t start = raw.find_first_not_of("# \t");
            size_t end = raw.find_last_not_of(" \t\r");
            if (paragraph.empty()) paragraph_line = line;
            if (start != std::string::npos) {
                if (!paragraph.empty()) paragraph += ' ';
                paragraph.append(raw, start, end + 1 - start);
            }
            continue;
        }
        std::vector<std::string> w = words_of(raw);
        bool indented = !raw.empty() && std::isspace(static_cast<unsigned char>(raw[0]));
        if (w.empty()) {
            if (!indented && !paragraph.empty() && paragraph_line > 1) group = paragraph;
            if (!indented) paragraph.clear();
            continue;
        }
        if (!indented && w[0] == "depends") {
            if (w.size() != 2) throw Error(line, "expected 'depends <bundle>'");
            c.depends.push_back({line, identifier(line, w[1], "bundle name")});
            paragraph.clear();
            current = nullptr;
            continue;
        }
        if (!indented) {
            auto t = parse_type_line(line, w);
            t->group = group;
            t->note = paragraph;
            paragraph.clear();
            if (c.by_name.count(t->name)) throw Error(line, "type " + t->name + " is defined twice");
            t->index = static_cast<unsigned>(c.types.size());
            current = t.get();
            c.by_name[t->name] = current;
            c.types.push_back(std::move(t));
            continue;
        }
        if (!current) throw Error(line, "indented line outside a type definition");
        if (current->is_enum()) current->literals.push_back(parse_literal(line, w));
        else current->fields.push_back(parse_field(line, w));
    }
    if (c.types.empty()) throw Error(line, "the catalogue defines no types");
    return c;
}

} // namespace gen
