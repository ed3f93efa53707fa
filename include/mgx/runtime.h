/*
 * The reference MGX runtime: handles, allocation accounting, failure injection, the write-hook
 * journal, hook recorders and trace capture. Programs and tests drive the runtime through this
 * header; bundles reach it only through the contract in mgx/contract.h.
 */
#ifndef MGX_RUNTIME_H
#define MGX_RUNTIME_H

#include "mgx/contract.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- version and error texts */
#define MGX_RUNTIME_VERSION_MAJOR 0
#define MGX_RUNTIME_VERSION_MINOR 1
#define MGX_RUNTIME_VERSION_PATCH 0
/* the version of the libmgx the program runs with, as "MAJOR.MINOR.PATCH" */
MGX_API const char *mgx_runtime_version(void);
/* a short text for an error code of the runtime and the bundles (2 "a member or element is
 * missing", 12, 22, 28, 43, 90, and the system's texts for other errno values); never null, and
 * the text stays valid for the process's life */
MGX_API const char *mgx_strerror(uint32_t code);

#define MGX_HANDLE_DATABASE 1u
#define MGX_HANDLE_PLACEHOLDER 2u
#define MGX_HANDLE_MAPPING 4u

/* no state-tracking record, domain-mode 0, every type at its highest variant */
MGX_API mgx_handle_t *mgx_handle_create(void);
MGX_API void mgx_handle_destroy(mgx_handle_t *h);
MGX_API void mgx_handle_set_state_tracking(mgx_handle_t *h, int present, uint32_t marker);
/* 0, or 12 when the handle cannot keep the name */
MGX_API int mgx_handle_set_domain_variant(mgx_handle_t *h, const char *type_name, int8_t variant);
MGX_API void mgx_handle_set_domain_mode(mgx_handle_t *h, uint32_t mode);
MGX_API uint32_t mgx_handle_last_error(const mgx_handle_t *h);
/* blocks allocated through the handle's instance allocator and not yet freed */
MGX_API uint64_t mgx_handle_live_allocations(const mgx_handle_t *h);
MGX_API uint64_t mgx_handle_live_bytes(const mgx_handle_t *h);
/* entries the handle keeps about objects (OID mappings, state-flag offsets, retained data): each
 * goes with the object it describes, so with no live object this is 0 */
MGX_API size_t mgx_handle_bookkeeping(const mgx_handle_t *h);
/* Guard bytes behind every instance block (0 = none, the default; at most 4096), for finding
 * faults: each block is followed by that many bytes of a known pattern, checked when the block is
 * freed, so that a write past a block's end is counted (and named on standard error) rather than
 * left to corrupt the heap; and a free of a block the handle does not own is counted and ignored
 * instead of ending the process. Only while the handle holds no block: otherwise nothing changes
 * and the result is 22. */
MGX_API int mgx_handle_set_guard_bytes(mgx_handle_t *h, uint32_t bytes);
/* blocks freed with their guard bytes overwritten, since the handle was created */
MGX_API uint64_t mgx_handle_overruns(const mgx_handle_t *h);
/* frees of blocks the handle did not own, counted while guard bytes are on */
MGX_API uint64_t mgx_handle_foreign_frees(const mgx_handle_t *h);
/* instance allocations made since the handle was created (freed or not) */
MGX_API uint64_t mgx_handle_total_allocations(const mgx_handle_t *h);
/* the nth instance allocation from now fails (1 = the next); 0 = none */
MGX_API void mgx_handle_fail_allocation(mgx_handle_t *h, uint32_t nth);
/* instance allocations still to come before the armed failure: 0 once it has happened (or when
 * none is armed), so a caller can tell whether an operation reached it */
MGX_API uint32_t mgx_handle_allocation_failure_pending(const mgx_handle_t *h);
/* the same for the registry allocator */
MGX_API void mgx_handle_fail_registry_allocation(mgx_handle_t *h, uint32_t nth);
/* descriptors registered in this handle */
MGX_API uint32_t mgx_handle_registry_count(const mgx_handle_t *h);
MGX_API const void *mgx_handle_registry_lookup(const mgx_handle_t *h, const char *fingerprint_text);
/* MGX_HANDLE_DATABASE, MGX_HANDLE_PLACEHOLDER, MGX_HANDLE_MAPPING */
MGX_API void mgx_handle_set_flags(mgx_handle_t *h, uint32_t flags);
MGX_API void mgx_handle_set_descriptor_luid(mgx_handle_t *h, uint32_t luid);

/* ---- recorders. Every recorder of a handle is off when the handle is created, so that a program
 * that creates, decodes and destroys messages for weeks keeps a flat footprint; tests and tools
 * switch on what they read. While a recorder is off it keeps nothing (what it held stays until
 * its clear call or the handle's end). */
