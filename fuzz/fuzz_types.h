// What the fuzz targets share: every type of the bundle with its operations, from the bundle's
// typed operations table, and two long-lived handles
// (untracked and tracked) whose live-allocation counts must come back after every input.
#ifndef OVRIN_FUZZ_FUZZ_TYPES_H
#define OVRIN_FUZZ_FUZZ_TYPES_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "ovrin_sm/optable.h"

namespace fuzz {

struct TypeOps {
    std::string name;
    bool is_enum;
    void *(*create)(mgx_handle_t *, uint32_t);
    void (*destroy)(mgx_handle_t *, uint32_t, void *);
    uint32_t (*adjust_variant)(mgx_handle_t *, uint32_t, void *, uint32_t *);
    uint32_t (*marshal)(mgx_handle_t *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
    uint32_t (*unmarshal)(mgx_handle_t *, uint32_t, const uint8_t *, void *, int32_t, uint32_t, uint32_t *);
    uint32_t (*record_len)(mgx_handle_t *, uint32_t, const void *);
    int32_t (*compare)(const void *, const void *);
    uint32_t (*hash)(const void *, uint32_t);
    uint32_t (*to_xml)(mgx_handle_t *, uint32_t, const char *, char *, const void *, uint32_t, uint8_t, uint32_t *);
    void (*from_xml)(mgx_handle_t *, uint32_t, const char *, void *, void *, uint32_t *, char *, uint32_t);
};

[[noreturn]] inline void die(const std::string &what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what.c_str());
    std::abort();
}

// The types in registration order, from the bundle's typed operations table.
inline const std::vector<TypeOps> &types() {
    static const std::vector<TypeOps> list = [] {
        std::vector<TypeOps> out;
        for (uint32_t i = 0; i < ovrin_sm_optable_count; ++i) {
            const ovrin_sm_type_ops &o = ovrin_sm_optable[i];
            TypeOps t{o.name,    o.kind == OVRIN_SM_KIND_ENUMERATION,
                      o.create,  o.destroy,
                      o.adjust_variant, o.marshal,
                      o.unmarshal, o.len,
                      o.compare, o.hash,
                      o.to_xml,  o.from_xml};
            if (!t.create || !t.destroy || !t.adjust_variant || !t.marshal || !t.unmarshal ||
                (!t.is_enum && !t.record_len))
                die("missing wire or lifecycle operation of " + t.name);
            out.push_back(t);
        }
        if (out.size() != 79) die("expected 79 types, found " + std::to_string(out.size()));
        return out;
    }();
    return list;
}

// The two long-lived handles: [0] without a state-tracking record, [1] tracked.
inline mgx_handle_t **handle_pair() {
    static mgx_handle_t *handles[2] = {nullptr, nullptr};
    return handles;
}

// handle(false): no state-tracking record; handle(true): tracked. Called once per input. The
// handles are made anew every so many inputs, so that their journals of hooks and call-site tags
// stay small over long runs; nothing may be left allocated in them by then.
inline mgx_handle_t *handle(bool tracked) {
    mgx_handle_t **handles = handle_pair();
    static unsigned uses = 0;
    if (uses++ % 20000 == 0) {
        for (int i = 0; i < 2; ++i) {
            if (handles[i]) {
                if (mgx_handle_live_allocations(handles[i]) != 0) die("blocks left in a handle");
                mgx_handle_destroy(handles[i]);
            }
            handles[i] = mgx_handle_create();
        }
        mgx_handle_set_state_tracking(handles[1], 1, MGX_STTR_TRACKED);
    }
    mgx_trace_clear();
    return handles[tracked];
}

// The k-th instance allocation through h from now on is refused (k = 0: none), as when memory
// runs out inside an operation. fired() then disarms the injection and tells whether that
// allocation was really attempted, so that a caller can hold the operation to its promise:
// error 12 exactly when an allocation was refused.
class Injection {
public:
    Injection(mgx_handle_t *h, uint32_t k) : h_(h), k_(k), start_(mgx_handle_total_allocations(h)) {
        mgx_handle_fail_allocation(h, k);
    }
    Injection(const Injection &) = delete;
    Injection &operator=(const Injection &) = delete;
    ~Injection() { mgx_handle_fail_allocation(h_, 0); }

    bool fired() {
        if (k_ == 0) return false;
        // Allocations that succeeded since arming; the refused one is not counted.
        uint64_t made = mgx_handle_total_allocations(h_) - start_;
        bool result;
        if (made >= k_) {
            result = true; // the k-th was attempted, and some after it succeeded
        } else if (made + 1 < k_) {
            result = false;
        } else {
            // k - 1 made: either the k-th was refused and nothing followed, or it is still to
            // come. One more allocation tells: it is refused only in the second case.
            // Any type's create serves: it makes the instance first and answers null when that
            // allocation is refused.
            const TypeOps &probe = types()[0];
            void *p = probe.create(h_, 1);
            result = p != nullptr;
            if (p) probe.destroy(h_, 1, p);
        }
        mgx_handle_fail_allocation(h_, 0);
        k_ = 0;
        return result;
    }

private:
    mgx_handle_t *h_;
    uint32_t k_;
    uint64_t start_;
};

// A fresh instance that follows the handle's domain, as a receiver makes it.
inline void *make(const TypeOps &t, mgx_handle_t *h) {
    void *p = t.create(h, 1);
    if (!p) die("create of " + t.name + " failed");
    uint32_t err = 0;
    t.adjust_variant(h, 1, p, &err);
    return p;
}

// The wire form of an instance; err gets the encoder's error cell. The length routine does not
// count the retained-data blocks of handle-mapped instances (flag 0x20), which a decoded instance
// may carry at any depth; slack covers them (they cannot be longer than the input they came in).
inline std::vector<uint8_t> encode(const TypeOps &t, mgx_handle_t *h, const void *instance, uint32_t *err,
                                   size_t slack = 0) {
    size_t n = (t.is_enum ? 5 : t.record_len(h, 1, instance)) + slack;
    std::vector<uint8_t> out(n + 1); // a tracked encoder may store one state byte past the space
    *err = 0;
    out.resize(t.marshal(h, 1, out.data(), instance, static_cast<int32_t>(n), err));
    return out;
}

} // namespace fuzz

#endif
