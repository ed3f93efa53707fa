// The trace facility's byte formats, shared by the runtime that writes them and the tools that
// read them off-line:
//
// Message texts section (a non-loaded section of a bundle's library file, named by its table):
//   "MGXTEXTS", u32 count, u32 raw length, u32 CRC-32 of the raw texts, u32 compressed length,
//   then the zlib-compressed texts, NUL-separated, by message number.
//
// Trace file: "MGXTRACE", u32 version (1), u32 0; then records of u32 length (of what follows),
// u8 kind, payload. Readers skip kinds they do not know. Integers are little-endian.
//   kind 1, table:    u16 table index, u32 text count, u32 texts CRC-32, then three strings (u16
//                     length, bytes): module name, section name, library file path.
//   kind 2, emission: u64 time (ns since the epoch), u32 process id, u16 table index, u16 module
//                     id, u32 message number, u32 flags (severity in the top byte), u8 argument
//                     count, then per argument u8 kind and its value: 'u' u32, 'd' i32, 'p' u64,
//                     's' u32 length and bytes.
#ifndef OVRIN_FORMATS_TRACE_FORMAT_H
#define OVRIN_FORMATS_TRACE_FORMAT_H

#include <zlib.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace mgx::tracefmt {

constexpr char texts_magic[8] = {'M', 'G', 'X', 'T', 'E', 'X', 'T', 'S'};
constexpr size_t texts_header_size = 24;
constexpr char file_magic[8] = {'M', 'G', 'X', 'T', 'R', 'A', 'C', 'E'};
constexpr uint32_t file_version = 1;
constexpr size_t file_header_size = 16;
constexpr uint8_t record_table = 1, record_emission = 2;
constexpr uint32_t record_limit = 1u << 20; // longer records are damage, not data
constexpr uint32_t string_arg_limit = 4096; // string arguments are cut to this many bytes

// One argument of an emission.
struct Arg {
    char kind = 'u'; // 'u' unsigned 32-bit, 'd' signed 32-bit, 'p' pointer, 's' string
    uint64_t value = 0;
    std::string text;
};

// ------------------------------------------------------------------ byte order helpers

inline void put(std::string &out, uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
}

inline void put_string16(std::string &out, const std::string &s) {
    size_t n = s.size() < 0xFFFF ? s.size() : 0xFFFF;
    put(out, n, 2);
    out.append(s, 0, n);
}

// Reads little-endian fields from a byte range; any read past the end marks the cursor bad.
struct Cursor {
    const uint8_t *p;
    size_t left;
    bool ok = true;

    uint64_t get(int bytes) {
        if (!ok || left < static_cast<size_t>(bytes)) {
            ok = false;
            return 0;
        }
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
        p += bytes;
        left -= static_cast<size_t>(bytes);
        return v;
    }
    std::string bytes(size_t n) {
        if (!ok || left < n) {
            ok = false;
            return {};
        }
        std::string s(reinterpret_cast<const char *>(p), n);
        p += n;
        left -= n;
        return s;
    }
    std::string string16() { return bytes(get(2)); }
};

inline const char *severity_name(int severity) {
    static const char *const names[] = {"EMERG", "ALERT", "CRIT", "ERR", "WARNING", "NOTICE", "INFO", "DEBUG"};
    return severity >= 0 && severity < 8 ? names[severity] : "?";
}

// ------------------------------------------------------------------ message texts section

inline uint32_t texts_crc(const std::string &raw) {
    return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(raw.data()), static_cast<uInt>(raw.size())));
}

// Builds the section from the texts (the generator's side).
inline std::vector<uint8_t> texts_section(const std::vector<std::string> &texts) {
    std::string raw;
    for (const std::string &t : texts) raw += t + '\0';
    uLongf zlength = compressBound(static_cast<uLong>(raw.size()));
    std::vector<uint8_t> z(zlength);
    if (compress2(z.data(), &zlength, reinterpret_cast<const Bytef *>(raw.data()), static_cast<uLong>(raw.size()),
                  Z_BEST_COMPRESSION) != Z_OK)
        return {};
    std::string head(texts_magic, sizeof texts_magic);
    put(head, texts.size(), 4);
    put(head, raw.size(), 4);
    put(head, texts_crc(raw), 4);
    put(head, zlength, 4);
    std::vector<uint8_t> out(head.begin(), head.end());
    out.insert(out.end(), z.begin(), z.begin() + static_cast<long>(zlength));
    return out;
}

