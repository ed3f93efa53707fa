/*
 * The MGX runtime contract: every runtime operation, handle member and shared record layout
 * that the ovrin_sm bundle relies on. The bundle includes only this header and links to the
 * runtime by symbol name, so any runtime that keeps this contract can stand in for libmgx.
 * The reference runtime includes it as well, so that a signature drift fails to compile.
 *
 * Conventions: luid is the caller's 32-bit owner id (0xFFFFFFFF = none); err points to the
 * caller's 32-bit error slot; buffers are never written or read past the length given.
 */
#ifndef MGX_CONTRACT_H
#define MGX_CONTRACT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(MGX_BUILDING_RUNTIME)
#define MGX_API __attribute__((visibility("default")))
#else
#define MGX_API
#endif

/* ---------------------------------------------------------------- error codes */
#define MGX_ENOENT 2u    /* missing object, element or index */
#define MGX_ENOMEM 12u   /* allocation failed */
#define MGX_EINVAL 22u   /* invalid argument, object not state tracked */
#define MGX_ERANGE 28u   /* copy-out truncated / length query */
#define MGX_EVARIANT 43u /* field or literal not present in the instance's variant */
#define MGX_ESHORT 90u   /* buffer too short */

#define MGX_LUID_NONE 0xFFFFFFFFu
#define MGX_TYPE_INFO_MAGIC 0xBEEFF00Du
#define MGX_STTR_TRACKED 0xEEEEu
#define MGX_STTR_UNTRACKED 0xDDDDu

/* Instance header flag bits. */
#define MGX_IF_OID_MAPPED 0x01u
#define MGX_IF_EMBEDDED 0x02u
#define MGX_IF_NESTED 0x04u
#define MGX_IF_TRACKED 0x08u
#define MGX_IF_HD_MAPPED 0x20u
#define MGX_IF_STTR_OFFSET 0x40u
#define MGX_IF_DESC_OWNED 0x80u

/* Trace severities: the top byte of an emission's flags word. */
#define MGX_SEV_EMERG 0x0000000u
#define MGX_SEV_ERROR 0x3000000u
#define MGX_SEV_INFO 0x6000000u
#define MGX_SEV_DEBUG 0x7000000u

/* ---------------------------------------------------------------- descriptors */
typedef struct mgx_variant_entry {
    uint32_t index;
    uint32_t used_length;
    uint32_t alloc_slop;
    uint32_t pad;
    uint64_t stats[3]; /* kept by the runtime's statistics operations */
} mgx_variant_entry_t;

typedef struct mgx_type_variant_info {
    int8_t n_variants;
    uint8_t pad[7];
    mgx_variant_entry_t *entries;
} mgx_type_variant_info_t;

typedef struct mgx_type_info {
    uint32_t magic;
    uint8_t fingerprint[16];
    char fingerprint_text[33];
    char type_name[64];
    char domain_name[64];
    char kind[64];
    uint8_t pad0[3];
    int32_t registry_slot;
    uint8_t pad1[4];
    mgx_type_variant_info_t *variant_info;
    uint32_t registry_mode;
    uint8_t pad2[4];
} mgx_type_info_t;

/* A descriptor as registered in a handle: the static record plus two runtime-owned words. */
typedef struct mgx_type_info_reg {
    mgx_type_info_t info;
    void *runtime_words[2];
} mgx_type_info_reg_t;

/* Every instance of every type starts with this 11-byte header; its fields follow at offset 11,
 * each at its natural alignment (so the struct below is only ever used as a prefix). */
typedef struct mgx_instance_hdr {
    void *descriptor;
    int8_t variant;
    int8_t layout;
    uint8_t flags;
} mgx_instance_hdr_t;
#define MGX_INSTANCE_HDR_BYTES 11u

/* ---------------------------------------------------------------- the handle */
typedef struct mgx_handle mgx_handle_t;

