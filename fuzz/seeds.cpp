// Writes the fuzz targets' starting inputs, one directory per target, in each target's input
// layout (byte 0 of the wire, XML and reuse inputs is 0: no allocation refused):
//
//   wire         every type (every member of a union) fully filled, encoded untracked and tracked
//   wire_diff, wire_diff_shapes
//                the same encodings, with a space to encode into of all their length
//   xml          the same instances written as XML (when the library has the XML family)
//   reuse        pairs of those encodings of one type: one member then the next, tracked and not,
//                a tracked receiver given an untracked sender's bytes, a filled instance then an
//                empty one and the reverse
//   xml_dtd      every type's XML as it is, and with a document type declaration, an entity
//                reference or a run of attributes put in
//   xml_check    every type's XML as it is, with an unknown member, and with entity references
//   json         every type's JSON, compact (read strictly, untracked) and indented (leniently,
//                tracked); documents nested to the depth limit and past it, numbers past each
//                integer type and a double, members given twice, counts that disagree, strings of
//                escapes, surrogates and bytes that are not UTF-8, addresses spelled otherwise
//   trace        a trace file with an emission of every argument shape, and the bundle's message
//                texts section as the library file holds it
//   elf          the bundle's library file cut down to the sections the readers look for (ELF
//                header, manifest, message texts, a few dynamic symbols, section names), read as
//                bytes and through a file; and the first 4 KiB of the real file
//   trace_files  trace files written by the runtime (the bundle's own table, and a table whose
//                texts the seed writer made), naming cut-down library files written beside them
//   trace_format the seed table's texts with their emissions' arguments, the bundle's distinct
//                texts with arguments their conversions take, and widths at the limit
//
//   ovrin_fuzz_seeds DIR
#include <dlfcn.h>
#include <elf.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "formats/elf_file.h"
#include "formats/trace_format.h"
#include "fuzz/fuzz_types.h"
#include "fuzz/trace_paths.h"
#include "ovrin_sm/ops.h"
#include "tests/elf_write.h"
#include "tests/sm_type_ops.h"

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

namespace {

unsigned written = 0;

void write(const fs::path &file, const Bytes &prefix, const void *body, size_t n) {
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char *>(prefix.data()), static_cast<std::streamsize>(prefix.size()));
    out.write(static_cast<const char *>(body), static_cast<std::streamsize>(n));
    if (!out) fuzz::die("cannot write " + file.string());
    ++written;
}

void write(const fs::path &file, const Bytes &prefix, const Bytes &body) { write(file, prefix, body.data(), body.size()); }

