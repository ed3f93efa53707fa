// ovrin-sm compat OLD NEW: whether peers built from two catalogues still understand each other.
// The wire form is positional and versioned by variant: a newer sender's members past the
// receiver's variant are stepped over, an older sender's are absent. So a member may only be
// added at the end of a type in a new variant; everything else that moves, retypes or renumbers
// what an older peer reads breaks it. Each change is listed with its verdict; the status is 1 when
// any breaks a peer.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "cli/commands.h"
#include "cli/input.h"
#include "cli/options.h"
#include "tools/ovrin_gen/model.h"

namespace {

using namespace ovrin::cli;

const Command compat_command = {
    "compat",
    "OLD NEW",
    "Compares two catalogues and lists every change to the types with its verdict. Each is a\n"
    "catalogue file (.types) or a library file, which holds the catalogue it was built from.\n"
    "The verdicts:\n"
    "'compatible' when peers built from OLD and from NEW still read each other's messages (a member\n"
    "added at the end of a type in a new variant, a new literal, a new type), 'breaking' when they\n"
    "do not (a member inserted, removed, reordered or retyped, a bound or a count field changed, a\n"
    "literal renumbered or removed, a union member's selector changed, fewer variants, a type\n"
    "removed). A renamed member keeps the wire form but not the XML form: it is listed as\n"
    "breaking for documents. Exit status 1 when any change is breaking.\n",
    {},
};

struct Report {
    std::vector<std::string> lines;
    size_t breaking = 0;
    void say(bool breaks, const std::string &where, const std::string &what) {
        lines.push_back(std::string(breaks ? "breaking" : "compatible") + ": " + where + ": " + what);
        breaking += breaks;
    }
};

// How a field is declared, as far as the wire and the XML form go (its name aside).
std::string declared(const gen::Type &t, const gen::Field &f) {
    std::string s = f.type_name;
    if (f.shape == gen::Shape::fixed_array) s += "[" + std::to_string(f.count) + "]";
    if (f.shape == gen::Shape::var_array) s += "[] count " + f.companion_name;
    if (f.shape == gen::Shape::var_string) s += " length " + f.companion_name;
    if (f.shape == gen::Shape::member) s = "member " + s + " select " + f.select_name;
    if (f.discriminator) s += " (the discriminator of " + t.name + ")";
    return s;
}

void enumeration(const gen::Type &a, const gen::Type &b, Report &r) {
    std::map<std::string, const gen::Literal *> now;
    for (const gen::Literal &l : b.literals) now[l.name] = &l;
    for (const gen::Literal &l : a.literals) {
        auto it = now.find(l.name);
        const std::string where = a.name + "." + l.name;
        if (it == now.end()) {
            r.say(true, where, "removed");
        } else {
            if (it->second->user != l.user || it->second->wire != l.wire)
                r.say(true, where,
                      "renumbered from " + std::to_string(l.user) + " (wire " + std::to_string(l.wire) + ") to " +
                          std::to_string(it->second->user) + " (wire " + std::to_string(it->second->wire) + ")");
            now.erase(it);
        }
    }
    for (const gen::Literal &l : b.literals)
        if (now.count(l.name)) r.say(false, a.name + "." + l.name, "added");
}

void composite(const gen::Type &a, const gen::Type &b, Report &r) {
    const size_t n = std::min(a.fields.size(), b.fields.size());
    // Each member's position by name, made once per type, so that a type whose members all moved
    // costs one look-up each.
    std::unordered_map<std::string, long> in_a, in_b;
    for (size_t i = 0; i < a.fields.size(); ++i) in_a.emplace(a.fields[i].name, static_cast<long>(i));
    for (size_t i = 0; i < b.fields.size(); ++i) in_b.emplace(b.fields[i].name, static_cast<long>(i));
    auto position_in = [&](const gen::Type &t, const std::string &name) {
        const auto &positions = &t == &a ? in_a : in_b;
        auto it = positions.find(name);
        return it == positions.end() ? -1L : it->second;
    };
    for (size_t i = 0; i < n; ++i) {
        const gen::Field &f = a.fields[i], &g = b.fields[i];
        const std::string where = a.name + "." + f.name;
        if (f.name != g.name) {
            // The members from here on no longer line up: say how, once.
            if (position_in(a, g.name) < 0 && position_in(b, f.name) < 0 && declared(a, f) == declared(b, g)) {
                r.say(true, where, "renamed to " + g.name + " (the same on the wire; XML documents name it otherwise)");
                continue;
            }
            if (position_in(a, g.name) < 0) r.say(true, a.name + "." + g.name, "inserted before " + f.name);
            else if (position_in(b, f.name) < 0) r.say(true, where, "removed");
            else
                r.say(true, where,
                      "moved from position " + std::to_string(i + 1) + " to " + std::to_string(position_in(b, f.name) + 1));
            return;
        }
        if (declared(a, f) != declared(b, g)) r.say(true, where, "was " + declared(a, f) + ", now " + declared(b, g));
        if (f.from != g.from)
            r.say(true, where, "was in variant " + std::to_string(f.from) + " on, now in " + std::to_string(g.from) + " on");
    }
    for (size_t i = n; i < a.fields.size(); ++i) r.say(true, a.name + "." + a.fields[i].name, "removed");
    for (size_t i = n; i < b.fields.size(); ++i) {
        const gen::Field &g = b.fields[i];
        if (g.from >= a.n_variants) r.say(false, b.name + "." + g.name, "added at the end in variant " + std::to_string(g.from));
        else
            r.say(true, b.name + "." + g.name,
                  "added at the end in variant " + std::to_string(g.from) + ", which " + a.name +
                      " already had: older peers read the wrong bytes (add it in a new variant)");
    }
}

const char *kind_name(const gen::Type &t) {
    return t.kind == gen::TypeKind::record ? "a record" : t.kind == gen::TypeKind::union_ ? "a union" : "an enumeration";
}

// A catalogue file, or a library file (ELF) whose .DOMAIN_catalogue section holds the catalogue it
// was built from.
std::optional<gen::Catalogue> load(const char *path) {
    std::vector<uint8_t> bytes;
    std::string error;
    if (!ovrin::input::read(path, ovrin::input::file_limit, "the library file limit", bytes, error)) {
        std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
        return std::nullopt;
    }
    if (bytes.size() >= 4 && std::memcmp(bytes.data(), "\177ELF", 4) == 0) {
        auto file = mgx::elf::parse(std::move(bytes), path, error);
        const mgx::elf::Section *section = nullptr;
        if (file)
            for (const mgx::elf::Section &s : file->sections)
                if (s.name.size() > 10 && s.name[0] == '.' && s.name.ends_with("_catalogue")) section = &s;
        if (!section) {
            std::fprintf(stderr, "ovrin-sm: %s\n",
                         file ? (std::string(path) + " holds no catalogue section").c_str() : error.c_str());
            return std::nullopt;
        }
        bytes = file->contents(*section);
    } else if (bytes.size() > ovrin::input::message_limit) {
        std::fprintf(stderr, "ovrin-sm: %s is larger than a catalogue file may be (64 MiB)\n", path);
        return std::nullopt;
    }
    try {
        gen::Catalogue c = gen::parse_catalogue(path, std::string(bytes.begin(), bytes.end()));
        gen::resolve(c);
        return c;
    } catch (const gen::Error &e) {
        std::fprintf(stderr, "%s:%d: error: %s\n", path, e.line, e.what());
        return std::nullopt;
    }
}

} // namespace