#define MGX_RECORD_JOURNAL 1u       /* every write-hook call, in order (the journal is the handle's hook) */
#define MGX_RECORD_HOOKS 2u         /* database hooks, registry/variant-info updates, OID and mapping calls */
#define MGX_RECORD_CALLSITE_TAGS 4u /* call-site tags as the handle's allocations consume them */
#define MGX_RECORD_ALL 7u
MGX_API void mgx_handle_set_recorders(mgx_handle_t *h, uint32_t recorders);
MGX_API uint32_t mgx_handle_recorders(const mgx_handle_t *h);

/* ---- write-hook journal: every write hook call, in order, while MGX_RECORD_JOURNAL is on. With
 * the journal off the handle has no write hook at all, unless the program installed its own. */
typedef struct mgx_write_record {
    const void *address;
    size_t length;
    uint32_t luid;
    const void *base;
} mgx_write_record_t;
MGX_API size_t mgx_journal_count(const mgx_handle_t *h);
MGX_API const mgx_write_record_t *mgx_journal_entry(const mgx_handle_t *h, size_t i);
MGX_API void mgx_journal_clear(mgx_handle_t *h);

/* ---- recorded hook calls (while MGX_RECORD_HOOKS is on): database hooks, registry/variant-info updates, OID and mapping calls */
typedef enum mgx_hook_kind {
    MGX_HOOK_CONTAINMENT = 1,     /* mgxdb_record_containment2: object, container */
    MGX_HOOK_DIRTY,               /* mgxdb_plat_set_dirty */
    MGX_HOOK_DESTROY,             /* mgxdb_plat_set_destroy */
    MGX_HOOK_DETACH,              /* mgxdb_plat_set_detach */
    MGX_HOOK_UPDATE_VARIANT_INFO, /* object = registered copy, container = static descriptor, arg = is_new */
    MGX_HOOK_HD_MAPPING_DESTROY,  /* object */
    MGX_HOOK_OID_MAPPING_DESTROY, /* object, arg = result */
    MGX_HOOK_OID_REF_RELEASE,     /* arg = oid */
    MGX_HOOK_STTR_OFFSET          /* object = field, arg = offset */
} mgx_hook_kind_t;
typedef struct mgx_hook_record {
    mgx_hook_kind_t kind;
    uint32_t luid;
    const void *object;
    const void *container;
    int64_t arg;
} mgx_hook_record_t;
MGX_API size_t mgx_hook_count(const mgx_handle_t *h);
MGX_API const mgx_hook_record_t *mgx_hook_entry(const mgx_handle_t *h, size_t i);
MGX_API size_t mgx_hook_count_kind(const mgx_handle_t *h, mgx_hook_kind_t kind);
MGX_API void mgx_hook_clear(mgx_handle_t *h);

/* ---- OID mappings with reference counts */
/* Maps instance to a new OID (sets its flags bit 0) and returns the OID; 0 when out of memory. */
MGX_API uint64_t mgx_oid_map(mgx_handle_t *h, void *instance);
MGX_API void mgx_oid_add_ref(mgx_handle_t *h, uint64_t oid);
MGX_API uint32_t mgx_oid_ref_count(const mgx_handle_t *h, uint64_t oid); /* 0 for unknown */
MGX_API int mgx_oid_exists(const mgx_handle_t *h, uint64_t oid);
/* The next OID mapping removal / reference release / handle-mapping removal fails with code. */
MGX_API void mgx_handle_fail_oid_mapping_destroy(mgx_handle_t *h, uint32_t code);
MGX_API void mgx_handle_fail_oid_ref_release(mgx_handle_t *h, uint32_t code);
MGX_API void mgx_handle_fail_hd_mapping_destroy(mgx_handle_t *h, uint32_t code);

/* ---- state-flag offsets recorded through mgxlib_update_sttr_offset / the instance's own offset */
MGX_API int mgx_sttr_offset_lookup(const mgx_handle_t *h, const void *field, int64_t *offset_out);
MGX_API int mgx_sttr_offset_set(mgx_handle_t *h, const void *instance, int64_t offset); /* 0 or 12 */

/* ---- statistics kept in a descriptor's variant entries */
MGX_API uint64_t mgx_stats_created(const void *descriptor, int variant);
MGX_API uint64_t mgx_stats_destroyed(const void *descriptor, int variant);
/* the next statistics count fails with code */
MGX_API void mgx_handle_fail_stats(mgx_handle_t *h, uint32_t code);

/* ---- call-site tags set with plinth_set_callsite_tag, as consumed by the following allocations
 * (while MGX_RECORD_CALLSITE_TAGS is on) */
MGX_API size_t mgx_callsite_tag_count(const mgx_handle_t *h);
MGX_API uint32_t mgx_callsite_tag(const mgx_handle_t *h, size_t i);

/* ---- retained data of handle-mapped instances (wire flag 0x20) */
MGX_API int mgx_retained_data_set(mgx_handle_t *h, const void *instance, const void *bytes, uint16_t length);
MGX_API uint16_t mgx_retained_data_get(const mgx_handle_t *h, const void *instance, const void **bytes);