Bytes file_bytes(const fs::path &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void put_u32(Bytes &b, size_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// ------------------------------------------------------------------ messages

struct Encodings {
    std::vector<Bytes> filled[2]; // per member, [untracked, tracked]
    Bytes empty[2];               // a fresh instance; empty when it has no wire form
};

// xml_check: each type's document as it is (it checks), with an unknown member put first, and with
// an entity declared and referred to inside the root (each a problem to find).
void write_check_seeds(const fs::path &dir, const std::vector<std::string> &xml) {
    for (size_t i = 0; i < xml.size(); ++i) {
        if (xml[i].empty()) continue;
        const std::string stem = typeops::all()[i].name;
        const size_t body = xml[i].find('>') + 1;
        const Bytes type{static_cast<uint8_t>(i)};
        write(dir / "xml_check" / (stem + "-plain"), type, xml[i].data(), xml[i].size());
        std::string doc = xml[i].substr(0, body) + "<unknown_member>1</unknown_member>" + xml[i].substr(body);
        write(dir / "xml_check" / (stem + "-unknown"), type, doc.data(), doc.size());
        doc = "<!DOCTYPE " + stem + " [<!ENTITY e \"entity text\">]>" + xml[i].substr(0, body) + "&e;&e;" + xml[i].substr(body);
        write(dir / "xml_check" / (stem + "-entity"), type, doc.data(), doc.size());
    }
}

// json: documents a peer could send to hurt a reader, each as [type, mode (bit 0 lenient)].
void write_json_seeds(const fs::path &dir) {
    auto type = [](const char *name) {
        const std::vector<typeops::Ops> &types = typeops::all();
        for (size_t i = 0; i < types.size(); ++i)
            if (!std::strcmp(types[i].name, name)) return static_cast<uint8_t>(i);
        fuzz::die(std::string("no type ") + name);
    };
    const uint8_t conn = type("sess_mgr_conn_hdl"), client = type("sess_mgr_client_name"), options = type("sess_mgr_api_options"),
                  ip = type("sess_mgr_ip_notif"), attrs = type("sess_mgr_attr_notify_elem");
    auto seed = [&](const std::string &stem, uint8_t t, uint8_t mode, const std::string &doc) {
        write(dir / ("hostile-" + stem), {0, t, mode}, doc.data(), doc.size());
    };
    // Nesting: at the limit (the root and 127 arrays in an unknown member), one past it, and far
    // past it where a recursive reader would run out of stack.
    auto nested = [](size_t arrays) {
        return "{\"conn_hdl\":1,\"x\":" + std::string(arrays, '[') + std::string(arrays, ']') + "}";
    };
    seed("depth-at-the-limit", conn, 1, nested(OVRIN_JSON_MAX_DEPTH - 1));
    seed("depth-one-past", conn, 1, nested(OVRIN_JSON_MAX_DEPTH));
    seed("depth-far-past", conn, 1, std::string(4000, '['));
    // Numbers past every integer type, past a double, and of the wrong shape.
    for (const char *n : {"4294967296", "-1", "-0", "1.0", "1e400", "1e2", "18446744073709551616", "0x10", "01"})
        seed(std::string("number-") + n, conn, n[0] == '1' && n[1] == 'e' ? 1 : 0, std::string("{\"conn_hdl\":") + n + "}");
    for (const char *n : {"18446744073709551615", "\"18446744073709551615\"", "\"18446744073709551616\"", "\"+1\"", "\" 1\"",
                          "\"\"", "9007199254740993", "1e19"})
        seed(std::string("u64-") + std::to_string(written), options, 0,
             std::string("{\"options\":") + n + ",\"event_mac\":\"00:1A:2b:3c:4d:5e\"}");
    // Members given twice, strictly and leniently; a count that disagrees with its string.
    seed("duplicate-strict", conn, 0, "{\"conn_hdl\":1,\"conn_hdl\":2}");
    seed("duplicate-lenient", conn, 1, "{\"conn_hdl\":1,\"conn_hdl\":2}");
    seed("count-disagrees", client, 0, "{\"cl_name_len\":6,\"client_name\":\"abcde\"}");
    seed("count-disagrees-lenient", client, 1, "{\"cl_name_len\":6,\"client_name\":\"abcde\"}");
    // Strings: bytes carried as private-use characters, escaped and as they are; escapes of
    // every kind; surrogates alone; and bytes that are not UTF-8 (overlong, a surrogate, 0xff).
    for (const std::string &s : std::initializer_list<std::string>{"\\ue0ff\\ue000\\u00e9\\u0000x", "\xee\x83\xbf\xee\x80\x80",
                                                                   "\\ud83d\\ude00\\n\\t\\\"\\\\\\/", "\\ud800", "\\udc00x",
                                                                   "\xff", "\xc0\xaf", "\xed\xa0\x80", std::string("a\0b", 3)})
        seed("string-" + std::to_string(written), client, 0, "{\"client_name\":\"" + s + "\"}");
    // Addresses in their other spellings and wrong ones; attribute values in hex, upper case and odd.
    for (const char *v6 : {"::ffff:192.0.2.1", "2001:DB8::1", "1::2::3", "192.0.2.1"})
        seed(std::string("ipv6-") + std::to_string(written), ip, 0,
             std::string("{\"is_v4\":false,\"v4_addr\":\"192.0.2.1\",\"v6_addr\":\"") + v6 + "\"}");
    for (const char *v4 : {"192.0.2.256", "192.0.2", "0300.0.2.1"})
        seed(std::string("ipv4-") + std::to_string(written), ip, 0, std::string("{\"v4_addr\":\"") + v4 + "\"}");
    for (const char *value : {"00ff", "00FF", "0", "zz", ""})
        seed(std::string("tlv-") + std::to_string(written), attrs, 1,
             std::string("{\"new_attrs\":[{\"type\":1,\"value\":\"") + value + "\"},{\"type\":256,\"value\":\"00\"}]}");
    // Not one document: nothing, a bare value, trailing text, two documents, a byte order mark.
    for (const char *doc : {"", "null", " ", "{\"conn_hdl\":1} x", "{}{}", "\xef\xbb\xbf{\"conn_hdl\":1}", "[1]"})
        seed("document-" + std::to_string(written), conn, 0, doc);
}

void write_message_seeds(const fs::path &dir) {
    const std::vector<typeops::Ops> &types = typeops::all();
    std::vector<Encodings> enc(types.size());
    std::vector<std::string> xml(types.size()); // member 0, untracked
    for (bool tracked : {false, true}) {
        mgx_handle_t *h = mgx_handle_create();
        if (tracked) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
        for (size_t i = 0; i < types.size(); ++i) {
            const typeops::Ops &o = types[i];
            const uint8_t type = static_cast<uint8_t>(i);
            for (unsigned a = 0; a < o.arms(); ++a) {
                void *instance = typeops::make_filled(o, h, static_cast<unsigned>(i), a);
                std::string stem = std::string(o.name) + "-" + std::to_string(a) + (tracked ? "-t" : "-u");
                uint32_t err = 0;
                Bytes wire = typeops::encode(o, h, instance, &err);
                if (err) fuzz::die("encode of " + stem + ": error " + std::to_string(err));
                write(dir / "wire" / stem, {0, type, static_cast<uint8_t>(tracked)}, wire);
                // The differential target reads the same form (its shapes twin takes them as a start).
                for (const char *twin : {"wire_diff", "wire_diff_shapes"})
                    write(dir / twin / stem, {0, type, static_cast<uint8_t>(tracked | 0xFC)}, wire);
                enc[i].filled[tracked].push_back(wire);
                if (o.to_xml) {
                    std::vector<char> text(1 << 16);
                    uint32_t n = o.to_xml(h, 1, o.name, text.data(), instance, static_cast<uint32_t>(text.size()), 0, &err);
                    if (err || n >= text.size()) fuzz::die("XML of " + stem + " failed");
                    write(dir / "xml" / stem, {0, static_cast<uint8_t>(i + (tracked ? types.size() : 0))}, text.data(), n);
                    if (!tracked && a == 0) xml[i].assign(text.data(), n);
                }
                if (o.to_json) { // compact and read strictly untracked, indented and read leniently tracked
                    char *text = nullptr;
                    size_t room = 0;
                    int64_t n = o.to_json(h, instance, tracked ? OVRIN_JSON_PRETTY : 0, &text, &room);
                    if (n < 0) fuzz::die("JSON of " + stem + " failed");
                    write(dir / "json" / stem, {0, static_cast<uint8_t>(i + (tracked ? types.size() : 0)), tracked}, text,
                          static_cast<size_t>(n));
                    std::free(text);
                }
                o.destroy(h, 1, instance);
            }
            void *fresh = typeops::make(o, h);
            uint32_t err = 0;
            Bytes wire = typeops::encode(o, h, fresh, &err);
            if (!err) enc[i].empty[tracked] = wire;
            o.destroy(h, 1, fresh);
        }
        if (mgx_handle_live_allocations(h) != 0) fuzz::die("seed instances leaked");
        mgx_handle_destroy(h);
    }

    // reuse: A then B, with the mode byte (bit 0 tracked handle, bits 1 and 2 reuse flags)
    for (size_t i = 0; i < types.size(); ++i) {
        const Encodings &e = enc[i];
        auto pair = [&](const std::string &stem, uint8_t mode, const Bytes &a, const Bytes &b) {
            Bytes body = a;
            body.insert(body.end(), b.begin(), b.end());
            write(dir / "reuse" / (std::string(types[i].name) + "-" + stem),
                  {0, static_cast<uint8_t>(i), mode, static_cast<uint8_t>(a.size() >> 8), static_cast<uint8_t>(a.size())}, body);
        };
        size_t arms = e.filled[0].size();
        for (size_t a = 0; a < arms; ++a) {
            size_t next = (a + 1) % arms;
            std::string m = std::to_string(a) + "-" + std::to_string(next);
            pair(m + "-u", 0, e.filled[0][a], e.filled[0][next]);
            pair(m + "-t", 7, e.filled[1][a], e.filled[1][next]);
            pair(m + "-t-from-u", 1, e.filled[1][a], e.filled[0][next]);
            if (!e.empty[0].empty()) pair(std::to_string(a) + "-empty-u", 6, e.filled[0][a], e.empty[0]);
        }
        if (!e.empty[1].empty()) pair("empty-0-t", 1, e.empty[1], e.filled[1][0]);
    }

    write_check_seeds(dir, xml);
    write_json_seeds(dir / "json");

    // xml_dtd: each document as it is, and with one of the prologues and something put in
    for (size_t i = 0; i < types.size(); ++i) {
        if (xml[i].empty()) continue;
        const uint8_t type = static_cast<uint8_t>(i);
        const std::string stem = types[i].name;
        write(dir / "xml_dtd" / (stem + "-plain"), {0, type, 0, 0, 0}, xml[i].data(), xml[i].size());
        uint8_t prologue = static_cast<uint8_t>(1 + i % 15);
        uint8_t what = static_cast<uint8_t>(1 + i % 8), place = static_cast<uint8_t>(i / 8 % 4);
        // 128 attributes, or 280 (over the limit) where the prologue leaves a quote open in a comment
        // or processing instruction, which is what the limit's scan is known to mishandle
        uint8_t attributes = (prologue == 8 || prologue == 9) ? 64 : static_cast<uint8_t>(i % 2 ? 140 : 64);
        write(dir / "xml_dtd" / (stem + "-declared"), {0, type, prologue, static_cast<uint8_t>(what | place << 4), attributes},
              xml[i].data(), xml[i].size());
    }
}

// ------------------------------------------------------------------ library files

const char *bundle_path() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&ovrin_sm_typeinfo_initialize), &info) || !info.dli_fname)
        fuzz::die("cannot tell where the bundle was loaded from");
    return info.dli_fname;
}

