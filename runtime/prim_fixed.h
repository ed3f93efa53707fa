// The operation family of a fixed-width primitive (the integers, mgx_boolean and the addresses),
// written once over a traits class that knows the value's wire bytes and text form:
//   width                       bytes on the wire
//   encode(v, p) / decode(p)    the wire bytes (decode normalises)
//   normal(v)                   the value as a setter stores it
//   format(v, text)             text form, NUL-terminated, at most 63 characters
//   parse(text, v)              strict inverse of format
//   compare(a, b)               -1, 0 or 1
#ifndef MGX_RUNTIME_PRIM_FIXED_H
#define MGX_RUNTIME_PRIM_FIXED_H

#include "runtime/prim.h"

namespace mgx {

template <class T, class Traits> struct Fixed {
    static constexpr int32_t width = Traits::width;
    using Text = char[64];

    static T *get(mgx_handle_t *, uint32_t, T *field, uint32_t *err) {
        if (err_set(err)) [[unlikely]]
            return nullptr;
        return field;
    }

    static void set(mgx_handle_t *h, uint32_t luid, T *field, const T *value, uint32_t *err) {
        if (err_set(err)) return;
        if (!field || !value) return fail(h, err, MGX_EINVAL);
        store(h, luid, field, Traits::normal(*value));
    }

    static T get_value(mgx_handle_t *h, uint32_t, const T *field, uint32_t *err) {
        if (err_set(err)) return T{};
        if (!field) {
            fail(h, err, MGX_EINVAL);
            return T{};
        }
        return *field;
    }

    // Taken by value, not through set: the value stays in its register and the common store, with
    // no write hook, needs no stack frame.
    static void set_value(mgx_handle_t *h, uint32_t luid, T *field, T value, uint32_t *err) {
        if (err_set(err)) return;
        if (!field) return fail(h, err, MGX_EINVAL);
        store(h, luid, field, Traits::normal(value));
    }

    static void store(mgx_handle_t *h, uint32_t luid, T *field, T v) {
        if (h && h->write_hook) [[unlikely]]
            return store_announced(h, luid, field, v);
        *field = v;
    }

    // The write hook sees the old bytes, then the value goes in.
    [[gnu::noinline]] static void store_announced(mgx_handle_t *h, uint32_t luid, T *field, T v) {
        h->write_hook(h, field, sizeof(T), luid, nullptr);
        *field = v;
    }

    // A null field encodes as the zero value, so that marshal always agrees with len.
    static uint32_t marshal(mgx_handle_t *h, uint32_t, uint8_t *buf, const T *field, int32_t space, uint32_t *err) {
        if (err_set(err)) return 0;
        if (!buf || space < width) {
            fail(h, err, MGX_ESHORT);
            return 0;
        }
        Traits::encode(field ? *field : T{}, buf);
        return width;
    }

    static uint32_t unmarshal(mgx_handle_t *h, uint32_t, const uint8_t *buf, T *field, int32_t length, uint32_t, uint32_t *err) {
        if (err_set(err)) return 0;
        if (!buf || length < width) {
            fail(h, err, MGX_ESHORT);
            return 0;
        }
        if (!field) {
            fail(h, err, MGX_EINVAL);
            return 0;
        }
        *field = Traits::decode(buf);
        return width;
    }

    static uint32_t len(mgx_handle_t *, uint32_t, const T *) { return width; }

    static uint32_t print(mgx_handle_t *, uint32_t, char *buf, uint32_t indent, const char *name, const T *field, uint32_t size,
                          uint32_t *err) {
        if (err_set(err)) return 0;
        Text text;
        Traits::format(field ? *field : T{}, text);
        TextOut out(buf, size);
        out.spaces(indent);
        out.fmt("%s: %s\n", name ? name : "", text);
        return out.count();
    }

    static uint32_t to_xml(mgx_handle_t *, uint32_t, const char *name, char *buf, const T *field, uint32_t size,
                           uint8_t state_flag, uint32_t *err) {
        if (err_set(err)) return 0;
        Text text;
        Traits::format(field ? *field : T{}, text);
        return xml_element(buf, size, name, state_flag, text, std::strlen(text));
    }

    // Decoders and readers fill the field without the write hook, as the record decoders do.
    static void from_xml(mgx_handle_t *h, uint32_t, const char *path, void *doc, T *field, uint32_t *err, char *msg,
                         uint32_t msg_size) {
        if (err_set(err)) return;
        if (!field) return fail(h, err, MGX_EINVAL);
        T v{};
        if (read_xml_field(h, path, doc, err, msg, msg_size, [&](std::string_view s) { return Traits::parse(s, v); })) *field = v;
    }

    static uint32_t hash(const T *field, uint32_t seed) {
        return field ? SuperFastHash(reinterpret_cast<const char *>(field), sizeof(T), seed) : seed;
    }

    // ---- instance operations: these primitives have no header and own nothing.
    static int32_t compare(const T *a, const T *b) {
        if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
        return Traits::compare(*a, *b);
    }

    static void initialize(mgx_handle_t *, uint32_t, T *, const void *, int, int, uint32_t, uint8_t *, uint32_t *) {}
    static void destroy_internal(mgx_handle_t *, uint32_t, T *, int) {}
    static void set_instance_embedded(mgx_handle_t *, uint32_t, T *) {}

    static uint32_t get_oid_count(mgx_handle_t *h, uint32_t, const T *field, uint32_t *err) {
        if (err_set(err)) return 0;
        if (!field) fail(h, err, MGX_EINVAL);
        return 0;
    }

    static void get_object_references(mgx_handle_t *h, uint32_t, const T *field, uint64_t *, uint32_t, uint32_t *err) {
        if (err_set(err)) return;
        if (!field) fail(h, err, MGX_EINVAL);
    }
};

template <class V> int32_t three_way(const V &a, const V &b) { return a < b ? -1 : (b < a ? 1 : 0); }

} // namespace mgx

