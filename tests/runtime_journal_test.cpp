// What the handle records while operations run: nothing until a recorder is switched on.
#include <gtest/gtest.h>

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

} // namespace
