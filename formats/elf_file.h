// Reading sections and dynamic symbols of an ELF file from disk, of either class (32- or 64-bit)
// and either byte order, as libraries copied off any device are: the sections that are not loaded
// into memory (a bundle's trace texts and manifest) and what a library exports.
//
// The file is held whole in memory, so nothing is allocated beyond its real size: only regular
// files are read, never more than file_limit bytes, and every count, offset and size the headers
// state is checked against the bytes actually read before anything is sized from it.
#ifndef OVRIN_FORMATS_ELF_FILE_H
#define OVRIN_FORMATS_ELF_FILE_H

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace mgx::elf {

// The largest library file read: far above any bundle or runtime, and a bound on what a wrong
// path (a sparse file, a disk image) can make the reader allocate.
inline constexpr uint64_t file_limit = uint64_t{1} << 30;

struct Section {
    std::string name;
    uint32_t type = 0;
    uint64_t flags = 0, offset = 0, size = 0;
    uint32_t link = 0;
};

struct File {
    std::vector<uint8_t> bytes;
    std::vector<Section> sections;
    bool wide = true;        // ELFCLASS64 (else ELFCLASS32)
    bool big_endian = false; // ELFDATA2MSB (else ELFDATA2LSB)

    const Section *find(const std::string &name) const {
        for (const Section &s : sections)
            if (s.name == name) return &s;
        return nullptr;
    }
    // The section's bytes where they lie in the file, without a copy; empty for SHT_NOBITS or a
    // section that does not fit in the file.
    std::span<const uint8_t> view(const Section &s) const {
        if (s.type == SHT_NOBITS || s.offset > bytes.size() || s.size > bytes.size() - s.offset) return {};
        return {bytes.data() + s.offset, static_cast<size_t>(s.size)};
    }
    // A copy of the section's bytes.
    std::vector<uint8_t> contents(const Section &s) const {
        std::span<const uint8_t> v = view(s);
        return {v.begin(), v.end()};
    }
};

namespace detail {

template <typename T> bool read_at(const std::vector<uint8_t> &bytes, uint64_t offset, T &out) {
    if (offset > bytes.size() || sizeof(T) > bytes.size() - offset) return false;
    std::memcpy(&out, bytes.data() + offset, sizeof(T));
    return true;
}

// An unsigned field of width bytes at p, in the file's byte order.
inline uint64_t field(const uint8_t *p, unsigned width, bool big_endian) {
    uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v |= uint64_t{p[big_endian ? width - 1 - i : i]} << (8 * i);
    return v;
}

// The layout of the headers the reader needs, per class: offsets and widths of the fields read.
struct Layout {
    unsigned header_size, shoff, shoff_width, shentsize, shnum, shstrndx;        // the file header
    unsigned shdr_size, sh_flags, sh_offset, sh_size, sh_link, sh_entsize, word; // a section header
    unsigned sym_size, st_shndx;                                                 // a symbol
};
inline constexpr Layout layout64{64, 0x28, 8, 0x3A, 0x3C, 0x3E, 64, 8, 24, 32, 40, 56, 8, 24, 6};
inline constexpr Layout layout32{52, 0x20, 4, 0x2E, 0x30, 0x32, 40, 8, 16, 20, 24, 36, 4, 16, 14};

// One section header, read as the class and byte order say.
struct Header {
    uint32_t name, type, link;
    uint64_t flags, offset, size, entsize;
};
inline Header header_at(const uint8_t *p, const Layout &l, bool be) {
    return {static_cast<uint32_t>(field(p, 4, be)),
            static_cast<uint32_t>(field(p + 4, 4, be)),
            static_cast<uint32_t>(field(p + l.sh_link, 4, be)),
            field(p + l.sh_flags, l.word, be),
            field(p + l.sh_offset, l.word, be),
            field(p + l.sh_size, l.word, be),
            field(p + l.sh_entsize, l.word, be)};
}

inline std::string string_at(const std::vector<uint8_t> &table, uint64_t offset) {
    if (offset >= table.size()) return {};
    const char *begin = reinterpret_cast<const char *>(table.data()) + offset;
    return std::string(begin, strnlen(begin, table.size() - offset));
}

// A section or symbol name; one longer than any name a reader looks for (max_name) is taken as no
// name, so that many entries sharing one long name hold no copies of it.
inline constexpr size_t max_name = 255;
inline std::string name_at(const std::vector<uint8_t> &table, uint64_t offset) {
    if (offset >= table.size()) return {};
    const char *begin = reinterpret_cast<const char *>(table.data()) + offset;
    size_t n = strnlen(begin, std::min<uint64_t>(table.size() - offset, max_name + 1));
    return n > max_name ? std::string() : std::string(begin, n);
}

inline bool fits(uint64_t offset, uint64_t size, uint64_t file_size) { return offset <= file_size && size <= file_size - offset; }

// What a file that is not a regular file is, for messages.
inline const char *file_kind(mode_t mode) {
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISFIFO(mode)) return "a pipe";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

// Opens path for reading and says what it is; -1, with the reason in error, for a file that cannot
// be opened, a directory or a device, and (only_regular) a pipe or socket too. Opened without
// blocking when only regular files are wanted, so a FIFO without a writer cannot hang.
inline int open_for_reading(const std::string &path, bool only_regular, struct stat &st, std::string &error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | (only_regular ? O_NONBLOCK : 0));
    if (fd < 0) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        return -1;
    }
    if (::fstat(fd, &st) != 0) error = "cannot read " + path + ": " + std::strerror(errno);
    else if (S_ISDIR(st.st_mode)) error = "cannot read " + path + ": " + std::strerror(EISDIR);
    else if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || (only_regular && !S_ISREG(st.st_mode)))
        error = "cannot read " + path + ": " + file_kind(st.st_mode) + ", not a file";
    else return fd;
    ::close(fd);
    return -1;
}

