// The wire form of records and unions, written once over the type tables: the length routine,
// the encoder and the decoder. (Variant adjustment is in record/lifecycle.h; the clone, which goes
// through the wire form, in record/value.h.)
#ifndef OVRIN_OPS_WIRE_WIRE_H
#define OVRIN_OPS_WIRE_WIRE_H

#include "ops/common.h"

namespace ovrin {

uint32_t wire_length(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance);
uint32_t wire_length_cr(const Type &t, mgx_handle_t *h, const void *instance);
// check: 1 from `_marshal` (an instance newer than the domain is encoded at the domain's variant
// with error 43), 0 from `_marshal_for_clone` (only for the outermost instance).
uint32_t encode(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space, bool check,
                uint32_t *err);
uint32_t decode(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length, uint32_t flags,
                uint32_t *err);

} // namespace ovrin

#endif
