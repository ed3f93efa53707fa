// Binding the bundle's types to a runtime handle's registry, the bundle's module node in the
// runtime's module list, and the variant dump. The module node lives here, beside what every
// bundle context names (typeinfo_initialize), so that a static link taking the bundle's types
// takes the node and its constructor too.
#include <cstring>

#include "bundle_frame.h"
#include "frame/module_list.h"
#include "ops/trace.h"

namespace {

const mgx_type_info_t *descriptor(const void *entry) { return static_cast<const mgx_type_info_t *>(entry); }

// Linked into the runtime's module list while the library (or the program linking it) is loaded.
mgx_module_node_t module_node = {OVRIN_BUNDLE_DOMAIN, ovrin::descriptor_table, nullptr, nullptr};
uint8_t module_linked = 0;

__attribute__((constructor)) void link_bundle_module() {
    ovrin::frame::link_module(mgx_module_tot_root, module_node, module_linked);
}

__attribute__((destructor)) void unlink_bundle_module() { ovrin::frame::unlink_module(mgx_module_tot_root, module_node); }

} // namespace

extern "C" {

// Registers a copy of every descriptor under its fingerprint text, in registration order. Types
// the handle already knows keep their registration and only get their variant info refreshed.
void OVRIN_BUNDLE_EXPORT(typeinfo_initialize)(mgx_handle_t *h, uint32_t luid, uint32_t *err) {
    for (const void *const *entry = ovrin::descriptor_table; *entry; ++entry) {
        const mgx_type_info_t *d = descriptor(*entry);
        if (void *found = h->reg_lookup(h->reg_ctx, luid, d->fingerprint_text)) {
            if (d->variant_info) mgx_update_variant_info(h, luid, found, d, 0);
            continue;
        }
        auto *copy = static_cast<mgx_type_info_reg_t *>(h->reg_alloc(h->reg_mem_ctx, MGX_LUID_NONE, sizeof(mgx_type_info_reg_t)));
        if (!copy) {
            if (err) *err = MGX_ENOMEM;
            mgx_store_err(h, MGX_ENOMEM);
            return;
        }
        std::memcpy(&copy->info, d, sizeof copy->info);
        copy->runtime_words[0] = nullptr;
        copy->runtime_words[1] = nullptr;
        copy->info.registry_mode = h->domain_mode;
        copy->info.registry_slot = -1;
        h->reg_insert(h->reg_ctx, luid, copy->info.fingerprint_text, copy);
        if (d->variant_info) mgx_update_variant_info(h, luid, copy, d, 1);
    }
}

void OVRIN_BUNDLE_EXPORT(type_variant_dump)(int (*print)(const char *format, ...)) {
    for (const void *const *entry = ovrin::descriptor_table; *entry; ++entry) {
        const mgx_type_variant_info_t *info = descriptor(*entry)->variant_info;
        if (!info) {
            ovrin::trace(ovrin::bundle, ovrin::BundleMessage::dump_no_variant_info, MGX_SEV_ERROR);
            continue;
        }
        int n = info->n_variants;
        print("n_variants %d\n", n);
        for (int i = 0; i < n; ++i)
            print("variant %d used length %d alloc slop %d\n", i, static_cast<int>(info->entries[i].used_length),
                  static_cast<int>(info->entries[i].alloc_slop));
    }
}

} // extern "C"