// A section's texts as expanded: their bytes as the section holds them (each text ends with a
// NUL) and where each begins, so a text costs four bytes beyond its own however many there are.
class TextSet {
public:
    size_t size() const { return starts_.size(); }
    bool empty() const { return starts_.empty(); }
    // Text i (i < size()), up to its NUL; a text the section numbers but does not hold is empty.
    std::string_view operator[](size_t i) const {
        std::string_view all(raw_);
        if (starts_[i] >= all.size()) return {};
        all.remove_prefix(starts_[i]);
        return all.substr(0, all.find('\0'));
    }
    // The bytes it takes: the texts' own and four for each.
    uint64_t memory() const { return raw_.size() + uint64_t{starts_.size()} * sizeof(uint32_t); }
    bool operator==(const TextSet &other) const {
        if (size() != other.size()) return false;
        for (size_t i = 0; i < size(); ++i)
            if ((*this)[i] != other[i]) return false;
        return true;
    }

private:
    friend bool expand_texts(const uint8_t *, size_t, uint32_t, uint32_t, TextSet &, std::string &, uint64_t);
    std::string raw_;
    std::vector<uint32_t> starts_;
};

// What a section's texts take once expanded (TextSet::memory), from its header.
inline uint64_t expanded_size(uint32_t raw_length, uint32_t count) {
    return uint64_t{raw_length} + uint64_t{count} * sizeof(uint32_t);
}

// Expands a section into its texts. When count or crc is non-zero the section must match them
// (the table compiled into the code says which texts it numbers); that is checked on the header
// alone, before anything is copied or expanded. Texts that would take more than keep_limit bytes
// (expanded_size) are refused unexpanded. False, with the reason in error, for a damaged,
// mismatched or refused section.
inline bool expand_texts(const uint8_t *section, size_t size, uint32_t count, uint32_t crc, TextSet &out, std::string &error,
                         uint64_t keep_limit = UINT64_MAX) {
    Cursor c{section, size};
    std::string magic = c.bytes(sizeof texts_magic);
    uint32_t n = static_cast<uint32_t>(c.get(4)), raw_length = static_cast<uint32_t>(c.get(4));
    uint32_t sum = static_cast<uint32_t>(c.get(4)), zlength = static_cast<uint32_t>(c.get(4));
    if (!c.ok || magic != std::string(texts_magic, sizeof texts_magic) || zlength > c.left) {
        error = "not a message texts section";
        return false;
    }
    if ((count && n != count) || (crc && sum != crc)) {
        error = "the message texts do not belong to this code (count " + std::to_string(n) + ", expected " +
                std::to_string(count) + ")";
        return false;
    }
    // A bundle numbers a few thousand messages; a million is far beyond any, and keeps what the
    // texts take in memory near their own size however many empty texts a section claims.
    if (raw_length > (64u << 20) || n > (1u << 20)) {
        error = "message texts too long";
        return false;
    }
    if (n > raw_length) { // every text ends with its NUL
        error = "the message texts are damaged";
        return false;
    }
    if (expanded_size(raw_length, n) > keep_limit) {
        error = "more message texts than are kept (" + std::to_string(keep_limit >> 20) + " MiB left)";
        return false;
    }
    std::string raw(raw_length, '\0');
    uLongf raw_len = raw_length;
    if (uncompress(reinterpret_cast<Bytef *>(raw.data()), &raw_len, c.p, zlength) != Z_OK || raw_len != raw_length ||
        texts_crc(raw) != sum) {
        error = "the message texts are damaged";
        return false;
    }
    std::vector<uint32_t> starts;
    starts.reserve(n);
    for (size_t pos = 0; pos < raw.size() && starts.size() < n;) {
        starts.push_back(static_cast<uint32_t>(pos));
        size_t end = raw.find('\0', pos);
        pos = end == std::string::npos ? raw.size() : end + 1;
    }
    starts.resize(n, raw_length);
    out.raw_ = std::move(raw);
    out.starts_ = std::move(starts);
    return true;
}

inline bool expand_texts(const std::vector<uint8_t> &section, uint32_t count, uint32_t crc, TextSet &out, std::string &error) {
    return expand_texts(section.data(), section.size(), count, crc, out, error);
}

// ------------------------------------------------------------------ rendering

// The widest field and the longest precision a conversion may ask for. A text asking for more is
// shown as it stands, so one conversion never yields more than this beyond its argument's own
// bytes, and one emission costs at most a fixed multiple of its text and arguments.
constexpr uint32_t width_limit = 4096;

