// Reads arbitrary JSON documents into any type of the bundle.
//
// Input: byte 0 picks an instance allocation of the read to refuse (0: none, k: the k-th); byte
// 1 picks the type (modulo the type count) and, by whether it is past the first round of types, a
// tracked handle; byte 2 bit 0 reads leniently; the rest is the document, in a block of its own
// size (the reader must not look past it, however its parser likes its input padded).
//
// Whatever the document, the read must not crash or leak, reports error 12 exactly when an
// allocation was refused and otherwise 0 or 22, the same code as the handle's last error, and a
// refusal says what and where (a JSON pointer). A document nested deeper than the limit is never
// accepted. When a document is accepted, by either reading:
//   - the instance's compact text reads back strictly into a fresh instance that compares equal
//     and writes the identical text, and so does its indented text (leniently, when a lenient
//     read left a union selecting a member that is not there, which a strict read refuses);
//   - its wire form (when it has one) decodes into an instance that writes the identical text
//     (but for an enumeration value that no literal names and the wire form confuses with one);
// and a document read strictly has a wire form and is read alike leniently.
#include <algorithm>
#include <cctype>
#include <memory>

#include "fuzz/fuzz_types.h"

using fuzz::die;

namespace {

// The deepest nesting of arrays and objects outside strings: exact for a document that is JSON.
size_t depth_of(const char *p, size_t n) {
    size_t depth = 0, deepest = 0;
    bool in_string = false;
    for (size_t i = 0; i < n; ++i) {
        char c = p[i];
        if (in_string) {
            if (c == '\\') ++i;
            else if (c == '"') in_string = false;
        } else if (c == '"') {
            in_string = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

// The tokens of a text the library wrote: strings (with their quotes), numbers and words, and
// punctuation, one each.
std::vector<std::string> tokens(const std::string &text) {
    std::vector<std::string> out;
    for (size_t i = 0; i < text.size();) {
        size_t j = i + 1;
        if (text[i] == '"') {
            while (j < text.size() && text[j] != '"') j += text[j] == '\\' ? 2 : 1;
            ++j;
        } else if (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '-') {
            while (j < text.size() && (std::isalnum(static_cast<unsigned char>(text[j])) || std::strchr("+-.", text[j]))) ++j;
        } else if (std::isspace(static_cast<unsigned char>(text[i]))) {
            i = j;
            continue;
        }
        out.push_back(text.substr(i, j - i));
        i = j;
    }
    return out;
}

// Whether the text of an instance decoded from the wire form may differ from the text it was
// encoded from: only where an enumeration holds a value that no literal names and that is
// another literal's wire value, which the wire form cannot tell apart from that literal. The
// one text then holds the number where the other holds a literal's name.
bool differs_only_by_enumerations(const std::string &written, const std::string &decoded) {
    std::vector<std::string> a = tokens(written), b = tokens(decoded);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] == b[i]) continue;
        bool number = std::isdigit(static_cast<unsigned char>(a[i][0]));
        bool name = b[i].size() > 2 && b[i][0] == '"' && !std::isdigit(static_cast<unsigned char>(b[i][1]));
        if (!number || !name) return false;
    }
    return true;
}

// The text of an instance, compact or indented; dies when it cannot be written.
std::string text_of(const fuzz::TypeOps &t, mgx_handle_t *h, const void *instance, uint32_t flags) {
    char *text = nullptr;
    size_t size = 0;
    int64_t n = t.to_json(h, instance, flags, &text, &size);
    std::string out = n >= 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
    std::free(text);
    if (n < 0) die(t, ": an instance read from JSON does not write, error " + std::to_string(mgx_handle_last_error(h)));
    if (n > 0 && out.find('\0') != std::string::npos) die(t, ": a NUL byte in the written text");
    return out;
}

// Reads json into a fresh instance; the instance, with the read's code in err and what it said in e.
void *read(const fuzz::TypeOps &t, mgx_handle_t *h, const std::string &json, uint32_t flags, uint32_t &err, ovrin_json_error &e) {
    void *b = fuzz::make(t, h);
    err = t.from_json(h, 1, json.data(), json.size(), b, flags, &e);
    return b;
}

// The checks on an instance a that a read accepted (strictly or not), whose compact text is
// written. A strict read takes only what encodes. An instance with no wire form is one whose
// union selects a member that is not there (error 2): a lenient read may leave one, its text
// leaves the member out, and a strict read refuses that text as it refuses any document that
// could not be encoded; such a text must read back leniently, any other text strictly.
void round_trip(const fuzz::TypeOps &t, mgx_handle_t *h, const void *a, const std::string &written, bool strict) {
    uint32_t werr = 0;
    std::vector<uint8_t> wire = fuzz::encode(t, h, a, &werr, 0);
    if (werr && strict) die(t, ": read strictly, but has no wire form (error " + std::to_string(werr) + "):\n" + written);
    const uint32_t back = werr ? OVRIN_JSON_LENIENT : 0;
    ovrin_json_error e{};
    uint32_t err = 0;
    for (uint32_t style : {0u, static_cast<uint32_t>(OVRIN_JSON_PRETTY)}) {
        std::string text = style ? text_of(t, h, a, style) : written;
        void *b = read(t, h, text, back, err, e);
        if (err)
            die(t, ": written JSON does not read back, error " + std::to_string(err) + " (" + (e.text ? e.text : "") + " at " +
                       (e.pointer ? e.pointer : "?") + "):\n" + text);
        if (t.compare && t.compare(a, b) != 0) die(t, ": read back from its own JSON, compare differs:\n" + text);
        if (text_of(t, h, b, 0) != written) die(t, ": read back from its own JSON, the text differs:\n" + text);
        t.destroy(h, 1, b);
    }
    if (werr) return;
    void *c = fuzz::make(t, h);
    if (t.unmarshal(h, 1, wire.data(), c, static_cast<int32_t>(wire.size()), 0, &werr) != wire.size() || werr)
        die(t, ": the wire form of an instance read from JSON does not decode, error " + std::to_string(werr));
    std::string decoded = text_of(t, h, c, 0);
    if (decoded != written) {
        uint32_t again = 0;
        if (!differs_only_by_enumerations(written, decoded) || fuzz::encode(t, h, c, &again, 0) != wire || again)
            die(t, ": decoded from its wire form, the JSON differs:\n" + written + "\n" + decoded);
    }
    t.destroy(h, 1, c);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    const fuzz::TypeOps &t = fuzz::type_picked(data[1]);
    if (!t.from_json || !t.to_json) return 0; // a library without the JSON form: nothing to read
    mgx_handle_t *h = fuzz::handle(fuzz::tracked_picked(data[1]));
    const uint32_t flags = (data[2] & 1) ? OVRIN_JSON_LENIENT : 0;
    const size_t n = size - 3;
    std::unique_ptr<char[]> json(new char[n ? n : 1]);
    std::memcpy(json.get(), data + 3, n);
    const uint64_t base = mgx_handle_live_allocations(h);

    void *a = fuzz::make(t, h);
    ovrin_json_error e{};
    uint32_t err;
    {
        fuzz::Injection refuse(h, data[0]);
        err = t.from_json(h, 1, json.get(), n, a, flags, &e);
        bool refused = refuse.fired();
        if (refused != (err == 12))
            die(t, ": allocation " + std::to_string(data[0]) + (refused ? " refused" : " not refused") + ", JSON read error " +
                       std::to_string(err));
    }
    if (err != 0 && err != 12 && err != 22) die(t, ": JSON read error " + std::to_string(err));
    if (err && mgx_handle_last_error(h) != err)
        die(t, ": read error " + std::to_string(err) + ", handle's last error " + std::to_string(mgx_handle_last_error(h)));
    if (err == 22) {
        if (!e.text || !*e.text || !e.pointer) die(t, ": a refused document without a reason or a pointer");
        if (*e.pointer && *e.pointer != '/') die(t, std::string(": not a JSON pointer: ") + e.pointer);
    }
    if (!err && (e.text || e.pointer)) die(t, ": an accepted document with an error text");
    ovrin_json_error_free(&e);

    if (!err && depth_of(json.get(), n) > OVRIN_JSON_MAX_DEPTH) die(t, ": a document past the depth limit was accepted");
    if (!err) {
        std::string written = text_of(t, h, a, 0);
        round_trip(t, h, a, written, !flags);
        if (!flags) { // what strict reading takes, lenient reading takes alike
            std::string doc(json.get(), n);
            uint32_t lerr = 0;
            void *l = read(t, h, doc, OVRIN_JSON_LENIENT, lerr, e);
            ovrin_json_error_free(&e);
            if (lerr) die(t, ": read strictly but refused leniently, error " + std::to_string(lerr));
            if (text_of(t, h, l, 0) != written) die(t, ": read strictly and leniently, the texts differ");
            t.destroy(h, 1, l);
        }
    } else {
        // Whatever a failed read left must still be an instance: written (or refused) without harm.
        char *text = nullptr;
        size_t room = 0;
        (void)t.to_json(h, a, 0, &text, &room);
        std::free(text);
    }
    t.destroy(h, 1, a);
    if (mgx_handle_live_allocations(h) != base) die(t, ": blocks leaked");
    return 0;
}
