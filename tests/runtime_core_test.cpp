// The reference runtime's handle: allocation accounting and failure injection, OIDs, the
// bookkeeping that goes with a block, and the header's wire pieces.
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
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

// A handle of its own, with the guard bytes given (none: the fast path's case). Freed blocks of
// the small sizes are kept for reuse, except under AddressSanitizer, which has to see every free.
struct OwnHandle {
    explicit OwnHandle(uint32_t guard = 0) { EXPECT_EQ(mgx_handle_set_guard_bytes(h, guard), 0); }
    ~OwnHandle() { mgx_handle_destroy(h); }
    uint8_t *alloc(size_t n) { return static_cast<uint8_t *>(h->inst_alloc(h->alloc_ctx, 1, n)); }
    void release(void *p) { h->inst_free(h->alloc_ctx, 1, p); }
    uint64_t live() const { return mgx_handle_live_allocations(h); }
    mgx_handle_t *h = mgx_handle_create();
};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool blocks_kept = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool blocks_kept = false;
#else
constexpr bool blocks_kept = true;
#endif
#else
constexpr bool blocks_kept = true;
#endif

// A freed block comes back for the next request of its size class, counted live again with the
// size now asked for; the freed address itself is no longer the handle's, whatever its old slot
// now holds, and neither is a block of another handle or an address inside a block.
TEST(KeptBlocks, AreLiveAgainWhenReusedAndTheirOldAddressIsForeign) {
    for (uint32_t guard : {0u, 8u}) {
        OwnHandle g(guard), other;
        uint8_t *a = g.alloc(24), *b = g.alloc(40), *c = g.alloc(24);
        g.release(a); // c takes over a's slot in the live list
        EXPECT_EQ(g.live(), 2u);
        EXPECT_EQ(mgx_handle_live_bytes(g.h), 64u);
        uint8_t *again = g.alloc(20);
        if (blocks_kept) {
            EXPECT_EQ(again, a);
        }
        EXPECT_EQ(g.live(), 3u);
        EXPECT_EQ(mgx_handle_live_bytes(g.h), 84u);
        EXPECT_EQ(mgx_handle_total_allocations(g.h), 4u);
        g.release(again);
        uint8_t *theirs = other.alloc(24);
        const std::vector<void *> foreign = {again, theirs, b + 16, b + 1};
        if (!guard) {
            for (void *p : foreign) EXPECT_DEATH(g.release(p), "does not own");
        } else {
            testing::internal::CaptureStderr();
            for (void *p : foreign) g.release(p);
            EXPECT_NE(testing::internal::GetCapturedStderr().find("does not own"), std::string::npos);
            EXPECT_EQ(mgx_handle_foreign_frees(g.h), foreign.size());
        }
        EXPECT_EQ(g.live(), 2u);
        other.release(theirs);
        g.release(b);
        g.release(c);
        EXPECT_EQ(g.live() + other.live(), 0u);
        EXPECT_EQ(mgx_handle_live_bytes(g.h), 0u);
        EXPECT_EQ(mgx_handle_overruns(g.h), 0u);
    }
}

// An armed failure refuses the allocation a kept block would have served (and that allocation
// still takes the pending call-site tag); the block serves the next one.
TEST(KeptBlocks, FailureInjectionReachesTheAllocationsTheyWouldServe) {
    OwnHandle g;
    mgx_handle_set_recorders(g.h, MGX_RECORD_CALLSITE_TAGS);
    uint8_t *p = g.alloc(24);
    g.release(p);
    mgx_handle_fail_allocation(g.h, 1);
    plinth_set_callsite_tag(0x5EED);
    EXPECT_EQ(g.alloc(24), nullptr);
    EXPECT_EQ(mgx_handle_allocation_failure_pending(g.h), 0u);
    ASSERT_EQ(mgx_callsite_tag_count(g.h), 1u);
    EXPECT_EQ(mgx_callsite_tag(g.h, 0), 0x5EEDu);
    EXPECT_EQ(mgx_handle_total_allocations(g.h), 1u);
    uint8_t *q = g.alloc(24);
    ASSERT_NE(q, nullptr);
    if (blocks_kept) {
        EXPECT_EQ(q, p);
    }
    mgx_handle_fail_allocation(g.h, 2);
    uint8_t *r = g.alloc(24);
    EXPECT_NE(r, nullptr);
    EXPECT_EQ(g.alloc(24), nullptr);
    EXPECT_EQ(mgx_callsite_tag_count(g.h), 1u); // no tag was pending since
    g.release(q);
    g.release(r);
    EXPECT_EQ(g.live(), 0u);
}