using OutSection = ovrin::testing::ElfSection;
using ovrin::testing::elf_file;

// The bundle's library cut down: its manifest and message texts sections, and its first few
// exported symbols with their names.
Bytes small_bundle() {
    std::string error;
    auto library = mgx::elf::read(bundle_path(), error);
    if (!library) fuzz::die(error);
    std::vector<OutSection> out;
    for (const char *name : {".ovrin_sm_manifest", ".ovrin_sm_trace_texts"}) {
        const mgx::elf::Section *s = library->find(name);
        if (!s) fuzz::die(std::string("no ") + name + " section in " + bundle_path());
        out.push_back({name, s->type, library->contents(*s)});
    }
    const mgx::elf::Section *dynsym = library->find(".dynsym");
    if (dynsym && dynsym->link < library->sections.size()) {
        Bytes symbols = library->contents(*dynsym), strings = library->contents(library->sections[dynsym->link]);
        Bytes new_symbols(sizeof(Elf64_Sym), 0), new_strings(1, 0);
        for (size_t off = sizeof(Elf64_Sym); off + sizeof(Elf64_Sym) <= symbols.size() && off <= 16 * sizeof(Elf64_Sym);
             off += sizeof(Elf64_Sym)) {
            Elf64_Sym sym;
            std::memcpy(&sym, symbols.data() + off, sizeof sym);
            std::string name = mgx::elf::detail::string_at(strings, sym.st_name);
            sym.st_name = static_cast<uint32_t>(new_strings.size());
            new_strings.insert(new_strings.end(), name.begin(), name.end());
            new_strings.push_back(0);
            const uint8_t *p = reinterpret_cast<const uint8_t *>(&sym);
            new_symbols.insert(new_symbols.end(), p, p + sizeof sym);
        }
        out.push_back({".dynstr", SHT_STRTAB, new_strings});
        out.push_back({".dynsym", SHT_DYNSYM, new_symbols, static_cast<uint32_t>(out.size()), sizeof(Elf64_Sym)});
    }
    return elf_file(out);
}

