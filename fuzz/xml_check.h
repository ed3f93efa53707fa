// What the XML targets check once a document has been parsed: its root element read into a fresh
// instance of a type, with one instance allocation refused when asked, and the instance written
// back as XML and read again.
#ifndef OVRIN_FUZZ_XML_CHECK_H
#define OVRIN_FUZZ_XML_CHECK_H

#include "fuzz/fuzz_types.h"

namespace fuzz {

// Reads doc's root element (whatever its name) with t's _from_xml, refusing the k-th instance
// allocation of the read (k = 0: none). The reader must not crash or leak, and must report error
// 12 exactly when an allocation was refused. When it reads without error, the instance written
// back must be well formed and read back into a second instance with the same wire encoding.
// Returns the error of the first read; written gets the XML written from the instance read.
inline uint32_t read_and_write_back(const TypeOps &t, mgx_handle_t *h, void *doc, uint32_t k, std::string &written) {
    written.clear();
    uint64_t base = mgx_handle_live_allocations(h);
    void *a = make(t, h);
    uint32_t err = 0;
    char msg[256];
    Injection refuse(h, k);
    t.from_xml(h, 1, "/*", doc, a, &err, msg, sizeof msg);
    bool refused = refuse.fired();
    if (refused != (err == 12))
        die(t, ": allocation " + std::to_string(k) + (refused ? " refused" : " not refused") + ", XML read error " +
                   std::to_string(err));
    if (err == 0) {
        static std::vector<char> text(1 << 20);
        uint32_t e = 0;
        uint32_t n = t.to_xml(h, 1, t.name, text.data(), a, static_cast<uint32_t>(text.size()), 0, &e);
        if (e) die(t, ": an instance read from XML does not write, error " + std::to_string(e));
        if (n >= text.size()) die(t, ": XML output fills the whole buffer");
        written.assign(text.data(), n);
        void *again = mgx_xml_document_parse(text.data(), n);
        if (again) {
            void *b = make(t, h);
            t.from_xml(h, 1, "/*", again, b, &e, msg, sizeof msg);
            mgx_xml_document_free(again);
            if (e) die(t, ": written XML does not read back, error " + std::to_string(e) + ":\n" + written);
            // Compared through the wire form, when the first instance has one: a union whose
            // discriminator selects a member that the document left out has none (error 2), while
            // reading the written text back creates that member.
            uint32_t ea = 0, eb = 0;
            std::vector<uint8_t> wire = encode(t, h, a, &ea);
            if (!ea && (encode(t, h, b, &eb) != wire || eb))
                die(t, ": XML write and read back changes the instance:\n" + written);
            t.destroy(h, 1, b);
        } else if (written.find(" value out of range/>") == std::string::npos) {
            // An enumeration holding a value that is no literal is written as an element named
            // "<type> value out of range", which no XML reader takes back (a fresh instance of a
            // type whose only literals are non-zero holds one); anything else must be well formed.
            die(t, ": written XML is not well formed:\n" + written);
        }
    }
    t.destroy(h, 1, a);
    if (mgx_handle_live_allocations(h) != base) die(t, ": blocks leaked");
    return err;
}

} // namespace fuzz

#endif