// Reads the regular file open on fd (st, its fstat) whole, at most limit bytes; path names it in
// messages. The descriptor stays open.
inline bool read_open_file(int fd, const struct stat &st, const std::string &path, uint64_t limit, std::vector<uint8_t> &out,
                           std::string &error) {
    bool ok = false;
    if (static_cast<uint64_t>(st.st_size) > limit)
        error = path + " is larger than " + std::to_string(limit >> 20) + " MiB, the limit for a library file";
    else ok = true;
    try {
        if (ok) out.resize(static_cast<size_t>(st.st_size));
    } catch (const std::bad_alloc &) {
        error = "cannot read " + path + ": " + std::strerror(ENOMEM);
        ok = false;
    }
    size_t got = 0;
    while (ok && got < out.size()) {
        ssize_t n = ::read(fd, out.data() + got, out.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = "cannot read " + path + ": " + std::strerror(errno);
            ok = false;
        } else if (n == 0) {
            break; // cut while being read: what is there is judged as it stands
        } else {
            got += static_cast<size_t>(n);
        }
    }
    if (ok) out.resize(got);
    return ok;
}

// Reads a regular file whole, at most limit bytes. Directories, devices, pipes and sockets are
// refused without reading.
inline bool read_regular_file(const std::string &path, uint64_t limit, std::vector<uint8_t> &out, std::string &error) {
    struct stat st {};
    int fd = open_for_reading(path, true, st, error);
    if (fd < 0) return false;
    bool ok = read_open_file(fd, st, path, limit, out, error);
    ::close(fd);
    return ok;
}

} // namespace detail

