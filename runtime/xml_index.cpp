// The document's child index: two passes over the tree, one to count each parent's children of
// each name, one to place them, so every group is one run of a single array.
#include "runtime/xml_index.h"

#include <atomic>
#include <cstring>

namespace mgx {

namespace {

// Calls f(parent, child) for every element child without a namespace of the document and of
// every element, in document order, without recursion (a document nests as deep as its reader
// allows). Only elements are entered: an entity reference's children belong to its declaration.
template <class F> void each_child(xmlDocPtr doc, F f) {
    auto *top = reinterpret_cast<xmlNodePtr>(doc);
    for (xmlNodePtr n = doc->children; n;) {
        if (n->type == XML_ELEMENT_NODE) {
            if (!n->ns) f(n->parent, n);
            if (n->children) {
                n = n->children;
                continue;
            }
        }
        while (!n->next && n->parent != top) n = n->parent;
        n = n->next;
    }
}

uint64_t hash_of(const void *parent, const char *name, size_t length) {
    uint64_t h = 0xcbf29ce484222325u ^ (reinterpret_cast<uintptr_t>(parent) * 0x9E3779B97F4A7C15u);
    for (size_t i = 0; i < length; ++i) h = (h ^ static_cast<unsigned char>(name[i])) * 0x100000001b3u;
    return h ^ (h >> 29);
}

bool same(const xmlChar *name, const char *s, size_t length) {
    return std::strncmp(reinterpret_cast<const char *>(name), s, length) == 0 && name[length] == 0;
}

uint64_t next_serial() {
    static std::atomic<uint64_t> serial{0};
    return serial.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace

XmlChildIndex::XmlChildIndex(xmlDocPtr doc) : serial(next_serial()) {
    size_t children = 0;
    groups_.resize(16);
    each_child(doc, [&](xmlNodePtr parent, xmlNodePtr child) {
        ++add(parent, child->name).count;
        ++children;
    });
    nodes_.resize(children);
    uint32_t first = 0;
    for (Group &g : groups_) {
        g.first = first;
        first += g.count;
        g.count = 0;
    }
    each_child(doc, [&](xmlNodePtr parent, xmlNodePtr child) {
        Group &g = add(parent, child->name);
        nodes_[g.first + g.count++] = child;
    });
}

const XmlChildIndex::Group *XmlChildIndex::find(const void *parent, const char *name, size_t length, uint64_t hash) const {
    const size_t mask = groups_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        const Group &g = groups_[i];
        if (!g.parent || (g.parent == parent && same(g.name, name, length))) return &g;
    }
}

XmlChildIndex::Group *XmlChildIndex::slot(const void *parent, const xmlChar *name) {
    const auto *text = reinterpret_cast<const char *>(name);
    const size_t length = std::strlen(text);
    return const_cast<Group *>(find(parent, text, length, hash_of(parent, text, length)));
}

// The group of parent's children named name, made when there is none yet. The table doubles
// before it is half full, so its slots stay within four times the groups.
XmlChildIndex::Group &XmlChildIndex::add(const void *parent, const xmlChar *name) {
    Group *g = slot(parent, name);
    if (g->parent) return *g;
    if (2 * (used_ + 1) > groups_.size()) {
        std::vector<Group> old(groups_.size() * 2);
        old.swap(groups_);
        for (const Group &o : old)
            if (o.parent) *slot(o.parent, o.name) = o;
        g = slot(parent, name);
    }
    ++used_;
    g->parent = parent;
    g->name = name;
    return *g;
}

std::span<const xmlNodePtr> XmlChildIndex::children(const void *parent, const char *name, size_t length) const {
    const Group *g = find(parent, name, length, hash_of(parent, name, length));
    if (!g->parent) return {};
    return {nodes_.data() + g->first, g->count};
}

} // namespace mgx
