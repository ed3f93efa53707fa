// The JSON form of records, unions and enumerations, written once over the type tables: the
// writer walks an instance as the XML writer does; the reader walks a parsed document against
// the type's fields, strictly unless asked to be lenient. docs/json.md states the mapping.
#ifndef OVRIN_OPS_TEXT_JSON_H
#define OVRIN_OPS_TEXT_JSON_H

#include "ops/common.h"
#include "ovrin/json.h"

namespace ovrin {

// The whole JSON text of an instance of t (any kind), made as text_whole makes the XML: *text is
// a block of *size bytes from malloc (or null) that grows with realloc and stays the caller's.
// The length, or -1 with the handle's last error (12: the text cannot grow).
int64_t to_json(const Type &t, mgx_handle_t *h, const void *instance, uint32_t flags, char **text, size_t *size);

// Reads a JSON document of length bytes into an instance of t. 0, or the code (22 a document
// refused, 12 memory refused) with the handle's last error set and, when error is given, what
// is wrong and where in it.
uint32_t from_json(const Type &t, mgx_handle_t *h, uint32_t luid, const char *json, size_t length, void *instance, uint32_t flags,
                   ovrin_json_error *error);

} // namespace ovrin

#endif
