// Reading sections and dynamic symbols of a 64-bit little-endian ELF file from disk: the sections
// that are not loaded into memory (a bundle's trace texts and manifest) and what a library exports.
//
// The file is held whole in memory, so nothing is allocated beyond its real size: only regular
// files are read, never more than file_limit bytes, and every count, offset and size the headers
// state is checked against the bytes actually read before anything is sized from it.
#ifndef MGX_RUNTIME_ELF_FILE_H
#define MGX_RUNTIME_ELF_FILE_H

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
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

inline bool fits(uint64_t offset, uint64_t size, uint64_t file_size) {
    return offset <= file_size && size <= file_size - offset;
}

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
    if (::fstat(fd, &st) != 0)
        error = "cannot read " + path + ": " + std::strerror(errno);
    else if (S_ISDIR(st.st_mode))
        error = "cannot read " + path + ": " + std::strerror(EISDIR);
    else if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || (only_regular && !S_ISREG(st.st_mode)))
        error = "cannot read " + path + ": " + file_kind(st.st_mode) + ", not a file";
    else
        return fd;
    ::close(fd);
    return -1;
}

// Reads the regular file open on fd (st, its fstat) whole, at most limit bytes; path names it in
// messages. The descriptor stays open.
inline bool read_open_file(int fd, const struct stat &st, const std::string &path, uint64_t limit,
                           std::vector<uint8_t> &out, std::string &error) {
    bool ok = false;
    if (static_cast<uint64_t>(st.st_size) > limit)
        error = path + " is larger than " + std::to_string(limit >> 20) + " MiB, the limit for a library file";
    else
        ok = true;
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
    Elf64_Ehdr eh;
    if (!detail::read_at(f.bytes, 0, eh) || std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0)
        return fail(" is not an ELF file");
    if (eh.e_ident[EI_CLASS] != ELFCLASS64 || eh.e_ident[EI_DATA] != ELFDATA2LSB)
        return fail(" is not a 64-bit little-endian ELF file");
    if (eh.e_shentsize != sizeof(Elf64_Shdr) || eh.e_shoff == 0) return fail(" has no section headers");
    Elf64_Shdr first;
    if (!detail::read_at(f.bytes, eh.e_shoff, first)) return fail(": section headers lie outside the file");
    // With 0xff00 sections or more, the count and the name table index live in section 0.
    const uint64_t count = eh.e_shnum ? eh.e_shnum : first.sh_size;
    const uint64_t names_index = eh.e_shstrndx == SHN_XINDEX ? first.sh_link : eh.e_shstrndx;
    if (count > (size - eh.e_shoff) / sizeof(Elf64_Shdr))
        return fail(": " + std::to_string(count) + " section headers at byte " + std::to_string(eh.e_shoff) +
                    " lie outside the file (" + std::to_string(size) + " bytes)");
    std::vector<Elf64_Shdr> headers(count);
    if (count) std::memcpy(headers.data(), f.bytes.data() + eh.e_shoff, count * sizeof(Elf64_Shdr));

    std::vector<uint8_t> names;
    if (names_index != SHN_UNDEF) {
        if (names_index >= count)
            return fail(": the section name table is section " + std::to_string(names_index) + " of " +
                        std::to_string(count));
        const Elf64_Shdr &h = headers[names_index];
        if (h.sh_type != SHT_STRTAB || !detail::fits(h.sh_offset, h.sh_size, size))
            return fail(": the section name table lies outside the file or is not a string table");
        names = f.contents(Section{{}, h.sh_type, 0, h.sh_offset, h.sh_size, 0});
    }
    f.sections.reserve(count);
    for (uint64_t i = 0; i < count; ++i) {
        const Elf64_Shdr &h = headers[i];
        Section s{detail::name_at(names, h.sh_name), h.sh_type, h.sh_flags, h.sh_offset, h.sh_size, h.sh_link};
        const std::string which = "section " + std::to_string(i) + (s.name.empty() ? "" : " (" + s.name + ")");
        // Section 0 carries the extended counts in its size; SHT_NOBITS occupies no file bytes.
        if (i != 0 && h.sh_type != SHT_NULL && h.sh_type != SHT_NOBITS && !detail::fits(h.sh_offset, h.sh_size, size))
            return fail(": " + which + " at byte " + std::to_string(h.sh_offset) + ", " + std::to_string(h.sh_size) +
                        " bytes, lies outside the file (" + std::to_string(size) + " bytes)");
        if ((h.sh_type == SHT_DYNSYM || h.sh_type == SHT_SYMTAB) &&
            (h.sh_entsize != sizeof(Elf64_Sym) || h.sh_link >= count || headers[h.sh_link].sh_type != SHT_STRTAB))
            return fail(": symbol table " + which + " has entries of " + std::to_string(h.sh_entsize) +
                        " bytes or its string table (section " + std::to_string(h.sh_link) + ") is not one");
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
    std::vector<uint8_t> symbols = f.contents(*dynsym), strings = f.contents(f.sections[dynsym->link]);
    for (size_t off = sizeof(Elf64_Sym); off + sizeof(Elf64_Sym) <= symbols.size(); off += sizeof(Elf64_Sym)) {
        Elf64_Sym sym;
        std::memcpy(&sym, symbols.data() + off, sizeof sym);
        if (sym.st_shndx != SHN_UNDEF) names.push_back(detail::name_at(strings, sym.st_name));
    }
    return names;
}

} // namespace mgx::elf

#endif
