// The reference runtime's handle: allocation accounting and failure injection, registry, errors,
// variants, OIDs, statistics, hooks, header wire pieces and dependent-bundle registrations.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "tests/prim_fixture.h"

namespace {

struct HandleTest : ::testing::Test {
    mgx_handle_t *h = recording_handle();
    void TearDown() override {
        EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
        EXPECT_EQ(mgx_handle_bookkeeping(h), 0u);
        mgx_handle_destroy(h);
    }
    void *alloc(size_t n) { return h->inst_alloc(h->alloc_ctx, 1, n); }
    void release(void *p) { h->inst_free(h->alloc_ctx, 1, p); }
};

// A descriptor with the given name and variant count, as a bundle would export it.
struct FakeType {
    mgx_variant_entry_t entries[3]{};
    mgx_type_variant_info_t vinfo{};
    mgx_type_info_t info{};
    FakeType(const char *name, int8_t variants, const char *fingerprint = "00112233445566778899aabbccddeeff") {
        info.magic = MGX_TYPE_INFO_MAGIC;
        std::snprintf(info.type_name, sizeof info.type_name, "%s", name);
        std::snprintf(info.fingerprint_text, sizeof info.fingerprint_text, "%s", fingerprint);
        vinfo.n_variants = variants;
        vinfo.entries = entries;
        for (int i = 0; i < variants; ++i) entries[i] = {static_cast<uint32_t>(i), 16, 8, 0, {}};
        info.variant_info = &vinfo;
        info.registry_slot = -1;
    }
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
    for (void *p : {a, b, c, d}) release(p);
    EXPECT_EQ(mgx_handle_live_bytes(h), 0u);
    EXPECT_EQ(mgx_handle_total_allocations(h), 4u);
}

// The live-block table under churn: growth, reuse of freed slots and rehashing keep every block
// and its size; a block freed once is no longer the handle's.
TEST_F(HandleTest, AccountingHoldsThroughHeavyChurn) {
    std::vector<void *> blocks;
    for (size_t round = 0; round < 4; ++round) {
        for (size_t i = 0; i < 3000; ++i) {
            blocks.push_back(alloc(i % 97 + 1));
        }
        for (size_t i = 0; i < blocks.size(); i += 2) { // every other block goes
            release(blocks[i]);
            blocks[i] = nullptr;
        }
        std::vector<void *> kept;
        for (void *p : blocks)
            if (p) kept.push_back(p);
        blocks.swap(kept);
        EXPECT_EQ(mgx_handle_live_allocations(h), blocks.size());
    }
    for (void *p : blocks) release(p);
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
    EXPECT_EQ(mgx_handle_live_bytes(h), 0u);
    EXPECT_EQ(mgx_handle_total_allocations(h), 12000u);
    void *again = alloc(8);
    release(again);
    EXPECT_DEATH(release(again), "does not own");
}

// A freed small block serves the next request of its 16-byte size class, whole; the accounting
// follows the sizes asked for. (AddressSanitizer builds keep no freed blocks.)
TEST_F(HandleTest, FreedSmallBlocksServeTheNextRequestOfTheirClass) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "freed blocks go straight back to the heap under AddressSanitizer";
#endif
    void *a = alloc(20);
    release(a);
    void *b = alloc(32);
    EXPECT_EQ(b, a);
    std::memset(b, 0xAB, 32);
    void *c = alloc(33); // the next class up
    EXPECT_NE(c, a);
    EXPECT_EQ(mgx_handle_live_bytes(h), 65u);
    EXPECT_EQ(mgx_handle_total_allocations(h), 3u);
    release(b);
    release(c);
    EXPECT_EQ(mgx_handle_live_bytes(h), 0u);
}

TEST_F(HandleTest, FreeOfForeignBlockAborts) {
    int local = 0;
    EXPECT_DEATH(release(&local), "does not own");
}

TEST_F(HandleTest, CallsiteTagGoesToTheNextAllocation) {
    plinth_set_callsite_tag(0xB03C3000);
    void *a = alloc(8);
    void *b = alloc(8); // untagged
    plinth_set_callsite_tag(0xB03C3001);
    mgx_handle_fail_allocation(h, 1);
    EXPECT_EQ(alloc(8), nullptr); // a failed allocation still consumes its tag
    ASSERT_EQ(mgx_callsite_tag_count(h), 2u);
    EXPECT_EQ(mgx_callsite_tag(h, 0), 0xB03C3000u);
    EXPECT_EQ(mgx_callsite_tag(h, 1), 0xB03C3001u);
    release(a);
    release(b);
}

