// The strict document check of `ovrin-sm encode` on hostile documents.
//
// Input: byte 0 picks the type (modulo the type count); the rest is the document, read by the
// runtime's reader as encode reads it. Whatever the document, the check must not crash, keeps
// no more problem lines than asked for while counting them all, and says each as "/PATH: what".
// A document it finds nothing wrong with and the library reads without error must encode: the
// check's promise is that what is encoded is what the document says.
#include "cli/tables.h"
#include "cli/xml_check.h"
#include "fuzz/fuzz_types.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const fuzz::TypeOps &t = fuzz::type_picked(data[0]);
    const ovrin::Type *table = ovrin::cli::find_table(t.name);
    if (!table) fuzz::die(t, ": not in the tool's tables");
    void *doc = mgx_xml_document_read(reinterpret_cast<const char *>(data + 1), size - 1, nullptr, 0);
    if (!doc) return 0;
    constexpr size_t keep = 3;
    std::string root = ovrin::cli::root_name(doc);
    ovrin::cli::Findings found = ovrin::cli::check_document(*table, doc, keep);
    if (found.problems.size() != (found.count < keep ? found.count : keep))
        fuzz::die(t, ": " + std::to_string(found.problems.size()) + " problem lines kept of " + std::to_string(found.count));
    for (const std::string &p : found.problems)
        if (p.empty() || p[0] != '/' || p.find(": ") == std::string::npos) fuzz::die(t, ": a problem without its path: " + p);
    if (found.count == 0 && root != t.name) fuzz::die(t, ": a document whose root is <" + root + "> checks");
    if (found.count == 0 && t.from_xml) {
        mgx_handle_t *h = fuzz::handle(false);
        void *instance = fuzz::make(t, h);
        uint32_t err = 0;
        std::string path = std::string("/") + t.name;
        t.from_xml(h, 1, path.c_str(), doc, instance, &err, nullptr, 0);
        if (!err) {
            std::vector<uint8_t> wire = fuzz::encode(t, h, instance, &err);
            if (err) fuzz::die(t, ": a document that checks and reads does not encode, error " + std::to_string(err));
        }
        t.destroy(h, 1, instance);
        if (mgx_handle_live_allocations(h) != 0) fuzz::die(t, ": blocks leaked");
    }
    mgx_xml_document_free(doc);
    return 0;
}
