// The JSON form of records, unions and enumerations. The writer walks an instance with the field
// walker, as the XML writer does, into one growing text; the reader walks a document that
// jansson has parsed against the type's fields, strictly unless asked to be lenient, and names
// the offending value of a refused document by its JSON pointer.
#include "ops/text/json.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <jansson.h>

#include "ops/enum/enum.h"
#include "ops/record/lifecycle.h"
#include "ops/walk.h"

namespace ovrin {

namespace {

// ------------------------------------------------------------------ bytes of counted strings

// The length of the UTF-8 character at s (of at most n bytes) when it may be written as it is:
// a valid sequence that is not one of the private-use characters U+E000..U+E0FF, which stand for
// single bytes. 0 otherwise.
size_t plain_utf8(const uint8_t *s, size_t n) {
    uint8_t c = s[0];
    if (c < 0x80) return 1;
    size_t len = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (!len || len > n) return 0;
    for (size_t k = 1; k < len; ++k)
        if ((s[k] & 0xC0) != 0x80) return 0;
    if (c == 0xE0 && s[1] < 0xA0) return 0;                  // overlong
    if (c == 0xED && s[1] >= 0xA0) return 0;                 // surrogates
    if (c == 0xF0 && s[1] < 0x90) return 0;                  // overlong
    if (c == 0xF4 && s[1] >= 0x90) return 0;                 // beyond U+10FFFF
    if (c == 0xEE && s[1] >= 0x80 && s[1] <= 0x83) return 0; // U+E000..U+E0FF
    return len;
}

// A string read from a document, its private-use characters U+E000..U+E0FF turned back into the
// bytes they stand for, into out (at least text.size() bytes). The number of bytes.
size_t unescape_private(std::string_view text, char *out) {
    const auto *s = reinterpret_cast<const uint8_t *>(text.data());
    size_t n = 0;
    for (size_t i = 0; i < text.size();) {
        if (s[i] == 0xEE && i + 2 < text.size() && s[i + 1] >= 0x80 && s[i + 1] <= 0x83) {
            out[n++] = static_cast<char>(((s[i + 1] & 0x03) << 6) | (s[i + 2] & 0x3F));
            i += 3;
        } else {
            out[n++] = static_cast<char>(s[i++]);
        }
    }
    return n;
}

// ------------------------------------------------------------------ writing

constexpr size_t first_growth = 4096;

// The text being written: one block from the C heap that doubles when it runs short, so that the
// text is whole and each byte is copied O(1) times. Once the heap refuses, nothing more is written
// and the handle's last error is 12.
class JsonOut {
public:
    JsonOut(mgx_handle_t *h, char **text, size_t *size, bool pretty) : h_(h), text_(text), size_(size), pretty_(pretty) {}

    bool ok() const { return ok_; }
    void out_of_memory() {
        ok_ = false;
        mgx_store_err(h_, MGX_ENOMEM);
    }
    size_t length() const { return n_; }

    void raw(const char *s, size_t k) {
        if (!room(k)) return;
        std::memcpy(*text_ + n_, s, k);
        n_ += k;
        (*text_)[n_] = '\0';
    }
    void raw(const char *s) { raw(s, std::strlen(s)); }
    void ch(char c) { raw(&c, 1); }
    void number(uint64_t v) {
        char digits[20];
        size_t k = sizeof digits;
        do digits[--k] = static_cast<char>('0' + v % 10);
        while (v /= 10);
        raw(digits + k, sizeof digits - k);
    }
    void quoted_number(uint64_t v) {
        ch('"');
        number(v);
        ch('"');
    }
    void string(const char *s, size_t n);

    // Structure: open, then one item() per member or element (the first without a comma), close.
    void open(char bracket) {
        ch(bracket);
        ++depth_;
        first_ = true;
    }
    void item() {
        if (!first_) ch(',');
        first_ = false;
        newline();
    }
    void key(const char *name) {
        item();
        string(name, std::strlen(name));
        if (pretty_) raw(": ", 2);
        else ch(':');
    }
    void close(char bracket) {
        --depth_;
        if (!first_) newline(); // an empty object or array stays "{}" or "[]"
        first_ = false;
        ch(bracket);
    }

private:
    void newline() {
        if (!pretty_) return;
        ch('\n');
        for (unsigned k = 0; k < depth_; ++k) raw("  ", 2);
    }
    bool room(size_t k) {
        if (!ok_) return false;
        if (*text_ && n_ + k < *size_) return true;
        size_t want = *text_ && *size_ ? *size_ : first_growth;
        while (want <= n_ + k) want *= 2;
        auto *bigger = static_cast<char *>(std::realloc(*text_, want));
        if (!bigger) {
            out_of_memory();
            return false;
        }
        *text_ = bigger;
        *size_ = want;
        return true;
    }