TEST_F(HandleTest, RegistryInsertLookupAndAllocationFailure) {
    FakeType t("sess_mgr_conn_hdl", 1);
    EXPECT_EQ(h->reg_lookup(h->reg_ctx, 1, t.info.fingerprint_text), nullptr);
    void *copy = h->reg_alloc(h->reg_mem_ctx, MGX_LUID_NONE, sizeof(mgx_type_info_reg_t));
    ASSERT_NE(copy, nullptr);
    h->reg_insert(h->reg_ctx, 1, t.info.fingerprint_text, copy);
    EXPECT_EQ(h->reg_lookup(h->reg_ctx, 1, t.info.fingerprint_text), copy);
    EXPECT_EQ(mgx_handle_registry_count(h), 1u);
    mgx_handle_fail_registry_allocation(h, 1);
    EXPECT_EQ(h->reg_alloc(h->reg_mem_ctx, MGX_LUID_NONE, 288), nullptr);
    // Registry copies belong to the handle: they are not instance allocations.
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
}

void register_fake(mgx_handle_t *h, uint32_t luid, uint32_t *) {
    static FakeType t("registered_type", 1, "ffeeddccbbaa99887766554433221100");
    auto *copy = static_cast<mgx_type_info_t *>(h->reg_alloc(h->reg_mem_ctx, MGX_LUID_NONE, 288));
    *copy = t.info;
    h->reg_insert(h->reg_ctx, luid, copy->fingerprint_text, copy);
}

TEST_F(HandleTest, TypeInfoPtrGetRegistersTheBundleOnce) {
    FakeType t("registered_type", 1, "ffeeddccbbaa99887766554433221100");
    void *first = mgx_type_info_ptr_get(h, 1, &t.info, register_fake);
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first, &t.info);
    EXPECT_EQ(mgx_type_info_ptr_get(h, 1, &t.info, register_fake), first);
    EXPECT_EQ(mgx_handle_registry_count(h), 1u);
    mgx_update_variant_info(h, 1, first, &t.info, 0);
    EXPECT_EQ(static_cast<mgx_type_info_t *>(first)->variant_info, &t.vinfo);
    ASSERT_EQ(mgx_hook_count_kind(h, MGX_HOOK_UPDATE_VARIANT_INFO), 1u);
    EXPECT_EQ(mgx_hook_entry(h, 0)->arg, 0);
}

TEST_F(HandleTest, ErrorStoreAndLuid) {
    uint32_t err = 0;
    mgx_store_err(h, 12);
    EXPECT_EQ(mgx_handle_last_error(h), 12u);
    mgx_clear_last_error(h, 1, nullptr);
    EXPECT_EQ(mgx_handle_last_error(h), 0u);
    mgx_store_epoch_err(h, 43, &err);
    EXPECT_EQ(err, 43u);
    EXPECT_EQ(mgx_handle_last_error(h), 43u);
    mgx_handle_set_descriptor_luid(h, 77);
    EXPECT_EQ(mgx_get_luid(h, 5), 5u);
    EXPECT_EQ(mgx_get_luid(h, MGX_LUID_NONE), 77u);
}

TEST_F(HandleTest, DomainVariantAndAdjustment) {
    FakeType t("sess_mgr_session_start", 2);
    EXPECT_EQ(mgx_domain_lookup_variant(h, &h->variant_domain, &t.info, nullptr), 1); // default: highest
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 0);
    EXPECT_EQ(mgx_domain_lookup_variant(h, &h->variant_domain, &t.info, nullptr), 0);

    alignas(8) uint8_t inst[32] = {};
    auto *hdr = reinterpret_cast<mgx_instance_hdr_t *>(inst);
    hdr->descriptor = &t.info;
    uint32_t err = 0;
    mgxlib_adjust_variant(h, 1, inst, &t.info, 1, &err);
    EXPECT_EQ(hdr->layout, 0); // domain at 0: nothing to raise
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 5);
    mgx_journal_clear(h);
    EXPECT_EQ(mgxlib_adjust_variant(h, 1, inst, &t.info, 1, &err), 1u); // capped to the highest
    EXPECT_EQ(hdr->layout, 1);
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, &hdr->layout);
    EXPECT_EQ(err, 0u);
}

