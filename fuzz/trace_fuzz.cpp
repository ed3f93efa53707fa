// Reads arbitrary bytes as the trace facility's off-line inputs, which come from files a user
// hands to "ovrin-sm trace": a trace file, or the message texts section of a library named with
// --library.
//
// Input: byte 0 bit 0 picks the reader: 0, the rest is a trace file (every record is read, and
// every emission rendered with a fixed set of texts covering each conversion the bundle's texts
// use); 1, the rest is a texts section (expanded without and with an expected count and CRC, and
// each text rendered with the arguments of every emission shape). Whatever the bytes, the readers
// must not crash, read past them or hang, and must stop with a reason rather than return a record
// they could not read whole.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "formats/trace_format.h"

namespace fmt = mgx::tracefmt;

namespace {

const std::vector<std::string> texts = {
    "Corrupted MGX Handle",
    "error in x create: %s",
    "offset_jump read_len %d offset_jump_base %d _mgx_variant_jump %d",
    "varinfo is NULL variant %u requested only %u variants present",
    "oid %p. Error %s",
    "100%% %5s|%-3u|%x",
};

const std::vector<std::vector<fmt::Arg>> shapes = {
    {},
    {{'s', 0, "Cannot allocate memory"}},
    {{'u', 7, {}}},
    {{'u', 3, {}}, {'u', 0xFFFFFFFFu, {}}},
    {{'d', 0xFFFFFFFFu, {}}, {'d', 0, {}}, {'d', 12, {}}},
    {{'p', 0xbeef, {}}, {'s', 0, "x"}},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    std::vector<uint8_t> in(data + 1, data + size); // exact size: a read past it is caught
    if ((data[0] & 1) == 0) {
        fmt::FileReader r(in);
        size_t records = 0;
        for (uint8_t kind; (kind = r.next()) != 0; ++records) {
            if (kind == fmt::record_emission) {
                const std::string &text = texts[r.emission.number % texts.size()];
                std::string line = fmt::render(text, r.emission.args);
                if (line.empty() && !text.empty()) std::abort();
            } else if (kind != fmt::record_table) {
                std::abort(); // only known kinds come out
            }
            if (records > in.size()) std::abort(); // every record takes at least a byte
        }
        if (r.pos != in.size()) std::abort(); // the reader stops at the end or at damage, never early
    } else {
        fmt::TextSet out;
        std::string error;
        if (fmt::expand_texts(in, 0, 0, out, error)) {
            for (size_t i = 0; i < out.size(); ++i)
                for (const auto &args : shapes) (void)fmt::render(out[i], args);
            // Expecting the count and CRC the section states must accept it the same way.
            uint32_t crc = static_cast<uint32_t>(in[16] | in[17] << 8 | in[18] << 16 | uint32_t{in[19]} << 24);
            fmt::TextSet again;
            if (!fmt::expand_texts(in, static_cast<uint32_t>(out.size()), crc, again, error) || again != out) std::abort();
        } else if (error.empty()) {
            std::abort(); // a refusal says why
        }
    }
    return 0;
}
