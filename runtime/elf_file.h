// Reading sections and dynamic symbols of a 64-bit little-endian ELF file from disk: the sections
// that are not loaded into memory (a bundle's trace texts and manifest) and what a library exports.
#ifndef MGX_RUNTIME_ELF_FILE_H
#define MGX_RUNTIME_ELF_FILE_H

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace mgx::elf {

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
    // The section's bytes; empty for SHT_NOBITS or a section that does not fit in the file.
    std::vector<uint8_t> contents(const Section &s) const {
        if (s.type == SHT_NOBITS || s.offset > bytes.size() || s.size > bytes.size() - s.offset) return {};
        return {bytes.begin() + static_cast<long>(s.offset), bytes.begin() + static_cast<long>(s.offset + s.size)};
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

} // namespace detail

// Reads the file and its section headers; on failure returns nothing and says why in error.
inline std::optional<File> read(const std::string &path, std::string &error) {
    File f;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open " + path;
        return std::nullopt;
    }
    f.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    Elf64_Ehdr eh;
    if (!detail::read_at(f.bytes, 0, eh) || std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0) {
        error = path + " is not an ELF file";
        return std::nullopt;
    }
    if (eh.e_ident[EI_CLASS] != ELFCLASS64 || eh.e_ident[EI_DATA] != ELFDATA2LSB) {
        error = path + " is not a 64-bit little-endian ELF file";
        return std::nullopt;
    }
    if (eh.e_shentsize != sizeof(Elf64_Shdr) || eh.e_shoff == 0) {
        error = path + " has no section headers";
        return std::nullopt;
    }
    Elf64_Shdr first;
    if (!detail::read_at(f.bytes, eh.e_shoff, first)) {
        error = path + ": section headers lie outside the file";
        return std::nullopt;
    }
    uint64_t count = eh.e_shnum ? eh.e_shnum : first.sh_size;                // extended numbering
    uint32_t names_index = eh.e_shstrndx == SHN_XINDEX ? first.sh_link : eh.e_shstrndx;
    std::vector<Elf64_Shdr> headers(count);
    for (uint64_t i = 0; i < count; ++i)
        if (!detail::read_at(f.bytes, eh.e_shoff + i * sizeof(Elf64_Shdr), headers[i])) {
            error = path + ": section headers lie outside the file";
            return std::nullopt;
        }
    std::vector<uint8_t> names;
    if (names_index < count) {
        Section s{{}, headers[names_index].sh_type, 0, headers[names_index].sh_offset, headers[names_index].sh_size, 0};
        names = f.contents(s);
    }
    for (const Elf64_Shdr &h : headers)
        f.sections.push_back(Section{detail::string_at(names, h.sh_name), h.sh_type, h.sh_flags, h.sh_offset, h.sh_size, h.sh_link});
    return f;
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
        if (sym.st_shndx != SHN_UNDEF) names.push_back(detail::string_at(strings, sym.st_name));
    }
    return names;
}

} // namespace mgx::elf

#endif