TEST_F(HandleTest, OidMappingWithOutstandingReferences) {
    void *inst = alloc(24);
    std::memset(inst, 0, 24);
    uint64_t oid = mgx_oid_map(h, inst);
    EXPECT_TRUE(static_cast<mgx_instance_hdr_t *>(inst)->flags & MGX_IF_OID_MAPPED);
    mgx_oid_add_ref(h, oid);
    mgx_oid_add_ref(h, oid);
    uint32_t err = 0;
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 1, inst, &err), 0); // references outstanding
    EXPECT_EQ(err, 0u);
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_EQ(mgx_oid_ref_count(h, oid), 1u);
    // The last release finishes the deferred removal; the instance has no type descriptor, so
    // the runtime only drops the mapping.
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_FALSE(mgx_oid_exists(h, oid));
    EXPECT_FALSE(static_cast<mgx_instance_hdr_t *>(inst)->flags & MGX_IF_OID_MAPPED);
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_EQ(err, 2u); // unknown OID

    err = 0;
    uint64_t oid2 = mgx_oid_map(h, inst);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 1, inst, &err), 1);
    EXPECT_FALSE(mgx_oid_exists(h, oid2));
    mgx_handle_fail_oid_mapping_destroy(h, 5);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 1, inst, &err), 0);
    EXPECT_EQ(err, 5u);
    release(inst);
}

TEST_F(HandleTest, FreeingABlockDropsItsBookkeeping) {
    uint8_t *inst = static_cast<uint8_t *>(alloc(64));
    mgxlib_update_sttr_offset(h, 1, inst + 16, 40);
    mgx_retained_data_set(h, inst, "ab", 2);
    mgx_oid_map(h, std::memset(inst, 0, 64));
    int64_t off = 0;
    ASSERT_TRUE(mgx_sttr_offset_lookup(h, inst + 16, &off));
    EXPECT_EQ(off, 40);
    EXPECT_EQ(mgxlib_get_sttr_offset(h, 1, inst + 16), 40);
    release(inst);
    uint8_t *again = static_cast<uint8_t *>(alloc(64)); // may reuse the address
    EXPECT_FALSE(mgx_sttr_offset_lookup(h, again + 16, nullptr));
    EXPECT_EQ(mgx_retained_data_get(h, again, nullptr), 0u);
    release(again);
}

TEST_F(HandleTest, StatisticsCountPerVariantAndFailOnRequest) {
    FakeType t("counted", 2);
    uint32_t err = 0;
    mgxlib_type_stats_create_object(h, 1, &t.info, t.entries[1].stats, &err);
    mgxlib_type_stats_create_object(h, 1, &t.info, t.entries[1].stats, &err);
    mgxlib_type_stats_destroy_object(h, 1, &t.info, t.entries[1].stats, &err);
    EXPECT_EQ(mgx_stats_created(&t.info, 1), 2u);
    EXPECT_EQ(mgx_stats_destroyed(&t.info, 1), 1u);
    EXPECT_EQ(mgx_stats_created(&t.info, 0), 0u);
    mgx_handle_fail_stats(h, 12);
    mgxlib_type_stats_create_object(h, 1, &t.info, t.entries[0].stats, &err);
    EXPECT_EQ(err, 12u);
    EXPECT_EQ(mgx_stats_created(&t.info, 0), 0u);
}

TEST_F(HandleTest, DatabaseHooksAreRecordedInOrder) {
    int a = 0, b = 0;
    mgxdb_record_containment2(h, 3, &a, &b, 1);
    mgxdb_plat_set_dirty(h, 3, &a);
    mgxdb_plat_set_detach(h, 3, &a);
    mgxdb_plat_set_destroy(h, 3, &a);
    ASSERT_EQ(mgx_hook_count(h), 4u);
    EXPECT_EQ(mgx_hook_entry(h, 0)->kind, MGX_HOOK_CONTAINMENT);
    EXPECT_EQ(mgx_hook_entry(h, 0)->container, &b);
    EXPECT_EQ(mgx_hook_entry(h, 1)->kind, MGX_HOOK_DIRTY);
    EXPECT_EQ(mgx_hook_entry(h, 2)->kind, MGX_HOOK_DETACH);
    EXPECT_EQ(mgx_hook_entry(h, 3)->kind, MGX_HOOK_DESTROY);
    EXPECT_EQ(mgx_hook_entry(h, 3)->luid, 3u);
}

