// ovrin_gen: turns the catalogue into the bundle's generated sources.
//
//   ovrin_gen --catalogue FILE --out DIR [--domain NAME] [--platform TEXT] [--comment TEXT]
//
// writes, under DIR, for the domain NAME (ovrin_sm unless given):
//   include/NAME/types.h                public: structs, literal constants, descriptors
//   include/NAME/ops.h                  public: per type a description and what an application calls
//   include/NAME/ops_runtime.h          public, included by ops.h: the runtime-facing exports
//   include/NAME/exports.inc            the exported symbol names (for tests)
//   include/NAME/optable.h              public: the operations of every type as one table
//   include/NAME/NAME.hpp               public: the C++ interface
//   include/NAME_internal/tables.h      internal: declarations of the type tables
//   include/NAME_internal/tables.inc    internal: definitions of the type tables
//   include/NAME_internal/wire.h        internal: declarations of the compiled wire code
//   include/bundle_frame.h              internal: the bundle's names, for the frame's sources
//   src/sm_tables.cpp src/sm_descriptors.cpp src/sm_entry.cpp src/sm_trace.cpp src/sm_manifest.cpp
//   src/sm_optable.cpp src/sm_dependents.cpp src/sm_wire.cpp
//   NAME.map                            the linker's export list
// Files whose contents did not change are left untouched, so that nothing rebuilds needlessly.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/ovrin_gen/emit.h"

namespace {

namespace fs = std::filesystem;

// The emitters name the bundle by placeholders (@D@ the domain, @U@ in capitals).
std::string named(std::string text, const std::string &domain) {
    std::string upper = domain;
    for (char &ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    for (auto [mark, value] : {std::pair<std::string, std::string>{"@D@", domain}, {"@U@", upper}})
        for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size()))
            text.replace(at, mark.size(), value);
    return text;
}

void write_if_changed(const fs::path &path, const std::string &contents) {
    {
        std::ifstream in(path, std::ios::binary);
        if (in) {
            std::ostringstream old;
            old << in.rdbuf();
            if (old.str() == contents) return;
        }
    }
    fs::create_directories(path.parent_path());
    fs::path tmp = path;
    tmp += ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << contents;
        if (!out) throw std::runtime_error("cannot write " + tmp.string());
    }
    fs::rename(tmp, path);
}

int usage() {
    std::fputs("usage: ovrin_gen --catalogue FILE --out DIR [--domain NAME] [--platform TEXT] [--comment TEXT]\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    std::string catalogue_path, out_dir, domain = "ovrin_sm";
    gen::BuildInfo build;
    for (int i = 1; i < argc; ++i) {
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        const char *v = nullptr;
        if (!std::strcmp(argv[i], "--catalogue") && (v = value())) catalogue_path = v;
        else if (!std::strcmp(argv[i], "--out") && (v = value())) out_dir = v;
        else if (!std::strcmp(argv[i], "--comment") && (v = value())) build.comment = v;
        else if (!std::strcmp(argv[i], "--platform") && (v = value())) build.platform = v;
        else if (!std::strcmp(argv[i], "--domain") && (v = value())) domain = v;
        else return usage();
    }
    if (catalogue_path.empty() || out_dir.empty()) return usage();

    std::ifstream in(catalogue_path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "%s: cannot read the catalogue\n", catalogue_path.c_str());
        return 1;
    }
    std::ostringstream text;
    text << in.rdbuf();

    gen::Catalogue c;
    try {
        c = gen::parse_catalogue(catalogue_path, text.str());
        c.domain = domain;
        gen::resolve(c);
        gen::lay_out(c);
        gen::fingerprint(c);
    } catch (const gen::Error &e) {
        std::fprintf(stderr, "%s:%d: error: %s\n", catalogue_path.c_str(), e.line, e.what());
        return 1;
    }

    try {
        fs::path out(out_dir);
        const fs::path pub = "include/" + domain, internal = "include/" + domain + "_internal";
        auto write = [&](const fs::path &path, const std::string &text) { write_if_changed(out / path, named(text, domain)); };
        write(pub / "types.h", gen::emit_public_types(c));
        write(pub / "ops.h", gen::emit_public_ops(c));
        write(pub / "ops_runtime.h", gen::emit_runtime_ops(c));
        write(pub / "exports.inc", gen::emit_export_list(c));
        write(internal / "tables.h", gen::emit_tables_header(c));
        write(internal / "tables.inc", gen::emit_tables(c));
        write("include/bundle_frame.h", gen::emit_frame_names(c));
        write("src/sm_tables.cpp", gen::emit_tables_source(c));
        write("src/sm_descriptors.cpp", gen::emit_descriptors(c));
        write("src/sm_entry.cpp", gen::emit_entry_points(c));
        write("src/sm_trace.cpp", gen::emit_trace_table(c));
        write("src/sm_manifest.cpp", gen::emit_manifest(c, build));
        write(pub / "optable.h", gen::emit_optable_header(c));
        write("src/sm_optable.cpp", gen::emit_optable_source(c));
        write("src/sm_dependents.cpp", gen::emit_dependents(c));
        write(internal / "wire.h", gen::emit_wire_header(c));
        write("src/sm_wire.cpp", gen::emit_wire_source(c));
        write(pub / (domain + ".hpp"), gen::emit_cxx_header(c));
        write(domain + ".map", gen::emit_version_script(c));
    } catch (const gen::Error &e) {
        std::fprintf(stderr, "%s:%d: error: %s\n", catalogue_path.c_str(), e.line, e.what());
        return 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "ovrin_gen: %s\n", e.what());
        return 1;
    }
    return 0;
}
