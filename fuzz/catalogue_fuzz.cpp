// Reads arbitrary bytes as a catalogue file, as "ovrin-sm compat" reads the two it is given (and
// the generator its one): parsed, resolved, laid out and fingerprinted. Whatever the bytes, the
// reader must answer with a catalogue or an error naming a line within the text, without crashing
// or hanging.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tools/ovrin_gen/model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    try {
        gen::Catalogue c = gen::parse_catalogue("f.types", text);
        gen::resolve(c);
        gen::lay_out(c);
        gen::fingerprint(c);
    } catch (const gen::Error &e) {
        const long lines = 1 + static_cast<long>(std::count(text.begin(), text.end(), '\n'));
        if (e.line < 0 || e.line > lines) std::abort(); // an error must point into the text
    }
    return 0;
}
