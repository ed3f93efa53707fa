/*
 * A program that uses the installed library the way an application does: one runtime handle,
 * a registration request built field by field, encoded to wire bytes, decoded into a second
 * instance, compared, printed and destroyed. It exits 0 only when the decoded request equals
 * the one sent and the handle holds no allocation at the end.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <mgx/runtime.h>
#include <ovrin_sm/ops.h>

/* The caller's owner id, passed to every operation (it shows in the runtime's journals). */
#define LUID 1u

int main(void) {
    mgx_handle_t *h = mgx_handle_create();
    sess_mgr_register *sent = h ? sess_mgr_register_create(h, LUID) : NULL;
    if (!sent) {
        fprintf(stderr, "consumer: out of memory\n");
        if (h) mgx_handle_destroy(h);
        return 1;
    }
    uint32_t err = 0; /* every operation stops at once while err holds a code */
    int status = 1;

    /* Build: a request with a client name (a counted string) and two integers. Embedded
     * records are reached through their getters and filled in place. */
    sess_mgr_client_name *name = sess_mgr_register_cl_name_get(h, LUID, sent, &err);
    sess_mgr_client_name_client_name_set(h, LUID, name, "consumer", 8, &err);
    sess_mgr_register_session_type_set_value(h, LUID, sent, 2, &err);
    sess_mgr_register_cb_bitmap_set_value(h, LUID, sent, 0x1fff, &err);

    /* Encode: _len tells how many bytes the encoding takes, _marshal writes them. */
    uint32_t length = sess_mgr_register_len(h, LUID, sent);
    uint8_t *wire = malloc(length);
    uint32_t written = wire ? sess_mgr_register_marshal(h, LUID, wire, sent, (int32_t)length, &err) : 0;

    /* Decode into a fresh instance, raised first to the variant this handle's domain knows. */
    sess_mgr_register *received = sess_mgr_register_create(h, LUID);
    uint32_t used = 0;
    if (received && wire) {
        sess_mgr_register_adjust_variant(h, LUID, received, &err);
        used = sess_mgr_register_unmarshal(h, LUID, wire, received, (int32_t)written, 0, &err);
    }

    if (err || !wire || !received) {
        fprintf(stderr, "consumer: the round trip failed: error %u\n", err);
    } else if (used != written || sess_mgr_register_compare(sent, received) != 0) {
        fprintf(stderr, "consumer: decoded %u of %u bytes into a different request\n", used, written);
    } else {
        char client[64];
        sess_mgr_client_name_client_name_get(h, LUID, sess_mgr_register_cl_name_get(h, LUID, received, &err), client,
                                             sizeof client, &err);
        char text[4096];
        int32_t n = sess_mgr_register_print_cr(h, received, text, sizeof text);
        if (err || n < 0) {
            fprintf(stderr, "consumer: cannot read the decoded request: error %u\n", err ? err : mgx_handle_last_error(h));
        } else {
            printf("%u bytes on the wire, decoded intact for client '%s':\n%s", written, client, text);
            if (n == 0 || text[n - 1] != '\n') putchar('\n');
            status = 0;
        }
    }

    /* Destroy: every instance goes back to the handle; nothing may stay allocated. */
    free(wire);
    sess_mgr_register_destroy(h, LUID, sent);
    if (received) sess_mgr_register_destroy(h, LUID, received);
    uint64_t live = mgx_handle_live_allocations(h);
    mgx_handle_destroy(h);
    if (live != 0) {
        fprintf(stderr, "consumer: %llu allocations left behind\n", (unsigned long long)live);
        status = 1;
    }
    return status;
}
