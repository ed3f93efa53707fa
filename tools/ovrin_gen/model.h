// The catalogue as the generator sees it: types, fields and literals as parsed, then resolved,
// laid out and fingerprinted.
#ifndef OVRIN_GEN_MODEL_H
#define OVRIN_GEN_MODEL_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ops/kinds.h"

namespace gen {

// A catalogue error, reported with the file and line it comes from.
struct Error : std::runtime_error {
    int line;
    Error(int line_, const std::string &what) : std::runtime_error(what), line(line_) {}
};

// The runtime's primitives and the shapes of fields, from the list the engine reads too.
enum class Prim {
#define OVRIN_PRIM(K, T, S, A) K,
    OVRIN_ALL_PRIMS(OVRIN_PRIM)
#undef OVRIN_PRIM
};
enum class TypeKind { record, union_, enumeration };
using Shape = ovrin::Shape;

inline constexpr unsigned header_bytes = 11; // descriptor word, variant, layout byte, flags
inline constexpr unsigned enum_instance_size = 16;
inline constexpr unsigned aaa_tlv_area = 16;
inline constexpr unsigned no_area = 0xFFFF;

struct Type;

struct Field {
    int line = 0;
    std::string name;
    Shape shape = Shape::scalar;
    std::string type_name;      // as written: a primitive, "var_string", or a catalogue type
    std::optional<Prim> prim;   // primitive element type
    Type *type = nullptr;       // catalogue element type
    unsigned count = 1;         // fixed-array elements
    std::string companion_name; // count/length field named by a var array or var string
    int companion = -1;         // resolved both ways (see ops/types.h)
    std::string select_name;    // member: discriminator literal
    uint32_t select = 0;
    int from = 0;
    bool discriminator = false; // the field that selects a union's member

    // layout
    unsigned offset = 0, size = 0, elem_size = 0, align = 1;
    unsigned sttr_pos = 0, sttr_nested = no_area;

    unsigned end() const { return offset + size; }
};

struct Literal {
    int line = 0;
    std::string name;
    uint32_t user = 0, wire = 0;
    int from = 0;
};

struct Type {
    int line = 0;
    std::string name;
    TypeKind kind = TypeKind::record;
    int n_variants = 1;
    std::string discriminator_name;
    int discriminator = -1;
    bool select_by_user_value = false; // union: members chosen by the discriminator's user value
    std::vector<Field> fields;
    std::vector<Literal> literals;
    unsigned index = 0; // registration order
    // The catalogue's own words about the type, for the public header: the comment paragraph that
    // heads its group (one followed by a blank line), and the one written right above it.
    std::string group, note;

    // layout
    bool laid_out = false, laying_out = false;
    std::vector<unsigned> used; // per variant
    unsigned size = 0;
    unsigned sttr_size = 0, sttr_align = 1;

    // identity
    std::string definition; // canonical definition text
    bool fingerprinted = false, fingerprinting = false;
    std::array<uint8_t, 16> fingerprint{};
    std::array<uint8_t, 16> second_digest{};

    bool is_enum() const { return kind == TypeKind::enumeration; }
    const char *kind_word() const { return is_enum() ? "enum" : "type"; }
    unsigned last_used() const { return used.back(); }
};

// A bundle this one depends on: registering this bundle's handler registers it with that bundle
// too (a "depends" line).
struct Dependency {
    int line = 0;
    std::string bundle;
    bool takes_arg = false; // resolved from the runtime contract: its calls take the caller's pointer
};

struct Catalogue {
    std::string domain = "ovrin_sm"; // names the bundle, its exports and its generated files
    std::string path;
    std::string text; // the file as read, for the build record's package id
    std::vector<std::unique_ptr<Type>> types;
    std::map<std::string, Type *> by_name;
    std::vector<Dependency> depends; // in registration order
};

// parse.cpp
Catalogue parse_catalogue(const std::string &path, const std::string &text);
std::optional<Prim> primitive(const std::string &name);
const char *prim_c_type(Prim p);

// layout.cpp: resolves names, lays out every type and computes state-flag areas and fingerprints.
void resolve(Catalogue &c);
void lay_out(Catalogue &c);
void fingerprint(Catalogue &c);
std::string hex(const uint8_t *bytes, size_t n);

} // namespace gen

#endif