void write_library_seeds(const fs::path &dir) {
    Bytes small = small_bundle();
    write(dir / "small-bytes", {0}, small);
    write(dir / "small-file", {1}, small);
    Bytes real = file_bytes(bundle_path());
    write(dir / "real-first-4k", {1}, real.data(), std::min<size_t>(real.size(), 4096));

    // At the readers' bounds: the section headers, which end the file, one byte short; the
    // manifest section stretched to the end of the file and one byte past it; a manifest whose
    // last record ends exactly at the section's end, and one whose last record's length reaches
    // one byte past it.
    write(dir / "headers-one-short", {0}, small.data(), small.size() - 1);
    write(dir / "manifest-to-end", {0}, ovrin::testing::stretch_section(small, 1, 0));
    write(dir / "manifest-one-past", {0}, ovrin::testing::stretch_section(small, 1, 1));
    for (uint32_t past : {0, 1}) {
        Bytes records = ovrin::testing::manifest_record(4, 1, std::string("abc\0", 4));
        Bytes last = ovrin::testing::manifest_record(3 + past, 2, "xyz");
        records.insert(records.end(), last.begin(), last.end());
        write(dir / (past ? "records-one-past" : "records-to-end"), {0},
              elf_file({{".ovrin_sm_manifest", SHT_PROGBITS, records}}));
    }
    // The other kinds a device's library may be: 32-bit, big-endian, both.
    const Bytes records = ovrin::testing::manifest_record(3, 2, "xyz");
    for (auto [name, kind] : {std::pair{"kind-32-little", ovrin::testing::ElfKind{false, false}},
                              {"kind-64-big", {true, true}},
                              {"kind-32-big", {false, true}}})
        write(dir / name, {0}, elf_file({{".ovrin_sm_manifest", SHT_PROGBITS, records}}, kind));
}

