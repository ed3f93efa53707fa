// What the generator emitted, read back by a program (the operations table, the type tables with
// their wire and lifecycle plans, the descriptors, the exported accessors), held against the
// catalogue file as this test reads it itself: a reader of a few dozen lines that shares nothing
// with the generator, so a fault in the generator's reading or emitting cannot agree with itself.
// Built into the tests of both catalogues.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "tests/sm_type_ops.h"

// The bundle's registration entry points (OVRIN_TEST_OPTABLE names the bundle's).
#if __has_include("ovrin_sm/ops.h")
#include "ovrin_sm/ops.h"
#else
#include "shapes/ops.h"
#endif

namespace {

using ovrin::Field, ovrin::Kind, ovrin::Shape, ovrin::Type;

// One member line of a record or union, or one literal of an enumeration, as the file says it.
struct Line {
    std::string name, type; // type: a primitive, a type of the catalogue, or "var_string"
    int from = 0;
    int fixed = 0;          // n of "type[n]"
    bool var_array = false; // "type[]"
    std::string counted_by; // "count X" / "length X"
    bool member = false;
    std::string select; // a member's literal
    uint32_t user = 0, wire = 0;
};

struct Decl {
    std::string kind, name; // kind: enum, record, union
    int variants = 1;
    std::string discriminator;
    bool by_user_value = false;
    std::vector<Line> lines;
};

struct File {
    std::vector<Decl> decls;
    std::vector<std::string> depends; // the bundles named by "depends" lines, in the file's order
};

File read_catalogue(const char *path) {
    std::ifstream in(path);
    File file;
    std::vector<Decl> &out = file.decls;
    std::string raw;
    while (std::getline(in, raw)) {
        std::string text = raw.substr(0, raw.find('#'));
        std::istringstream words(text);
        std::vector<std::string> w;
        for (std::string s; words >> s;) w.push_back(s);
        if (w.empty()) continue;
        auto after = [&](const std::string &key, const std::string &otherwise = "") {
            for (size_t i = 0; i + 1 < w.size(); ++i)
                if (w[i] == key) return w[i + 1];
            return otherwise;
        };
        if (w[0] == "depends") {
            file.depends.push_back(w[1]);
            continue;
        }
        if (!std::isspace(static_cast<unsigned char>(raw[0]))) {
            out.push_back(
                {w[0], w[1], std::stoi(after("variants", "1")), after("discriminator"), after("select_by") == "user_value", {}});
            continue;
        }
        Line l;
        l.from = std::stoi(after("from", "0"));
        if (out.back().kind == "enum") {
            l.name = w[0];
            l.user = static_cast<uint32_t>(std::stoul(w[1]));
            l.wire = static_cast<uint32_t>(std::stoul(after("wire", w[1])));
        } else if (w[0] == "member") {
            l.name = w[1];
            l.type = w[2];
            l.member = true;
            l.select = after("select");
        } else {
            l.name = w[0];
            l.type = w[1];
            l.counted_by = after(w[1] == "var_string" ? "length" : "count");
            if (size_t bracket = l.type.find('['); bracket != std::string::npos) {
                l.var_array = l.type[bracket + 1] == ']';
                if (!l.var_array) l.fixed = std::stoi(l.type.substr(bracket + 1));
                l.type.resize(bracket);
            }
        }
        out.back().lines.push_back(l);
    }
    return file;
}

const File &file() {
    static const File f = read_catalogue(OVRIN_TEST_CATALOGUE);
    return f;
}

const std::vector<Decl> &catalogue() { return file().decls; }

const Decl &decl(const std::string &name) {
    for (const Decl &d : catalogue())
        if (d.name == name) return d;
    ADD_FAILURE() << "not in the catalogue: " << name;
    static const Decl none;
    return none;
}

const std::map<std::string, Kind> primitives = {
    {"u_int8", Kind::u8},           {"u_int16", Kind::u16},         {"u_int32", Kind::u32},
    {"u_int64", Kind::u64},         {"mgx_boolean", Kind::boolean}, {"mgx_mac_addr", Kind::mac_addr},
    {"ipv4_addr", Kind::ipv4_addr}, {"ipv6_addr", Kind::ipv6_addr}, {"aaa_tlv", Kind::aaa_tlv}};

bool is_integer(Kind k) { return k == Kind::u8 || k == Kind::u16 || k == Kind::u32 || k == Kind::u64; }

// A union's discriminator: the index of the field it names; -1 for a record.
int discriminator(const Decl &d) {
    for (size_t i = 0; i < d.lines.size(); ++i)
        if (d.kind == "union" && d.lines[i].name == d.discriminator) return static_cast<int>(i);
    return -1;
}

bool exported(const std::string &name) { return dlsym(RTLD_DEFAULT, name.c_str()) != nullptr; }

TEST(Catalogue, TypesKindsVariantsAndLiteralsAreTheFilesInItsOrder) {
    const std::vector<Decl> &decls = catalogue();
    ASSERT_FALSE(decls.empty());
    std::span<const typeops::Entry> table = typeops::table();
    ASSERT_EQ(table.size(), decls.size());
    ASSERT_EQ(testfill::types().size(), decls.size());
    for (size_t i = 0; i < decls.size(); ++i) {
        const Decl &d = decls[i];
        const Type &t = *testfill::types()[i];
        const typeops::Entry &e = table[i];
        SCOPED_TRACE(d.name);
        EXPECT_EQ(t.name, d.name);
        EXPECT_STREQ(e.name, d.name.c_str());
        EXPECT_EQ(typeops::find(d.name.c_str()), &e);
        bool is_enum = d.kind == "enum";
        EXPECT_EQ(e.kind, is_enum ? 0 : d.kind == "record" ? 1 : 2); // enumeration, record, union
        EXPECT_EQ(t.kind, is_enum              ? ovrin::TypeKind::enumeration
                          : d.kind == "record" ? ovrin::TypeKind::record
                                               : ovrin::TypeKind::union_);
        // Enumerations have no length or clone; every other slot leads somewhere.
        EXPECT_EQ(e.len == nullptr, is_enum);
        EXPECT_EQ(e.clone == nullptr, is_enum);
        EXPECT_TRUE(e.create && e.destroy && e.marshal && e.unmarshal && e.to_xml && e.from_xml && e.print && e.compare &&
                    e.hash && e.print_whole && e.toxml_whole);
        EXPECT_EQ(t.n_variants, d.variants);
        EXPECT_EQ(t.descriptor->variant_info->n_variants, d.variants);
        EXPECT_STREQ(t.descriptor->type_name, d.name.c_str());
        EXPECT_STREQ(t.descriptor->kind, is_enum ? "enum" : "type");
        EXPECT_EQ((t.flags & ovrin::type_flag_select_by_user_value) != 0, d.by_user_value);
        if (!is_enum) continue;
        ASSERT_EQ(t.n_literals, d.lines.size());
        for (size_t j = 0; j < d.lines.size(); ++j) {
            EXPECT_STREQ(t.literals[j].name, d.lines[j].name.c_str());
            EXPECT_EQ(t.literals[j].user, d.lines[j].user) << d.lines[j].name;
            EXPECT_EQ(t.literals[j].wire, d.lines[j].wire) << d.lines[j].name;
            EXPECT_EQ(t.literals[j].from_variant, d.lines[j].from) << d.lines[j].name;
        }
    }
    EXPECT_EQ(typeops::find("no_such_type"), nullptr);
}

// Each field: its name, order, shape, kind and type, the variant it comes in, the count or length
// that goes with it (both ways), a member's selecting value and the accessors exported for it.
TEST(Catalogue, FieldsAreTheFilesMembersWithTheirAccessors) {
    for (const Decl &d : catalogue()) {
        if (d.kind == "enum") continue;
        const Type &t = *typeops::of(d.name.c_str()).type;
        SCOPED_TRACE(d.name);
        ASSERT_EQ(t.n_fields, d.lines.size());
        for (size_t i = 0; i < d.lines.size(); ++i) {
            const Line &l = d.lines[i];
            const Field &f = t.fields[i];
            SCOPED_TRACE(l.name);
            EXPECT_STREQ(f.name, l.name.c_str());
            EXPECT_EQ(f.from_variant, l.from);
            Shape shape = l.member                 ? Shape::member
                          : l.type == "var_string" ? Shape::var_string
                          : l.var_array            ? Shape::var_array
                          : l.fixed                ? Shape::fixed_array
                                                   : Shape::scalar;
            EXPECT_EQ(f.shape, shape);
            EXPECT_EQ(f.count, l.fixed ? l.fixed : 1);
            if (shape == Shape::var_string) {
                EXPECT_EQ(f.kind, Kind::character);
                EXPECT_EQ(f.type, nullptr);
            } else if (primitives.count(l.type)) {
                EXPECT_EQ(f.kind, primitives.at(l.type));
                EXPECT_EQ(f.type, nullptr);
            } else {
                ASSERT_NE(f.type, nullptr);
                EXPECT_EQ(f.type->name, l.type);
                EXPECT_EQ(f.kind, decl(l.type).kind == "enum" ? Kind::enumeration : Kind::record);
            }
            // A count or length names the field it counts, and that field names it back.
            int counted = -1;
            for (size_t j = 0; j < d.lines.size(); ++j)
                if (d.lines[j].counted_by == l.name) counted = static_cast<int>(j);
            if (!l.counted_by.empty()) {
                ASSERT_GE(f.companion, 0);
                EXPECT_STREQ(t.fields[f.companion].name, l.counted_by.c_str());
            } else {
                EXPECT_EQ(f.companion, counted);
            }
            if (l.member) {
                uint32_t user = ~0u;
                for (const Line &literal : decl(d.lines[discriminator(d)].type).lines)
                    if (literal.name == l.select) user = literal.user;
                EXPECT_EQ(f.select, user);
            }
            // The values _set_all takes and _get_all fills: integers up to 32 bits, and for
            // _get_all the enumerations as well.
            bool scalar = shape == Shape::scalar;
            bool settable = scalar && is_integer(f.kind) && f.kind != Kind::u64;
            EXPECT_EQ((f.roles & ovrin::field_settable_by_all) != 0, settable);
            EXPECT_EQ((f.roles & ovrin::field_readable_by_all) != 0, settable || (scalar && f.kind == Kind::enumeration));
            std::string prefix = d.name + "_" + l.name + "_";
            EXPECT_TRUE(exported(prefix + "get") && exported(prefix + "set") && exported(prefix + "state_flag_get") &&
                        exported(prefix + "state_flag_set"));
            // By value: integers and booleans, and enumerations as array elements and in unions
            // (a record's enumeration field is reached through the enumeration's own operations).
            bool by_value = (scalar || shape == Shape::fixed_array) &&
                            (is_integer(f.kind) || f.kind == Kind::boolean ||
                             (f.kind == Kind::enumeration && (!scalar || d.kind == "union")));
            if (!l.member) {
                EXPECT_EQ(exported(prefix + "get_value"), by_value);
            }
        }
        EXPECT_EQ(t.discriminator, discriminator(d));
    }
}

// The wire plan of each variant: one step per field present, in declaration order; a scalar goes
// straight, with a state byte unless it is a count or length; everything else is composite. The
// lifecycle plan: what destroy, create and a tracked create visit.
TEST(Catalogue, WireAndLifecyclePlansFollowTheFields) {
    for (const Decl &d : catalogue()) {
        if (d.kind == "enum") continue;
        const Type &t = *typeops::of(d.name.c_str()).type;
        SCOPED_TRACE(d.name);
        for (int v = 0; v < d.variants; ++v) {
            const ovrin::WirePlan &plan = t.wire[v];
            std::vector<uint16_t> expected;
            for (size_t i = 0; i < d.lines.size(); ++i)
                if (d.lines[i].from <= v) expected.push_back(static_cast<uint16_t>(i));
            ASSERT_EQ(plan.n, expected.size()) << "variant " << v;
            for (size_t s = 0; s < plan.n; ++s) {
                const ovrin::WireStep &step = plan.steps[s];
                const Field &f = t.fields[expected[s]];
                const Line &l = d.lines[expected[s]];
                EXPECT_EQ(step.field, expected[s]);
                EXPECT_EQ(step.offset, f.offset);
                EXPECT_EQ(step.sttr_pos, f.sttr_pos);
                EXPECT_EQ(step.kind, f.kind);
                EXPECT_EQ(step.type, f.type);
                bool scalar = !l.member && !l.var_array && !l.fixed && l.type != "var_string";
                bool is_count = false;
                for (const Line &other : d.lines) is_count |= other.counted_by == l.name;
                EXPECT_EQ(step.flags, scalar ? (is_count ? 0 : ovrin::step_state_byte) : ovrin::step_composite) << l.name;
            }
        }
        std::vector<uint16_t> owning, inline_instances, areas;
        for (size_t i = 0; i < d.lines.size(); ++i) {
            const Line &l = d.lines[i];
            bool in_line = !l.member && !l.var_array && l.type != "var_string";
            bool instance = in_line && (!primitives.count(l.type) || !is_integer(primitives.at(l.type)));
            if (instance) inline_instances.push_back(static_cast<uint16_t>(i));
            if (instance || !in_line) owning.push_back(static_cast<uint16_t>(i));
            if (in_line && !l.fixed && (l.type == "aaa_tlv" || (!primitives.count(l.type) && decl(l.type).kind != "enum")))
                areas.push_back(static_cast<uint16_t>(i));
        }
        std::vector<uint16_t> plan(t.plan, t.plan + t.n_owning + t.n_inline + t.n_areas);
        std::vector<uint16_t> expected = owning;
        expected.insert(expected.end(), inline_instances.begin(), inline_instances.end());
        expected.insert(expected.end(), areas.begin(), areas.end());
        EXPECT_EQ(t.n_owning, owning.size());
        EXPECT_EQ(t.n_inline, inline_instances.size());
        EXPECT_EQ(plan, expected);
    }
}

// Registering the bundle's handler registers it with each bundle the file says this one depends on,
// in the file's order, and unregistering unregisters from each in that same order. Of the bundles
// the runtime contract knows, if_common's calls take the caller's pointer as well, the others' not.
TEST(Catalogue, TheHandlerGoesToTheBundlesDependedOnInTheFilesOrder) {
    ASSERT_FALSE(file().depends.empty());
    std::string registered, unregistered;
    for (const std::string &b : file().depends) {
        bool with_arg = b == "if_common";
        registered += b + "_bundle_handler_register(0xa1" + (with_arg ? ", 0x5a5a0)\n" : ")\n");
        unregistered += b + "_bundle_handler_unregister(" + (with_arg ? "0x5a5a0)\n" : ")\n");
    }
    auto logged = [] {
        std::string out;
        for (size_t i = 0; i < mgx_bundle_call_count(); ++i) out += std::string(mgx_bundle_call(i)) + "\n";
        mgx_bundle_calls_clear();
        return out;
    };
    void *arg = reinterpret_cast<void *>(0x5a5a0);
    mgx_bundle_calls_clear();
    OVRIN_TEST_OPTABLE(bundle_handler_register)(0xA1, arg);
    EXPECT_EQ(logged(), registered);
    EXPECT_EQ(OVRIN_TEST_OPTABLE(bundle_handler_unregister)(arg), 0xA1u);
    EXPECT_EQ(logged(), unregistered);
}

} // namespace
