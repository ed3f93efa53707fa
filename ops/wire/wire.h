// The wire form of records and unions, written once over the type tables: the walked length
// routine, encoder and decoder (the compiled code the generator writes per type calls the same
// pieces: code.h). (Variant adjustment is in record/lifecycle.h; the clone, which goes
// through the wire form, in record/value.h.)
#ifndef OVRIN_OPS_WIRE_WIRE_H
#define OVRIN_OPS_WIRE_WIRE_H

#include "ops/common.h"

namespace ovrin {

// The table walk alone, nested records included: what the compiled code must agree with.
uint32_t walked_length(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance);
// check: 1 from `_marshal` (an instance newer than the domain is encoded at the domain's variant
// with error 43), 0 from `_marshal_for_clone` (only for the outermost instance).
uint32_t walked_encode(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                       bool check, uint32_t *err);
uint32_t walked_decode(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length,
                       uint32_t flags, uint32_t *err);

// The compiled wire code of a type (the library's own tables have it; private copies do not).
inline const WireCode *compiled(const Type &t) { return t.bundle->code ? &t.bundle->code[t.index] : nullptr; }

// The wire operations the other families call (clone, an array element rebuilt): the type's
// compiled code when its bundle has it, otherwise the walk.
inline uint32_t wire_length(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance) {
    const WireCode *c = compiled(t);
    return c ? c->length(h, luid, instance) : walked_length(t, h, luid, instance);
}
inline uint32_t encode(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                       bool check, uint32_t *err) {
    const WireCode *c = compiled(t);
    return c ? c->encode(h, luid, buf, instance, space, check, err) : walked_encode(t, h, luid, buf, instance, space, check, err);
}
inline uint32_t decode(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length,
                       uint32_t flags, uint32_t *err) {
    const WireCode *c = compiled(t);
    return c ? c->decode(h, luid, buf, instance, length, flags, err)
             : walked_decode(t, h, luid, buf, instance, length, flags, err);
}

namespace wire {
// `_len_cr`: the length with the handle's last error as the slot and its descriptor-call luid.
inline uint32_t length_cr(mgx_handle_t *h, const void *instance, uint32_t (*length)(mgx_handle_t *, uint32_t, const void *)) {
    return h->last_error ? 0 : length(h, h->desc_call_luid, instance);
}
} // namespace wire

} // namespace ovrin

#endif
