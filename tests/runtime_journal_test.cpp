// What the handle records while operations run: nothing until a recorder is switched on, and
// call-site tags that belong to the thread that set them.
#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "mgx/runtime.h"

namespace {

struct Recording : ::testing::Test {
    mgx_handle_t *h = mgx_handle_create();
    mgx_variant_entry_t entries[2]{};
    mgx_type_variant_info_t variants{2, {}, entries};
    mgx_type_info_t info{};
    alignas(8) uint8_t instance[32] = {};

    void SetUp() override {
        info.magic = MGX_TYPE_INFO_MAGIC;
        std::snprintf(info.type_name, sizeof info.type_name, "%s", "sess_mgr_session_start");
        info.variant_info = &variants;
    }
    void TearDown() override {
        EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
        mgx_handle_destroy(h);
    }
    // A write the runtime makes through the handle's hook: the layout byte raised to variant 1.
    void write_once() {
        reinterpret_cast<mgx_instance_hdr_t *>(instance)->layout = 0;
        uint32_t err = 0;
        mgxlib_adjust_variant(h, 1, instance, &info, 1, &err);
    }
};

// A new handle records nothing and has no write hook; each recorder keeps only while it is on.
TEST_F(Recording, EveryRecorderIsOffUntilSwitchedOn) {
    EXPECT_EQ(mgx_handle_recorders(h), 0u);
    EXPECT_EQ(h->write_hook, nullptr);
    write_once();
    mgx_update_variant_info(h, 1, &info, &info, 0);
    EXPECT_EQ(mgx_journal_count(h), 0u);
    EXPECT_EQ(mgx_hook_count(h), 0u);

    mgx_handle_set_recorders(h, MGX_RECORD_JOURNAL);
    ASSERT_NE(h->write_hook, nullptr);
    write_once();
    mgx_update_variant_info(h, 1, &info, &info, 0);
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, static_cast<const void *>(&reinterpret_cast<mgx_instance_hdr_t *>(instance)->layout));
    EXPECT_EQ(mgx_hook_count(h), 0u);

    mgx_handle_set_recorders(h, MGX_RECORD_HOOKS);
    EXPECT_EQ(h->write_hook, nullptr);
    write_once();
    mgx_update_variant_info(h, 1, &info, &info, 0);
    EXPECT_EQ(mgx_journal_count(h), 1u); // kept from before, not added to
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_UPDATE_VARIANT_INFO), 1u);

    // A hook of the caller's own stays through both switches.
    static int calls = 0;
    mgx_write_hook_fn own = [](mgx_handle_t *, const void *, size_t, uint32_t, const void *) { ++calls; };
    h->write_hook = own;
    mgx_handle_set_recorders(h, MGX_RECORD_ALL);
    mgx_handle_set_recorders(h, 0);
    EXPECT_EQ(h->write_hook, own);
    write_once();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(mgx_journal_count(h), 1u);
}

TEST_F(Recording, CallsiteTagIsTakenOnlyByItsOwnThread) {
    mgx_handle_set_recorders(h, MGX_RECORD_CALLSITE_TAGS);
    void *mine = nullptr, *theirs = nullptr;
    std::thread other([&] {
        plinth_set_callsite_tag(0xB03C3002);
        std::thread([&] { mine = h->inst_alloc(h->alloc_ctx, 1, 8); }).join(); // untagged thread
        theirs = h->inst_alloc(h->alloc_ctx, 1, 8);
    });
    other.join();
    ASSERT_EQ(mgx_callsite_tag_count(h), 1u);
    EXPECT_EQ(mgx_callsite_tag(h, 0), 0xB03C3002u);
    void *untagged = h->inst_alloc(h->alloc_ctx, 1, 8); // the tag was consumed: none is left
    EXPECT_EQ(mgx_callsite_tag_count(h), 1u);
    // With the recorder off a tag is consumed all the same, and not kept.
    mgx_handle_set_recorders(h, 0);
    plinth_set_callsite_tag(0xB03C3003);
    void *quiet = h->inst_alloc(h->alloc_ctx, 1, 8);
    mgx_handle_set_recorders(h, MGX_RECORD_CALLSITE_TAGS);
    void *after = h->inst_alloc(h->alloc_ctx, 1, 8);
    EXPECT_EQ(mgx_callsite_tag_count(h), 1u);
    for (void *p : {mine, theirs, untagged, quiet, after}) h->inst_free(h->alloc_ctx, 1, p);
}

} // namespace
