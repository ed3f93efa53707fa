// The blocks of variable arrays: made, filled with nested instances and released in one place.
#include "ops/walk.h"

#include <cstring>

#include "ops/record/lifecycle.h"

namespace ovrin {

void destroy_elements(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t count) {
    const ArrayLayout layout(f);
    for (uint32_t k = 0; block && k < count; ++k) destroy_internal(*f.type, h, luid, layout.element(block, k), 0);
}

bool init_elements(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t count, uint32_t from, uint32_t to,
                   bool tracked, bool raise, uint32_t *err) {
    const ArrayLayout layout(f);
    uint8_t *flags = layout.flags(block, count, tracked);
    for (uint32_t k = from; k < to; ++k) {
        void *element = layout.element(block, k);
        uint32_t e = 0;
        initialize_element(*f.type, h, luid, element, layout.slot_of(flags, k), &e);
        // A failed initialisation took itself back; element k is destroyed only when it was made
        // and raising its variant failed.
        const uint32_t made = e ? k : k + 1;
        if (!e && raise) raise_variant(*f.type, h, luid, element, &e);
        if (e) {
            for (uint32_t j = from; j < made; ++j) destroy_internal(*f.type, h, luid, layout.element(block, j), 0);
            fail(h, err, e);
            return false;
        }
    }
    return true;
}

void *new_block(const Field &f, mgx_handle_t *h, uint32_t luid, uint32_t count, bool tracked, bool raise, uint32_t *err) {
    size_t size = ArrayLayout(f).block_size(count, tracked);
    void *block = h->inst_alloc(h->alloc_ctx, luid, size);
    if (!block) {
        fail(h, err, MGX_ENOMEM);
        return nullptr;
    }
    std::memset(block, 0, size);
    if (init_elements(f, h, luid, block, count, 0, count, tracked, raise, err)) return block;
    h->inst_free(h->alloc_ctx, luid, block);
    return nullptr;
}

void *grow_block(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t old_count, uint32_t count, bool tracked,
                 uint32_t *err) {
    const ArrayLayout layout(f);
    if (!block) old_count = 0;
    if (block && ArrayLayout::room(old_count) == ArrayLayout::room(count)) {
        if (init_elements(f, h, luid, block, count, old_count, count, tracked, false, err)) return block;
        // The room goes back to zeroed bytes, as it was.
        std::memset(layout.element(block, old_count), 0, size_t{count - old_count} * layout.elem_size);
        if (uint8_t *flags = layout.flags(block, count, tracked))
            std::memset(layout.slot_of(flags, old_count), 0, size_t{count - old_count} * layout.slot);
        return nullptr;
    }
    const size_t size = layout.block_size(count, tracked);
    void *fresh = h->inst_alloc(h->alloc_ctx, luid, size);
    if (!fresh) {
        fail(h, err, MGX_ENOMEM);
        return nullptr;
    }
    std::memset(fresh, 0, size);
    if (old_count) {
        std::memcpy(fresh, block, layout.size(old_count, false));
        if (const uint8_t *old_flags = layout.flags(block, old_count, tracked))
            std::memcpy(layout.flags(fresh, count, tracked), old_flags, old_count * layout.slot);
    }
    // On failure the old elements still live in the old block.
    if (init_elements(f, h, luid, fresh, count, old_count, count, tracked, false, err)) return fresh;
    h->inst_free(h->alloc_ctx, luid, fresh);
    return nullptr;
}

void free_moved_block(const Field &f, mgx_handle_t *h, uint32_t luid, void *block, uint32_t old_count) {
    const ArrayLayout layout(f);
    if (h->database && h->domain_mode == 1 && luid != MGX_LUID_NONE)
        for (uint32_t k = 0; k < old_count; ++k) mgxdb_plat_set_detach(h, luid, layout.element(block, k));
    h->inst_free(h->alloc_ctx, luid, block);
}

bool replace_array(const FieldAt<void> &a, mgx_handle_t *h, uint32_t luid, uint32_t count, bool tracked, uint32_t *err) {
    release_array(a, h, luid, a.count(), a.instance());
    set_count(h, luid, a, 0);
    if (count == 0) return true;
    void *fresh = new_block(a.field(), h, luid, count, tracked, true, err);
    if (!fresh) return false;
    notify(h, &a.pointer(), sizeof(void *), luid, a.instance());
    a.pointer() = fresh;
    set_count(h, luid, a, count);
    return true;
}

} // namespace ovrin
