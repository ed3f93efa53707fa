// The lifecycle of records, unions and enumerations: create, initialize, embed, destroy and
// sizes, with the placeholder, statistics, OID mappings and references, database hooks and the
// fatal paths.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_type_ops.h"

namespace {

using Lifecycle = RuntimeFixture;

TEST_F(Lifecycle, SizesFollowTheTrackingMode) {
    mgx_handle_set_state_tracking(h, 1, MGX_STTR_UNTRACKED);
    EXPECT_EQ(sess_mgr_conn_hdl_sizeof(h), 24u);
    EXPECT_EQ(sess_mgr_session_start_sizeof_internal(h, nullptr, 1, 1), 0u);
    track();
    EXPECT_EQ(sess_mgr_conn_hdl_sizeof(h), 25u);
    EXPECT_EQ(sess_mgr_session_start_sizeof(h), 232u);
    EXPECT_EQ(sess_mgr_session_start_sizeof_internal(h, nullptr, 0, 1), 32u);
    mgx_handle_set_state_tracking(h, 0, 0);
    auto *s = own(sess_mgr_session_start_create(h, 1), sess_mgr_session_start_destroy);
    EXPECT_EQ(sess_mgr_session_start_sizeof_internal(h, s, 0, 0), 168u); // layout byte 0: variant 0 plus 16
}

TEST_F(Lifecycle, CreateLaysDownTheHeaderThroughTheWriteHook) {
    mgx_journal_clear(h);
    auto *c = own(sess_mgr_conn_hdl_create(h, 7), sess_mgr_conn_hdl_destroy);
    EXPECT_EQ(c->descriptor, &_sess_mgr_conn_hdl_type_info_internal);
    ASSERT_GE(mgx_journal_count(h), 4u);
    // layout byte, variant, descriptor word, then the flags with the instance as base
    std::vector<const void *> written;
    for (size_t i = 0; i < 4; ++i) written.push_back(mgx_journal_entry(h, i)->address);
    EXPECT_EQ(written, (std::vector<const void *>{&c->layout, &c->variant, &c->descriptor, &c->flags}));
    EXPECT_EQ(mgx_journal_entry(h, 3)->base, c);

    // With a domain mode, instances point at the handle's registered copies.
    mgx_handle_set_domain_mode(h, 2);
    c = own(sess_mgr_conn_hdl_create(h, 7), sess_mgr_conn_hdl_destroy);
    EXPECT_EQ(c->descriptor, mgx_handle_registry_lookup(h, _sess_mgr_conn_hdl_type_info_internal.fingerprint_text));
}

TEST_F(Lifecycle, DescriptorCallsUseThePlaceholderAndFailWithTwelve) {
    mgx_handle_set_descriptor_luid(h, 9);
    mgx_handle_set_flags(h, MGX_HANDLE_PLACEHOLDER);
    sess_mgr_conn_hdl *p = sess_mgr_conn_hdl_create_cr(h);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(mgx_handle_total_allocations(h), 0u);
    sess_mgr_conn_hdl_destroy(h, 1, p); // the placeholder is never freed

    mgx_handle_set_flags(h, 0);
    mgx_handle_fail_allocation(h, 1);
    EXPECT_EQ(sess_mgr_conn_hdl_create_cr(h), p); // allocation failed: the placeholder, error 12
    EXPECT_EQ(mgx_handle_last_error(h), 12u);

    mgx_clear_last_error(h, 1, nullptr);
    mgx_handle_fail_allocation(h, 1);
    EXPECT_EQ(sess_mgr_conn_hdl_create(h, 1), nullptr); // public create: null, deliberately no error
    EXPECT_EQ(mgx_handle_last_error(h), 0u);
}

TEST_F(Lifecycle, InitializeFailureInCreateFreesTheBlockAndTraces) {
    // (a record's message, with its colon, is the library-file test's)
    mgx_handle_fail_stats(h, 12);
    EXPECT_EQ(sm_auth_domain_create(h, 1), nullptr);
    EXPECT_TRUE(traced("error in sm_auth_domain create Cannot allocate memory", 3)); // an enumeration's: no colon
}

TEST_F(Lifecycle, NestedInitializeNeedsAStateBaseOnlyWhenTracked) {
    alignas(8) uint8_t block[sizeof(sess_mgr_session_start) + 32] = {};
    auto *s = reinterpret_cast<sess_mgr_session_start *>(block);
    auto initialize = [&](uint8_t flags) {
        sess_mgr_session_start_initialize(h, 1, s, &_sess_mgr_session_start_type_info_internal, 0, 0, flags, nullptr, &err);
    };
    initialize(MGX_IF_NESTED);
    EXPECT_EQ(take_err(), 0u); // untracked: no base needed
    EXPECT_NE(s->hdl.descriptor, nullptr);
    sess_mgr_session_start_destroy_internal(h, 1, s, 0);

    std::memset(block, 0, sizeof block);
    track();
    initialize(MGX_IF_NESTED);
    EXPECT_EQ(take_err(), 22u);
    EXPECT_EQ(s->hdl.descriptor, nullptr); // fields left alone
}

// An array element whose creation the runtime cannot count fails the decode with the runtime's
// code; the element takes its initialisation back rather than being destroyed (its nested
// instances were never made), and nothing stays counted.
TEST_F(Lifecycle, AnElementThatCannotBeCountedIsTakenBackNotDestroyed) {
    auto *src = own(sess_mgr_sess_attr_query_resp_create(h, 1), sess_mgr_sess_attr_query_resp_destroy);
    auto *dst = own(sess_mgr_sess_attr_query_resp_create(h, 1), sess_mgr_sess_attr_query_resp_destroy);
    auto *value = own(sess_mgr_query_resp_create(h, 1), sess_mgr_query_resp_destroy);
    sess_mgr_sess_attr_query_resp_resp_array_set(h, 1, src, 1, value, &err);
    const std::vector<uint8_t> wire = typeops::encode(typeops::of("sess_mgr_sess_attr_query_resp"), h, src, &err);
    ASSERT_EQ(err, 0u);
    const void *element = &_sess_mgr_query_resp_type_info_internal;
    uint64_t created = mgx_stats_created(element, 0), destroyed = mgx_stats_destroyed(element, 0);
    mgx_handle_fail_stats(h, 12); // the first element's own count
    // In a child: destroying an element that took itself back is the library's fatal check.
    in_child("a decode whose first element cannot be counted", [&] {
        sess_mgr_sess_attr_query_resp_unmarshal(h, 1, wire.data(), dst, static_cast<int32_t>(wire.size()), 0, &err);
        EXPECT_EQ(err, 12u);
        EXPECT_EQ(dst->resp_array, nullptr);
        EXPECT_EQ(mgx_stats_created(element, 0) - created, mgx_stats_destroyed(element, 0) - destroyed);
    });
    mgx_handle_fail_stats(h, 0);
}

TEST_F(Lifecycle, DestroyWithoutFreeingKeepsTheBlockAndAUnionFreesEveryMember) {
    sess_mgr_conn_hdl *c = sess_mgr_conn_hdl_create(h, 1);
    sess_mgr_conn_hdl_destroy_internal(h, 1, c, 0);
    EXPECT_EQ(mgx_handle_live_allocations(h), 1u);
    sess_mgr_conn_hdl_destroy(h, 1, c);

    // whatever the discriminator selects
    ovrin_smd_resp_event *e = ovrin_smd_resp_event_create(h, 1);
    e->reg_result = session_mgr_reg_result_create(h, 1);
    e->new_client = sess_mgr_new_client_notif_create(h, 1);
    e->authc_result = sess_mgr_authc_result_notif_create(h, 1);
    e->resp_type.value = 3;
    EXPECT_EQ(mgx_handle_live_allocations(h), 4u);
    ovrin_smd_resp_event_destroy(h, 1, e);
}

TEST_F(Lifecycle, OidMappingOutcomes) {
    // Outstanding references keep the instance until the last one is released.
    sess_mgr_conn_hdl *c = sess_mgr_conn_hdl_create(h, 1);
    uint64_t oid = mgx_oid_map(h, c);
    mgx_oid_add_ref(h, oid);
    sess_mgr_conn_hdl_destroy(h, 1, c);
    EXPECT_EQ(mgx_handle_live_allocations(h), 1u);
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u);

