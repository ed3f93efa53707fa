#include "ops/text/json.h"
namespace ovrin {
int64_t to_json(const Type &, mgx_handle_t *h, const void *, uint32_t, char **, size_t *) { mgx_store_err(h, MGX_EINVAL); return -1; }
uint32_t from_json(const Type &, mgx_handle_t *h, uint32_t, const char *, size_t, void *, uint32_t, ovrin_json_error *) { mgx_store_err(h, MGX_EINVAL); return MGX_EINVAL; }
}
