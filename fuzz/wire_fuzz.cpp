// Decodes arbitrary bytes as any type of the bundle and checks the round trip.
//
// Input: byte 0 picks an instance allocation of the decode to refuse (0: none, k: the k-th);
// byte 1 picks the type (modulo the type count, registration order); byte 2 picks the handle
// (bit 0: tracked) and the decode flags (bit 1: ask for storage reuse); the rest is the wire form.
// Whatever the bytes, the decoder must not crash or read past them (the input is copied to an
// exact-size heap block), and it reports error 12 exactly when an allocation was refused. When it
// accepts them, encoding the instance, decoding that encoding into a second fresh instance and
// encoding again must give the same bytes, compare must call the two equal and their hashes must
// agree, and decoding the encoding again over the first instance (reusing its storage) must give
// it back too. In the end every block is freed.
#include <memory>

#include "fuzz/fuzz_types.h"

using fuzz::die;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    const fuzz::TypeOps &t = fuzz::types()[data[1] % fuzz::types().size()];
    mgx_handle_t *h = fuzz::handle(data[2] & 1);
    uint32_t flags = (data[2] & 2) ? 0xFFFFFFFFu : 0;
    size_t n = size - 3;
    std::unique_ptr<uint8_t[]> in(new uint8_t[n]);
    std::memcpy(in.get(), data + 3, n);
    uint64_t base = mgx_handle_live_allocations(h);

    void *a = fuzz::make(t, h);
    uint32_t err = 0;
    fuzz::Injection refuse(h, data[0]);
    uint32_t used = t.unmarshal(h, 1, in.get(), a, static_cast<int32_t>(n), flags, &err);
    bool refused = refuse.fired();
    if (used > n) die(t, ": decode consumed more than it was given");
    if (refused != (err == 12))
        die(t, ": allocation " + std::to_string(data[0]) + (refused ? " refused" : " not refused") + ", decode error " +
                   std::to_string(err));
    if (err == 0) {
        uint32_t e = 0;
        std::vector<uint8_t> first = fuzz::encode(t, h, a, &e, n);
        if (e) die(t, ": a decoded instance does not encode, error " + std::to_string(e));
        void *b = fuzz::make(t, h);
        if (t.unmarshal(h, 1, first.data(), b, static_cast<int32_t>(first.size()), 0, &e) != first.size() || e)
            die(t, ": its own encoding does not decode, error " + std::to_string(e));
        std::vector<uint8_t> second = fuzz::encode(t, h, b, &e, first.size());
        if (e || second != first) die(t, ": encode, decode, encode differs");
        if (t.compare && t.compare(a, b) != 0) die(t, ": compare says the round trip differs");
        if (t.hash && t.hash(a, 7) != t.hash(b, 7)) die(t, ": the round trip hashes differently");
        if (t.unmarshal(h, 1, first.data(), a, static_cast<int32_t>(first.size()), 0xFFFFFFFFu, &e) != first.size() || e)
            die(t, ": decode over a filled instance fails, error " + std::to_string(e));
        if (fuzz::encode(t, h, a, &e, first.size()) != first || e) die(t, ": decode over a filled instance differs");
        t.destroy(h, 1, b);
    }
    t.destroy(h, 1, a);
    if (mgx_handle_live_allocations(h) != base) die(t, ": blocks leaked");
    return 0;
}
