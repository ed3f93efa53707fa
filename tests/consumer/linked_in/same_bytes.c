/*
 * Built twice by tests/consumer_test.sh, once against the shared libraries and once against the
 * linked-in form (static archives, link-time optimisation), and run over the same messages: the
 * two outputs must be identical. Each argument is a wire seed of the fuzz targets, named
 * TYPE-ARM-t or TYPE-ARM-u: byte 0 and 1 unused here, byte 2 whether the sender tracked state,
 * then the wire bytes. For each, the message is decoded into a new instance, and its length, its
 * encoding (untracked and tracked), a clone's encoding, its hash, its print form and its XML
 * are written out. Exits 0 only when every message decodes whole, re-encodes to the bytes it came
 * from, and nothing stays allocated.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mgx/runtime.h>
#include <ovrin_sm/optable.h>

#define LUID 1u

static void hex(const char *what, const uint8_t *b, uint32_t n) {
    printf("  %s %u:", what, n);
    for (uint32_t i = 0; i < n; ++i) printf(" %02x", b[i]);
    putchar('\n');
}

/* The encoding of an instance on handle h into buf (of size cap); the count written, 0 on error. */
static uint32_t encode(const ovrin_sm_type_ops *o, mgx_handle_t *h, const void *instance, uint8_t *buf, uint32_t cap) {
    uint32_t err = 0;
    uint32_t space = o->len ? o->len(h, LUID, instance) : 5;
    if (space + 1 > cap) return 0;
    uint32_t n = o->marshal(h, LUID, buf, instance, (int32_t)space, &err);
    return err ? 0 : n;
}

static int one(const char *path, mgx_handle_t *plain, mgx_handle_t *tracked) {
    static uint8_t in[1 << 20], out[1 << 20];
    static char text[1 << 20];
    FILE *f = fopen(path, "rb");
    if (!f) return fprintf(stderr, "%s: cannot open\n", path), 1;
    size_t n = fread(in, 1, sizeof in, f);
    fclose(f);
    const char *base = strrchr(path, '/') ? strrchr(path, '/') + 1 : path;
    char name[128];
    size_t k = strcspn(base, "-");
    const ovrin_sm_type_ops *o = NULL;
    if (k < sizeof name) {
        memcpy(name, base, k);
        name[k] = 0;
        o = ovrin_sm_optable_find(name);
    }
    if (n < 3 || !o) return fprintf(stderr, "%s: not a wire seed of a known type\n", path), 1;
    mgx_handle_t *h = in[2] ? tracked : plain;
    const uint8_t *wire = in + 3;
    uint32_t length = (uint32_t)(n - 3), err = 0;

    void *m = o->create(h, LUID);
    if (!m) return fprintf(stderr, "%s: out of memory\n", path), 1;
    o->adjust_variant(h, LUID, m, &err);
    uint32_t used = o->unmarshal(h, LUID, wire, m, (int32_t)length, 0, &err);
    int status = 0;
    printf("%s %s: decoded %u of %u bytes, error %u\n", o->name, in[2] ? "tracked" : "untracked", used, length, err);
    if (err || used != length) status = 1;

    for (int t = 0; t < 2 && !status; ++t) {
        mgx_handle_t *e = t ? tracked : plain;
        uint32_t w = encode(o, e, m, out, sizeof out);
        if (o->len) printf("  len %u\n", o->len(e, LUID, m));
        hex(t ? "tracked" : "untracked", out, w);
        if (e == h && (w != length || memcmp(out, wire, length) != 0)) {
            fprintf(stderr, "%s: re-encoded to other bytes\n", path);
            status = 1;
        }
    }
    if (!status && o->clone) {
        void *copy = NULL;
        err = 0;
        o->clone(h, LUID, m, &copy, out, sizeof out, &err);
        if (err || !copy || o->compare(m, copy) != 0) {
            fprintf(stderr, "%s: the clone differs (error %u)\n", path, err);
            status = 1;
        }
        if (copy) o->destroy(h, LUID, copy);
    }
    if (!status) {
        printf("  hash %08x\n", o->hash(m, 17));
        int32_t p = o->print_cr(h, m, text, sizeof text);
        printf("%s", p > 0 ? text : "  (no print form)\n");
        uint32_t x = o->toxml_cr(h, m, text, sizeof text);
        printf("%.*s\n", (int)(x < sizeof text ? x : 0), text);
    }
    o->destroy(h, LUID, m);
    return status;
}

int main(int argc, char **argv) {
    mgx_handle_t *plain = mgx_handle_create(), *tracked = mgx_handle_create();
    if (!plain || !tracked) return fprintf(stderr, "same_bytes: out of memory\n"), 1;
    mgx_handle_set_state_tracking(tracked, 1, MGX_STTR_TRACKED);
    int status = argc > 1 ? 0 : 1;
    for (int i = 1; i < argc; ++i) status |= one(argv[i], plain, tracked);
    uint64_t live = mgx_handle_live_allocations(plain) + mgx_handle_live_allocations(tracked);
    mgx_handle_destroy(plain);
    mgx_handle_destroy(tracked);
    if (live) fprintf(stderr, "same_bytes: %llu allocations left behind\n", (unsigned long long)live);
    return status || live ? 1 : 0;
}