typedef void *(*mgx_alloc_fn)(void *ctx, uint32_t luid, size_t size);
typedef void (*mgx_free_fn)(void *ctx, uint32_t luid, void *block);
typedef void (*mgx_write_hook_fn)(mgx_handle_t *h, const void *addr, size_t length, uint32_t luid, const void *base);
typedef void *(*mgx_reg_lookup_fn)(void *ctx, uint32_t luid, const char *key);
typedef void (*mgx_reg_insert_fn)(void *ctx, uint32_t luid, const char *key, void *descriptor);
typedef void (*mgx_register_fn)(mgx_handle_t *h, uint32_t luid, uint32_t *err);

typedef struct mgx_sttr_record {
    uint32_t marker; /* MGX_STTR_TRACKED, MGX_STTR_UNTRACKED, anything else: corrupt */
} mgx_sttr_record_t;

typedef struct mgx_variant_domain {
    void *impl; /* the runtime's per-type variant table */
} mgx_variant_domain_t;

/* The members a bundle reads and calls. The runtime keeps its own state behind `runtime`. */
struct mgx_handle {
    mgx_alloc_fn inst_alloc;
    mgx_free_fn inst_free;
    void *alloc_ctx;
    mgx_write_hook_fn write_hook;
    mgx_alloc_fn reg_alloc;
    void *reg_mem_ctx;
    mgx_reg_lookup_fn reg_lookup;
    mgx_reg_insert_fn reg_insert;
    void *reg_ctx;
    uint32_t domain_mode;
    uint32_t last_error; /* the handle's error store; `_cr` operations use it as their error slot */
    mgx_variant_domain_t variant_domain;
    mgx_sttr_record_t *sttr; /* null: untracked */
    int32_t desc_call;
    uint32_t desc_call_luid;
    int32_t placeholder;
    int32_t hd_mapping;
    int32_t database;
    uint32_t reserved;
    void *runtime;
};

/* ---------------------------------------------------------------- module list */
typedef struct mgx_module_node {
    const char *domain_name;
    const void *const *descriptor_table;
    struct mgx_module_node *next;
    struct mgx_module_node **prev_next;
} mgx_module_node_t;

typedef struct mgx_module_root {
    uint32_t count;
    mgx_module_node_t *first;
    mgx_module_node_t **last_next;
} mgx_module_root_t;

MGX_API extern mgx_module_root_t mgx_module_tot_root;

/* ---------------------------------------------------------------- errors and identity */
MGX_API void mgx_store_err(mgx_handle_t *h, uint32_t code);
MGX_API void mgx_store_epoch_err(mgx_handle_t *h, uint32_t code, uint32_t *err);
MGX_API void mgx_clear_last_error(mgx_handle_t *h, uint32_t luid, const void *instance);
MGX_API uint32_t mgx_get_luid(mgx_handle_t *h, uint32_t luid);
/* The handle's encoder work space, at least min_length bytes; null when it cannot grow. */
MGX_API void *mgxlib_get_handle_ws(mgx_handle_t *h, uint32_t min_length, uint32_t *length_out);

/* ---------------------------------------------------------------- registry and descriptors */
MGX_API void *mgx_type_info_ptr_get(mgx_handle_t *h, uint32_t luid, const void *static_descriptor, mgx_register_fn register_fn);
MGX_API void **mgx_get_manifested_type_info_ptr_mem(void *instance);
MGX_API void *mgx_get_manifested_type_info(const void *instance);
MGX_API void mgx_update_variant_info(mgx_handle_t *h, uint32_t luid, void *registered, const void *static_descriptor, int is_new);

/* ---------------------------------------------------------------- variants and header wire form */
MGX_API int8_t mgx_domain_lookup_variant(mgx_handle_t *h, mgx_variant_domain_t *domain, const void *descriptor, uint32_t *err);
MGX_API int8_t mgx_get_instance_variant(const void *instance, int a, int member);
MGX_API uint8_t mgx_get_instance_obj_flag(const void *instance, int a, int b);
MGX_API uint32_t mgxlib_adjust_variant(mgx_handle_t *h, uint32_t luid, void *instance, const void *descriptor,
                                       int32_t highest_variant, uint32_t *err);
MGX_API uint32_t _mgx_instance_variant_marshal(mgx_handle_t *h, uint32_t luid, uint8_t *buf, int8_t variant, int32_t space,
                                               uint32_t *err);
MGX_API uint32_t _mgx_instance_variant_unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, int8_t *variant,
                                                 int32_t length, uint32_t *err);
