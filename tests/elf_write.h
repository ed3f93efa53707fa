// Small ELF files for the tests, fuzz seeds and benchmarks that feed the tool's library readers:
// of any class and byte order (64-bit little-endian unless asked), only the given sections,
// section 0 and the section name table; no code.
#ifndef OVRIN_TESTS_ELF_WRITE_H
#define OVRIN_TESTS_ELF_WRITE_H

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace ovrin::testing {

struct ElfSection {
    std::string name;
    uint32_t type = SHT_PROGBITS;
    std::vector<uint8_t> contents;
    uint32_t link = 0;
    uint64_t entsize = 0;
};

// The kind of file: 64- or 32-bit, little- or big-endian (a library off any device).
struct ElfKind {
    bool wide = true;
    bool big_endian = false;
};

inline std::vector<uint8_t> elf_file(const std::vector<ElfSection> &sections, ElfKind kind = {}) {
    const unsigned word = kind.wide ? 8 : 4, ehsize = kind.wide ? 64 : 52, shsize = kind.wide ? 64 : 40;
    std::vector<uint8_t> names(1, 0), data(ehsize, 0), headers(shsize, 0); // section 0 is all zero
    auto put = [&kind](std::vector<uint8_t> &to, size_t at, uint64_t v, unsigned width) {
        for (unsigned i = 0; i < width; ++i) to[at + (kind.big_endian ? width - 1 - i : i)] = uint8_t(v >> (8 * i));
    };
    auto add = [&](const ElfSection &s) {
        while (data.size() % 8) data.push_back(0);
        const size_t h = headers.size();
        headers.resize(h + shsize);
        put(headers, h, names.size(), 4);
        put(headers, h + 4, s.type, 4);
        put(headers, h + (kind.wide ? 24 : 16), data.size(), word);       // offset
        put(headers, h + (kind.wide ? 32 : 20), s.contents.size(), word); // size
        put(headers, h + (kind.wide ? 40 : 24), s.link, 4);
        put(headers, h + (kind.wide ? 48 : 32), 1, word); // alignment
        put(headers, h + (kind.wide ? 56 : 36), s.entsize, word);
        names.insert(names.end(), s.name.begin(), s.name.end());
        names.push_back(0);
        data.insert(data.end(), s.contents.begin(), s.contents.end());
    };
    for (const ElfSection &s : sections) add(s);
    ElfSection shstrtab{".shstrtab", SHT_STRTAB, names};
    shstrtab.contents.insert(shstrtab.contents.end(), shstrtab.name.c_str(), shstrtab.name.c_str() + shstrtab.name.size() + 1);
    add(shstrtab);
    while (data.size() % 8) data.push_back(0);

    std::memcpy(data.data(), ELFMAG, SELFMAG);
    data[EI_CLASS] = kind.wide ? ELFCLASS64 : ELFCLASS32;
    data[EI_DATA] = kind.big_endian ? ELFDATA2MSB : ELFDATA2LSB;
    data[EI_VERSION] = EV_CURRENT;
    const size_t count = headers.size() / shsize;
    put(data, 16, ET_DYN, 2);
    put(data, 18, kind.wide ? EM_X86_64 : EM_386, 2);
    put(data, 20, EV_CURRENT, 4);
    put(data, kind.wide ? 0x28 : 0x20, data.size(), word); // the section headers follow the data
    put(data, kind.wide ? 0x34 : 0x28, ehsize, 2);
    put(data, kind.wide ? 0x3A : 0x2E, shsize, 2);
    put(data, kind.wide ? 0x3C : 0x30, count, 2);
    put(data, kind.wide ? 0x3E : 0x32, count - 1, 2);
    data.insert(data.end(), headers.begin(), headers.end());
    return data;
}

// The file with section `index` stretched to end exactly at the end of the file, or `past` bytes
// beyond it: the readers' bounds, for the tests and the fuzz seeds.
inline std::vector<uint8_t> stretch_section(std::vector<uint8_t> file, size_t index, uint64_t past) {
    Elf64_Ehdr eh;
    std::memcpy(&eh, file.data(), sizeof eh);
    Elf64_Shdr sh;
    const size_t at = eh.e_shoff + index * sizeof(Elf64_Shdr);
    std::memcpy(&sh, file.data() + at, sizeof sh);
    sh.sh_size = file.size() - sh.sh_offset + past;
    std::memcpy(file.data() + at, &sh, sizeof sh);
    return file;
}

// A manifest record: its text's length, its kind, the text.
inline std::vector<uint8_t> manifest_record(uint32_t length, uint32_t kind, const std::string &text) {
    std::vector<uint8_t> r(8);
    std::memcpy(r.data(), &length, 4);
    std::memcpy(r.data() + 4, &kind, 4);
    r.insert(r.end(), text.begin(), text.end());
    return r;
}

} // namespace ovrin::testing

#endif
