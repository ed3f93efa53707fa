// The element children of every element of a parsed document, grouped by parent and name in
// document order, built once when the document is read. A step of a path ("name" or "name[N]")
// is then one lookup however many siblings come before the element it names, so reading a
// record one path per field costs time linear in the document, not in the square of an array's
// length.
#ifndef MGX_RUNTIME_XML_INDEX_H
#define MGX_RUNTIME_XML_INDEX_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <libxml/tree.h>

namespace mgx {

class XmlChildIndex {
public:
    // Indexes the whole document: every element (and the document itself) as a parent, every
    // child element without a namespace (all that an unprefixed step name matches) under its
    // name. Throws std::bad_alloc when memory runs out.
    explicit XmlChildIndex(xmlDocPtr doc);

    // The children of parent named name (length bytes, not NUL-terminated), in document order.
    std::span<const xmlNodePtr> children(const void *parent, const char *name, size_t length) const;

    // Set apart from every other index made in this process, so that a document freed and another
    // read at the same address are told apart.
    const uint64_t serial;

private:
    struct Group {
        const void *parent = nullptr; // null: an empty slot
        const xmlChar *name = nullptr;
        uint32_t first = 0, count = 0;
    };
    const Group *find(const void *parent, const char *name, size_t length, uint64_t hash) const;
    Group *slot(const void *parent, const xmlChar *name);
    Group &add(const void *parent, const xmlChar *name);

    std::vector<Group> groups_; // open addressing, a power of two at least twice the groups
    size_t used_ = 0;
    std::vector<xmlNodePtr> nodes_;
};

} // namespace mgx

#endif
