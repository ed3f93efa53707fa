// The instance header's wire pieces: variant byte, object-flag byte, retained-data block
// (16-bit big-endian length and the bytes) and the 4-byte big-endian variant jump.
#include "runtime/internal.h"

namespace {

// Writes value's bytes (as many as its type has) when the space allows; otherwise error 90 and
// nothing written.
template <class T> uint32_t put_piece(mgx_handle_t *h, uint8_t *buf, T value, int32_t space, uint32_t *err) {
    if (space < static_cast<int32_t>(sizeof value)) {
        mgx::fail(h, err, MGX_ESHORT);
        return 0;
    }
    mgx::put_be(buf, value, sizeof value);
    return sizeof value;
}

// Reads as many bytes as *value has when the length allows; otherwise error 90 and *value as it was.
template <class T> uint32_t get_piece(mgx_handle_t *h, const uint8_t *buf, T *value, int32_t length, uint32_t *err) {
    if (length < static_cast<int32_t>(sizeof *value)) {
        mgx::fail(h, err, MGX_ESHORT);
        return 0;
    }
    *value = static_cast<T>(mgx::get_be(buf, sizeof *value));
    return sizeof *value;
}

} // namespace

extern "C" {

uint32_t _mgx_instance_variant_marshal(mgx_handle_t *h, uint32_t, uint8_t *buf, int8_t variant, int32_t space, uint32_t *err) {
    return put_piece(h, buf, static_cast<uint8_t>(variant), space, err);
}

uint32_t _mgx_instance_variant_unmarshal(mgx_handle_t *h, uint32_t, const uint8_t *buf, int8_t *variant, int32_t length,
                                         uint32_t *err) {
    return get_piece(h, buf, variant, length, err);
}

uint32_t _mgx_instance_obj_flag_marshal(mgx_handle_t *h, uint32_t, uint8_t *buf, uint8_t flag, int32_t space, uint32_t *err) {
    return put_piece(h, buf, flag, space, err);
}

uint32_t _mgx_instance_obj_flag_unmarshal(mgx_handle_t *h, uint32_t, const uint8_t *buf, uint8_t *flag, int32_t length,
                                          uint32_t *err) {
    return get_piece(h, buf, flag, length, err);
}

uint32_t _mgx_instance_ra_data_marshal(mgx_handle_t *h, uint32_t, uint8_t *buf, const void *instance, int32_t space,
                                       uint32_t *err) {
    const void *bytes = nullptr;
    uint16_t n = mgx_retained_data_get(h, instance, &bytes);
    if (space < 2 + static_cast<int32_t>(n)) {
        mgx::fail(h, err, MGX_ESHORT);
        return 0;
    }
    mgx::put_be(buf, n, 2);
    if (n) std::memcpy(buf + 2, bytes, n);
    return 2u + n;
}

uint32_t _mgx_instance_ra_data_unmarshal(mgx_handle_t *h, uint32_t, const uint8_t *buf, void *instance, int32_t length,
                                         uint32_t *err) {
    uint16_t n = 0;
    if (!get_piece(h, buf, &n, length, err)) return 0;
    if (length - 2 < static_cast<int32_t>(n)) {
        mgx::fail(h, err, MGX_ESHORT);
        return 0;
    }
    if (!mgx_retained_data_set(h, instance, buf + 2, n)) {
        mgx::fail(h, err, MGX_ENOMEM);
        return 0;
    }
    return 2u + n;
}

uint32_t _mgx_variant_jump_marshal(mgx_handle_t *h, uint32_t, uint8_t *buf, uint32_t jump, int32_t space, uint32_t *err) {
    return put_piece(h, buf, jump, space, err);
}

uint32_t _mgx_variant_jump_unmarshal(mgx_handle_t *h, uint32_t, const uint8_t *buf, uint32_t *jump, int32_t length,
                                     uint32_t *err) {
    return get_piece(h, buf, jump, length, err);
}

} // extern "C"
