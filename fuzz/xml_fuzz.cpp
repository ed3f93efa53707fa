// Reads arbitrary XML documents into any type of the bundle.
//
// Input: byte 0 picks an instance allocation of the read to refuse (0: none, k: the k-th); byte
// 1 picks the type (modulo the type count) and, by whether it is past the first round of types, a
// tracked handle; the rest is the document. The document's root element is read whatever its
// name. Whatever the document, the reader must not crash or leak, and reports error 12 exactly
// when an allocation was refused. When it reads without error, the instance written back as XML
// must be well formed and read back into a second instance with the same wire encoding.
#include "fuzz/xml_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const fuzz::TypeOps &t = fuzz::type_picked(data[1]);
    if (!t.from_xml || !t.to_xml) return 0; // a library without the XML family: nothing to read
    mgx_handle_t *h = fuzz::handle(fuzz::tracked_picked(data[1]));
    void *doc = mgx_xml_document_parse(reinterpret_cast<const char *>(data + 2), size - 2);
    if (!doc) return 0;
    std::string written;
    fuzz::read_and_write_back(t, h, doc, data[0], written);
    mgx_xml_document_free(doc);
    return 0;
}