TEST_F(HandleTest, HeaderPiecesRoundTripAndRefuseShortBuffers) {
    uint8_t buf[16] = {};
    uint32_t err = 0;
    EXPECT_EQ(_mgx_instance_variant_marshal(h, 1, buf, -2, 1, &err), 1u);
    EXPECT_EQ(_mgx_variant_jump_marshal(h, 1, buf + 1, 0x01020304, 4, &err), 4u);
    EXPECT_EQ(buf[1], 0x01); // network byte order
    EXPECT_EQ(buf[4], 0x04);
    int8_t v = 0;
    uint32_t jump = 0;
    EXPECT_EQ(_mgx_instance_variant_unmarshal(h, 1, buf, &v, 1, &err), 1u);
    EXPECT_EQ(_mgx_variant_jump_unmarshal(h, 1, buf + 1, &jump, 4, &err), 4u);
    EXPECT_EQ(v, -2);
    EXPECT_EQ(jump, 0x01020304u);
    EXPECT_EQ(err, 0u);

    EXPECT_EQ(_mgx_variant_jump_marshal(h, 1, buf, 1, 3, &err), 0u);
    EXPECT_EQ(err, 90u);
    err = 0;
    EXPECT_EQ(_mgx_instance_obj_flag_unmarshal(h, 1, buf, nullptr, 0, &err), 0u);
    EXPECT_EQ(err, 90u);
    EXPECT_EQ(mgx_handle_last_error(h), 90u);
}

TEST_F(HandleTest, RetainedDataBlockRoundTrip) {
    void *a = alloc(16), *b = alloc(16); // the retained data goes with its block (checked at the end)
    mgx_retained_data_set(h, a, "xyz", 3);
    std::vector<uint8_t> buf(5);
    uint32_t err = 0;
    EXPECT_EQ(_mgx_instance_ra_data_marshal(h, 1, buf.data(), a, 4, &err), 0u); // needs 5
    EXPECT_EQ(err, 90u);
    err = 0;
    ASSERT_EQ(_mgx_instance_ra_data_marshal(h, 1, buf.data(), a, 5, &err), 5u);
    EXPECT_EQ(_mgx_instance_ra_data_unmarshal(h, 1, buf.data(), b, 4, &err), 0u); // truncated block
    err = 0;
    ASSERT_EQ(_mgx_instance_ra_data_unmarshal(h, 1, buf.data(), b, 5, &err), 5u);
    const void *bytes = nullptr;
    ASSERT_EQ(mgx_retained_data_get(h, b, &bytes), 3u);
    EXPECT_EQ(std::memcmp(bytes, "xyz", 3), 0);
    EXPECT_EQ(mgx_handle_bookkeeping(h), 2u);
    release(a);
    release(b);
}

TEST_F(HandleTest, WorkSpaceGrowsOnDemand) {
    uint32_t len = 0;
    void *ws = mgxlib_get_handle_ws(h, 10, &len);
    ASSERT_NE(ws, nullptr);
    EXPECT_GE(len, 10u);
    mgxlib_get_handle_ws(h, 1u << 20, &len);
    EXPECT_GE(len, 1u << 20);
}

TEST(Bundles, RegistrationsAreLoggedInCallOrder) {
    mgx_bundle_calls_clear();
    if_common_bundle_handler_register(0x42, nullptr);
    platform_comm_bundle_handler_register(0x42);
    aaa_common_bundle_handler_unregister();
    ASSERT_EQ(mgx_bundle_call_count(), 3u);
    EXPECT_STREQ(mgx_bundle_call(0), "if_common_bundle_handler_register(0x42, (nil))");
    EXPECT_STREQ(mgx_bundle_call(1), "platform_comm_bundle_handler_register(0x42)");
    EXPECT_STREQ(mgx_bundle_call(2), "aaa_common_bundle_handler_unregister()");
    mgx_bundle_calls_clear();
}

} // namespace