MGX_API uint32_t _mgx_instance_obj_flag_marshal(mgx_handle_t *h, uint32_t luid, uint8_t *buf, uint8_t flag, int32_t space,
                                                uint32_t *err);
MGX_API uint32_t _mgx_instance_obj_flag_unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, uint8_t *flag,
                                                  int32_t length, uint32_t *err);
MGX_API uint32_t _mgx_instance_ra_data_marshal(mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                                               uint32_t *err);
MGX_API uint32_t _mgx_instance_ra_data_unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance,
                                                 int32_t length, uint32_t *err);
MGX_API uint32_t _mgx_variant_jump_marshal(mgx_handle_t *h, uint32_t luid, uint8_t *buf, uint32_t jump, int32_t space,
                                           uint32_t *err);
MGX_API uint32_t _mgx_variant_jump_unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, uint32_t *jump, int32_t length,
                                             uint32_t *err);

/* ---------------------------------------------------------------- OIDs, mappings, state offsets */
MGX_API int mgx_request_oid_mapping_destroy(mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
MGX_API void mgx_hd_mapping_destroy(mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
MGX_API void mgxlib_lookup_and_update_oid_ref_count(mgx_handle_t *h, uint32_t luid, uint64_t oid, int delta_kind, uint32_t *err);
MGX_API int64_t mgxlib_get_sttr_offset(mgx_handle_t *h, uint32_t luid, const void *instance);
MGX_API void mgxlib_update_sttr_offset(mgx_handle_t *h, uint32_t luid, const void *field, int64_t offset);

/* ---------------------------------------------------------------- statistics and database hooks */
MGX_API void mgxlib_type_stats_create_object(mgx_handle_t *h, uint32_t luid, const void *descriptor, void *stats_block,
                                             uint32_t *err);
MGX_API void mgxlib_type_stats_destroy_object(mgx_handle_t *h, uint32_t luid, const void *descriptor, void *stats_block,
                                              uint32_t *err);
MGX_API void mgxdb_record_containment2(mgx_handle_t *h, uint32_t luid, const void *object, const void *container, int flag);
MGX_API void mgxdb_plat_set_dirty(mgx_handle_t *h, uint32_t luid, const void *object);
MGX_API void mgxdb_plat_set_destroy(mgx_handle_t *h, uint32_t luid, const void *object);
MGX_API void mgxdb_plat_set_detach(mgx_handle_t *h, uint32_t luid, const void *object);
MGX_API void plinth_set_callsite_tag(uint32_t tag);

/* ---------------------------------------------------------------- trace facility */
/* A bundle's message table. The texts themselves are not in memory: they are kept, compressed,
 * in a section of the bundle's library file that is not loaded, and the code passes message
 * numbers only. Whoever renders an emission (the runtime's capture and stderr output, or the
 * off-line decoder of a trace file) reads the section from the file; count and texts_crc tell
 * that the section found belongs to this code. */
typedef struct mgx_trace_table {
    uint32_t magic; /* MGX_TRACE_TABLE_MAGIC */
    uint32_t count; /* texts, by message number */
    const char *module_name;
    const char *section; /* name of the section holding the texts */
    uint32_t texts_crc;  /* CRC-32 of the NUL-separated texts */
    void *cache;         /* runtime-owned: the expanded texts */
} mgx_trace_table_t;
#define MGX_TRACE_TABLE_MAGIC 0x51C0DE02u

MGX_API int qlog_module_init_fn(const char *module_name, uint16_t *module_id_out, uint32_t *state);
MGX_API void qlog_emit_0(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags);
MGX_API void qlog_emit_s(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const char *s);
MGX_API void qlog_emit_u(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, uint32_t a);
MGX_API void qlog_emit_uu(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, uint32_t a, uint32_t b);
MGX_API void qlog_emit_ddd(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, int32_t a, int32_t b, int32_t c);
MGX_API void qlog_emit_ps(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const void *p, const char *s);

/* ---------------------------------------------------------------- dependent bundles */
MGX_API uint64_t if_common_bundle_handler_register(uint64_t handler, void *arg);
MGX_API uint64_t if_common_bundle_handler_unregister(void *arg);
MGX_API uint64_t platform_comm_bundle_handler_register(uint64_t handler);
MGX_API uint64_t platform_comm_bundle_handler_unregister(void);
MGX_API uint64_t aaa_common_bundle_handler_register(uint64_t handler);
MGX_API uint64_t aaa_common_bundle_handler_unregister(void);
MGX_API uint64_t aaa_proxy_bundle_handler_register(uint64_t handler);
MGX_API uint64_t aaa_proxy_bundle_handler_unregister(void);

/* ---------------------------------------------------------------- hashing */
MGX_API uint32_t SuperFastHash(const char *data, int len, uint32_t seed);

/* ---------------------------------------------------------------- primitive field types */
typedef uint8_t u_int8;
typedef uint16_t u_int16;
typedef uint32_t u_int32;
typedef uint64_t u_int64;
typedef uint32_t mgx_boolean;
typedef struct mgx_mac_addr {
    uint8_t octet[6];
} mgx_mac_addr;
typedef uint32_t ipv4_addr; /* host order in memory, network order on the wire */
typedef struct ipv6_addr {
    uint32_t word[4];
} ipv6_addr; /* the 16 address bytes in network order */
struct aaa_tlv_body;
/* An AAA attribute list: an inline runtime instance of 32 bytes; its attributes live out of line. */
typedef struct aaa_tlv {
    mgx_instance_hdr_t hdr;
    struct aaa_tlv_body *body;
    uint8_t *sttr; /* its state-flag area (16 bytes) when tracked, set by aaa_tlv_offset_update */
} aaa_tlv;
#define AAA_TLV_STTR_AREA 16u

/* Operations shared by every primitive with a value (the integers, mgx_boolean, the addresses, aaa_tlv). */
#define MGX_PRIM_VALUE_OPS(T)                                                                                                    \
    MGX_API T *T##_get(mgx_handle_t *h, uint32_t luid, T *field, uint32_t *err);                                                 \
    MGX_API void T##_set(mgx_handle_t *h, uint32_t luid, T *field, const T *value, uint32_t *err);                               \
    MGX_API uint32_t T##_marshal(mgx_handle_t *h, uint32_t luid, uint8_t *buf, const T *field, int32_t space, uint32_t *err);    \
    MGX_API uint32_t T##_unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, T *field, int32_t length, uint32_t flags, \
                                   uint32_t *err);                                                                               \
    MGX_API uint32_t T##_len(mgx_handle_t *h, uint32_t luid, const T *field);                                                    \
    MGX_API uint32_t T##_print(mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const T *field,     \
                               uint32_t size, uint32_t *err);                                                                    \
    MGX_API uint32_t T##_to_xml(mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const T *field, uint32_t size,      \
                                uint8_t state_flag, uint32_t *err);                                                              \
    MGX_API void T##_from_xml(mgx_handle_t *h, uint32_t luid, const char *path, void *doc, T *field, uint32_t *err, char *msg,   \
                              uint32_t msg_size);                                                                                \
    MGX_API uint32_t T##_hash(const T *field, uint32_t seed);

