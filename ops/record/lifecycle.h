// The lifecycle of every record, union and enumeration instance, written once over the type
// tables: create, initialize, embed, destroy, variant adjustment, sizes, OID counts and references.
#ifndef OVRIN_OPS_RECORD_LIFECYCLE_H
#define OVRIN_OPS_RECORD_LIFECYCLE_H

#include "ops/common.h"

namespace ovrin {

void *create(const Type &t, mgx_handle_t *h, uint32_t luid);
void *create_internal(const Type &t, mgx_handle_t *h, uint32_t luid);
void *create_cr(const Type &t, mgx_handle_t *h);
void initialize(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, const void *descriptor, int use_write_hook,
                int header_only, uint32_t flags_to_set, uint8_t *sttr_base, uint32_t *err);
// initialize for a nested instance (an array element): its type's own descriptor, no write hook,
// MGX_IF_NESTED set.
void initialize_element(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t *sttr_base, uint32_t *err);
void set_instance_embedded(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance);
void destroy(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance);
void destroy_internal(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, int free_it);
void destroy_cr(const Type &t, mgx_handle_t *h, void *instance);
// Brings an instance and the records and enumerations embedded in it to the handle's domain, so
// that a decode into it takes every variant the domain knows, at every level.
uint32_t adjust_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
// The same for an instance this library has just made (a new arm, array element or clone): the
// runtime is not asked where the answer cannot change (a single-variant type already laid out),
// and a type that embeds nothing is not walked.
void raise_variant_walk(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
inline void raise_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (t.n_inline || t.n_variants != 1 || hdr(instance)->layout < 0) raise_variant_walk(t, h, luid, instance, err);
}
uint32_t size_of(const Type &t, const mgx_handle_t *h);
uint32_t size_of_internal(const Type &t, const mgx_handle_t *h, const void *instance, int include_state_flags, int flags_only);
uint32_t get_oid_count(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance, uint32_t *err);
void get_object_references(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance, uint64_t *array, uint32_t count,
                           uint32_t *err);

} // namespace ovrin

#endif