// The exported C entry points of each family, forwarding to Fixed<T, Traits> (P). The text forms
// are the ones that build strings; they run guarded, so running out of memory is error 12.
#define MGX_EXPORT_VALUE_OPS(T, P)                                                                                               \
    T *T##_get(mgx_handle_t *h, uint32_t luid, T *field, uint32_t *err) { return P::get(h, luid, field, err); }                  \
    void T##_set(mgx_handle_t *h, uint32_t luid, T *field, const T *value, uint32_t *err) {                                      \
        P::set(h, luid, field, value, err);                                                                                      \
    }                                                                                                                            \
    uint32_t T##_marshal(mgx_handle_t *h, uint32_t luid, uint8_t *buf, const T *field, int32_t space, uint32_t *err) {           \
        return P::marshal(h, luid, buf, field, space, err);                                                                      \
    }                                                                                                                            \
    uint32_t T##_unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, T *field, int32_t length, uint32_t flags,         \
                           uint32_t *err) {                                                                                      \
        return P::unmarshal(h, luid, buf, field, length, flags, err);                                                            \
    }                                                                                                                            \
    uint32_t T##_len(mgx_handle_t *h, uint32_t luid, const T *field) { return P::len(h, luid, field); }                          \
    uint32_t T##_print(mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const T *field,             \
                       uint32_t size, uint32_t *err) {                                                                           \
        return mgx::guarded(h, err, 0u, [&] { return P::print(h, luid, buf, indent, name, field, size, err); });                 \
    }                                                                                                                            \
    uint32_t T##_to_xml(mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const T *field, uint32_t size,              \
                        uint8_t state_flag, uint32_t *err) {                                                                     \
        return mgx::guarded(h, err, 0u, [&] { return P::to_xml(h, luid, name, buf, field, size, state_flag, err); });            \
    }                                                                                                                            \
    void T##_from_xml(mgx_handle_t *h, uint32_t luid, const char *path, void *doc, T *field, uint32_t *err, char *msg,           \
                      uint32_t msg_size) {                                                                                       \
        mgx::guarded(h, err, [&] { P::from_xml(h, luid, path, doc, field, err, msg, msg_size); });                               \
    }                                                                                                                            \
    uint32_t T##_hash(const T *field, uint32_t seed) { return P::hash(field, seed); }

#define MGX_EXPORT_SCALAR_OPS(T, P)                                                                                              \
    T T##_get_value(mgx_handle_t *h, uint32_t luid, const T *field, uint32_t *err) { return P::get_value(h, luid, field, err); } \
    void T##_set_value(mgx_handle_t *h, uint32_t luid, T *field, T value, uint32_t *err) {                                       \
        P::set_value(h, luid, field, value, err);                                                                                \
    }

#define MGX_EXPORT_INSTANCE_OPS(T, P)                                                                                            \
    int32_t T##_compare(const T *a, const T *b) { return P::compare(a, b); }                                                     \
    void T##_initialize(mgx_handle_t *h, uint32_t luid, T *field, const void *descriptor, int use_write_hook, int header_only,   \
                        uint32_t flags_to_set, uint8_t *sttr_base, uint32_t *err) {                                              \
        P::initialize(h, luid, field, descriptor, use_write_hook, header_only, flags_to_set, sttr_base, err);                    \
    }                                                                                                                            \
    void T##_destroy_internal(mgx_handle_t *h, uint32_t luid, T *field, int free_it) {                                           \
        P::destroy_internal(h, luid, field, free_it);                                                                            \
    }                                                                                                                            \
    void T##_set_instance_embedded(mgx_handle_t *h, uint32_t luid, T *field) { P::set_instance_embedded(h, luid, field); }       \
    uint32_t T##_get_oid_count(mgx_handle_t *h, uint32_t luid, const T *field, uint32_t *err) {                                  \
        return P::get_oid_count(h, luid, field, err);                                                                            \
    }                                                                                                                            \
    void T##_get_object_references(mgx_handle_t *h, uint32_t luid, const T *field, uint64_t *array, uint32_t count,              \
                                   uint32_t *err) {                                                                              \
        P::get_object_references(h, luid, field, array, count, err);                                                             \
    }

#endif
