// Reads arbitrary bytes as a library file: the runtime's ELF reader (formats/elf_file.h), which
// the tool uses for "ovrin-sm manifest LIBRARY" and for the library files a trace names, and the
// tool's split of the manifest section into records (cli/elf_sections.h).
//
// Input: byte 0 bit 0: also through a file (the bytes are written to a file, which the runtime's
// path reader and the tool's library reader must read as the bytes were read, and which
// "ovrin-sm manifest FILE" is run on); the rest is the file.
//
// Whatever the bytes, the reader must not crash or read outside them, must say why it refuses,
// must hold no more than a few times the file's size while it reads (a count or size the headers
// state is believed only once the file has room for it), and every section it returns must lie in
// the file. The manifest's records must lie in their section, and a message texts section must
// expand or be refused with a reason.
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/elf_sections.h"
#include "cli/input.h"
#include "formats/trace_format.h"
#include "fuzz/fuzz_files.h"

using fuzz::die;

namespace {

bool same_sections(const mgx::elf::File &a, const mgx::elf::File &b) {
    if (a.bytes != b.bytes || a.sections.size() != b.sections.size()) return false;
    for (size_t i = 0; i < a.sections.size(); ++i) {
        const mgx::elf::Section &x = a.sections[i], &y = b.sections[i];
        if (x.name != y.name || x.type != y.type || x.flags != y.flags || x.offset != y.offset || x.size != y.size ||
            x.link != y.link)
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t n = size - 1;
    std::vector<uint8_t> bytes(data + 1, data + size);
    std::string error;
    heap::start();
    auto file = mgx::elf::parse(bytes, "lib", error);
    size_t held = heap::peak();
    // The copy of the bytes it was given, the section headers and the section list (each header
    // takes 64 bytes of the file), and the names table.
    if (held > 4 * n + 65536)
        die("reading a library file of " + std::to_string(n) + " bytes held " + std::to_string(held) + " bytes");
    if (!file && error.empty()) die("a library file refused without a reason");

    if (file) {
        for (size_t i = 1; i < file->sections.size(); ++i) {
            const mgx::elf::Section &s = file->sections[i];
            if (s.type == SHT_NULL || s.type == SHT_NOBITS) continue;
            if (s.offset > n || s.size > n - s.offset)
                die("section " + std::to_string(i) + " lies outside the file but was taken");
            if (file->contents(s).size() != s.size) die("section " + std::to_string(i) + " reads short");
        }
        if (const mgx::elf::Section *m = file->find(".ovrin_sm_manifest")) {
            std::vector<uint8_t> section = file->contents(*m);
            std::vector<ovrin::elf::ManifestRecord> records;
            ovrin::elf::manifest_records(section, records);
            size_t text = 0;
            for (const auto &r : records) text += 8 + r.text.size();
            if (text > section.size()) die("manifest records hold more than their section");
        }
        if (const mgx::elf::Section *t = file->find(".ovrin_sm_trace_texts")) {
            mgx::tracefmt::TextSet texts;
            std::string why;
            if (!mgx::tracefmt::expand_texts(file->contents(*t), 0, 0, texts, why) && why.empty())
                die("a message texts section refused without a reason");
        }
    }

    if (data[0] & 1) {
        const std::string path = fuzz::scratch_dir() + "/lib.so";
        fuzz::write_file(path, data + 1, n);
        std::string e1, e2;
        auto by_runtime = mgx::elf::read(path, e1);
        auto by_tool = ovrin::input::read_library(path, e2);
        if (by_runtime.has_value() != file.has_value() || by_tool.has_value() != file.has_value())
            die("the file reads unlike its bytes: " + error + " / " + e1 + " / " + e2);
        if (file && (!same_sections(*file, *by_runtime) || !same_sections(*file, *by_tool)))
            die("the file's sections read unlike its bytes'");
        std::string arg0 = "manifest";
        std::string arg1 = path;
        char *argv[] = {arg0.data(), arg1.data(), nullptr};
        int status;
        {
            fuzz::Quiet quiet;
            status = ovrin_cmd_manifest(2, argv);
        }
        if (status != 0 && status != 1) die("ovrin-sm manifest answered " + std::to_string(status));
        if (status == 0 && !(file && file->find(".ovrin_sm_manifest")))
            die("ovrin-sm manifest succeeded on a file without a manifest section");
    }
    return 0;
}
