// Renders arbitrary message texts with arbitrary arguments through the trace formatter, as the
// runtime renders an emission and "ovrin-sm trace" renders a trace file's emissions with texts
// from a library file the user hands it.
//
// Input: byte 0 is the argument count; then each argument: a byte whose value modulo 4 picks its
// kind ('u', 'd', 'p', 's'), and its value: 4 bytes for 'u' and 'd', 8 for 'p', a u16 length and
// that many bytes for 's' (all little-endian, cut to what is there). The rest is the text.
//
// Whatever the text, the formatter must not crash, and one rendering may yield no more than the
// text, the arguments' own bytes and width_limit (plus a number's digits) per argument: a text
// cannot make an emission cost more than its size allows. Rendering twice gives the same line,
// and an emission of one of the runtime's argument shapes captures that same line.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "formats/trace_format.h"
#include "mgx/runtime.h"

namespace fmt = mgx::tracefmt;

namespace {

struct Input {
    const uint8_t *p;
    size_t left;
    uint64_t get(size_t bytes) { // at most 8
        uint64_t v = 0;
        for (size_t i = 0; i < bytes && left; ++i, ++p, --left) v |= uint64_t{*p} << (8 * i);
        return v;
    }
    std::string text(size_t n) {
        n = std::min(n, left);
        std::string s(reinterpret_cast<const char *>(p), n);
        p += n;
        left -= n;
        return s;
    }
};

// The line the runtime captures for this emission, when its arguments have one of the shapes the
// runtime emits (and the text holds no NUL, which would end it in a texts section).
bool emitted(const std::string &text, const std::vector<fmt::Arg> &args, std::string &line) {
    std::string shape;
    for (const fmt::Arg &a : args) shape.push_back(a.kind);
    if (text.find('\0') != std::string::npos ||
        !(shape.empty() || shape == "s" || shape == "u" || shape == "uu" || shape == "ddd" || shape == "ps"))
        return false;
    static mgx_trace_table_t table = {MGX_TRACE_TABLE_MAGIC, 1, "fuzz", ".fuzz_texts", 0, nullptr};
    std::vector<uint8_t> section = fmt::texts_section({text});
    table.texts_crc = fmt::texts_crc(text + '\0');
    if (mgx_trace_texts_attach(&table, section.data(), section.size()) != 0) std::abort();
    mgx_trace_clear();
    auto i = [&](size_t k) { return static_cast<uint32_t>(args[k].value); };
    if (shape.empty()) qlog_emit_0(&table, 0, 1, MGX_SEV_INFO);
    if (shape == "s") qlog_emit_s(&table, 0, 1, MGX_SEV_INFO, args[0].text.c_str());
    if (shape == "u") qlog_emit_u(&table, 0, 1, MGX_SEV_INFO, i(0));
    if (shape == "uu") qlog_emit_uu(&table, 0, 1, MGX_SEV_INFO, i(0), i(1));
    if (shape == "ddd")
        qlog_emit_ddd(&table, 0, 1, MGX_SEV_INFO, static_cast<int32_t>(i(0)), static_cast<int32_t>(i(1)),
                      static_cast<int32_t>(i(2)));
    if (shape == "ps")
        qlog_emit_ps(&table, 0, 1, MGX_SEV_INFO, reinterpret_cast<void *>(static_cast<uintptr_t>(args[0].value)),
                     args[1].text.c_str());
    if (mgx_trace_count() != 1) std::abort();
    line = mgx_trace_text(0);
    mgx_trace_clear();
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    Input in{data + 1, size - 1};
    std::vector<fmt::Arg> args(data[0]);
    size_t argument_bytes = 0;
    for (fmt::Arg &a : args) {
        a.kind = "udps"[in.get(1) % 4];
        if (a.kind == 's') {
            a.text = in.text(in.get(2));
            argument_bytes += a.text.size();
        } else {
            a.value = in.get(a.kind == 'p' ? 8 : 4);
        }
    }
    const std::string text = in.text(in.left);
    const std::string line = fmt::render(text, args);
    if (line.size() > text.size() + argument_bytes + args.size() * (fmt::width_limit + 32)) std::abort();
    if (fmt::render(text, args) != line) std::abort();
    std::string captured;
    // The runtime's copy of a string argument ends at its first NUL, as a C string does.
    bool nul_in_strings = false;
    for (const fmt::Arg &a : args) nul_in_strings = nul_in_strings || a.text.find('\0') != std::string::npos;
    if (!nul_in_strings && emitted(text, args, captured) && captured != line.substr(0, line.find('\0'))) std::abort();
    return 0;
}
