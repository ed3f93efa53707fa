// Writes the fuzz targets' starting inputs: for every type (every member of a union) a fully
// filled instance, encoded under an untracked and a tracked handle for the wire target, and
// written as XML for the XML target (when the library has the XML family).
//
// For the trace target: a trace file with an emission of every argument shape, and the bundle's
// message texts section as the library file holds it.
//
//   ovrin_fuzz_seeds DIR   writes DIR/wire/*, DIR/xml/* and DIR/trace/*
#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/fuzz_types.h"
#include "ovrin_sm/ops.h"
#include "runtime/elf_file.h"
#include "runtime/trace_format.h"
#include "tests/sm_type_ops.h"

namespace {

void write(const std::filesystem::path &file, const std::vector<uint8_t> &prefix, const void *body, size_t n) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char *>(prefix.data()), static_cast<std::streamsize>(prefix.size()));
    out.write(static_cast<const char *>(body), static_cast<std::streamsize>(n));
    if (!out) fuzz::die("cannot write " + file.string());
}

std::vector<uint8_t> file_bytes(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_trace_seeds(const std::filesystem::path &dir) {
    std::filesystem::create_directories(dir);
    std::filesystem::path run = dir / "run.tmp";
    std::filesystem::remove(run);
    mgx_trace_table_t table = {MGX_TRACE_TABLE_MAGIC, 6, "mgx_seed", ".seed_texts", 0, nullptr};
    if (mgx_trace_file_open(run.c_str()) != 0) fuzz::die("cannot write " + run.string());
    qlog_emit_0(&table, 0, 1, MGX_SEV_EMERG);
    qlog_emit_s(&table, 1, 1, MGX_SEV_ERROR, "Cannot allocate memory");
    qlog_emit_ddd(&table, 2, 1, MGX_SEV_DEBUG, 10, -6, 12);
    qlog_emit_uu(&table, 3, 1, MGX_SEV_INFO, 3, 2);
    qlog_emit_ps(&table, 4, 1, MGX_SEV_ERROR, &table, "Invalid argument");
    qlog_emit_u(&table, 5, 1, MGX_SEV_INFO, 7);
    mgx_trace_file_close();
    mgx_trace_clear();
    std::vector<uint8_t> recorded = file_bytes(run);
    if (recorded.size() <= mgx::tracefmt::file_header_size) fuzz::die("the seed trace file holds no records");
    write(dir / "run", {0}, recorded.data(), recorded.size());
    std::filesystem::remove(run);

    Dl_info info{};
    std::string error;
    if (!dladdr(reinterpret_cast<void *>(&ovrin_sm_typeinfo_initialize), &info) || !info.dli_fname)
        fuzz::die("cannot tell where the bundle was loaded from");
    auto library = mgx::elf::read(info.dli_fname, error);
    const mgx::elf::Section *texts = library ? library->find(".ovrin_sm_trace_texts") : nullptr;
    if (!texts) fuzz::die("no message texts section in " + std::string(info.dli_fname) + " " + error);
    std::vector<uint8_t> section = library->contents(*texts);
    write(dir / "texts", {1}, section.data(), section.size());
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    std::filesystem::path dir = argv[1];
    std::filesystem::create_directories(dir / "wire");
    std::filesystem::create_directories(dir / "xml");
    const std::vector<typeops::Ops> &types = typeops::all();
    if (types.size() != fuzz::types().size()) fuzz::die("type lists differ");
    unsigned wire_seeds = 0, xml_seeds = 0;
    for (bool tracked : {false, true}) {
        mgx_handle_t *h = mgx_handle_create();
        if (tracked) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
        for (size_t i = 0; i < types.size(); ++i) {
            const typeops::Ops &o = types[i];
            if (fuzz::types()[i].name != o.name()) fuzz::die("type order differs at " + std::string(o.name()));
            for (unsigned a = 0; a < o.arms(); ++a) {
                void *instance = typeops::make_filled(o, h, static_cast<unsigned>(i), a);
                std::string stem = std::string(o.name()) + "-" + std::to_string(a) + (tracked ? "-t" : "-u");
                uint32_t err = 0;
                std::vector<uint8_t> wire = typeops::encode(o, h, instance, &err);
                if (err) fuzz::die("encode of " + stem + ": error " + std::to_string(err));
                write(dir / "wire" / stem, {static_cast<uint8_t>(i), static_cast<uint8_t>(tracked)}, wire.data(),
                      wire.size());
                ++wire_seeds;
                if (o.to_xml) {
                    std::vector<char> text(1 << 16);
                    uint32_t n = o.to_xml(h, 1, o.name(), text.data(), instance, static_cast<uint32_t>(text.size()), 0, &err);
                    if (err || n >= text.size()) fuzz::die("XML of " + stem + " failed");
                    write(dir / "xml" / stem, {static_cast<uint8_t>(i + (tracked ? types.size() : 0))}, text.data(), n);
                    ++xml_seeds;
                }
                o.destroy(h, 1, instance);
            }
        }
        if (mgx_handle_live_allocations(h) != 0) fuzz::die("seed instances leaked");
        mgx_handle_destroy(h);
    }
    write_trace_seeds(dir / "trace");
    std::printf("%u wire seeds, %u XML seeds, 2 trace seeds in %s\n", wire_seeds, xml_seeds, dir.c_str());
    return 0;
}