/* ---- XML documents. The reader takes documents of at most MGX_XML_MAX_DOCUMENT bytes with at most
 * MGX_XML_MAX_ATTRIBUTES attributes on any element, at most MGX_XML_MAX_NODES elements, CDATA
 * sections, entity references and declarations together, elements nested at most
 * MGX_XML_MAX_DEPTH deep, at most MGX_XML_MAX_NAMES distinct names of elements, attributes and
 * entities, and no NUL character; it reads no external entity or DTD, keeps no comment or
 * processing instruction, and refuses (error 22, "Invalid value at <path>") a value that refers to
 * an entity other than the five predefined ones and character references. */
#define MGX_XML_MAX_DOCUMENT (64u * 1024u * 1024u)
#define MGX_XML_MAX_ATTRIBUTES 256u
#define MGX_XML_MAX_NODES (1u << 20)
#define MGX_XML_MAX_DEPTH 128u
#define MGX_XML_MAX_NAMES 10000u
MGX_API void *mgx_xml_document_parse(const char *text, size_t length); /* null when not taken */
/* The same; when no document results, message (if given) says why: a limit, or libxml2's
 * "line L, column C: ..." for a document that is not well-formed. */
MGX_API void *mgx_xml_document_read(const char *text, size_t length, char *message, size_t message_size);
MGX_API void mgx_xml_document_free(void *document);

/* ---- trace capture (process-wide): a ring of the newest 4096 emissions, oldest first. A text's
 * pointer stays valid until its emission falls out of the ring or mgx_trace_clear. */
MGX_API size_t mgx_trace_count(void);         /* captured emissions held (at most 4096) */
MGX_API size_t mgx_trace_dropped(void);       /* emissions that fell out of the ring since the last clear */
MGX_API const char *mgx_trace_text(size_t i); /* rendered text of emission i */
MGX_API int mgx_trace_severity(size_t i);     /* 0..7 */
MGX_API uint32_t mgx_trace_number(size_t i);
MGX_API uint16_t mgx_trace_module(size_t i);
MGX_API void mgx_trace_clear(void);
/* emissions at or below this severity also go to stderr; -1 (default) none. MGX_TRACE_LEVEL sets it too. */
MGX_API void mgx_trace_set_stderr_level(int level);
/* a registered module's name; the pointer stays valid for the process's life */
MGX_API const char *mgx_trace_module_name(uint16_t module);
/* A table's texts are read from its section in the file the table was loaded from, the first time
 * an emission needs them. attach supplies the section's bytes instead (for a program whose file
 * was stripped or moved); 0, or EINVAL when they are not the table's texts. problem says why a
 * table's texts cannot be read (null when they can); emissions then render as "message N". */
MGX_API int mgx_trace_texts_attach(mgx_trace_table_t *t, const void *section, size_t length);
MGX_API const char *mgx_trace_texts_problem(mgx_trace_table_t *t);
/* ---- the binary trace file: every emission from now on is appended to path (the file and its
 * header are created when missing), for "ovrin-sm trace FILE" to decode off-line with the texts
 * of the libraries named in it. MGX_TRACE_FILE=path opens it at the first emission. 0 or errno. */
MGX_API int mgx_trace_file_open(const char *path);
MGX_API void mgx_trace_file_close(void);

/* ---- dependent-bundle registrations, in call order, rendered as "name(args)": a ring of the
 * newest 256 calls; each text's pointer stays valid for the process's life */
MGX_API size_t mgx_bundle_call_count(void);
MGX_API const char *mgx_bundle_call(size_t i);
MGX_API void mgx_bundle_calls_clear(void);

/* ---- aaa_tlv attribute lists */
MGX_API void aaa_tlv_attr_add(mgx_handle_t *h, uint32_t luid, aaa_tlv *tlv, uint32_t type, const void *value, uint32_t length,
                              uint32_t *err);
MGX_API uint32_t aaa_tlv_attr_count(const aaa_tlv *tlv);
/* attribute i: returns its type, *value and *length point into the list; 0 (and nulls) when out of range */
MGX_API uint32_t aaa_tlv_attr_at(const aaa_tlv *tlv, uint32_t i, const void **value, uint32_t *length);
/* index of the first attribute of this type, or -1 */
MGX_API int32_t aaa_tlv_attr_find(const aaa_tlv *tlv, uint32_t type);
MGX_API void aaa_tlv_attr_remove(mgx_handle_t *h, uint32_t luid, aaa_tlv *tlv, uint32_t i, uint32_t *err);
/* object references held by the list (released by a containing record's destroy) */
MGX_API void aaa_tlv_add_object_reference(mgx_handle_t *h, uint32_t luid, aaa_tlv *tlv, uint64_t oid, uint32_t *err);

#ifdef __cplusplus
}
#endif

#endif