// Takes the bytes of a file read whole and finds its section headers; on failure returns nothing
// and says why in error, naming the file as name.
inline std::optional<File> parse(std::vector<uint8_t> bytes, const std::string &name, std::string &error) try {
    File f;
    f.bytes = std::move(bytes);
    const uint64_t size = f.bytes.size();
    auto fail = [&](const std::string &why) {
        error = name + why;
        return std::nullopt;
    };
    if (size < EI_NIDENT || std::memcmp(f.bytes.data(), ELFMAG, SELFMAG) != 0) return fail(" is not an ELF file");
    const uint8_t elf_class = f.bytes[EI_CLASS], data = f.bytes[EI_DATA];
    if ((elf_class != ELFCLASS32 && elf_class != ELFCLASS64) || (data != ELFDATA2LSB && data != ELFDATA2MSB))
        return fail(" is an ELF file of an unknown kind (class " + std::to_string(elf_class) + ", data " + std::to_string(data) +
                    ")");
    f.wide = elf_class == ELFCLASS64;
    f.big_endian = data == ELFDATA2MSB;
    const detail::Layout &l = f.wide ? detail::layout64 : detail::layout32;
    const bool be = f.big_endian;
    if (size < l.header_size) return fail(" is not an ELF file");
    const uint8_t *eh = f.bytes.data();
    const uint64_t shoff = detail::field(eh + l.shoff, l.shoff_width, be);
    const uint64_t shnum = detail::field(eh + l.shnum, 2, be), shstrndx = detail::field(eh + l.shstrndx, 2, be);
    if (detail::field(eh + l.shentsize, 2, be) != l.shdr_size || shoff == 0) return fail(" has no section headers");
    if (!detail::fits(shoff, l.shdr_size, size)) return fail(": section headers lie outside the file");
    const detail::Header first = detail::header_at(eh + shoff, l, be);
    // With 0xff00 sections or more, the count and the name table index live in section 0.
    const uint64_t count = shnum ? shnum : first.size;
    const uint64_t names_index = shstrndx == SHN_XINDEX ? first.link : shstrndx;
    if (count > (size - shoff) / l.shdr_size)
        return fail(": " + std::to_string(count) + " section headers at byte " + std::to_string(shoff) +
                    " lie outside the file (" + std::to_string(size) + " bytes)");
    std::vector<detail::Header> headers;
    headers.reserve(count);
    for (uint64_t i = 0; i < count; ++i) headers.push_back(detail::header_at(eh + shoff + i * l.shdr_size, l, be));

    std::vector<uint8_t> names;
    if (names_index != SHN_UNDEF) {
        if (names_index >= count)
            return fail(": the section name table is section " + std::to_string(names_index) + " of " + std::to_string(count));
        const detail::Header &h = headers[names_index];
        if (h.type != SHT_STRTAB || !detail::fits(h.offset, h.size, size))
            return fail(": the section name table lies outside the file or is not a string table");
        names = f.contents(Section{{}, h.type, 0, h.offset, h.size, 0});
    }
    f.sections.reserve(count);
    for (uint64_t i = 0; i < count; ++i) {
        const detail::Header &h = headers[i];
        Section s{detail::name_at(names, h.name), h.type, h.flags, h.offset, h.size, h.link};
        const std::string which = "section " + std::to_string(i) + (s.name.empty() ? "" : " (" + s.name + ")");
        // Section 0 carries the extended counts in its size; SHT_NOBITS occupies no file bytes.
        if (i != 0 && h.type != SHT_NULL && h.type != SHT_NOBITS && !detail::fits(h.offset, h.size, size))
            return fail(": " + which + " at byte " + std::to_string(h.offset) + ", " + std::to_string(h.size) +
                        " bytes, lies outside the file (" + std::to_string(size) + " bytes)");
        if ((h.type == SHT_DYNSYM || h.type == SHT_SYMTAB) &&
            (h.entsize != l.sym_size || h.link >= count || headers[h.link].type != SHT_STRTAB))
            return fail(": symbol table " + which + " has entries of " + std::to_string(h.entsize) +
                        " bytes or its string table (section " + std::to_string(h.link) + ") is not one");
        f.sections.push_back(std::move(s));
    }
    return f;
} catch (const std::bad_alloc &) {
    error = name + ": " + std::strerror(ENOMEM);
    return std::nullopt;
}

// Reads the file and its section headers; on failure returns nothing and says why in error.
inline std::optional<File> read(const std::string &path, std::string &error) {
    std::vector<uint8_t> bytes;
    if (!detail::read_regular_file(path, file_limit, bytes, error)) return std::nullopt;
    return parse(std::move(bytes), path, error);
}

// Names of the symbols the file's dynamic symbol table defines (what a shared library exports).
inline std::vector<std::string> defined_dynamic_symbols(const File &f) {
    std::vector<std::string> names;
    const Section *dynsym = nullptr;
    for (const Section &s : f.sections)
        if (s.type == SHT_DYNSYM) dynsym = &s;
    if (!dynsym || dynsym->link >= f.sections.size()) return names;
    const detail::Layout &l = f.wide ? detail::layout64 : detail::layout32;
    std::span<const uint8_t> symbols = f.view(*dynsym);
    std::vector<uint8_t> strings = f.contents(f.sections[dynsym->link]);
    for (size_t off = l.sym_size; off + l.sym_size <= symbols.size(); off += l.sym_size) {
        const uint8_t *sym = symbols.data() + off;
        if (detail::field(sym + l.st_shndx, 2, f.big_endian) != SHN_UNDEF)
            names.push_back(detail::name_at(strings, detail::field(sym, 4, f.big_endian)));
    }
    return names;
}

} // namespace mgx::elf

#endif