// One conversion of a text: '%', flags, width, precision and the conversion character. Width and
// precision are -1 when not given; values past width_limit are kept as width_limit + 1.
struct Conversion {
    size_t begin = 0, end = 0; // in the text, '%' to one past the conversion character
    std::string flags;         // each of "-+ #0" at most once
    int64_t width = -1, precision = -1;
    char conv = 0;
};

// Reads the conversion starting at text[i] == '%'; false when the text ends inside it.
inline bool read_conversion(std::string_view text, size_t i, Conversion &c) {
    c = Conversion{};
    c.begin = i++;
    for (; i < text.size() && std::string_view("-+ #0").find(text[i]) != std::string_view::npos; ++i)
        if (c.flags.find(text[i]) == std::string::npos) c.flags.push_back(text[i]);
    auto number = [&](int64_t &value) {
        value = 0;
        for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
            value = std::min<int64_t>(value * 10 + (text[i] - '0'), width_limit + 1);
    };
    if (i < text.size() && text[i] >= '1' && text[i] <= '9') number(c.width);
    if (i < text.size() && text[i] == '.') {
        ++i;
        number(c.precision);
    }
    if (i >= text.size()) return false;
    c.conv = text[i];
    c.end = i + 1;
    return true;
}

// Whether the conversion takes the argument: its character is one the texts use with an argument
// of that kind, and its width and precision are within width_limit.
inline bool takes(const Conversion &c, const Arg &a) {
    if (c.width > width_limit || c.precision > width_limit) return false;
    if (c.conv == 's') return a.kind == 's';
    if (c.conv == 'p') return a.kind == 'p';
    return std::string_view("diuxXoc").find(c.conv) != std::string_view::npos && (a.kind == 'u' || a.kind == 'd');
}

// One conversion formatted with its argument, into a buffer sized for the most it can yield.
inline void format_one(const Conversion &c, const Arg &a, std::string &out) {
    std::string format = "%" + c.flags;
    if (c.width >= 0) format += std::to_string(c.width);
    if (c.precision >= 0) format += "." + std::to_string(c.precision);
    format.push_back(c.conv);
    size_t room = static_cast<size_t>(std::max<int64_t>({c.width, c.precision, 0})) + (a.kind == 's' ? a.text.size() : 32) + 1;
    std::string buf(room, '\0');
    int n;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (a.kind == 's') n = std::snprintf(buf.data(), room, format.c_str(), a.text.c_str());
    else if (a.kind == 'p')
        n = std::snprintf(buf.data(), room, format.c_str(), reinterpret_cast<void *>(static_cast<uintptr_t>(a.value)));
    else if (a.kind == 'd')
        n = std::snprintf(buf.data(), room, format.c_str(), static_cast<int32_t>(static_cast<uint32_t>(a.value)));
    else n = std::snprintf(buf.data(), room, format.c_str(), static_cast<uint32_t>(a.value));
#pragma GCC diagnostic pop
    if (n > 0) out.append(buf, 0, std::min(static_cast<size_t>(n), room - 1));
}

// Formats text with the emission's arguments, one conversion at a time. A text whose conversions
// do not take the arguments given (count, kind, or a width or precision past width_limit) is
// shown as it stands rather than misread.
inline std::string render(std::string_view text, const std::vector<Arg> &args) {
    std::vector<Conversion> conversions;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') continue;
        if (i + 1 < text.size() && text[i + 1] == '%') {
            ++i;
            continue;
        }
        Conversion c;
        if (!read_conversion(text, i, c) || conversions.size() == args.size() || !takes(c, args[conversions.size()]))
            return std::string(text);
        i = c.end - 1;
        conversions.push_back(std::move(c));
    }
    if (conversions.size() != args.size()) return std::string(text);
    std::string out;
    auto literal = [&](size_t from, size_t to) { // "%%" shows one '%'
        for (size_t i = from; i < to; ++i) {
            out.push_back(text[i]);
            if (text[i] == '%') ++i;
        }
    };
    size_t at = 0;
    for (size_t k = 0; k < conversions.size(); ++k) {
        literal(at, conversions[k].begin);
        format_one(conversions[k], args[k], out);
        at = conversions[k].end;
    }
    literal(at, text.size());
    return out;
}

// ------------------------------------------------------------------ trace file

inline std::string file_header() {
    std::string h(file_magic, sizeof file_magic);
    put(h, file_version, 4);
    put(h, 0, 4);
    return h;
}

