// Allocation behaviour of the wire operations, over every type: encoding allocates nothing (not
// from the handle, not from the C++ heap), and decoding again into an instance whose strings,
// attribute lists and arrays have the same sizes (decode flags non-zero) allocates nothing and
// leaves an instance equal to the source.
#include <gtest/gtest.h>

#include <vector>

#include "mgx/runtime.h"
#include "tests/sm_fill.h"
#include "tests/sm_heap.h"

namespace {

using Ops = struct {
    uint32_t (*len)(mgx_handle_t *, uint32_t, const void *);
    uint32_t (*marshal)(mgx_handle_t *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
    uint32_t (*unmarshal)(mgx_handle_t *, uint32_t, const uint8_t *, void *, int32_t, uint32_t, uint32_t *);
    uint32_t (*adjust)(mgx_handle_t *, uint32_t, void *, uint32_t *);
    int32_t (*compare)(const void *, const void *);
};

Ops ops_of(const ovrin::Type &t) {
    return Ops{reinterpret_cast<decltype(Ops::len)>(testfill::op(t, "len")),
               reinterpret_cast<decltype(Ops::marshal)>(testfill::op(t, "marshal")),
               reinterpret_cast<decltype(Ops::unmarshal)>(testfill::op(t, "unmarshal")),
               reinterpret_cast<decltype(Ops::adjust)>(testfill::op(t, "adjust_variant")),
               reinterpret_cast<decltype(Ops::compare)>(testfill::op(t, "compare"))};
}

struct Counts {
    uint64_t handle, heap;
};
Counts counts(mgx_handle_t *h) { return {mgx_handle_total_allocations(h), heap::allocations()}; }

// Runs the checks over every record and union of the catalogue, each filled with every union
// member in turn, in a handle as the caller prepares it.
template <class Prepare> void every_type(Prepare prepare) {
    for (const ovrin::Type *t : testfill::types()) {
        if (t->kind == ovrin::TypeKind::enumeration) continue;
        uint32_t members = std::max(1u, testfill::members(*t));
        for (uint32_t arm = 0; arm < members; ++arm) {
            SCOPED_TRACE(std::string(t->name) + " member " + std::to_string(arm));
            mgx_handle_t *h = mgx_handle_create();
            prepare(h);
            Ops ops = ops_of(*t);
            void *source = testfill::create(*t, h);
            testfill::fill(*t, h, source, 7, arm);
            std::vector<uint8_t> wire(ops.len(h, 1, source) + 1), again(wire.size());
            auto space = static_cast<int32_t>(wire.size() - 1);
            uint32_t err = 0;

            Counts before = counts(h);
            uint32_t n = ops.marshal(h, 1, wire.data(), source, space, &err);
            Counts after = counts(h);
            ASSERT_EQ(err, 0u);
            EXPECT_EQ(after.handle, before.handle) << "encoding allocated from the handle";
            EXPECT_EQ(after.heap, before.heap) << "encoding allocated from the heap";

            void *target = testfill::create(*t, h);
            ops.adjust(h, 1, target, &err);
            ops.unmarshal(h, 1, wire.data(), target, static_cast<int32_t>(n), 0, &err);
            ASSERT_EQ(err, 0u);
            before = counts(h);
            uint32_t m = ops.unmarshal(h, 1, wire.data(), target, static_cast<int32_t>(n), 1, &err);
            after = counts(h);
            EXPECT_EQ(err, 0u);
            EXPECT_EQ(m, n);
            EXPECT_EQ(after.handle, before.handle) << "decoding into the same sizes allocated from the handle";
            EXPECT_EQ(after.heap, before.heap) << "decoding into the same sizes allocated from the heap";
            EXPECT_EQ(ops.compare(target, source), 0);
            EXPECT_EQ(ops.marshal(h, 1, again.data(), target, space, &err), n);
            EXPECT_TRUE(std::equal(wire.begin(), wire.begin() + n, again.begin()));

            testfill::destroy(*t, h, target);
            testfill::destroy(*t, h, source);
            EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
            mgx_handle_destroy(h);
        }
    }
}

TEST(WireAllocations, NoneWhileEncodingOrDecodingIntoTheSameSizes) {
    every_type([](mgx_handle_t *) {});
}

// A domain that names variants looks them up by type name for every record and enumeration
// written: still without building anything on the heap.
TEST(WireAllocations, NoneWithDomainVariantsSet) {
    every_type([](mgx_handle_t *h) {
        mgx_handle_set_domain_variant(h, "ovrin_smd_in_event", 2);
        mgx_handle_set_domain_variant(h, "ovrin_epm_bind_policy_info_long_name_that_is_not_a_type", 0);
    });
}

// A tracking handle carries state bytes and per-element flags through the same paths.
TEST(WireAllocations, NoneUnderStateTracking) {
    every_type([](mgx_handle_t *h) { mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED); });
}

} // namespace