    mgx_handle_t *h_;
    char **text_;
    size_t *size_;
    bool pretty_;
    bool ok_ = true;
    bool first_ = true;
    unsigned depth_ = 0;
    size_t n_ = 0;
};

// Every byte kept: valid UTF-8 as it is, the escapes JSON requires, and any other byte (and the
// bytes of a literal U+E000..U+E0FF) as the private-use character U+E000 + byte.
void JsonOut::string(const char *s, size_t n) {
    const auto *u = reinterpret_cast<const uint8_t *>(s);
    static const char hex[] = "0123456789abcdef";
    ch('"');
    size_t run = 0; // plain bytes waiting to be copied
    auto flush = [&](size_t i) {
        if (run) raw(s + i - run, run);
        run = 0;
    };
    for (size_t i = 0; i < n;) {
        uint8_t c = u[i];
        const char *escape = c == '"'    ? "\\\""
                             : c == '\\' ? "\\\\"
                             : c == '\n' ? "\\n"
                             : c == '\t' ? "\\t"
                             : c == '\r' ? "\\r"
                             : c == '\b' ? "\\b"
                             : c == '\f' ? "\\f"
                                         : nullptr;
        size_t plain = escape || c < 0x20 ? 0 : plain_utf8(u + i, n - i);
        if (plain) {
            run += plain;
            i += plain;
            continue;
        }
        flush(i);
        if (escape) {
            raw(escape);
        } else {
            char ref[6] = {'\\', 'u', c < 0x20 ? '0' : 'e', '0', hex[c >> 4], hex[c & 15]};
            raw(ref, sizeof ref);
        }
        ++i;
    }
    flush(n);
    ch('"');
}

void write_record(const Type &t, JsonOut &o, const void *instance);

void write_enum(const Type &t, JsonOut &o, const void *instance) {
    uint32_t value = static_cast<const EnumInstance *>(instance)->value;
    if (const Literal *l = literal_named_by(t, value)) o.string(l->name, std::strlen(l->name));
    else o.number(value); // a value no literal names travels as it is
}

template <class T> T load(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

uint32_t get32(const uint8_t *p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }

// An attribute list, read through its wire form (a 32-bit count, then per attribute its 32-bit
// type and length and the value bytes, big-endian), the one view of it the runtime contract gives.
void write_attributes(JsonOut &o, const aaa_tlv *list) {
    static const char hex[] = "0123456789abcdef";
    uint32_t err = 0, length = aaa_tlv_len(nullptr, 0, list);
    auto *wire = static_cast<uint8_t *>(std::malloc(length ? length : 1));
    if (!wire) return o.out_of_memory();
    uint32_t got = aaa_tlv_marshal(nullptr, 0, wire, list, static_cast<int32_t>(length), &err);
    o.open('[');
    for (uint32_t i = 0, n = got >= 4 && !err ? get32(wire) : 0, at = 4; i < n && o.ok(); ++i) {
        uint32_t type = get32(wire + at), size = get32(wire + at + 4);
        const uint8_t *value = wire + at + 8;
        at += 8 + size;
        o.item();
        o.open('{');
        o.key("type");
        o.number(type);
        o.key("value");
        o.ch('"');
        for (uint32_t k = 0; k < size; ++k) {
            const char pair[2] = {hex[value[k] >> 4], hex[value[k] & 15]};
            o.raw(pair, 2);
        }
        o.ch('"');
        o.close('}');
    }
    o.close(']');
    std::free(wire);
}

void write_element(const Field &f, JsonOut &o, const void *element) {
    char text[64];
    switch (f.kind) {
    case Kind::u8: o.number(load<uint8_t>(element)); return;
    case Kind::u16: o.number(load<uint16_t>(element)); return;
    case Kind::u32: o.number(load<uint32_t>(element)); return;
    case Kind::u64: o.quoted_number(load<uint64_t>(element)); return;
    case Kind::boolean: o.raw(load<mgx_boolean>(element) ? "true" : "false"); return;
    case Kind::mac_addr: {
        const auto mac = load<mgx_mac_addr>(element);
        const uint8_t *m = mac.octet;
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
        break;
    }
    case Kind::ipv4_addr: {
        const auto v = load<ipv4_addr>(element);
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", v >> 24, (v >> 16) & 255, (v >> 8) & 255, v & 255);
        break;
    }
    case Kind::ipv6_addr:
        if (!inet_ntop(AF_INET6, element, text, sizeof text)) text[0] = '\0';
        break;
    case Kind::aaa_tlv: write_attributes(o, static_cast<const aaa_tlv *>(element)); return;
    case Kind::enumeration: write_enum(*f.type, o, element); return;
    case Kind::record: write_record(*f.type, o, element); return;
    case Kind::character: return; // only ever the characters of a counted string
    }
    o.string(text, std::strlen(text));
}

void write_record(const Type &t, JsonOut &o, const void *instance) {
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    o.open('{');
    for (FieldAt<const void> a : fields(t, instance, variant < 0 ? -1 : variant)) {
        if (!o.ok()) break;
        const Field &f = a.field();
        switch (f.shape) {
        case Shape::scalar:
            o.key(f.name);
            write_element(f, o, a.address());
            break;
        case Shape::fixed_array:
        case Shape::var_array:
            o.key(f.name);
            o.open('[');
            for (uint32_t k = 0, n = a.elements(); k < n && o.ok(); ++k) {
                o.item();
                write_element(f, o, a.element(k));
            }
            o.close(']');
            break;
        case Shape::var_string:
            o.key(f.name);
            o.string(static_cast<const char *>(a.block()), a.block() ? a.count() : 0);
            break;
        case Shape::member:
            if (a.selected() && a.block()) {
                o.key(f.name);
                write_record(*f.type, o, a.block());
            }
            break;
        }
    }
    o.close('}');
}

// ------------------------------------------------------------------ reading

// One step of the way to the value being read: a member's name or an element's index.
struct Step {
    std::string_view key;
    uint32_t index;
};
// Records nest as deep as the catalogue lets them, far less than the document's own limit; the
// way is kept to this depth and no deeper (a pointer to a deeper value names its ancestor).
constexpr unsigned max_steps = OVRIN_JSON_MAX_DEPTH + 2;

// A document being read into an instance: the handle and owner, the mode, the way to the value
// in hand, and the first refusal (code, text and pointer) in strict mode.
struct JsonIn {
    JsonIn(mgx_handle_t *handle, uint32_t owner, bool lenient_mode) : h(handle), luid(owner), lenient(lenient_mode) {}
    mgx_handle_t *h;
    uint32_t luid;
    bool lenient;
    uint32_t code = 0;
    char *text = nullptr;
    char *pointer = nullptr;
    Step way[max_steps] = {};
    unsigned depth = 0;

    // The value at the end of the way is refused: in strict mode the read stops with 22 and says
    // why; in lenient mode the value is skipped. Either way the caller leaves the value alone.
    void refuse(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void out_of_memory() { stop(MGX_ENOMEM, "out of memory"); }
    void stop(uint32_t c, const char *what) {
        if (code) return;
        code = c;
        text = strdup(what);
        pointer = make_pointer();
    }
    bool stopped() const { return code != 0; }
    char *make_pointer() const;
};

// A step onto a member or an element for as long as it is in scope.
class Into {
public:
    Into(JsonIn &in, std::string_view key, uint32_t index = 0) : in_(in) {
        if (in_.depth < max_steps) in_.way[in_.depth] = Step{key, index};
        ++in_.depth;
    }
    ~Into() { --in_.depth; }
    Into(const Into &) = delete;
    Into &operator=(const Into &) = delete;

private:
    JsonIn &in_;
};

void JsonIn::refuse(const char *format, ...) {
    if (lenient || code) return;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    code = MGX_EINVAL;
    text = static_cast<char *>(std::malloc(n > 0 ? static_cast<size_t>(n) + 1 : 1));
    if (text) std::vsnprintf(text, static_cast<size_t>(n) + 1, format, again);
    va_end(again);
    pointer = make_pointer();
}

// RFC 6901: "/" before each step, "~" written "~0" and "/" written "~1" in names.
char *JsonIn::make_pointer() const {
    unsigned steps = depth < max_steps ? depth : max_steps;
    size_t n = 1;
    for (unsigned k = 0; k < steps; ++k) n += 1 + (way[k].key.data() ? 2 * way[k].key.size() : 10);
    auto *p = static_cast<char *>(std::malloc(n));
    if (!p) return nullptr;
    size_t at = 0;
    for (unsigned k = 0; k < steps; ++k) {
        p[at++] = '/';
        if (!way[k].key.data()) {
            at += static_cast<size_t>(std::snprintf(p + at, n - at, "%u", way[k].index));
            continue;
        }
        for (char c : way[k].key) {
            if (c == '~' || c == '/') {
                p[at++] = '~';
                p[at++] = c == '~' ? '0' : '1';
            } else {
                p[at++] = c;
            }
        }
    }
    p[at] = '\0';
    return p;
}

// ---- the parsed document, as jansson holds it

bool is(const json_t *e, json_type type) { return json_typeof(e) == type; }
std::string_view string_of(const json_t *e) { return {json_string_value(e), json_string_length(e)}; }

// body(name, value) for each member of an object in the document's order, while it answers true.
template <class Body> void each_member(const json_t *object, Body body) {
    auto *o = const_cast<json_t *>(object);
    for (void *it = json_object_iter(o); it; it = json_object_iter_next(o, it))
        if (!body(std::string_view(json_object_iter_key(it), json_object_iter_key_len(it)),
                  static_cast<const json_t *>(json_object_iter_value(it))))
            return;
}

const char *json_kind(const json_t *e) {
    switch (json_typeof(e)) {
    case JSON_ARRAY: return "an array";
    case JSON_OBJECT: return "an object";
    case JSON_INTEGER:
    case JSON_REAL: return "a number";
    case JSON_STRING: return "a string";
    case JSON_TRUE:
    case JSON_FALSE: return "true or false";
    case JSON_NULL: return "null";
    }
    return "a value";
}

const char *kind_name(Kind k) {
    static const char *const names[] = {"u_int8",       "u_int16",   "u_int32",   "u_int64", "mgx_boolean",
                                        "mgx_mac_addr", "ipv4_addr", "ipv6_addr", "aaa_tlv", "character"};
    return names[static_cast<int>(k)];
}

// At most this many characters of a refused text are repeated in the refusal.
int shown(std::string_view s) { return static_cast<int>(s.size() > 64 ? 64 : s.size()); }

// An unsigned integer of at most max: a JSON integer, or (quoted allowed) a string of digits.
bool read_unsigned(JsonIn &in, const json_t *e, uint64_t max, const char *what, bool quoted_allowed, uint64_t &out) {
    uint64_t v = 0;
    switch (json_typeof(e)) {
    case JSON_INTEGER: {
        json_int_t s = json_integer_value(e);
        if (s < 0) {
            in.refuse("%lld is below 0, the smallest %s", static_cast<long long>(s), what);
            return false;
        }
        v = static_cast<uint64_t>(s);
        break;
    }
    case JSON_STRING: {
        std::string_view s = string_of(e);
        if (!quoted_allowed) {
            in.refuse("expected a number, found a string");
            return false;
        }
        if (s.empty() || s.size() > 20) {
            in.refuse("\"%.*s\" is not a number", shown(s), s.data());
            return false;
        }
        for (char c : s) {
            if (c < '0' || c > '9') {
                in.refuse("\"%.*s\" is not a number", shown(s), s.data());
                return false;
            }
            uint64_t digit = static_cast<uint64_t>(c - '0');
            if (v > (UINT64_MAX - digit) / 10) {
                in.refuse("\"%.*s\" is above %llu, the largest %s", shown(s), s.data(), static_cast<unsigned long long>(max),
                          what);
                return false;
            }
            v = v * 10 + digit;
        }
        break;
    }
    case JSON_REAL: in.refuse("%g is not a whole number", json_real_value(e)); return false;
    default:
        in.refuse("expected %s, found %s", quoted_allowed ? "a number or a string of digits" : "a number", json_kind(e));
        return false;
    }
    if (v > max) {
        in.refuse("%llu is above %llu, the largest %s", static_cast<unsigned long long>(v), static_cast<unsigned long long>(max),
                  what);
        return false;
    }
    out = v;
    return true;
}

bool read_string(JsonIn &in, const json_t *e, std::string_view &out) {
    if (!is(e, JSON_STRING)) {
        in.refuse("expected a string, found %s", json_kind(e));
        return false;
    }
    out = string_of(e);
    return true;
}

// A value stored into an instance: write-notified, as every other read stores.
template <class T> void store(JsonIn &in, void *at, T value, const void *base) {
    notify(in.h, at, sizeof value, in.luid, base);
    std::memcpy(at, &value, sizeof value);
}

int hex_digit(char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool parse_mac(std::string_view s, mgx_mac_addr &mac) {
    if (s.size() != 17) return false;
    for (size_t i = 0; i < 6; ++i) {
        int hi = hex_digit(s[3 * i]), lo = hex_digit(s[3 * i + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && s[3 * i + 2] != ':')) return false;
        mac.octet[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

// An address in its text form; inet_pton wants a terminated string, and addresses are short.
bool parse_address(std::string_view s, int family, void *out) {
    char text[64];
    if (s.size() >= sizeof text || std::memchr(s.data(), '\0', s.size())) return false;
    std::memcpy(text, s.data(), s.size());
    text[s.size()] = '\0';
    return inet_pton(family, text, out) == 1;
}

void put32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// One attribute, {"type": N, "value": "<hex>"}, appended to the list's wire form at *at; false
// when it cannot be read (refused, or left out leniently).
bool read_attribute(JsonIn &in, const json_t *item, uint8_t *wire, size_t &at) {
    if (!is(item, JSON_OBJECT)) {
        in.refuse("expected an object, found %s", json_kind(item));
        return false;
    }
    bool have_type = false, have_value = false, bad = false;
    uint64_t type = 0;
    std::string_view hex;
    each_member(item, [&](std::string_view key, const json_t *value) {
        Into member(in, key);
        if (key == "type") {
            have_type = read_unsigned(in, value, UINT32_MAX, "attribute type", false, type);
        } else if (key == "value") {
            have_value = read_string(in, value, hex);
            bool even = have_value && hex.size() % 2 == 0;
            for (size_t k = 0; even && k < hex.size(); ++k) even = hex_digit(hex[k]) >= 0;
            if (have_value && !even) {
                in.refuse("\"%.*s\" is not hexadecimal bytes", shown(hex), hex.data());
                have_value = false;
            }
        } else {
            in.refuse("an attribute has no member %.*s; it has type and value", shown(key), key.data());
            bad = true;
        }
        return !in.stopped();
    });
    if (in.stopped() || bad) return false;
    if (!have_type || !have_value) {
        in.refuse("an attribute needs both type and value");
        return false;
    }
    put32(wire + at, static_cast<uint32_t>(type));
    put32(wire + at + 4, static_cast<uint32_t>(hex.size() / 2));
    for (size_t k = 0; k < hex.size(); k += 2)
        wire[at + 8 + k / 2] = static_cast<uint8_t>(hex_digit(hex[k]) << 4 | hex_digit(hex[k + 1]));
    at += 8 + hex.size() / 2;
    return true;
}

// An attribute list's elements put into the list as its wire form, so that the runtime's own
// reader builds the new body (the list's object references stay).
void read_attributes(JsonIn &in, const json_t *e, aaa_tlv *list) {
    if (!is(e, JSON_ARRAY)) return in.refuse("expected an array, found %s", json_kind(e));
    const size_t n = json_array_size(e);
    uint64_t need = 4; // at most: every item's type and length, and the bytes of its value
    for (size_t i = 0; i < n; ++i) {
        const json_t *value = json_object_get(json_array_get(e, i), "value");
        need += 8 + (value && is(value, JSON_STRING) ? json_string_length(value) / 2 : 0);
    }
    if (need > INT32_MAX) return in.refuse("the attributes take more than %d bytes", INT32_MAX);
    auto *wire = static_cast<uint8_t *>(std::malloc(need));
    if (!wire) return in.out_of_memory();
    uint32_t count = 0;
    size_t at = 4;
    for (size_t i = 0; i < n && !in.stopped(); ++i) {
        Into step(in, {}, static_cast<uint32_t>(i));
        count += read_attribute(in, json_array_get(e, i), wire, at);
    }
    if (!in.stopped()) {
        put32(wire, count);
        uint32_t err = 0;
        aaa_tlv_unmarshal(in.h, in.luid, wire, list, static_cast<int32_t>(at), 0, &err);
        if (err == MGX_ENOMEM) in.out_of_memory();
        else if (err) in.stop(err, "the attributes cannot be stored");
    }
    std::free(wire);
}

void read_record(const Type &t, JsonIn &in, const json_t *e, void *instance);

void read_enum(const Type &t, JsonIn &in, const json_t *e, void *instance, const void *base) {
    uint32_t value;
    const Literal *l = nullptr;
    if (is(e, JSON_STRING)) {
        std::string_view name = string_of(e);
        for (uint16_t i = 0; i < t.n_literals && !l; ++i)
            if (name == t.literals[i].name) l = &t.literals[i];
        if (!l) return in.refuse("%.*s is not a literal of %s", shown(name), name.data(), t.name);
        value = l->user;
    } else {
        uint64_t v;
        if (!is(e, JSON_INTEGER)) return in.refuse("expected a literal of %s, found %s", t.name, json_kind(e));
        if (!read_unsigned(in, e, UINT32_MAX, t.name, false, v)) return;
        value = static_cast<uint32_t>(v); // a value no literal names is kept as it is (as decode keeps it)
        l = literal_named_by(t, value);
    }
    // A literal, by name or by value, of a variant later than the instance's (which its text would
    // name, and a strict read refuse).
    const int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    if (l && !enum_admits(t, l->user, variant < 0 ? t.last_variant() : variant))
        return in.refuse("%s is not a literal of %s in variant %d", l->name, t.name, variant);
    store(in, &static_cast<EnumInstance *>(instance)->value, value, base);
}

void read_element(const Field &f, JsonIn &in, const json_t *e, void *at, const void *base) {
    uint64_t v;
    std::string_view s;
    switch (f.kind) {
    case Kind::u8:
        if (read_unsigned(in, e, UINT8_MAX, "u_int8", false, v)) store(in, at, static_cast<uint8_t>(v), base);
        return;
    case Kind::u16:
        if (read_unsigned(in, e, UINT16_MAX, "u_int16", false, v)) store(in, at, static_cast<uint16_t>(v), base);
        return;
    case Kind::u32:
        if (read_unsigned(in, e, UINT32_MAX, "u_int32", false, v)) store(in, at, static_cast<uint32_t>(v), base);
        return;
    case Kind::u64:
        if (read_unsigned(in, e, UINT64_MAX, "u_int64", true, v)) store(in, at, v, base);
        return;
    case Kind::boolean:
        if (!json_is_boolean(e)) return in.refuse("expected true or false, found %s", json_kind(e));
        store(in, at, static_cast<mgx_boolean>(json_is_true(e) ? 1 : 0), base);
        return;
    case Kind::mac_addr: {
        mgx_mac_addr mac;
        if (!read_string(in, e, s)) return;
        if (!parse_mac(s, mac)) return in.refuse("\"%.*s\" is not a MAC address", shown(s), s.data());
        store(in, at, mac, base);
        return;
    }
    case Kind::ipv4_addr: {
        in_addr a;
        if (!read_string(in, e, s)) return;
        if (!parse_address(s, AF_INET, &a)) return in.refuse("\"%.*s\" is not an IPv4 address", shown(s), s.data());
        store(in, at, static_cast<ipv4_addr>(ntohl(a.s_addr)), base);
        return;
    }
    case Kind::ipv6_addr: {
        ipv6_addr a;
        if (!read_string(in, e, s)) return;
        if (!parse_address(s, AF_INET6, a.word)) return in.refuse("\"%.*s\" is not an IPv6 address", shown(s), s.data());
        store(in, at, a, base);
        return;
    }
    case Kind::aaa_tlv: read_attributes(in, e, static_cast<aaa_tlv *>(at)); return;
    case Kind::enumeration: read_enum(*f.type, in, e, at, base); return;
    case Kind::record: read_record(*f.type, in, e, at); return;
    case Kind::character: return;
    }
}

// A counted string's bytes, replacing the old ones; the length follows. An empty string holds no
// block, as a decoded or fresh one does (compare tells a block of none apart from no block).
void read_var_string(const FieldAt<void> &a, JsonIn &in, const json_t *e) {
    std::string_view s;
    if (!read_string(in, e, s)) return;
    if (s.empty()) {
        free_block(in.h, in.luid, a.pointer(), a.instance());
        set_count(in.h, in.luid, a, 0);
        return;
    }
    if (s.size() > UINT32_MAX - 1) return in.refuse("a string of %zu bytes is longer than a length holds", s.size());
    auto *text = static_cast<char *>(new_text(in.h, in.luid, s.size()));
    if (!text) return in.out_of_memory();
    size_t n = unescape_private(s, text);
    text[n] = '\0';
    if (a.counter().kind == Kind::u16 && n > UINT16_MAX) {
        drop_text(in.h, in.luid, text);
        return in.refuse("a string of %zu bytes is longer than its u_int16 length holds", n);
    }
    replace_text(in.h, in.luid, a.pointer(), text, a.instance());
    set_count(in.h, in.luid, a, static_cast<uint32_t>(n));
}

void read_array(const FieldAt<void> &a, const Type &t, JsonIn &in, const json_t *e) {
    const Field &f = a.field();
    if (!is(e, JSON_ARRAY)) return in.refuse("expected an array, found %s", json_kind(e));
    const size_t given = json_array_size(e);
    if (f.shape == Shape::fixed_array && given != f.count && !in.lenient)
        return in.refuse("holds %zu elements; %s has %u", given, f.name, f.count);
    if (f.shape == Shape::var_array) {
        uint32_t most = a.counter().kind == Kind::u16 ? UINT16_MAX : UINT32_MAX;
        if (given > most) return in.refuse("holds %zu elements, more than its count member holds", given);
        uint32_t err = 0;
        if (!replace_array(a, in.h, in.luid, static_cast<uint32_t>(given), tracking(t, in.h), &err))
            return err == MGX_ENOMEM ? in.out_of_memory() : in.stop(err, "the array cannot be made");
    }
    const uint32_t n = a.elements(); // leniently, a fixed array's elements past its count are left out
    for (uint32_t k = 0; k < n && k < given && !in.stopped(); ++k) {
        Into step(in, {}, k);
        read_element(f, in, json_array_get(e, k), a.element(k), a.instance());
    }
}

// The field named key, or null (a linear search: a type's fields are few).
const Field *field_named(const Type &t, std::string_view key) {
    for (uint16_t i = 0; i < t.n_fields; ++i)
        if (key == t.fields[i].name) return &t.fields[i];
    return nullptr;
}

// The discriminator's literal (or value) and the member it selects, for a member it does not.
void refuse_unselected(const Type &t, JsonIn &in, void *instance, int variant) {
    const Field &d = t.fields[t.discriminator];
    const uint32_t value = stored_selector(t, instance);
    const Literal *l = literal_named_by(*d.type, value);
    const Field *chosen = nullptr;
    for (FieldAt<void> m : fields(t, instance, variant))
        if (m->shape == Shape::member && m.selected()) chosen = &m.field();
    char number[12];
    std::snprintf(number, sizeof number, "%u", value);
    in.refuse("%s is %s, which selects %s", d.name, l ? l->name : number, chosen ? chosen->name : "no member");
}

void read_record(const Type &t, JsonIn &in, const json_t *e, void *instance) {
    if (!is(e, JSON_OBJECT)) return in.refuse("expected an object (%s), found %s", t.name, json_kind(e));
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    if (variant < 0) variant = t.last_variant();
    OldCounts counts; // the counts and lengths the object gives, checked once their arrays are read

    // Every member but the union's members, in the document's order.
    each_member(e, [&](std::string_view key, const json_t *value) {
        Into step(in, key);
        const Field *f = field_named(t, key);
        if (!f) {
            in.refuse("%s has no member %.*s", t.name, shown(key), key.data());
        } else if (!present(*f, variant)) {
            in.refuse("%s has no member %s in variant %d", t.name, f->name, variant);
        } else if (f->shape != Shape::member) {
            FieldAt<void> a = field_of(t, *f, instance);
            uint64_t v;
            if (!a.is_counter()) {
                if (f->shape == Shape::scalar) read_element(*f, in, value, a.address(), instance);
                else if (f->shape == Shape::var_string) read_var_string(a, in, value);
                else read_array(a, t, in, value);
            } else if (read_unsigned(in, value, f->kind == Kind::u16 ? UINT16_MAX : UINT32_MAX, kind_name(f->kind), false, v)) {
                counts.keep(a.index(), static_cast<uint32_t>(v));
            }
        }
        return !in.stopped();
    });
    if (in.stopped()) return;
    // A count or length given must be that of what is there now.
    for (FieldAt<void> a : fields(t, instance, variant)) {
        if (!a.is_counter() || !counts.has(a.index())) continue;
        const FieldAt<void> counted = field_of(t, t.fields[a->companion], instance);
        const bool bytes = counted->shape == Shape::var_string;
        const uint32_t says = counts.of(a.index()), holds = bytes ? (counted.block() ? counted.count() : 0) : counted.elements();
        if (says == holds) continue;
        Into step(in, a->name);
        in.refuse("says %u, but %s holds %u %s", says, counted->name, holds, bytes ? "bytes" : "elements");
        if (in.stopped()) return;
    }
    if (t.kind != TypeKind::union_) return;
    // The union's member, once the discriminator is known.
    each_member(e, [&](std::string_view key, const json_t *value) {
        const Field *f = field_named(t, key);
        if (!f || f->shape != Shape::member || !present(*f, variant)) return true;
        Into step(in, key);
        FieldAt<void> a = field_of(t, *f, instance);
        if (!a.selected()) {
            refuse_unselected(t, in, instance, variant);
            return !in.stopped();
        }
        void *&slot = a.pointer();
        if (!slot) {
            void *made = create_internal(*f->type, in.h, in.luid);
            if (!made) {
                in.out_of_memory();
                return false;
            }
            notify(in.h, &slot, sizeof slot, in.luid, instance);
            slot = made;
        }
        read_record(*f->type, in, value, slot);
        return !in.stopped();
    });
}

// Strictly, what is read must be encodable: every union in the instance, at any depth and
// whether the document named it or not, holds the member its discriminator selects. (A union
// left out keeps its fresh discriminator, which may select one.) Walked once over the instance
// after the read, so that any text it writes reads back strictly too.
void check_members(const Type &t, JsonIn &in, const void *instance) {
    const int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    for (FieldAt<const void> a : fields(t, instance, variant < 0 ? t.last_variant() : variant)) {
        if (in.stopped()) return;
        const Field &f = a.field();
        if (f.kind != Kind::record || f.shape == Shape::var_string) continue;
        Into step(in, f.name);
        if (f.shape == Shape::member) {
            if (!a.selected()) continue;
            if (a.block()) {
                check_members(*f.type, in, a.block());
                continue;
            }
            const Field &d = t.fields[t.discriminator];
            const Literal *l = literal_named_by(*d.type, stored_selector(t, instance));
            in.refuse("%s is %s, which selects %s: it is missing", d.name, l ? l->name : "a value", f.name);
        } else if (f.shape == Shape::scalar) {
            check_members(*f.type, in, a.address());
        } else {
            for (uint32_t k = 0, n = a.elements(); k < n && !in.stopped(); ++k) {
                Into element(in, {}, k);
                check_members(*f.type, in, a.element(k));
            }
        }
    }
}

// The JSON pointer of the value the parser stopped at (position bytes in): the document before it
// is read again as far as its structure goes, member names and element indices kept on a stack.
// From the C heap; null when it cannot be had.
char *pointer_at(const char *json, size_t position) {
    struct Frame {
        bool object;
        std::string_view key; // the member being read; its raw text, escapes as written
        uint32_t index;       // the element being read
        bool has_value;       // an element, or a member's value, has begun
    };
    Frame stack[OVRIN_JSON_MAX_DEPTH + 1];
    unsigned depth = 0;
    bool expect_key = false;
    for (size_t i = 0; i < position; ++i) {
        char c = json[i];
        Frame *top = depth ? &stack[depth - 1] : nullptr;
        if (c == '"') {
            size_t start = ++i;
            while (i < position && json[i] != '"') i += json[i] == '\\' ? 2 : 1;
            if (top && top->object && expect_key) {
                top->key = std::string_view(json + start, (i < position ? i : position) - start);
                expect_key = false;
            } else if (top) {
                top->has_value = true;
            }
        } else if (c == '{' || c == '[') {
            if (top) top->has_value = true;
            if (depth == OVRIN_JSON_MAX_DEPTH + 1) break;
            stack[depth++] = Frame{c == '{', {}, 0, false};
            expect_key = c == '{';
        } else if (c == '}' || c == ']') {
            if (depth) --depth;
            expect_key = false;
        } else if (c == ',' && top) {
            if (top->object) expect_key = true, top->key = {};
            else ++top->index;
            top->has_value = false;
        } else if (c != ':' && c != ' ' && c != '\t' && c != '\n' && c != '\r' && top) {
            top->has_value = true;
        }
    }
    // Each frame names its member, or its element once one has begun.
    size_t n = 1;
    for (unsigned k = 0; k < depth; ++k) n += 2 + 2 * stack[k].key.size() + 10;
    auto *p = static_cast<char *>(std::malloc(n));
    if (!p) return nullptr;
    size_t at = 0;
    for (unsigned k = 0; k < depth; ++k) {
        const Frame &f = stack[k];
        if (f.object && f.key.data()) {
            p[at++] = '/';
            for (char c : f.key) {
                if (c == '~' || c == '/') p[at++] = '~', p[at++] = c == '~' ? '0' : '1';
                else p[at++] = c;
            }
        } else if (!f.object && (f.has_value || k + 1 < depth)) {
            at += static_cast<size_t>(std::snprintf(p + at, n - at, "/%u", f.index));
        } else {
            break;
        }
    }
    p[at] = '\0';
    return p;
}

// Where the document first passes a limit of its shape, found over its bytes before it is parsed,
// so that neither the parser's recursion nor its tree grows past what the limits allow: arrays and
// objects nested deeper than OVRIN_JSON_MAX_DEPTH, or more than OVRIN_JSON_MAX_VALUES of the
// characters that open an array or object or separate values ({ [ : ,). Strings are skipped,
// escapes and all. The offset of the character that passes, and which limit; length when none.
struct Overrun {
    size_t at;
    bool too_deep;
};
Overrun overrun_of(const char *json, size_t length) {
    unsigned depth = 0;
    uint32_t values = 0;
    bool in_string = false;
    for (size_t i = 0; i < length; ++i) {
        char c = json[i];
        if (in_string) {
            if (c == '\\') ++i;
            else if (c == '"') in_string = false;
            continue;
        }
        if (c == '"') in_string = true;
        else if ((c == '[' || c == '{') && ++depth > OVRIN_JSON_MAX_DEPTH) return {i, true};
        else if ((c == ']' || c == '}') && depth) --depth;
        if ((c == '[' || c == '{' || c == ':' || c == ',') && ++values > OVRIN_JSON_MAX_VALUES) return {i, false};
    }
    return {length, false};
}

// "line L, column C" of a byte offset, as the parser counts them: lines from 1, columns in
// characters from 1 (the character at the offset included).
void line_and_column(const char *json, size_t offset, int &line, int &column) {
    line = 1;
    column = 0;
    for (size_t i = 0; i <= offset; ++i) {
        if (json[i] == '\n') ++line, column = 0;
        else if ((static_cast<uint8_t>(json[i]) & 0xC0) != 0x80) ++column;
    }
}

} // namespace

int64_t to_json(const Type &t, mgx_handle_t *h, const void *instance, uint32_t flags, char **text, size_t *size) {
    if (!h || !text || !size) return -1;
    mgx_clear_last_error(h, h->desc_call_luid, instance);
    if (!instance) {
        mgx_store_err(h, MGX_EINVAL);
        return -1;
    }
    JsonOut o(h, text, size, flags & OVRIN_JSON_PRETTY);
    o.raw("", 0); // a text, even an empty one, is a terminated block
    if (t.kind == TypeKind::enumeration) write_enum(t, o, instance);
    else write_record(t, o, instance);
    return o.ok() ? static_cast<int64_t>(o.length()) : -1;
}

uint32_t from_json(const Type &t, mgx_handle_t *h, uint32_t luid, const char *json, size_t length, void *instance, uint32_t flags,
                   ovrin_json_error *error) {
    if (error) *error = ovrin_json_error{nullptr, nullptr};
    if (!h) return MGX_EINVAL;
    mgx_clear_last_error(h, luid, instance);
    JsonIn in(h, luid, (flags & OVRIN_JSON_LENIENT) != 0);
    if (!instance || (!json && length)) {
        in.stop(MGX_EINVAL, !instance ? "no instance to read into" : "no document");
    } else if (length > OVRIN_JSON_MAX_DOCUMENT) {
        in.stop(MGX_EINVAL, "the document is larger than the 64 MiB the reader takes");
    } else if (const Overrun over = overrun_of(json, length); over.at < length) {
        int line, column;
        line_and_column(json, over.at, line, column);
        char what[160];
        if (over.too_deep)
            std::snprintf(what, sizeof what,
                          "line %d, column %d: arrays and objects nest deeper than the %u levels the reader takes", line, column,
                          OVRIN_JSON_MAX_DEPTH);
        else
            std::snprintf(what, sizeof what, "line %d, column %d: more values than the %u the reader takes", line, column,
                          OVRIN_JSON_MAX_VALUES);
        in.stop(MGX_EINVAL, what);
        std::free(in.pointer);
        in.pointer = pointer_at(json, over.at);
    } else {
        // Strictly, a member given twice is refused by the parser; leniently the last one counts.
        json_error_t problem;
        const size_t mode = JSON_DECODE_ANY | JSON_ALLOW_NUL | (in.lenient ? 0 : JSON_REJECT_DUPLICATES);
        json_t *root = json_loadb(json ? json : "", length, mode, &problem);
        if (!root && json_error_code(&problem) == json_error_out_of_memory) {
            in.out_of_memory();
        } else if (!root) {
            char what[JSON_ERROR_TEXT_LENGTH + 48];
            std::snprintf(what, sizeof what, "line %d, column %d: %s", problem.line, problem.column, problem.text);
            in.stop(MGX_EINVAL, what);
            std::free(in.pointer);
            in.pointer = pointer_at(json ? json : "", problem.position < 0 ? 0 : static_cast<size_t>(problem.position));
        } else if (t.kind == TypeKind::enumeration ? !is(root, JSON_STRING) && !is(root, JSON_INTEGER) : !is(root, JSON_OBJECT)) {
            // Nothing of it can be read, even leniently.
            char what[160];
            std::snprintf(what, sizeof what,
                          t.kind == TypeKind::enumeration ? "expected a literal of %s, found %s"
                                                          : "expected an object (%s), found %s",
                          t.name, json_kind(root));
            in.stop(MGX_EINVAL, what);
        } else if (t.kind == TypeKind::enumeration) {
            read_enum(t, in, root, instance, instance);
        } else {
            read_record(t, in, root, instance);
            if (!in.lenient) check_members(t, in, instance);
        }
        json_decref(root);
    }
    if (in.code) {
        mgx_store_err(h, in.code);
        if (error) {
            error->text = in.text;
            error->pointer = in.pointer;
            in.text = in.pointer = nullptr;
        }
    }
    std::free(in.text);
    std::free(in.pointer);
    return in.code;
}

} // namespace ovrin
