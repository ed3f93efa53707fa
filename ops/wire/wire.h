// The wire form of records and unions, written once over the type tables: the length routine,
// the encoder, the decoder, variant adjustment and the clone that goes through the wire form.
#ifndef OVRIN_OPS_WIRE_WIRE_H
#define OVRIN_OPS_WIRE_WIRE_H

#include "ops/common.h"

namespace ovrin {

uint32_t wire_length(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance);
uint32_t wire_length_cr(const Type &t, mgx_handle_t *h, const void *instance);
// check: 1 from `_marshal` (an instance newer than the domain is encoded at the domain's variant
// with error 43), 0 from `_marshal_for_clone` (only for the outermost instance).
uint32_t encode(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                bool check, uint32_t *err);
uint32_t decode(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length,
                uint32_t flags, uint32_t *err);
uint32_t adjust_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
// The same for an instance this library has just made (a new arm, array element or clone): the
// runtime is not asked where the answer cannot change (a single-variant type already laid out).
void raise_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);

void clone(const Type &t, mgx_handle_t *h, uint32_t luid, const void *source, void **destination, uint8_t *buf,
           uint32_t length, uint32_t *err);
void clone_internal(const Type &t, mgx_handle_t *h, uint32_t luid, const void *source, void **destination,
                    uint8_t *buf, uint32_t length, uint32_t *err);
void *clone_cr(const Type &t, mgx_handle_t *h, const void *source, uint32_t work_space_min);

} // namespace ovrin

#endif