// ------------------------------------------------------------------ trace files

mgx_trace_table_t seed_table = {MGX_TRACE_TABLE_MAGIC, 6, "mgx_seed", ".seed_texts", 0, nullptr};

// Texts for the seed table, one per emission below, each taking that emission's arguments.
const std::vector<std::string> seed_texts = {"seed started", "error: %s",     "offsets %d %d %d",
                                             "%u of %u",     "object %p: %s", "value %x"};

void emit_every_shape() {
    qlog_emit_0(&seed_table, 0, 1, MGX_SEV_EMERG);
    qlog_emit_s(&seed_table, 1, 1, MGX_SEV_ERROR, "Cannot allocate memory");
    qlog_emit_ddd(&seed_table, 2, 1, MGX_SEV_DEBUG, 10, -6, 12);
    qlog_emit_uu(&seed_table, 3, 1, MGX_SEV_INFO, 3, 2);
    qlog_emit_ps(&seed_table, 4, 1, MGX_SEV_ERROR, &seed_table, "Invalid argument");
    qlog_emit_u(&seed_table, 5, 1, MGX_SEV_INFO, 7);
}

// Makes the bundle trace: every type's encoding at the handle's variant decoded into an instance
// still at variant 0 steps over the newer members (a debug emission with three numbers).
void bundle_emissions() {
    mgx_handle_t *h = mgx_handle_create();
    for (const fuzz::TypeOps &t : fuzz::types()) {
        void *full = fuzz::make(t, h);
        uint32_t err = 0;
        Bytes wire = fuzz::encode(t, h, full, &err);
        void *old = t.create(h, 1);
        if (!err && old) t.unmarshal(h, 1, wire.data(), old, static_cast<int32_t>(wire.size()), 0, &err);
        if (old) t.destroy(h, 1, old);
        t.destroy(h, 1, full);
    }
    mgx_handle_destroy(h);
}

Bytes record_trace(const fs::path &file, void (*emit)()) {
    fs::remove(file);
    if (mgx_trace_file_open(file.c_str()) != 0) fuzz::die("cannot write " + file.string());
    emit();
    mgx_trace_file_close();
    mgx_trace_clear();
    Bytes recorded = file_bytes(file);
    fs::remove(file);
    if (recorded.size() <= mgx::tracefmt::file_header_size) fuzz::die("a seed trace file holds no records");
    return recorded;
}