int ovrin_cmd_compat(int argc, char **argv) {
    Parser p(compat_command, argc, argv);
    if (int status = p.run(); status >= 0) return status;
    const auto &operands = p.operands();
    if (operands.size() != 2) return usage_error(compat_command, "two catalogue files are needed: OLD NEW");
    auto old_catalogue = load(operands[0]), new_catalogue = load(operands[1]);
    if (!old_catalogue || !new_catalogue) return exit_failure;

    Report r;
    for (const auto &a : old_catalogue->types) {
        auto it = new_catalogue->by_name.find(a->name);
        if (it == new_catalogue->by_name.end()) {
            r.say(true, a->name, "removed");
            continue;
        }
        const gen::Type &b = *it->second;
        if (a->kind != b.kind) {
            r.say(true, a->name, std::string("was ") + kind_name(*a) + ", now " + kind_name(b));
            continue;
        }
        if (b.n_variants < a->n_variants)
            r.say(true, a->name, "has " + std::to_string(b.n_variants) + " variants, had " + std::to_string(a->n_variants));
        if (a->is_enum()) enumeration(*a, b, r);
        else composite(*a, b, r);
    }
    for (const auto &b : new_catalogue->types)
        if (!old_catalogue->by_name.count(b->name)) r.say(false, b->name, std::string("added (") + kind_name(*b) + ")");

    for (const std::string &line : r.lines) std::printf("%s\n", line.c_str());
    std::printf("%zu change%s, %zu breaking\n", r.lines.size(), r.lines.size() == 1 ? "" : "s", r.breaking);
    return r.breaking ? exit_failure : exit_ok;
}