/* Scalars read and written by value. */
#define MGX_PRIM_SCALAR_OPS(T)                                                                                                   \
    MGX_API T T##_get_value(mgx_handle_t *h, uint32_t luid, const T *field, uint32_t *err);                                      \
    MGX_API void T##_set_value(mgx_handle_t *h, uint32_t luid, T *field, T value, uint32_t *err);

/* Primitives that behave as runtime instances inside a record. */
#define MGX_PRIM_INSTANCE_OPS(T)                                                                                                 \
    MGX_API int32_t T##_compare(const T *a, const T *b);                                                                         \
    MGX_API void T##_initialize(mgx_handle_t *h, uint32_t luid, T *field, const void *descriptor, int use_write_hook,            \
                                int header_only, uint32_t flags_to_set, uint8_t *sttr_base, uint32_t *err);                      \
    MGX_API void T##_destroy_internal(mgx_handle_t *h, uint32_t luid, T *field, int free_it);                                    \
    MGX_API void T##_set_instance_embedded(mgx_handle_t *h, uint32_t luid, T *field);                                            \
    MGX_API uint32_t T##_get_oid_count(mgx_handle_t *h, uint32_t luid, const T *field, uint32_t *err);                           \
    MGX_API void T##_get_object_references(mgx_handle_t *h, uint32_t luid, const T *field, uint64_t *array, uint32_t count,      \
                                           uint32_t *err);

