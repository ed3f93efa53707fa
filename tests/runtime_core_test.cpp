// The reference runtime's handle: allocation accounting and failure injection, OIDs, the
// bookkeeping that goes with a block, and the header's wire pieces.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "tests/prim_fixture.h"

namespace {

struct HandleTest : RuntimeFixture {
    void *alloc(size_t n) { return h->inst_alloc(h->alloc_ctx, 1, n); }
    void release(void *p) { h->inst_free(h->alloc_ctx, 1, p); }
};

TEST_F(HandleTest, AllocationAccountingAndFailureInjection) {
    void *a = alloc(24), *b = alloc(100);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(mgx_handle_live_allocations(h), 2u);
    EXPECT_EQ(mgx_handle_live_bytes(h), 124u);
    mgx_handle_fail_allocation(h, 2); // the second allocation from now fails, only that one
    void *c = alloc(8);
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(alloc(8), nullptr);
    void *d = alloc(8);
    EXPECT_NE(d, nullptr);
    // Guard bytes change only while no block is live; a write one byte past a block, and one at
    // the guard's last byte, are each counted when the block goes (or the handle with it).
    EXPECT_EQ(mgx_handle_set_guard_bytes(h, 8), MGX_EINVAL);
    for (void *p : {a, b, c, d}) release(p);
    EXPECT_EQ(mgx_handle_live_bytes(h), 0u);
    EXPECT_EQ(mgx_handle_total_allocations(h), 4u);

    // On a handle of its own: a write one byte past a block, and one at the guard's last byte, are
    // each counted when the block goes, or the handle with it.
    mgx_handle_t *g = mgx_handle_create();
    ASSERT_EQ(mgx_handle_set_guard_bytes(g, 8), 0);
    auto galloc = [g](size_t n) { return static_cast<uint8_t *>(g->inst_alloc(g->alloc_ctx, 1, n)); };
    uint8_t *e = galloc(5), *f = galloc(5), *kept = galloc(3);
    e[5] = 0;
    g->inst_free(g->alloc_ctx, 1, e);
    EXPECT_EQ(mgx_handle_overruns(g), 1u);
    std::memset(f, 1, 5);
    f[12] = 0;
    g->inst_free(g->alloc_ctx, 1, f);
    EXPECT_EQ(mgx_handle_overruns(g), 2u);
    kept[3] = 7;
    testing::internal::CaptureStderr();
    mgx_handle_destroy(g);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("of 3 bytes was written past its end (guard byte 0)"),
              std::string::npos);
}

// The live-block table under churn: growth, reuse of freed slots and rehashing keep every block
// and its size; a block freed once, or never allocated, is not the handle's.
TEST_F(HandleTest, AccountingHoldsThroughHeavyChurn) {
    std::vector<void *> blocks;
    for (size_t round = 0; round < 4; ++round) {
        for (size_t i = 0; i < 3000; ++i) blocks.push_back(alloc(i % 97 + 1));
        for (size_t i = 0; i < blocks.size(); i += 2) release(std::exchange(blocks[i], nullptr)); // every other one
        blocks.erase(std::remove(blocks.begin(), blocks.end(), nullptr), blocks.end());
        EXPECT_EQ(mgx_handle_live_allocations(h), blocks.size());
    }
    for (void *p : blocks) release(p);
    EXPECT_EQ(mgx_handle_live_bytes(h), 0u);
    EXPECT_EQ(mgx_handle_total_allocations(h), 12000u);
    // Without guard bytes such a free ends the process; with them it is counted and ignored.
    int local = 0;
    for (uint32_t guard : {0u, 8u}) {
        mgx_handle_t *g = mgx_handle_create();
        ASSERT_EQ(mgx_handle_set_guard_bytes(g, guard), 0);
        void *again = g->inst_alloc(g->alloc_ctx, 1, 8);
        g->inst_free(g->alloc_ctx, 1, again);
        if (!guard) {
            EXPECT_DEATH(g->inst_free(g->alloc_ctx, 1, again), "does not own");
            EXPECT_DEATH(g->inst_free(g->alloc_ctx, 1, &local), "does not own");
        } else {
            testing::internal::CaptureStderr();
            g->inst_free(g->alloc_ctx, 1, again);
            g->inst_free(g->alloc_ctx, 1, &local);
            EXPECT_NE(testing::internal::GetCapturedStderr().find("mgx: free of a block this handle does not own"),
                      std::string::npos);
            EXPECT_EQ(mgx_handle_foreign_frees(g), 2u);
        }
        mgx_handle_destroy(g);
    }
}

