// Renaming the library files a trace file's table records name, for the target that decodes trace
// files with "ovrin-sm trace" and for the seed writer that prepares its inputs.
#ifndef OVRIN_FUZZ_TRACE_PATHS_H
#define OVRIN_FUZZ_TRACE_PATHS_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "formats/trace_format.h"

namespace fuzz {

// The trace file with the library path of every whole table record replaced by rename(path).
// Everything else (the header, other records, damaged or cut records, bytes after the last
// record, bytes after a table record's last string) is kept byte for byte, so that damage still
// reaches the reader as it was.
template <class Rename> std::vector<uint8_t> rename_libraries(const std::vector<uint8_t> &in, Rename rename) {
    namespace fmt = mgx::tracefmt;
    size_t pos = std::min(in.size(), fmt::file_header_size);
    std::vector<uint8_t> out(in.begin(), in.begin() + static_cast<long>(pos));
    while (in.size() - pos >= 5) {
        fmt::Cursor head{in.data() + pos, in.size() - pos};
        uint32_t length = static_cast<uint32_t>(head.get(4));
        if (length == 0 || length > head.left) break;
        const uint8_t *payload = head.p + 1;
        fmt::Cursor c{payload, length - 1u};
        if (head.p[0] == fmt::record_table) {
            c.get(2); // index
            c.get(4); // count
            c.get(4); // CRC
            c.string16();
            c.string16();
            const uint8_t *library_at = c.p;
            std::string library = c.string16();
            if (c.ok) {
                std::string p(reinterpret_cast<const char *>(payload), static_cast<size_t>(library_at - payload));
                fmt::put_string16(p, rename(library));
                p.append(reinterpret_cast<const char *>(c.p), c.left);
                std::string r = fmt::record(fmt::record_table, p);
                out.insert(out.end(), r.begin(), r.end());
                pos += 4 + length;
                continue;
            }
        }
        out.insert(out.end(), in.begin() + static_cast<long>(pos), in.begin() + static_cast<long>(pos + 4 + length));
        pos += 4 + length;
    }
    out.insert(out.end(), in.begin() + static_cast<long>(pos), in.end());
    return out;
}

} // namespace fuzz

#endif