void write_trace_seeds(const fs::path &dir, const fs::path &files_dir) {
    fs::create_directories(dir);
    Bytes shapes = record_trace(dir / "run.tmp", emit_every_shape);
    write(dir / "run", {0}, shapes);

    std::string error;
    auto library = mgx::elf::read(bundle_path(), error);
    const mgx::elf::Section *texts = library ? library->find(".ovrin_sm_trace_texts") : nullptr;
    if (!texts) fuzz::die("no message texts section in " + std::string(bundle_path()) + " " + error);
    write(dir / "texts", {1}, library->contents(*texts));

    // trace_files: [libraries][u32 length, file]...[trace], library paths "@0", "@1"
    Bytes bundle = small_bundle();
    Bytes own = elf_file({{".seed_texts", SHT_PROGBITS, mgx::tracefmt::texts_section(seed_texts)}});
    Bytes from_bundle = record_trace(dir / "bundle.tmp", bundle_emissions);
    auto to = [](const char *name) { return [name](const std::string &) { return std::string(name); }; };
    auto with = [](uint8_t mode, const std::vector<const Bytes *> &libraries, const Bytes &trace) {
        Bytes out{mode};
        for (const Bytes *l : libraries) {
            put_u32(out, l->size());
            out.insert(out.end(), l->begin(), l->end());
        }
        out.insert(out.end(), trace.begin(), trace.end());
        return out;
    };
    write(files_dir / "bundle", {}, with(1, {&bundle}, fuzz::rename_libraries(from_bundle, to("@0"))));
    write(files_dir / "bundle-library-option", {}, with(1 | 4, {&bundle}, fuzz::rename_libraries(from_bundle, to("@z"))));
    write(files_dir / "own-texts", {}, with(2, {&bundle, &own}, fuzz::rename_libraries(shapes, to("@1"))));
    // both tables in one file, the second library named through another spelling of its path
    Bytes both = fuzz::rename_libraries(from_bundle, to("@0"));
    Bytes second = fuzz::rename_libraries(shapes, to("@./1"));
    both.insert(both.end(), second.begin() + mgx::tracefmt::file_header_size, second.end());
    write(files_dir / "both", {}, with(2, {&bundle, &own}, both));
    write(files_dir / "directory", {}, with(0, {}, fuzz::rename_libraries(shapes, to("@d"))));
    // At the readers' bounds: the trace's last record one byte short; the texts section of the
    // own library stretched to the end of its file and one byte past it.
    Bytes cut = fuzz::rename_libraries(from_bundle, to("@0"));
    cut.pop_back();
    write(files_dir / "trace-one-short", {}, with(1, {&bundle}, cut));
    Bytes own_shapes = fuzz::rename_libraries(shapes, to("@1"));
    for (uint64_t past : {0, 1}) {
        Bytes stretched = ovrin::testing::stretch_section(own, 1, past);
        write(files_dir / (past ? "texts-one-past" : "texts-to-end"), {}, with(2, {&bundle, &stretched}, own_shapes));
    }
}

// ------------------------------------------------------------------ trace texts with formats

// A trace_format input: the argument count, each argument (kind 0-3 for u, d, p, s, and its value),
// then the text.
Bytes format_input(const std::string &text, const std::vector<mgx::tracefmt::Arg> &args) {
    Bytes b{static_cast<uint8_t>(args.size())};
    for (const mgx::tracefmt::Arg &a : args) {
        b.push_back(static_cast<uint8_t>(std::string("udps").find(a.kind)));
        std::string value;
        if (a.kind == 's') {
            mgx::tracefmt::put(value, a.text.size(), 2);
            value += a.text;
        } else {
            mgx::tracefmt::put(value, a.value, a.kind == 'p' ? 8 : 4);
        }
        b.insert(b.end(), value.begin(), value.end());
    }
    b.insert(b.end(), text.begin(), text.end());
    return b;
}

