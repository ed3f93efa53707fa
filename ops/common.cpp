// The shared helpers of ops/common.h that are not inline.
#include "ops/common.h"

namespace ovrin {

[[noreturn]] void fatal(const Type &t, Message m) {
    trace(t, m, MGX_SEV_EMERG);
    std::abort();
}

uint8_t *state_area(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance) {
    const mgx_instance_hdr_t *hd = hdr(instance);
    if (!(hd->flags & MGX_IF_TRACKED) || t.sttr_size == 0) return nullptr;
    if (hd->flags & (MGX_IF_STTR_OFFSET | MGX_IF_NESTED)) {
        int64_t offset = mgxlib_get_sttr_offset(h, luid, instance);
        return offset ? bytes(instance) + offset : nullptr;
    }
    return bytes(instance) + t.size;
}

void *descriptor_for(const Type &t, mgx_handle_t *h, uint32_t luid) {
    if (h->domain_mode == 0) return t.descriptor;
    return mgx_type_info_ptr_get(h, luid, t.descriptor, t.bundle->register_types);
}

int8_t domain_variant(const Type &t, mgx_handle_t *h, uint32_t *err) {
    int8_t v = mgx_domain_lookup_variant(h, &h->variant_domain, t.descriptor, err);
    return record_variant_cap(t, static_cast<uint8_t>(v));
}

} // namespace ovrin
