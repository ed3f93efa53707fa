// Small ELF files for the tests, fuzz seeds and benchmarks that feed the tool's library readers:
// 64-bit little-endian, only the given sections, section 0 and the section name table; no code.
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

inline std::vector<uint8_t> elf_file(const std::vector<ElfSection> &sections) {
    std::vector<uint8_t> names(1, 0), data(sizeof(Elf64_Ehdr), 0);
    std::vector<Elf64_Shdr> headers(1, Elf64_Shdr{});
    auto add = [&](const ElfSection &s) {
        while (data.size() % 8) data.push_back(0);
        headers.push_back({.sh_name = static_cast<uint32_t>(names.size()), .sh_type = s.type, .sh_flags = 0, .sh_addr = 0,
                           .sh_offset = data.size(), .sh_size = s.contents.size(), .sh_link = s.link, .sh_info = 0,
                           .sh_addralign = 1, .sh_entsize = s.entsize});
        names.insert(names.end(), s.name.begin(), s.name.end());
        names.push_back(0);
        data.insert(data.end(), s.contents.begin(), s.contents.end());
    };
    for (const ElfSection &s : sections) add(s);
    ElfSection shstrtab{".shstrtab", SHT_STRTAB, names};
    shstrtab.contents.insert(shstrtab.contents.end(), shstrtab.name.c_str(), shstrtab.name.c_str() + shstrtab.name.size() + 1);
    add(shstrtab);
    while (data.size() % 8) data.push_back(0);

    Elf64_Ehdr eh{};
    std::memcpy(eh.e_ident, ELFMAG, SELFMAG);
    eh.e_ident[EI_CLASS] = ELFCLASS64;
    eh.e_ident[EI_DATA] = ELFDATA2LSB;
    eh.e_ident[EI_VERSION] = EV_CURRENT;
    eh.e_type = ET_DYN;
    eh.e_machine = EM_X86_64;
    eh.e_version = EV_CURRENT;
    eh.e_shoff = data.size();
    eh.e_ehsize = sizeof(Elf64_Ehdr);
    eh.e_shentsize = sizeof(Elf64_Shdr);
    eh.e_shnum = static_cast<uint16_t>(headers.size());
    eh.e_shstrndx = static_cast<uint16_t>(headers.size() - 1);
    std::memcpy(data.data(), &eh, sizeof eh);
    const auto *p = reinterpret_cast<const uint8_t *>(headers.data());
    data.insert(data.end(), p, p + headers.size() * sizeof(Elf64_Shdr));
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