    // A failing removal keeps the instance and stores the error.
    c = own(sess_mgr_conn_hdl_create(h, 1), sess_mgr_conn_hdl_destroy);
    mgx_oid_map(h, c);
    mgx_handle_fail_oid_mapping_destroy(h, 5);
    sess_mgr_conn_hdl_destroy(h, 1, c);
    EXPECT_EQ(mgx_handle_last_error(h), 5u);
    EXPECT_EQ(mgx_handle_live_allocations(h), 1u);
}

// A copy of an attribute list set into another record holds its own reference to each object (the
// count goes up with the set and back down with that record's destroy); a clone copies what the
// wire carries, which holds no reference; destroy releases what the list holds.
TEST_F(Lifecycle, DestroyReleasesTheReferencesOfAttributeLists) {
    auto *target = own(sess_mgr_conn_hdl_create(h, 1), sess_mgr_conn_hdl_destroy);
    uint64_t oid = mgx_oid_map(h, target);
    const typeops::Ops &session_start = typeops::of("sess_mgr_session_start");
    for (uint32_t fail : {0u, 22u}) {
        sess_mgr_session_start *s = sess_mgr_session_start_create(h, 1);
        aaa_tlv_add_object_reference(h, 1, &s->identity_attrs, oid, &err);
        ASSERT_EQ(err, 0u);
        EXPECT_EQ(mgx_oid_ref_count(h, oid), 1u);
        sess_mgr_session_start *other = sess_mgr_session_start_create(h, 1);
        sess_mgr_session_start_identity_attrs_set(h, 1, other, &s->identity_attrs, &err);
        ASSERT_EQ(err, 0u);
        EXPECT_EQ(mgx_oid_ref_count(h, oid), 2u);
        auto *copy = static_cast<sess_mgr_session_start *>(typeops::clone(session_start, h, s, &err));
        ASSERT_EQ(err, 0u);
        EXPECT_EQ(aaa_tlv_get_oid_count(h, 1, &copy->identity_attrs, &err), 0u);
        for (auto *p : {copy, other}) sess_mgr_session_start_destroy(h, 1, p);
        EXPECT_EQ(mgx_oid_ref_count(h, oid), 1u);
        if (fail) mgx_handle_fail_oid_ref_release(h, fail);
        sess_mgr_session_start_destroy(h, 1, s);
        EXPECT_EQ(mgx_handle_live_allocations(h), 1u);        // only the target is left
        EXPECT_EQ(mgx_oid_ref_count(h, oid), fail ? 1u : 0u); // a failed release: the destroy goes on
    }
    mgxlib_lookup_and_update_oid_ref_count(h, 1, oid, 0, &err);
}

