// The library-file reader on the four kinds of ELF file a device may carry (32- and 64-bit, either
// byte order), each built here: sections found by name with their bytes, exported symbols, the
// headers' bounds; and a kind the reader does not know refused by name.
#include <elf.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "formats/elf_file.h"
#include "tests/elf_write.h"

namespace {

// A small library file of the given kind: a manifest-like section, and a dynamic symbol table
// with one defined and one undefined symbol (its entries written in the file's order and widths).
std::vector<uint8_t> library(bool wide, bool big_endian) {
    const unsigned symsize = wide ? 24 : 16;
    std::vector<uint8_t> symbols(3 * symsize, 0);
    auto put = [&](size_t at, uint64_t v, unsigned width) {
        for (unsigned i = 0; i < width; ++i) symbols[at + (big_endian ? width - 1 - i : i)] = uint8_t(v >> (8 * i));
    };
    put(symsize, 1, 4); // exported_one, defined in section 1
    put(symsize + (wide ? 6 : 14), 1, 2);
    put(2 * symsize, 14, 4); // imported, undefined
    const std::string names("\0exported_one\0imported\0", 23);
    return ovrin::testing::elf_file({{".ovrin_sm_manifest", SHT_PROGBITS, {'h', 'e', 'l', 'l', 'o'}},
                                     {".dynsym", SHT_DYNSYM, symbols, 3, symsize},
                                     {".dynstr", SHT_STRTAB, {names.begin(), names.end()}}},
                                    {wide, big_endian});
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
