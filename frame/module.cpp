// The bundle's module node, linked into the runtime's module list while the library is loaded.
#include "bundle_frame.h"
#include "frame/module_list.h"

namespace {

mgx_module_node_t module_node = {OVRIN_BUNDLE_DOMAIN, ovrin::descriptor_table, nullptr, nullptr};
uint8_t module_linked = 0;

__attribute__((constructor)) void link_bundle_module() {
    ovrin::frame::link_module(mgx_module_tot_root, module_node, module_linked);
}

__attribute__((destructor)) void unlink_bundle_module() {
    ovrin::frame::unlink_module(mgx_module_tot_root, module_node);
}

} // namespace
