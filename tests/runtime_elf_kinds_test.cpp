// The library-file reader on the four kinds of ELF file a device may carry (32- and 64-bit, either
// byte order), each built here: sections found by name with their bytes, exported symbols, the
// headers' bounds; and a kind the reader does not know refused by name.
#include <elf.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/elf_file.h"

namespace {

// A small library file of the given kind: a name table, a manifest-like section, and a dynamic
// symbol table with one defined and one undefined symbol.
std::vector<uint8_t> library(bool wide, bool big_endian) {
    const unsigned word = wide ? 8 : 4, ehsize = wide ? 64 : 52, shsize = wide ? 64 : 40, symsize = wide ? 24 : 16;
    std::vector<uint8_t> f(ehsize, 0);
    auto put = [&](size_t at, uint64_t v, unsigned width) {
        if (f.size() < at + width) f.resize(at + width);
        for (unsigned i = 0; i < width; ++i) f[at + (big_endian ? width - 1 - i : i)] = uint8_t(v >> (8 * i));
    };
    auto append = [&](const std::string &bytes) {
        size_t at = f.size();
        f.insert(f.end(), bytes.begin(), bytes.end());
        return at;
    };
    const std::string shstrtab("\0.shstrtab\0.ovrin_sm_manifest\0.dynsym\0.dynstr\0", 46);
    const std::string dynstr("\0exported_one\0imported\0", 23);
    std::string dynsym(3 * symsize, '\0');
    const size_t names = append(shstrtab), manifest = append("hello"), symbols = append(dynsym), strings = append(dynstr);
    // symbol 1: exported_one in section 2; symbol 2: imported, undefined
    put(symbols + symsize, 1, 4);
    put(symbols + symsize + (wide ? 6 : 14), 2, 2);
    put(symbols + 2 * symsize, 14, 4);
    const size_t shoff = f.size();
    struct {
        uint32_t name, type;
        size_t offset, size;
        uint32_t link, entsize;
    } sections[] = {{0, SHT_NULL, 0, 0, 0, 0},
                    {1, SHT_STRTAB, names, shstrtab.size(), 0, 0},
                    {11, SHT_PROGBITS, manifest, 5, 0, 0},
                    {30, SHT_DYNSYM, symbols, dynsym.size(), 4, symsize},
                    {38, SHT_STRTAB, strings, dynstr.size(), 0, 0}};
    for (size_t i = 0; i < 5; ++i) {
        const size_t at = shoff + i * shsize;
        put(at, sections[i].name, 4);
        put(at + 4, sections[i].type, 4);
        put(at + (wide ? 24 : 16), sections[i].offset, word);
        put(at + (wide ? 32 : 20), sections[i].size, word);
        put(at + (wide ? 40 : 24), sections[i].link, 4);
        put(at + (wide ? 56 : 36), sections[i].entsize, word);
    }
    std::memcpy(f.data(), ELFMAG, SELFMAG);
    f[EI_CLASS] = wide ? ELFCLASS64 : ELFCLASS32;
    f[EI_DATA] = big_endian ? ELFDATA2MSB : ELFDATA2LSB;
    f[EI_VERSION] = EV_CURRENT;
    put(wide ? 0x28 : 0x20, shoff, word);
    put(wide ? 0x3A : 0x2E, shsize, 2);
    put(wide ? 0x3C : 0x30, 5, 2);
    put(wide ? 0x3E : 0x32, 1, 2);
    return f;
}

TEST(ElfKinds, EveryClassAndByteOrderReads) {
    for (bool wide : {false, true})
        for (bool big_endian : {false, true}) {
            SCOPED_TRACE(std::string(wide ? "64" : "32") + "-bit " + (big_endian ? "big" : "little") + "-endian");
            std::vector<uint8_t> bytes = library(wide, big_endian);
            std::string error;
            auto file = mgx::elf::parse(bytes, "lib", error);
            ASSERT_TRUE(file) << error;
            EXPECT_EQ(file->wide, wide);
            EXPECT_EQ(file->big_endian, big_endian);
            const mgx::elf::Section *manifest = file->find(".ovrin_sm_manifest");
            ASSERT_NE(manifest, nullptr);
            std::span<const uint8_t> v = file->view(*manifest);
            EXPECT_EQ(std::string(v.begin(), v.end()), "hello");
            EXPECT_EQ(mgx::elf::defined_dynamic_symbols(*file), std::vector<std::string>{"exported_one"});

            // The section headers end the file: one byte less and they lie outside it.
            bytes.pop_back();
            EXPECT_FALSE(mgx::elf::parse(bytes, "lib", error));
            EXPECT_NE(error.find("section headers at byte"), std::string::npos) << error;
        }
    std::vector<uint8_t> odd = library(true, false);
    odd[EI_CLASS] = 3;
    std::string error;
    EXPECT_FALSE(mgx::elf::parse(odd, "lib", error));
    EXPECT_EQ(error, "lib is an ELF file of an unknown kind (class 3, data 1)");
}

} // namespace
