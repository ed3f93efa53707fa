// Counted strings: the record owns length+1 characters (NUL-terminated) and keeps the length in
// the companion field declared before the string; an empty string is length 0 and no block.
#include <cstring>

#include "ops/composite/composite.h"
#include "ops/steps.h"
#include "ops/walk.h"

namespace ovrin {

using namespace steps;

// No upper bound is applied to the length (the domain's published name limits are advisory).
// The length is kept at the width of its field, deliberately: a 16-bit length field keeps the low
// 16 bits, and so many characters are copied. A failed allocation leaves no string and the old
// length.
void string_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const char *text, uint32_t length,
                uint32_t *err) {
    if (!start(h, luid, instance, err) || !adjust_for(t, f, h, luid, instance, err)) return;
    const FieldAt<void> a = field_of(t, f, instance);
    if (a.counter().kind == Kind::u16) length &= 0xFFFFu;
    if (length && !text) return fail(h, err, MGX_EINVAL);
    void *&slot = a.pointer();
    replace_text(h, luid, slot, nullptr, instance);
    if (length) {
        auto *copy = static_cast<char *>(new_text(h, luid, length));
        if (!copy) return fail(h, err, MGX_ENOMEM);
        // A bounded copy: a NUL within the first length characters ends the text early, the rest
        // of the block is zero; the stored length stays the one given.
        size_t n = strnlen(text, length);
        std::memcpy(copy, text, n);
        std::memset(copy + n, 0, size_t{length} + 1 - n);
        slot = copy;
    }
    set_count(h, luid, a, length);
    mark_field(t, f, h, luid, instance, err);
    if (failed(err)) return;
    report(h, luid, slot, instance);
}

uint32_t string_set_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, const char *text, uint32_t length) {
    string_set(t, f, h, h->desc_call_luid, instance, text, length, &h->last_error);
    return h->last_error;
}

// A copy that does not fit is cut to size-1 characters, still terminated, and reported with 28.
void string_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, char *buffer, uint32_t size,
                uint32_t *err) {
    if (!start(h, luid, instance, err) || !present_in(f, h, instance, err)) return;
    if (size == 0 || !buffer) return fail(h, err, MGX_EINVAL);
    const FieldAt<void> a = field_of(t, f, instance);
    uint32_t length = a.count();
    const char *text = static_cast<const char *>(a.block());
    size_t n = text ? strnlen(text, length) : 0;
    if (n > size - 1) n = size - 1;
    std::memcpy(buffer, text ? text : "", n);
    buffer[n] = '\0';
    if (size_t{length} + 1 > size) fail(h, err, MGX_ERANGE);
}

} // namespace ovrin
