// What the handle records while operations run: nothing until a recorder is switched on, and
// call-site tags that belong to the thread that set them.
#include <gtest/gtest.h>

#include <thread>

#include "mgx/runtime.h"

namespace {

struct Recording : ::testing::Test {
    mgx_handle_t *h = mgx_handle_create();
    mgx_variant_entry_t entries[2]{};
    mgx_type_variant_info_t variants{2, {}, entries};
    mgx_type_info_t info{};
    mgx_instance_hdr_t instance{};

    void SetUp() override {
        info.magic = MGX_TYPE_INFO_MAGIC;
        info.variant_info = &variants;
    }
    void TearDown() override {
        EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
        mgx_handle_destroy(h);
    }
    // Two calls that feed the recorders: a write through the handle's hook (the layout byte
    // raised to variant 1) and a variant-info refresh.
    void run_both() {
        instance.layout = 0;
        uint32_t err = 0;
        mgxlib_adjust_variant(h, 1, &instance, &info, 1, &err);
        mgx_update_variant_info(h, 1, &info, &info, 0);
    }
};

// A new handle records nothing and has no write hook; each recorder keeps only while it is on.
TEST_F(Recording, EveryRecorderIsOffUntilSwitchedOn) {
    EXPECT_EQ(mgx_handle_recorders(h), 0u);
    EXPECT_EQ(h->write_hook, nullptr);
    run_both();
    EXPECT_EQ(mgx_journal_count(h) + mgx_hook_count(h), 0u);

    mgx_handle_set_recorders(h, MGX_RECORD_JOURNAL);
    ASSERT_NE(h->write_hook, nullptr);
    run_both();
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, static_cast<const void *>(&instance.layout));
    EXPECT_EQ(mgx_hook_count(h), 0u);

    mgx_handle_set_recorders(h, MGX_RECORD_HOOKS);
    EXPECT_EQ(h->write_hook, nullptr);
    run_both();
    EXPECT_EQ(mgx_journal_count(h), 1u); // kept from before, not added to
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_UPDATE_VARIANT_INFO), 1u);

    // A hook of the caller's own stays through both switches.
    static int calls = 0;
    mgx_write_hook_fn own = [](mgx_handle_t *, const void *, size_t, uint32_t, const void *) { ++calls; };
    h->write_hook = own;
    mgx_handle_set_recorders(h, MGX_RECORD_ALL);
    mgx_handle_set_recorders(h, 0);
    EXPECT_EQ(h->write_hook, own);
    run_both();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(mgx_journal_count(h), 1u);
}

// A tag goes to the next allocation of the thread that set it, failed or not, and is kept only
// while its recorder is on.
TEST_F(Recording, CallsiteTagIsTakenByTheNextAllocationOfItsOwnThread) {
    mgx_handle_set_recorders(h, MGX_RECORD_CALLSITE_TAGS);
    auto alloc = [this] { return h->inst_alloc(h->alloc_ctx, 1, 8); };
    void *mine = nullptr, *theirs = nullptr;
    std::thread other([&] {
        plinth_set_callsite_tag(0xB03C3002);
        std::thread([&] { mine = alloc(); }).join(); // untagged thread
        theirs = alloc();
    });
    other.join();
    void *untagged = alloc(); // the tag was consumed: none is left
    plinth_set_callsite_tag(0xB03C3003);
    mgx_handle_fail_allocation(h, 1);
    EXPECT_EQ(alloc(), nullptr);
    // With the recorder off a tag is consumed all the same, and not kept.
    mgx_handle_set_recorders(h, 0);
    plinth_set_callsite_tag(0xB03C3004);
    void *quiet = alloc();
    mgx_handle_set_recorders(h, MGX_RECORD_CALLSITE_TAGS);
    void *after = alloc();
    ASSERT_EQ(mgx_callsite_tag_count(h), 2u);
    EXPECT_EQ(mgx_callsite_tag(h, 0), 0xB03C3002u);
    EXPECT_EQ(mgx_callsite_tag(h, 1), 0xB03C3003u);
    for (void *p : {mine, theirs, untagged, quiet, after}) h->inst_free(h->alloc_ctx, 1, p);
}

} // namespace
