// Reads arbitrary XML documents into any type of the bundle.
//
// Input: byte 0 picks the type (modulo the type count) and, by whether it is past the first round
// of types, a tracked handle; the rest is the document. The document's root element is read
// whatever its name. Whatever the document, the reader must not crash or leak. When it reads
// without error, the instance written back as XML must be well formed and read back into a
// second instance with the same wire encoding.
#include "fuzz/fuzz_types.h"

using fuzz::die;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const auto &all = fuzz::types();
    const fuzz::TypeOps &t = all[data[0] % all.size()];
    if (!t.from_xml || !t.to_xml) return 0; // a library without the XML family: nothing to read
    mgx_handle_t *h = fuzz::handle((data[0] / all.size()) & 1);
    void *doc = mgx_xml_document_parse(reinterpret_cast<const char *>(data + 1), size - 1);
    if (!doc) return 0;
    uint64_t base = mgx_handle_live_allocations(h);

    void *a = fuzz::make(t, h);
    uint32_t err = 0;
    char msg[256];
    t.from_xml(h, 1, "/*", doc, a, &err, msg, sizeof msg);
    mgx_xml_document_free(doc);
    if (err == 0) {
        static std::vector<char> text(1 << 20);
        uint32_t e = 0;
        uint32_t written = t.to_xml(h, 1, t.name.c_str(), text.data(), a, static_cast<uint32_t>(text.size()), 0, &e);
        if (e) die(t.name + ": an instance read from XML does not write, error " + std::to_string(e));
        if (written >= text.size()) die(t.name + ": XML output fills the whole buffer");
        std::string out(text.data(), written);
        void *again = mgx_xml_document_parse(text.data(), written);
        if (!again) {
            // An enumeration holding a value that is no literal is written as an element named
            // "<type> value out of range", which no XML reader takes back; a fresh instance of a
            // type whose only literals are non-zero holds one.
            if (out.find(" value out of range/>") != std::string::npos) {
                t.destroy(h, 1, a);
                if (mgx_handle_live_allocations(h) != base) die(t.name + ": blocks leaked");
                return 0;
            }
            die(t.name + ": written XML is not well formed:\n" + out);
        }
        void *b = fuzz::make(t, h);
        t.from_xml(h, 1, "/*", again, b, &e, msg, sizeof msg);
        mgx_xml_document_free(again);
        if (e) die(t.name + ": written XML does not read back, error " + std::to_string(e));
        // Compared through the wire form, when the first instance has one: a union whose
        // discriminator selects a member that the document left out has none (error 2), while
        // reading the written text back creates that member.
        uint32_t ea = 0, eb = 0;
        std::vector<uint8_t> wire = fuzz::encode(t, h, a, &ea);
        if (!ea && (fuzz::encode(t, h, b, &eb) != wire || eb))
            die(t.name + ": XML write and read back changes the instance:\n" + out);
        t.destroy(h, 1, b);
    }
    t.destroy(h, 1, a);
    if (mgx_handle_live_allocations(h) != base) die(t.name + ": blocks leaked");
    return 0;
}