TEST_F(HandleTest, OidMappingWaitsForTheLastReference) {
    void *inst = std::memset(alloc(24), 0, 24);
    auto mapped = [&] { return (static_cast<mgx_instance_hdr_t *>(inst)->flags & MGX_IF_OID_MAPPED) != 0; };
    uint64_t oid = mgx_oid_map(h, inst);
    EXPECT_TRUE(mapped());
    mgx_oid_add_ref(h, oid);
    mgx_oid_add_ref(h, oid);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 1, inst, &err), 0); // references outstanding
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_EQ(mgx_oid_ref_count(h, oid), 1u);
    // The last release finishes the deferred removal; the instance has no type descriptor, so
    // the runtime only drops the mapping.
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_FALSE(mgx_oid_exists(h, oid) || mapped());
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_EQ(take_err(), MGX_ENOENT);
    oid = mgx_oid_map(h, inst);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 1, inst, &err), 1);
    EXPECT_FALSE(mgx_oid_exists(h, oid));
    release(inst);
}

// The header's pieces in network byte order, and each refused by a buffer one byte short.
TEST_F(HandleTest, HeaderPiecesRoundTripAndRefuseShortBuffers) {
    uint8_t buf[16] = {};
    EXPECT_EQ(_mgx_instance_variant_marshal(h, 1, buf, -2, 1, &err), 1u);
    EXPECT_EQ(_mgx_variant_jump_marshal(h, 1, buf + 1, 0x01020304, 4, &err), 4u);
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 5), std::vector<uint8_t>({0xFE, 1, 2, 3, 4}));
    int8_t v = 0;
    uint32_t jump = 0;
    EXPECT_EQ(_mgx_instance_variant_unmarshal(h, 1, buf, &v, 1, &err), 1u);
    EXPECT_EQ(_mgx_variant_jump_unmarshal(h, 1, buf + 1, &jump, 4, &err), 4u);
    EXPECT_EQ(v, -2);
    EXPECT_EQ(jump, 0x01020304u);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(_mgx_variant_jump_marshal(h, 1, buf, 1, 3, &err), 0u);
    EXPECT_EQ(take_err(), MGX_ESHORT);
    uint8_t flag = 0x5A;
    EXPECT_EQ(_mgx_instance_obj_flag_unmarshal(h, 1, buf, &flag, 0, &err) + flag, 0x5Au);
    EXPECT_EQ(take_err(), MGX_ESHORT);
    EXPECT_EQ(mgx_handle_last_error(h), MGX_ESHORT);

    // The retained-data block: a 16-bit length and the bytes, kept with the block they belong to.
    void *a = alloc(16), *b = alloc(16);
    mgx_retained_data_set(h, a, "xyz", 3);
    auto ra = exact_block(5);
    EXPECT_EQ(_mgx_instance_ra_data_marshal(h, 1, ra.get(), a, 4, &err), 0u);
    EXPECT_EQ(take_err(), MGX_ESHORT);
    ASSERT_EQ(_mgx_instance_ra_data_marshal(h, 1, ra.get(), a, 5, &err), 5u);
    EXPECT_EQ(std::vector<uint8_t>(ra.get(), ra.get() + 5), std::vector<uint8_t>({0, 3, 'x', 'y', 'z'}));
    EXPECT_EQ(_mgx_instance_ra_data_unmarshal(h, 1, ra.get(), b, 4, &err), 0u);
    EXPECT_EQ(take_err(), MGX_ESHORT);
    ASSERT_EQ(_mgx_instance_ra_data_unmarshal(h, 1, ra.get(), b, 5, &err), 5u);
    const void *bytes = nullptr;
    ASSERT_EQ(mgx_retained_data_get(h, b, &bytes), 3u);
    EXPECT_EQ(std::memcmp(bytes, "xyz", 3), 0);
    EXPECT_EQ(mgx_handle_bookkeeping(h), 2u);
    release(a);
    release(b);
}

} // namespace