inline std::string record(uint8_t kind, const std::string &payload) {
    std::string r;
    put(r, payload.size() + 1, 4);
    r.push_back(static_cast<char>(kind));
    return r + payload;
}

struct TableRecord {
    uint16_t index = 0;
    uint32_t count = 0, crc = 0;
    std::string module, section, library;
};

inline std::string table_record(const TableRecord &t) {
    std::string p;
    put(p, t.index, 2);
    put(p, t.count, 4);
    put(p, t.crc, 4);
    put_string16(p, t.module);
    put_string16(p, t.section);
    put_string16(p, t.library);
    return record(record_table, p);
}

struct EmissionRecord {
    uint64_t time_ns = 0;
    uint32_t pid = 0;
    uint16_t table = 0, module = 0;
    uint32_t number = 0, flags = 0;
    std::vector<Arg> args;
};

inline std::string emission_record(const EmissionRecord &e) {
    std::string p;
    put(p, e.time_ns, 8);
    put(p, e.pid, 4);
    put(p, e.table, 2);
    put(p, e.module, 2);
    put(p, e.number, 4);
    put(p, e.flags, 4);
    put(p, e.args.size(), 1);
    for (const Arg &a : e.args) {
        p.push_back(a.kind);
        if (a.kind == 's') {
            size_t n = std::min<size_t>(a.text.size(), string_arg_limit);
            put(p, n, 4);
            p.append(a.text, 0, n);
        } else {
            put(p, a.value, a.kind == 'p' ? 8 : 4);
        }
    }
    return record(record_emission, p);
}

// Reads a trace file's records in order. next() gives the kind of the record read (0 at the end
// or on damage: then error says which, empty at a clean end).
struct FileReader {
    const std::vector<uint8_t> &bytes;
    size_t pos = 0;
    std::string error;
    TableRecord table;
    EmissionRecord emission;

    explicit FileReader(const std::vector<uint8_t> &b) : bytes(b) {
        if (b.size() < file_header_size || std::memcmp(b.data(), file_magic, sizeof file_magic) != 0) {
            error = "not a trace file";
            pos = b.size();
            return;
        }
        Cursor c{b.data() + sizeof file_magic, 4};
        uint32_t version = static_cast<uint32_t>(c.get(4));
        if (version != file_version) {
            error = "trace file version " + std::to_string(version) + " is not known";
            pos = b.size();
            return;
        }
        pos = file_header_size;
    }

    uint8_t next() {
        while (pos < bytes.size()) {
            Cursor head{bytes.data() + pos, bytes.size() - pos};
            uint32_t length = static_cast<uint32_t>(head.get(4));
            if (!head.ok || length == 0 || length > record_limit || length > head.left) {
                error = "the record at byte " + std::to_string(pos) + " is cut short or damaged";
                pos = bytes.size();
                return 0;
            }
            Cursor c{head.p + 1, length - 1};
            uint8_t kind = head.p[0];
            size_t at = pos;
            pos += 4 + length;
            if (kind == record_table) {
                table = TableRecord{};
                table.index = static_cast<uint16_t>(c.get(2));
                table.count = static_cast<uint32_t>(c.get(4));
                table.crc = static_cast<uint32_t>(c.get(4));
                table.module = c.string16();
                table.section = c.string16();
                table.library = c.string16();
            } else if (kind == record_emission) {
                emission = EmissionRecord{};
                emission.time_ns = c.get(8);
                emission.pid = static_cast<uint32_t>(c.get(4));
                emission.table = static_cast<uint16_t>(c.get(2));
                emission.module = static_cast<uint16_t>(c.get(2));
                emission.number = static_cast<uint32_t>(c.get(4));
                emission.flags = static_cast<uint32_t>(c.get(4));
                size_t n = c.get(1);
                for (size_t i = 0; i < n && c.ok; ++i) {
                    Arg a;
                    a.kind = static_cast<char>(c.get(1));
                    if (a.kind == 's') a.text = c.bytes(c.get(4));
                    else if (a.kind == 'u' || a.kind == 'd' || a.kind == 'p') a.value = c.get(a.kind == 'p' ? 8 : 4);
                    else c.ok = false;
                    emission.args.push_back(std::move(a));
                }
            } else {
                continue; // a kind this reader does not know
            }
            if (!c.ok) {
                error = "the record at byte " + std::to_string(at) + " is damaged";
                pos = bytes.size();
                return 0;
            }
            return kind;
        }
        return 0;
    }
};

} // namespace mgx::tracefmt

#endif