TEST_F(Lifecycle, DatabaseAndMappingHooks) {
    mgx_handle_set_flags(h, MGX_HANDLE_DATABASE | MGX_HANDLE_MAPPING);
    mgx_handle_set_domain_mode(h, 1);
    sess_mgr_conn_hdl *c = sess_mgr_conn_hdl_create(h, 4);
    ASSERT_EQ(mgx_hook_count_kind(h, MGX_HOOK_CONTAINMENT), 1u);
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_DIRTY), 1u);
    c->flags |= MGX_IF_HD_MAPPED;
    sess_mgr_conn_hdl_destroy(h, 4, c);
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_HD_MAPPING_DESTROY), 1u);
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_DESTROY), 1u);
}

TEST_F(Lifecycle, EmbeddingMarksEveryNestedHeader) {
    auto *s = own(sess_mgr_session_start_create(h, 1), sess_mgr_session_start_destroy);
    sess_mgr_session_start_set_instance_embedded(h, 1, s);
    for (uint8_t flags : {s->flags, s->hdl.flags, s->identity_attrs.hdr.flags, s->ext_params.encap_type.flags, s->cl_name.flags})
        EXPECT_TRUE(flags & MGX_IF_EMBEDDED);
}

using LifecycleDeath = Lifecycle;

TEST_F(LifecycleDeath, FatalConditionsTraceAndAbort) {
    mgx_trace_set_stderr_level(0);
    mgx_handle_set_state_tracking(h, 1, 0x1234);
    EXPECT_DEATH(sess_mgr_conn_hdl_create(h, 1), "Corrupted MGX Handle");
    mgx_handle_set_state_tracking(h, 0, 0);

    sess_mgr_conn_hdl *c = sess_mgr_conn_hdl_create(h, 1);
    c->descriptor = nullptr;
    EXPECT_DEATH(sess_mgr_conn_hdl_destroy(h, 1, c), "tinfo is null or corrupted");
    c->descriptor = &_sess_mgr_conn_hdl_type_info_internal;
    sess_mgr_conn_hdl_destroy(h, 1, c);

    EXPECT_DEATH(
        {
            _sess_mgr_conn_hdl_type_info_internal.variant_info = nullptr;
            sess_mgr_conn_hdl_create(h, 1);
        },
        "varinfo is NULL variant 0 requested only 0 variants present|varinfo is NULL");
    mgx_trace_set_stderr_level(-1);
}

} // namespace
