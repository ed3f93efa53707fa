// Decodes arbitrary bytes as any record or union of the bundle twice, through its compiled wire
// code and through the table walk, and requires the two to agree. Built once per catalogue from
// the bundle's own objects (wire_diff: ovrin_sm, wire_diff_shapes: the second catalogue).
//
// Input, as the wire target's: byte 0 picks an instance allocation to refuse (0: none, k: the
// k-th, in each path's decode alike); byte 1 picks the type (modulo the type count, registration
// order; enumerations are left out); byte 2 picks the handle (bit 0: tracked), the decode flags
// (bit 1: ask for storage reuse) and a space to encode into (bits 2-7: a share of the length);
// the rest is the wire form. Both decodes must give the same count, error and handle error and
// leave instances that encode alike; the instance must then encode alike through both paths (at
// its whole length and at the picked space), and decode alike over itself. In the end every
// block is freed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ops/ops.h"
#include "ops/wire/code.h"

namespace ovrin {
extern const Bundle bundle; // the catalogue the program is built with (the bundle's own tables)
} // namespace ovrin

namespace {

using ovrin::Type;
using Bytes = std::vector<uint8_t>;

[[noreturn]] void die(const Type &t, const std::string &what) {
    std::fprintf(stderr, "fuzz check failed: %s%s\n", t.name, what.c_str());
    std::abort();
}

mgx_handle_t *handle(bool tracked) {
    static mgx_handle_t *handles[2] = {nullptr, nullptr};
    static unsigned uses = 0;
    if (uses++ % 20000 == 0) { // made anew now and then, so that their journals stay small
        for (int i = 0; i < 2; ++i) {
            if (handles[i]) mgx_handle_destroy(handles[i]);
            handles[i] = mgx_handle_create();
        }
        mgx_handle_set_state_tracking(handles[1], 1, MGX_STTR_TRACKED);
    }
    mgx_trace_clear();
    return handles[tracked];
}

void *fresh(const Type &t, mgx_handle_t *h) {
    void *instance = ovrin::create(t, h, 1);
    uint32_t e = 0;
    if (instance) ovrin::raise_variant(t, h, 1, instance, &e);
    return instance;
}

struct Outcome {
    uint32_t n, err, last_error;
    Bytes bytes;
    bool operator==(const Outcome &) const = default;
};

// The instance as the walk encodes it, to compare what two decodes left.
Bytes as_walked(const Type &t, mgx_handle_t *h, const void *instance) {
    uint32_t e = 0;
    Bytes b(ovrin::walked_length(t, h, 1, instance) + 1);
    b.resize(ovrin::walked_encode(t, h, 1, b.data(), instance, static_cast<int32_t>(b.size() - 1), false, &e));
    return b;
}

Outcome decode_with(bool compiled, const Type &t, mgx_handle_t *h, const uint8_t *in, size_t n, void *instance, uint32_t flags,
                    uint32_t refuse) {
    Outcome o{0, 0, 0, {}};
    mgx_handle_fail_allocation(h, refuse);
    o.n = compiled ? ovrin::compiled(t)->decode(h, 1, in, instance, static_cast<int32_t>(n), flags, &o.err)
                   : ovrin::walked_decode(t, h, 1, in, instance, static_cast<int32_t>(n), flags, &o.err);
    mgx_handle_fail_allocation(h, 0);
    o.last_error = h->last_error;
    o.bytes = as_walked(t, h, instance);
    return o;
}

Outcome encode_with(bool compiled, const Type &t, mgx_handle_t *h, const void *instance, int32_t space) {
    Outcome o{0, 0, 0, Bytes(static_cast<size_t>(space) + 1, 0xA5)};
    o.n = compiled ? ovrin::compiled(t)->encode(h, 1, o.bytes.data(), instance, space, true, &o.err)
                   : ovrin::walked_encode(t, h, 1, o.bytes.data(), instance, space, true, &o.err);
    o.last_error = h->last_error;
    return o;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    const Type &t = *ovrin::bundle.types[data[1] % ovrin::bundle.type_count];
    if (t.kind == ovrin::TypeKind::enumeration) return 0;
    mgx_handle_t *h = handle(data[2] & 1);
    uint32_t flags = (data[2] & 2) ? 0xFFFFFFFFu : 0;
    size_t n = size - 3;
    std::unique_ptr<uint8_t[]> in(new uint8_t[n]); // exact size: a read past it is caught
    std::memcpy(in.get(), data + 3, n);
    uint64_t base = mgx_handle_live_allocations(h);

    void *a = fresh(t, h), *b = fresh(t, h);
    if (!a || !b) die(t, ": no instance");
    Outcome compiled = decode_with(true, t, h, in.get(), n, a, flags, data[0]);
    Outcome walked = decode_with(false, t, h, in.get(), n, b, flags, data[0]);
    if (!(compiled == walked)) die(t, ": the compiled decode differs from the walked one");

    uint32_t length = ovrin::walked_length(t, h, 1, a);
    if (ovrin::compiled(t)->length(h, 1, a) != length) die(t, ": the compiled length differs");
    for (int32_t space : {static_cast<int32_t>(length), static_cast<int32_t>(length * (data[2] >> 2) / 64)})
        if (!(encode_with(true, t, h, a, space) == encode_with(false, t, h, a, space)))
            die(t, ": the compiled encode differs at space " + std::to_string(space));

    Bytes whole = encode_with(false, t, h, a, static_cast<int32_t>(length)).bytes;
    whole.resize(length);
    if (!(decode_with(true, t, h, whole.data(), whole.size(), a, 0xFFFFFFFFu, 0) ==
          decode_with(false, t, h, whole.data(), whole.size(), b, 0xFFFFFFFFu, 0)))
        die(t, ": the compiled decode over a filled instance differs");

    ovrin::destroy(t, h, 1, a);
    ovrin::destroy(t, h, 1, b);
    if (mgx_handle_live_allocations(h) != base) die(t, ": blocks leaked");
    return 0;
}