// Arguments a text's conversions take, as the bundle's emissions would pass them; the conversions
// themselves in conversions.
std::vector<mgx::tracefmt::Arg> arguments_for(const std::string &text, std::string &conversions) {
    std::vector<mgx::tracefmt::Arg> args;
    for (size_t i = 0; i < text.size(); ++i) {
        mgx::tracefmt::Conversion c;
        if (text[i] != '%') continue;
        if (i + 1 < text.size() && text[i + 1] == '%') {
            ++i;
            continue;
        }
        if (!mgx::tracefmt::read_conversion(text, i, c)) break;
        i = c.end - 1;
        conversions += text.substr(c.begin, c.end - c.begin);
        if (c.conv == 's') args.push_back({'s', 0, "Cannot allocate memory"});
        else if (c.conv == 'p') args.push_back({'p', 0xbeef, {}});
        else if (c.conv == 'd' || c.conv == 'i') args.push_back({'d', static_cast<uint32_t>(-5), {}});
        else args.push_back({'u', 7, {}});
    }
    return args;
}

void write_format_seeds(const fs::path &dir) {
    const std::vector<std::vector<mgx::tracefmt::Arg>> shapes = {
        {},
        {{'s', 0, "Cannot allocate memory"}},
        {{'d', 10, {}}, {'d', static_cast<uint32_t>(-6), {}}, {'d', 12, {}}},
        {{'u', 3, {}}, {'u', 2, {}}},
        {{'p', 0xbeef, {}}, {'s', 0, "Invalid argument"}},
        {{'u', 7, {}}}};
    for (size_t i = 0; i < seed_texts.size(); ++i)
        write(dir / ("seed-" + std::to_string(i)), {}, format_input(seed_texts[i], shapes[i]));
    write(dir / "width-at-the-limit", {}, format_input("[%4096u|%-4096.4096s]", {{'u', 7, {}}, {'s', 0, "ab"}}));

    std::string error;
    auto library = mgx::elf::read(bundle_path(), error);
    const mgx::elf::Section *section = library ? library->find(".ovrin_sm_trace_texts") : nullptr;
    mgx::tracefmt::TextSet texts;
    if (!section || !mgx::tracefmt::expand_texts(library->contents(*section), 0, 0, texts, error))
        fuzz::die("no message texts in " + std::string(bundle_path()) + " " + error);
    std::set<std::string> seen; // one text for each run of conversions the bundle's texts use
    for (size_t i = 0; i < texts.size(); ++i) {
        std::string text(texts[i]), conversions;
        std::vector<mgx::tracefmt::Arg> args = arguments_for(text, conversions);
        if (!conversions.empty() && seen.insert(conversions).second)
            write(dir / ("bundle-" + std::to_string(i)), {}, format_input(text, args));
    }
}

} // namespace

// Catalogues: one of each kind of definition, and one with each kind of error.
void write_catalogue_seeds(const fs::path &dir) {
    const std::string good = "# a comment\n\nenum colour variants 2\n  RED 1 wire 0\n  GREEN 5 wire 1\n  BLUE 9 wire 2 from 1\n\n"
                             "record point variants 2\n  x u_int16\n  tag u_int8[3]\n  c colour\n  n_len u_int16\n"
                             "  n var_string length n_len\n  a aaa_tlv\n  k u_int32 from 1\n  more point2[] count k from 1\n\n"
                             "record point2\n  m mgx_mac_addr\n\nunion pick discriminator which select_by user_value\n"
                             "  which colour\n  note u_int64\n  member p point select GREEN\n";
    write(dir / "good", {}, Bytes(good.begin(), good.end()));
    for (const char *bad : {"record a\n  x no_type\n", "record a\n  b a\n", "  x u_int32\n", "enum e\n  A 1 wire 5\n",
                            "record a variants 300\n", "union u discriminator d\n  d e\nenum e\n  A 0\n"})
        write(dir / ("bad-" + std::to_string(written)), {}, Bytes(bad, bad + std::strlen(bad)));
}

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    fs::path dir = argv[1];
    write_message_seeds(dir);
    write_library_seeds(dir / "elf");
    write_trace_seeds(dir / "trace", dir / "trace_files");
    write_format_seeds(dir / "trace_format");
    write_catalogue_seeds(dir / "catalogue");
    std::printf("%u seeds in %s\n", written, dir.c_str());
    return 0;
}
