// ovrin-sm types: the table of the bundle's types, read from the loaded library through its
// module node in the runtime's module list (registration order) and the descriptors it lists.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "ovrin_sm/ops.h"

namespace {

const mgx_module_node_t *bundle_module() {
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next)
        if (n->domain_name && !std::strcmp(n->domain_name, "ovrin_sm")) return n;
    return nullptr;
}

std::string variants_of(const mgx_type_variant_info_t *info) {
    std::string s;
    if (!info) return "-";
    for (int i = 0; i < info->n_variants; ++i) {
        char cell[32];
        std::snprintf(cell, sizeof cell, "%s%u/%u", i ? " " : "", info->entries[i].used_length, info->entries[i].alloc_slop);
        s += cell;
    }
    return s;
}

} // namespace

int ovrin_cmd_types(int argc, char **argv) {
    if (argc > 1) {
        std::fprintf(stderr, "usage: ovrin-sm types\n");
        return std::strcmp(argv[1], "--help") && std::strcmp(argv[1], "-h") ? 2 : 0;
    }
    const mgx_module_node_t *module = bundle_module();
    if (!module || !module->descriptor_table) {
        std::fprintf(stderr, "ovrin-sm: the ovrin_sm bundle is not linked into the runtime's module list\n");
        return 1;
    }
    std::printf("%3s  %-38s %-4s  %-22s %5s  %s\n", "#", "type", "kind", "variants (used/slop)", "size", "fingerprint");
    int n = 0;
    for (const void *const *entry = module->descriptor_table; *entry; ++entry) {
        const auto *d = static_cast<const mgx_type_info_t *>(*entry);
        const mgx_type_variant_info_t *info = d->variant_info;
        unsigned size = info && info->n_variants > 0 ? info->entries[0].used_length + info->entries[0].alloc_slop : 0;
        std::printf("%3d  %-38s %-4s  %-22s %5u  %s\n", ++n, d->type_name, d->kind, variants_of(info).c_str(), size,
                    d->fingerprint_text);
    }
    return 0;
}
