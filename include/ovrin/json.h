/*
 * The JSON form of the message types: what every bundle's <type>_to_json and <type>_from_json
 * share (flags, limits, the error a read reports). See docs/json.md for the mapping.
 */
#ifndef OVRIN_JSON_H
#define OVRIN_JSON_H

#include <stdint.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

/* <type>_to_json: indented two spaces a level, one member or element a line (as jq prints);
 * without it the text is compact, on one line. */
#define OVRIN_JSON_PRETTY 1u
/* <type>_from_json: read what can be read. An unknown member, a member the instance's variant
 * lacks or its discriminator does not select, and a value of the wrong kind or out of range are
 * skipped (the field keeps its value); of a member given twice the last counts; a count or length
 * that disagrees with its array or string is ignored (the array decides). A document that is not
 * JSON, or passes a limit, is refused all the same. */
#define OVRIN_JSON_LENIENT 1u

/* The reader takes documents of at most OVRIN_JSON_MAX_DOCUMENT bytes, nested at most
 * OVRIN_JSON_MAX_DEPTH arrays and objects deep, with at most OVRIN_JSON_MAX_VALUES of the
 * characters that open an array or object or separate values ({ [ : ,): about one per array
 * element and two per object member. Both are counted before the document is parsed, so the
 * parser's tree stays within some hundreds of megabytes whatever the document. */
#define OVRIN_JSON_MAX_DOCUMENT (64u * 1024u * 1024u)
#define OVRIN_JSON_MAX_DEPTH 128u
#define OVRIN_JSON_MAX_VALUES (1u << 20)

/* Why a read failed. text says what is wrong ("sess_mgr_register has no member sesion_type");
 * pointer names the offending value as a JSON pointer (RFC 6901: "/cl_name/client_name", "" for
 * the whole document). Both come from malloc; ovrin_json_error_free frees them. */
typedef struct ovrin_json_error {
    char *text;
    char *pointer;
} ovrin_json_error;

static inline void ovrin_json_error_free(ovrin_json_error *e) {
    if (!e) return;
    free(e->text);
    free(e->pointer);
    e->text = NULL;
    e->pointer = NULL;
}

#ifdef __cplusplus
}
#endif

#endif
