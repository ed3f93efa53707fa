// The XML and print forms of records and unions, written once over the type tables.
#ifndef OVRIN_OPS_TEXT_TEXT_H
#define OVRIN_OPS_TEXT_TEXT_H

#include "ops/common.h"

namespace ovrin {

uint32_t to_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const void *instance, uint32_t size,
                uint8_t state_flag, uint32_t *err);
uint32_t toxml_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size);
void from_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *path, void *doc, void *instance, uint32_t *err,
              char *msg, uint32_t msg_size);
uint32_t print(const Type &t, mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const void *instance,
               uint32_t size, uint32_t *err);
int32_t print_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size);

// The whole print form (xml false) or XML of an instance of t (any kind), as _print_cr and
// _toxml_cr write it, made in one walk: *text is a block of *size bytes from malloc (or null), and
// grows with realloc while the text is written; it stays the caller's, whatever the answer. The
// text's length (it is NUL-terminated), or -1 with the handle's last error: 12 when the text
// cannot grow (past UINT32_MAX - 1 characters, or refused by the heap).
int64_t text_whole(const Type &t, mgx_handle_t *h, const void *instance, bool xml, char **text, size_t *size);

} // namespace ovrin

#endif