// A kept block carries its guard right behind the size it is asked for this time, and a change of
// guard bytes lets go of the blocks kept for the old one (a block laid out without them has no
// room for a guard).
TEST(KeptBlocks, CarryTheGuardBehindTheSizeAskedFor) {
    OwnHandle g(8);
    g.release(g.alloc(5));
    uint8_t *b = g.alloc(12);
    std::memset(b, 1, 12);
    g.release(b);
    EXPECT_EQ(mgx_handle_overruns(g.h), 0u);
    uint8_t *c = g.alloc(3);
    c[3] = 0;
    testing::internal::CaptureStderr();
    g.release(c);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("of 3 bytes was written past its end"), std::string::npos);
    EXPECT_EQ(mgx_handle_overruns(g.h), 1u);

    OwnHandle bare;
    for (size_t n : {16u, 200u, 512u}) bare.release(bare.alloc(n));
    ASSERT_EQ(mgx_handle_set_guard_bytes(bare.h, 4096), 0);
    for (size_t n : {16u, 200u, 512u}) {
        uint8_t *p = bare.alloc(n);
        std::memset(p, 2, n);
        bare.release(p);
    }
    EXPECT_EQ(mgx_handle_overruns(bare.h), 0u);
    EXPECT_EQ(bare.live(), 0u);
}

// Freeing a block drops the OID mapping, state-flag offsets and retained data inside it, on a
// handle whose frees otherwise take the short way; a block made again at the address holds none.
TEST(KeptBlocks, FreeingDropsTheBookkeepingInsideTheBlock) {
    OwnHandle g;
    // Each kind of entry alone, so that each is dropped by the free of its own block.
    uint8_t *mapped = g.alloc(32);
    std::memset(mapped, 0, 32);
    const uint64_t oid = mgx_oid_map(g.h, mapped);
    EXPECT_EQ(mgx_handle_bookkeeping(g.h), 2u); // the mapping, both ways
    g.release(mapped);
    EXPECT_FALSE(mgx_oid_exists(g.h, oid));
    EXPECT_EQ(mgx_handle_bookkeeping(g.h), 0u);
    uint8_t *offsets = g.alloc(32);
    ASSERT_EQ(mgx_sttr_offset_set(g.h, offsets + 16, 4), 0);
    g.release(offsets);
    EXPECT_EQ(mgx_handle_bookkeeping(g.h), 0u);
    uint8_t *retained = g.alloc(32);
    ASSERT_EQ(mgx_retained_data_set(g.h, retained, "xy", 2), 1);
    g.release(retained);
    EXPECT_EQ(mgx_handle_bookkeeping(g.h), 0u);
    uint8_t *again = g.alloc(32);
    const void *bytes = nullptr;
    EXPECT_EQ(mgx_retained_data_get(g.h, again, &bytes), 0u);
    EXPECT_EQ(mgx_sttr_offset_lookup(g.h, again + 16, nullptr), 0);
    g.release(again);
    EXPECT_EQ(g.live(), 0u);
}

// What the heap holds for the program, kept blocks included.
size_t heap_in_use() { return mallinfo2().uordblks; }

// Kept blocks are bounded per handle (256 KiB), whatever number of blocks a message frees, so
// the heap does not grow from one message to the next; they go back with the handle.
TEST(KeptBlocks, AreBoundedAndGoWithTheHandle) {
    if (!blocks_kept) GTEST_SKIP() << "nothing is kept, and the sanitizer's allocator is not the C library's heap";
    constexpr size_t kib = 1024, n = 4096, block = 128; // 100 bytes asked for: a class of 112, and the header
    const size_t before = heap_in_use();
    {
        OwnHandle g;
        std::vector<uint8_t *> blocks(n);
        size_t after_first = 0;
        for (int message = 0; message < 3; ++message) {
            for (uint8_t *&p : blocks) p = g.alloc(100);
            const size_t all_live = heap_in_use();
            for (uint8_t *p : blocks) g.release(p);
            const size_t after = heap_in_use();
            EXPECT_GE(all_live - after, n * block - 256 * kib - 8 * kib) << "message " << message;
            if (message == 0) after_first = after;
            EXPECT_LE(after, after_first + 8 * kib) << "message " << message;
        }
        EXPECT_EQ(g.live(), 0u);
    }
    EXPECT_LE(heap_in_use(), before + 16 * kib); // the C library's own caches of freed chunks aside
}

// A block whose address starts a page has its header on the page before: such blocks are found
// without a look in front of an address at a page's start that is not the handle's.
TEST(KeptBlocks, BlocksAtThePageStartAreOwnedAndForeignOnesThereAreNotRead) {
    OwnHandle g;
    std::vector<uint8_t *> blocks;
    size_t at_page_start = 0;
    // Heap chunks of 4 KiB and 16 bytes laid one after another start 16 bytes further into a page
    // each time: a few hundred of them meet every offset.
    for (int i = 0; i < 600; ++i) {
        blocks.push_back(g.alloc(4080));
        at_page_start += (reinterpret_cast<uintptr_t>(blocks.back()) & 4095) == 0;
    }
    if (blocks_kept) {
        EXPECT_GT(at_page_start, 0u);
    }
    std::reverse(blocks.begin(), blocks.end() - 100);
    for (uint8_t *p : blocks) g.release(p);
    EXPECT_EQ(g.live(), 0u);

    OwnHandle guarded(8);
    void *page = std::aligned_alloc(4096, 4096);
    testing::internal::CaptureStderr();
    guarded.release(page);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(mgx_handle_foreign_frees(guarded.h), 1u);
    std::free(page);
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