MGX_PRIM_VALUE_OPS(u_int8)
MGX_PRIM_VALUE_OPS(u_int16)
MGX_PRIM_VALUE_OPS(u_int32)
MGX_PRIM_VALUE_OPS(u_int64)
MGX_PRIM_VALUE_OPS(mgx_boolean)
MGX_PRIM_VALUE_OPS(mgx_mac_addr)
MGX_PRIM_VALUE_OPS(ipv4_addr)
MGX_PRIM_VALUE_OPS(ipv6_addr)
MGX_PRIM_VALUE_OPS(aaa_tlv)
MGX_PRIM_SCALAR_OPS(u_int8)
MGX_PRIM_SCALAR_OPS(u_int16)
MGX_PRIM_SCALAR_OPS(u_int32)
MGX_PRIM_SCALAR_OPS(u_int64)
MGX_PRIM_SCALAR_OPS(mgx_boolean)
MGX_PRIM_INSTANCE_OPS(mgx_boolean)
MGX_PRIM_INSTANCE_OPS(mgx_mac_addr)
MGX_PRIM_INSTANCE_OPS(ipv4_addr)
MGX_PRIM_INSTANCE_OPS(ipv6_addr)
MGX_PRIM_INSTANCE_OPS(aaa_tlv)

MGX_API void aaa_tlv_offset_update(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, uint8_t *flag_base, uint32_t *err);
MGX_API void aaa_tlv_offset_remove(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, uint32_t *err);

/* Descriptors of the runtime's instance-like primitives, passed to their _initialize. */
MGX_API extern mgx_type_info_t _mgx_boolean_type_info_internal;
MGX_API extern mgx_type_info_t _mgx_mac_addr_type_info_internal;
MGX_API extern mgx_type_info_t _ipv4_addr_type_info_internal;
MGX_API extern mgx_type_info_t _ipv6_addr_type_info_internal;
MGX_API extern mgx_type_info_t _aaa_tlv_type_info_internal;

/* Counted strings: the text is NUL-terminated in memory; len is the stored length. */
MGX_API uint32_t var_string_print(mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const char *text,
                                  uint32_t size, uint32_t len, uint32_t *err);
MGX_API uint32_t var_string_to_xml(mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const char *text, uint32_t size,
                                   uint32_t len, uint8_t state_flag, uint32_t *err);
/* Reads the element's text into out (out_size bytes, NUL included); 28 when it does not fit. */
MGX_API void var_string_from_xml(mgx_handle_t *h, uint32_t luid, const char *path, void *doc, char *out, uint32_t out_size,
                                 uint32_t *err);

/* ---------------------------------------------------------------- XML and print helpers */
/* Writers put at most size-1 characters and a NUL into buf and return the characters written. */
MGX_API uint32_t start_tag(char *buf, uint32_t size, const char *name, uint8_t state_flag);
MGX_API uint32_t end_tag(char *buf, uint32_t size, const char *name);
MGX_API uint32_t xml_enum_print(char *buf, uint32_t size, const char *text, uint32_t length);
/* Status 0 found, 2 not found, 28 buffer too small (or no buffer: *length_out gets the need), 12 no memory. */
MGX_API uint32_t xml_get_element_nodecount(void *doc, const char *path, uint32_t *count);
MGX_API uint32_t xml_get_element_value(void *doc, const char *path, char *buf, uint32_t size, uint32_t *length_out);
MGX_API uint32_t mgx_print_space(mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, uint32_t size, uint32_t *err);
MGX_API uint32_t mgx_snprintf(mgx_handle_t *h, uint32_t luid, char *buf, uint32_t size, uint32_t *err, const char *format, ...)
    __attribute__((format(printf, 6, 7)));
MGX_API uint32_t char_len(void);
MGX_API uint32_t char_sizeof(void);

#ifdef __cplusplus
}
#endif

#endif
