// Linking the bundle's module node into the runtime's module list (a tail queue: the head keeps
// a count, the first node and the address of the last node's next-pointer; each node keeps its
// next node and the address of the pointer that points at it).
#ifndef OVRIN_FRAME_MODULE_LIST_H
#define OVRIN_FRAME_MODULE_LIST_H

#include <cstdint>

#include "mgx/contract.h"

namespace ovrin::frame {

// Appends node at the tail and counts it. Runs once per loaded image: once `linked` is set the
// node is never linked again, even after unlink_module.
inline void link_module(mgx_module_root_t &root, mgx_module_node_t &node, uint8_t &linked) {
    if (linked) return;
    node.next = nullptr;
    node.prev_next = root.last_next;
    *root.last_next = &node;
    root.last_next = &node.next;
    ++root.count;
    linked = 1;
}

// Takes node out of the list; a node that is not linked (both link words zero) is left alone.
inline void unlink_module(mgx_module_root_t &root, mgx_module_node_t &node) {
    if (!node.next && !node.prev_next) return;
    if (node.next) node.next->prev_next = node.prev_next;
    else root.last_next = node.prev_next;
    *node.prev_next = node.next;
    node.next = nullptr;
    node.prev_next = nullptr;
    --root.count;
}

} // namespace ovrin::frame

#endif
