// The bundle's manifest section, read from a library file with the ELF reader the runtime uses
// for non-loaded sections.
#ifndef OVRIN_CLI_ELF_SECTIONS_H
#define OVRIN_CLI_ELF_SECTIONS_H

#include "formats/elf_file.h"

namespace ovrin::elf {

using mgx::elf::defined_dynamic_symbols;
using mgx::elf::File;
using mgx::elf::read;
using mgx::elf::Section;
namespace detail = mgx::elf::detail;

// One record of the bundle's manifest section: (u32 length, u32 kind, length bytes), 4-aligned.
struct ManifestRecord {
    uint32_t kind = 0;
    std::string text; // without the terminating NUL
};

// Splits a manifest section into its records; false when a record runs past the section.
inline bool manifest_records(const std::vector<uint8_t> &section, std::vector<ManifestRecord> &out) {
    uint64_t pos = 0;
    while (pos + 8 <= section.size()) {
        // The record header is little-endian whatever the library's own byte order.
        const auto length = static_cast<uint32_t>(detail::field(section.data() + pos, 4, false));
        const auto kind = static_cast<uint32_t>(detail::field(section.data() + pos + 4, 4, false));
        pos += 8;
        if (length > section.size() - pos) return false;
        ManifestRecord r;
        r.kind = kind;
        r.text = detail::string_at({section.begin() + static_cast<long>(pos), section.begin() + static_cast<long>(pos + length)},
                                   0);
        out.push_back(std::move(r));
        pos = (pos + length + 3) / 4 * 4;
    }
    return true;
}

} // namespace ovrin::elf

#endif
