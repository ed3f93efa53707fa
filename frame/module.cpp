// The bundle's module node, linked into the runtime's module list while the library is loaded.
#include "frame/module_list.h"
#include "ovrin_sm_internal/tables.h"

namespace {

mgx_module_node_t module_node = {"ovrin_sm", ovrin::descriptor_table, nullptr, nullptr};
uint8_t module_linked = 0;

__attribute__((constructor)) void link_bundle_module() {
    ovrin::frame::link_module(mgx_module_tot_root, module_node, module_linked);
}

__attribute__((destructor)) void unlink_bundle_module() {
    ovrin::frame::unlink_module(mgx_module_tot_root, module_node);
}

} // namespace
