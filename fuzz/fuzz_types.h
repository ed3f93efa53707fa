// What the fuzz targets share: every type of the bundle with its operations, from the bundle's
// typed operations table, and two long-lived handles
// (untracked and tracked) whose live-allocation counts must come back after every input.
#ifndef OVRIN_FUZZ_FUZZ_TYPES_H
#define OVRIN_FUZZ_FUZZ_TYPES_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "ovrin_sm/optable.h"

namespace fuzz {

// A type's operations, as the bundle's generated table gives them.
using TypeOps = ovrin_sm_type_ops;

[[noreturn]] inline void die(const std::string &what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what.c_str());
    std::abort();
}
[[noreturn]] inline void die(const TypeOps &t, const std::string &what) { die(t.name + what); }

inline bool is_enum(const TypeOps &t) { return t.kind == OVRIN_SM_KIND_ENUMERATION; }

// The types in registration order.
inline std::span<const TypeOps> types() { return {ovrin_sm_optable, ovrin_sm_optable_count}; }

// The type an input's byte picks (modulo the type count), and whether that byte, past the first
// round of types, asks for the tracked handle.
inline const TypeOps &type_picked(uint8_t pick) { return types()[pick % types().size()]; }
inline bool tracked_picked(uint8_t pick) { return (pick / types().size()) & 1; }

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
    Injection(mgx_handle_t *h, uint32_t k) : h_(h), k_(k) { mgx_handle_fail_allocation(h, k); }
    Injection(const Injection &) = delete;
    Injection &operator=(const Injection &) = delete;
    ~Injection() { mgx_handle_fail_allocation(h_, 0); }

    bool fired() {
        bool result = k_ != 0 && mgx_handle_allocation_failure_pending(h_) == 0;
        mgx_handle_fail_allocation(h_, 0);
        k_ = 0;
        return result;
    }

private:
    mgx_handle_t *h_;
    uint32_t k_;
};

// A fresh instance that follows the handle's domain, as a receiver makes it.
inline void *make(const TypeOps &t, mgx_handle_t *h) {
    void *p = t.create(h, 1);
    if (!p) die(t, ": create failed");
    uint32_t err = 0;
    t.adjust_variant(h, 1, p, &err);
    return p;
}

// The wire form of an instance; err gets the encoder's error cell. The length routine does not
// count the retained-data blocks of handle-mapped instances (flag 0x20), which a decoded instance
// may carry at any depth; slack covers them (they cannot be longer than the input they came in).
inline std::vector<uint8_t> encode(const TypeOps &t, mgx_handle_t *h, const void *instance, uint32_t *err, size_t slack = 0) {
    size_t n = (is_enum(t) ? 5 : t.len(h, 1, instance)) + slack;
    std::vector<uint8_t> out(n + 1); // a tracked encoder may store one state byte past the space
    *err = 0;
    out.resize(t.marshal(h, 1, out.data(), instance, static_cast<int32_t>(n), err));
    return out;
}

} // namespace fuzz

#endif
