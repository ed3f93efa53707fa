// Union members, fixed and variable arrays and counted strings: member slots and the
// discriminator, the move of a whole union, variant-bound members, array bounds and growth,
// per-element flags, string copies and lengths, and the out-of-memory paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_check.h"
#include "tests/sm_type_ops.h"

namespace {

constexpr uint32_t luid = 7;

using Composite = RuntimeFixture;

// ---------------------------------------------------------------- unions

TEST_F(Composite, ASecondMemberKeepsBothSlotsAndOnlyTheSelectedOneDetaches) {
    auto *u = own(ovrin_smd_resp_event_create(h, luid), ovrin_smd_resp_event_destroy);
    auto *reg = session_mgr_reg_result_create(h, luid);
    auto *fresh = own(sess_mgr_new_client_notif_create(h, luid), sess_mgr_new_client_notif_destroy);
    ovrin_smd_resp_event_reg_result_set(h, luid, u, reg, &err);
    ovrin_smd_resp_event_new_client_set(h, luid, u, fresh, &err);
    ASSERT_EQ(take_err(), 0u);
    EXPECT_EQ(u->resp_type.value, SESS_MGR_RCL_NEW_CLIENT_NOTIFY_CB);
    EXPECT_EQ(ovrin_smd_resp_event_reg_result_get(h, luid, u, &err), reg);
    EXPECT_EQ(ovrin_smd_resp_event_new_client_get(h, luid, u, &err), fresh);

    // The switched-away member does not come out and stays where it was.
    EXPECT_EQ(ovrin_smd_resp_event_reg_result_get_detach(h, luid, u, &err), nullptr);
    EXPECT_EQ(u->reg_result, reg);
    EXPECT_EQ(ovrin_smd_resp_event_new_client_get_detach(h, luid, u, &err), fresh);
    EXPECT_EQ(u->new_client, nullptr);
    EXPECT_EQ(u->resp_type.value, 0u);
    EXPECT_EQ(ovrin_smd_resp_event_new_client_get_detach(h, luid, u, &err), nullptr);
    EXPECT_EQ(take_err(), 0u);
}

TEST_F(Composite, AReplacedMemberIsDetachedNotDestroyed) {
    mgx_handle_set_flags(h, MGX_HANDLE_DATABASE);
    mgx_handle_set_domain_mode(h, 1);
    mgx_handle_set_descriptor_luid(h, luid);
    auto *u = own(sess_mgr_oper_data_create(h, luid), sess_mgr_oper_data_destroy);
    auto *first = own(sess_mgr_ctrl_dir_create(h, luid), sess_mgr_ctrl_dir_destroy);
    auto *second = sess_mgr_ctrl_dir_create(h, luid);
    sess_mgr_oper_data_oper_ctrl_dir_set(h, luid, u, first, &err);
    mgx_hook_clear(h);
    EXPECT_EQ(sess_mgr_oper_data_oper_ctrl_dir_set_cr(h, u, second), 0u);
    ASSERT_EQ(mgx_hook_count_kind(h, MGX_HOOK_DETACH), 1u);
    bool detached_first = false;
    for (size_t i = 0; i < mgx_hook_count(h); ++i)
        detached_first |= mgx_hook_entry(h, i)->kind == MGX_HOOK_DETACH && mgx_hook_entry(h, i)->object == first;
    EXPECT_TRUE(detached_first);
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_DESTROY), 0u);
}

TEST_F(Composite, VariantBoundMembersAndDiscriminatorValues) {
    mgx_handle_set_domain_variant(h, "ovrin_smd_in_event", 1);
    auto *u = own(ovrin_smd_in_event_create(h, luid), ovrin_smd_in_event_destroy);
    ASSERT_EQ(reinterpret_cast<mgx_instance_hdr_t *>(u)->variant, 1);
    // (A set of a member the variant lacks is refused and changes nothing: the refused-set sweep.)
    EXPECT_EQ(ovrin_smd_in_event_reader_status_get(h, luid, u, &err), nullptr);
    EXPECT_EQ(take_err(), MGX_EVARIANT);

    // remote_update (value 25, travelling as 24) is chosen by the stored 25.
    auto *remote = own(sess_mgr_remote_update_create(h, luid), sess_mgr_remote_update_destroy);
    ovrin_smd_in_event_remote_update_set(h, luid, u, remote, &err);
    ASSERT_EQ(take_err(), 0u);
    EXPECT_EQ(u->event_type.value, SESS_MGR_RCL_IN_REMOTE_UPDATE);
    EXPECT_EQ(ovrin_smd_in_event_remote_update_get_detach(h, luid, u, &err), remote);

    // A discriminator set in place, through its getter, refuses a value beyond its variant.
    auto *o = own(sess_mgr_oper_data_create(h, luid), sess_mgr_oper_data_destroy);
    sm_oper_data_type_set_value(h, luid, sess_mgr_oper_data_oper_type_get(h, luid, o, &err), 2, &err);
    EXPECT_EQ(take_err(), MGX_EVARIANT);
    EXPECT_EQ(o->oper_type.value, 0u);
    // The discriminator's own scalar accessors: the enumeration's user value, marked set under
    // tracking (a value no literal has is refused: the refused-set sweep).
    sess_mgr_oper_data_oper_type_set_value(h, luid, o, 1, &err);
    EXPECT_EQ(sess_mgr_oper_data_oper_type_get_value(h, luid, o, &err), 1u);
    EXPECT_EQ(take_err(), 0u);
    track();
    auto *e = own(ovrin_smd_in_event_create(h, luid), ovrin_smd_in_event_destroy);
    ovrin_smd_in_event_event_type_set_value(h, luid, e, SESS_MGR_RCL_IN_REMOTE_UPDATE, &err);
    EXPECT_EQ(e->event_type.value, SESS_MGR_RCL_IN_REMOTE_UPDATE);
    EXPECT_EQ(ovrin_smd_in_event_event_type_get_value(h, luid, e, &err), uint32_t{SESS_MGR_RCL_IN_REMOTE_UPDATE});
    EXPECT_EQ(ovrin_smd_in_event_event_type_state_flag_get(h, luid, e, &err), 2);
    EXPECT_EQ(take_err(), 0u);
}

TEST_F(Composite, MemberFlagsUnderTracking) {
    auto *untracked = sess_mgr_ctrl_dir_create(h, luid);
    track();
    auto *u = own(sess_mgr_oper_data_create(h, luid), sess_mgr_oper_data_destroy);
    sess_mgr_oper_data_oper_ctrl_dir_set(h, luid, u, untracked, &err);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(traced("The val object is not state tracked"), 1u);
    EXPECT_EQ(u->oper_ctrl_dir, untracked); // stored all the same
    EXPECT_EQ(sess_mgr_oper_data_oper_ctrl_dir_state_flag_get(h, luid, u, &err), 0);

    auto *member = own(sess_mgr_ctrl_dir_create(h, luid), sess_mgr_ctrl_dir_destroy);
    EXPECT_EQ(sess_mgr_oper_data_oper_ctrl_dir_get_detach(h, luid, u, &err), untracked);
    sess_mgr_ctrl_dir_destroy(h, luid, untracked);
    sess_mgr_oper_data_oper_ctrl_dir_set(h, luid, u, member, &err);
    EXPECT_EQ(sess_mgr_oper_data_oper_ctrl_dir_state_flag_get(h, luid, u, &err), 2);
    EXPECT_EQ(ovrin_smd_resp_event_reg_result_state_flag_get(h, luid, nullptr, &err), 0);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(sess_mgr_oper_data_oper_ctrl_dir_get_detach(h, luid, u, &err), member);
    EXPECT_EQ(sess_mgr_oper_data_oper_ctrl_dir_state_flag_get(h, luid, u, &err), 0);
    EXPECT_EQ(take_err(), 0u);
}

// ---------------------------------------------------------------- fixed arrays

TEST_F(Composite, FixedArrayBoundsAndBulkCopies) {
    auto *p = own(sm_dot11_params_create(h, luid), sm_dot11_params_destroy);
    p->eType = 0xBEEF;
    // (set_mem with one element too many is refused and changes nothing: the refused-set sweep.)
    const u_int8 oui[4] = {0x00, 0x1B, 0x2C, 0x3D};
    sm_dot11_params_oui_set_mem(h, luid, p, oui, 3, &err);
    u_int8 out[4] = {9, 9, 9, 9};
    sm_dot11_params_oui_get_mem(h, luid, p, out, 4, &err);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(out[0], 9);
    sm_dot11_params_oui_get_mem(h, luid, p, out, 3, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(std::memcmp(out, oui, 3), 0);
    EXPECT_EQ(out[3], 9);

    EXPECT_EQ(sm_dot11_params_oui_get_value(h, luid, p, 3, &err), 0);
    EXPECT_EQ(take_err(), MGX_ENOENT);
    sm_dot11_params_oui_set_value(h, luid, p, 3, 0xFF, &err);
    EXPECT_EQ(take_err(), MGX_ENOENT);
    // The pointer form trusts its index: no error, and nothing past the array is touched (not
    // even the padding behind it).
    const u_int8 v = 0x77;
    const std::vector<uint8_t> before = bytes_at(p, 0, sizeof *p);
    for (uint32_t index : {3u, 4u, 1000u}) sm_dot11_params_oui_set(h, luid, p, index, &v, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(bytes_at(p, 0, sizeof *p), before);
    sm_dot11_params_oui_set(h, luid, p, 2, &v, &err);
    EXPECT_EQ(sm_dot11_params_oui_get_value(h, luid, p, 2, &err), 0x77);
}

TEST_F(Composite, FixedArrayFlagsAndTheAsymmetricFlagArrayCopy) {
    track();
    auto *p = own(sm_dot11_params_create(h, luid), sm_dot11_params_destroy);
    const u_int8 oui[3] = {1, 2, 3};
    sm_dot11_params_oui_set_mem(h, luid, p, oui, 3, &err);
    EXPECT_EQ(sm_dot11_params_oui_state_flag_whole_get(h, luid, p, &err), 2); // only the whole-array flag
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(sm_dot11_params_oui_state_flag_get(h, luid, p, i, &err), 0);
    sm_dot11_params_oui_set_value(h, luid, p, 1, 9, &err);
    EXPECT_EQ(sm_dot11_params_oui_state_flag_get(h, luid, p, 1, &err), 2);
    EXPECT_EQ(sm_dot11_params_oui_state_flag_get(h, luid, p, 3, &err), 0);
    EXPECT_EQ(take_err(), MGX_ENOENT);

    uint8_t *per_element = nullptr;
    sm_dot11_params_oui_state_flag_get_arr(h, luid, p, &per_element, &err);
    ASSERT_NE(per_element, nullptr);
    EXPECT_EQ(per_element[1], 2);
    const uint8_t flags[3] = {7, 8, 9};
    sm_dot11_params_oui_state_flag_set_arr(h, luid, p, flags, 2, &err);
    EXPECT_EQ(take_err(), MGX_ENOENT);
    mgx_journal_clear(h);
    sm_dot11_params_oui_state_flag_set_arr(h, luid, p, flags, 3, &err);
    EXPECT_EQ(take_err(), 0u);
    // Written at the start of the record's area (the first fields' bytes), unannounced.
    EXPECT_EQ(per_element[0], 0);
    EXPECT_EQ(per_element[1], 2);
    EXPECT_EQ(sm_dot11_params_apfMsBssid_state_flag_get(h, luid, p, &err), 7);
    EXPECT_EQ(sm_dot11_params_apfMsAddress_state_flag_get(h, luid, p, &err), 9);
    EXPECT_EQ(mgx_journal_count(h), 0u);

    mgx_handle_set_state_tracking(h, 1, MGX_STTR_UNTRACKED);
    sm_dot11_params_oui_state_flag_set_arr(h, luid, p, flags, 3, &err);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(traced("The object is not state tracked"), 0u);
}

// ---------------------------------------------------------------- variable arrays

fqdn_domain_name_bind *named(mgx_handle_t *h, const char *name) {
    auto *e = fqdn_domain_name_bind_create(h, luid);
    uint32_t err = 0;
    fqdn_domain_name_bind_name_set_cr(h, e, name, static_cast<uint32_t>(std::strlen(name)));
    fqdn_domain_name_bind_fqdn_register_set_value(h, luid, e, 1, &err);
    return e;
}

TEST_F(Composite, SettingIndexFiveOfAnEmptyArrayGrowsItExactly) {
    track();
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, luid), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *value = named(h, "a.example");
    uint64_t blocks = mgx_handle_live_allocations(h), used = mgx_handle_live_bytes(h);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 5, value, &err);
    ASSERT_EQ(take_err(), 0u);
    EXPECT_EQ(r->domain_names_length, 6u);
    // One block of six elements and a flag slot each (the element's area, at least two bytes),
    // plus the copied name.
    const size_t slot = std::max<size_t>(2, testfill::type("fqdn_domain_name_bind").sttr_size);
    EXPECT_EQ(mgx_handle_live_allocations(h), blocks + 2);
    EXPECT_EQ(mgx_handle_live_bytes(h), used + 6 * sizeof(fqdn_domain_name_bind) + 6 * slot + 10);
    for (uint32_t i = 0; i < 5; ++i) {
        fqdn_domain_name_bind *gap = ovrin_svm_epm_notify_domain_name_bind_domain_names_get(h, luid, r, i, &err);
        ASSERT_NE(gap, nullptr);
        EXPECT_EQ(gap->name_len, 0u);
        EXPECT_EQ(gap->name, nullptr);
        EXPECT_EQ(gap->descriptor, value->descriptor);
        EXPECT_NE(gap->flags & MGX_IF_NESTED, 0);
    }
    fqdn_domain_name_bind *last = &r->domain_names[5];
    EXPECT_STREQ(last->name, "a.example");
    EXPECT_NE(last->name, value->name);
    EXPECT_EQ(last->fqdn_register, 1);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_get(h, luid, r, 6, &err), nullptr);
    EXPECT_EQ(take_err(), MGX_ENOENT);

    // Flags: the whole array and element 5 (its first byte of two) are marked.
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_whole_get(h, luid, r, &err), 2);
    uint8_t *flags = nullptr;
    ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_get_arr(h, luid, r, &flags, &err);
    EXPECT_EQ(flags, reinterpret_cast<uint8_t *>(r->domain_names + 6));
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_get(h, luid, r, 5, &err), 2);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_get(h, luid, r, 4, &err), 0);
    EXPECT_EQ(take_err(), 0u);

    ovrin_svm_epm_notify_domain_name_bind_domain_names_remove_elements(h, luid, r);
    EXPECT_EQ(r->domain_names, nullptr);
    EXPECT_EQ(r->domain_names_length, 0u);
    EXPECT_EQ(mgx_handle_live_allocations(h), blocks);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_remove_elements(h, luid, r); // nothing left to do
    fqdn_domain_name_bind_destroy(h, luid, value);
}

TEST_F(Composite, GrowingANonEmptyArrayMovesElementsAndTracesOncePerProcess) {
    track();
    const std::string text = "Reallocating resource for sess_mgr_sess_attr_query_resp";
    auto *r = own(sess_mgr_sess_attr_query_resp_create(h, luid), sess_mgr_sess_attr_query_resp_destroy);
    auto *value = own(sess_mgr_query_resp_create(h, luid), sess_mgr_query_resp_destroy);
    value->label.session_label = 41;
    EXPECT_EQ(sess_mgr_sess_attr_query_resp_resp_array_set_cr(h, r, 0, value, 1), 0u);
    EXPECT_EQ(traced(text), 0u); // nothing to move from
    value->label.session_label = 42;
    EXPECT_EQ(sess_mgr_sess_attr_query_resp_resp_array_set_cr(h, r, 2, value, 0), 0u); // built from the wire form
    EXPECT_EQ(sess_mgr_sess_attr_query_resp_resp_array_set_cr(h, r, 3, value, 1), 0u);
    EXPECT_EQ(traced(text), 1u); // the first move of this type's arrays in the process
    mgx_trace_clear();
    EXPECT_EQ(sess_mgr_sess_attr_query_resp_resp_array_set_cr(h, r, 4, value, 1), 0u);
    EXPECT_EQ(traced(text), 0u);

    ASSERT_EQ(sess_mgr_sess_attr_query_resp_resp_array_length_get_value(h, luid, r, &err), 5u);
    EXPECT_EQ(r->resp_array[0].label.session_label, 41u);
    EXPECT_EQ(r->resp_array[1].label.session_label, 0u);
    EXPECT_EQ(r->resp_array[2].label.session_label, 42u);
    // Each moved element's nested areas are registered inside its own flag slot in the new block
    // (one slot per element, the size of the element type's area), never in a neighbour's.
    auto *flags = reinterpret_cast<uint8_t *>(r->resp_array + 5);
    const ovrin::Type &element = testfill::type("sess_mgr_query_resp");
    const size_t slot = (std::max<size_t>(2, element.sttr_size) + element.sttr_align - 1) / element.sttr_align *
                        element.sttr_align;
    for (uint32_t k = 0; k < 5; ++k) {
        for (const void *nested :
             {static_cast<const void *>(&r->resp_array[k].label), static_cast<const void *>(&r->resp_array[k].attr_list)}) {
            int64_t offset = 0;
            ASSERT_TRUE(mgx_sttr_offset_lookup(h, nested, &offset)) << k;
            const uint8_t *at = static_cast<const uint8_t *>(nested) + offset;
            EXPECT_GE(at, flags + k * slot) << k;
            EXPECT_LT(at, flags + (k + 1) * slot) << k;
        }
        // Every flag of the element, set through it, lands in its slot (ASan watches the block's end).
        sess_mgr_query_resp_set_all_state_tracking_flag(h, luid, &r->resp_array[k], 1);
    }
}

// Setting elements one past the end, N times, moves the block O(log N) times (room grown by an
// eighth past 16 elements) and holds at most an eighth more than the elements need. The room is
// seen nowhere: every element keeps its flag slot through the moves and the growth in place, and
// a clone (whose block is made at once) encodes, prints, compares and hashes the same.
TEST_F(Composite, SettingOnePastTheEndGrowsByAFactor) {
    constexpr uint32_t n = 1024;
    for (bool tracked : {false, true}) {
        if (tracked) track();
        auto *value = own(named(h, "a.example"), fqdn_domain_name_bind_destroy); // tracked as the handle is
        auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, luid), ovrin_svm_epm_notify_domain_name_bind_destroy);
        const uint64_t before = mgx_handle_total_allocations(h), bytes = mgx_handle_live_bytes(h);
        for (uint32_t i = 0; i < n; ++i) ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, i, value, &err);
        ASSERT_EQ(take_err(), 0u);
        ASSERT_EQ(r->domain_names_length, n);
        // One copied name per element; the block moved 16 times up to 16 elements, then 8 per doubling.
        EXPECT_LE(mgx_handle_total_allocations(h) - before - n, 16u + 8 * 6) << tracked;
        const size_t slot = tracked ? std::max<size_t>(2, testfill::type("fqdn_domain_name_bind").sttr_size) : 0;
        const size_t exact = n * (sizeof(fqdn_domain_name_bind) + slot + 10); // elements, slots, names
        EXPECT_LE(mgx_handle_live_bytes(h) - bytes, exact + exact / 8) << tracked;
        for (uint32_t k = 0; tracked && k < n; ++k) {
            EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_get(h, luid, r, k, &err), 2) << k;
            fqdn_domain_name_bind_set_all_state_tracking_flag(h, luid, &r->domain_names[k], 1); // inside its slot
        }

        const typeops::Ops &o = typeops::of("ovrin_svm_epm_notify_domain_name_bind");
        void *copy = typeops::clone(o, h, r, &err);
        ASSERT_EQ(take_err(), 0u);
        own(static_cast<ovrin_svm_epm_notify_domain_name_bind *>(copy), ovrin_svm_epm_notify_domain_name_bind_destroy);
        EXPECT_EQ(o.compare(r, copy), 0);
        EXPECT_EQ(o.hash(r, 1), o.hash(copy, 1));
        EXPECT_EQ(typeops::encode(o, h, r, &err), typeops::encode(o, h, copy, &err));
        EXPECT_EQ(typeops::whole_text(o, h, r), typeops::whole_text(o, h, copy));
        EXPECT_EQ(take_err(), 0u);
    }
}

// A block made at once (here by reading a document) has room past its count: setting into that
// room moves nothing, so nothing is said about moving; the first growth past the room moves the
// block and says so, once.
TEST_F(Composite, GrowthInsideTheRoomIsNoMove) {
    const std::string text = "Reallocating resource for ovrin_svm_epm_notify_domain_name_bind";
    std::string xml = "<x><domain_names_length>17</domain_names_length>";
    for (int i = 0; i < 17; ++i) xml += "<domain_names/>";
    xml += "</x>";
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, luid), ovrin_svm_epm_notify_domain_name_bind_destroy);
    read_xml(h, ovrin_svm_epm_notify_domain_name_bind_from_xml, "x", xml, r, &err);
    ASSERT_EQ(take_err(), 0u);
    ASSERT_EQ(r->domain_names_length, 17u);
    const auto *block = r->domain_names;
    auto *value = own(named(h, "a.example"), fqdn_domain_name_bind_destroy);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 17, value, &err); // room(17) is 18
    ASSERT_EQ(take_err(), 0u);
    EXPECT_EQ(r->domain_names, block);
    EXPECT_EQ(traced(text), 0u);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 18, value, &err);
    ASSERT_EQ(take_err(), 0u);
    EXPECT_NE(r->domain_names, block);
    EXPECT_EQ(traced(text), 1u);
}

TEST_F(Composite, FailedGrowthAndUntrackedValuesLeaveTheArrayAsItWas) {
    auto *value = own(named(h, "b.example"), fqdn_domain_name_bind_destroy);
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, luid), ovrin_svm_epm_notify_domain_name_bind_destroy);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 0, value, &err);
    fqdn_domain_name_bind *block = r->domain_names;
    // (The error and the leak check of every allocation failing: the composite-setter sweep.)
    mgx_handle_fail_allocation(h, 1);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 3, value, &err);
    EXPECT_EQ(take_err(), MGX_ENOMEM);
    EXPECT_EQ(r->domain_names, block);
    EXPECT_EQ(r->domain_names_length, 1u);
    EXPECT_STREQ(block->name, "b.example");

    track();
    r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, luid), ovrin_svm_epm_notify_domain_name_bind_destroy);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 0, value, &err);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(traced("The val object is not state tracked"), 1u);
    EXPECT_EQ(r->domain_names, nullptr);
}

// A block that moves as its array grows takes its elements along: in the database's mode each
// element that lived in the old block is detached from it, every one, and none is destroyed.
TEST_F(Composite, AMovedArrayBlockDetachesEveryElementItHeld) {
    mgx_handle_set_flags(h, MGX_HANDLE_DATABASE);
    mgx_handle_set_domain_mode(h, 1);
    mgx_handle_set_descriptor_luid(h, luid);
    auto *value = own(named(h, "b.example"), fqdn_domain_name_bind_destroy);
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, luid), ovrin_svm_epm_notify_domain_name_bind_destroy);
    for (uint32_t k = 0; k < 3; ++k) ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, k, value, &err);
    ASSERT_EQ(take_err(), 0u);
    fqdn_domain_name_bind *old = r->domain_names;
    mgx_hook_clear(h);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, luid, r, 3, value, &err);
    ASSERT_EQ(take_err(), 0u);
    ASSERT_NE(r->domain_names, old);
    std::vector<const void *> detached;
    for (size_t i = 0; i < mgx_hook_count(h); ++i)
        if (mgx_hook_entry(h, i)->kind == MGX_HOOK_DETACH) detached.push_back(mgx_hook_entry(h, i)->object);
    EXPECT_EQ(detached, (std::vector<const void *>{old, old + 1, old + 2}));
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_DESTROY), 0u);
    EXPECT_STREQ(r->domain_names[2].name, "b.example");
}

// ---------------------------------------------------------------- counted strings

TEST_F(Composite, StringsCopyExactlyTheirLengthAndCutCopiesOut) {
    auto *n = own(sess_mgr_client_name_create(h, luid), sess_mgr_client_name_destroy);
    sess_mgr_client_name_client_name_set(h, luid, n, "hello world", 5, &err);
    EXPECT_STREQ(n->client_name, "hello");
    EXPECT_EQ(sess_mgr_client_name_cl_name_len_get_value(h, luid, n, &err), 5u);
    char out[8];
    sess_mgr_client_name_client_name_get(h, luid, n, out, sizeof out, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_STREQ(out, "hello");
    sess_mgr_client_name_client_name_get(h, luid, n, out, 5, &err);
    EXPECT_EQ(take_err(), MGX_ERANGE);
    EXPECT_STREQ(out, "hell");
    out[0] = '#';
    sess_mgr_client_name_client_name_get(h, luid, n, out, 0, &err);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(out[0], '#'); // a buffer of size 0 is not written at all

    // An earlier NUL ends the text; the length stays the one given.
    sess_mgr_client_name_client_name_set(h, luid, n, "ab\0cdef", 6, &err);
    EXPECT_EQ(n->cl_name_len, 6u);
    sess_mgr_client_name_client_name_get(h, luid, n, out, sizeof out, &err);
    EXPECT_STREQ(out, "ab");

    EXPECT_EQ(sess_mgr_client_name_client_name_set_cr(h, n, "ignored", 0), 0u);
    EXPECT_EQ(n->client_name, nullptr);
    EXPECT_EQ(n->cl_name_len, 0u);
    sess_mgr_client_name_client_name_get(h, luid, n, out, sizeof out, &err);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_STREQ(out, "");
}

TEST_F(Composite, ShortLengthFieldsKeepTheLowSixteenBitsAndNoLimitApplies) {
    auto *f = own(fqdn_domain_name_bind_create(h, luid), fqdn_domain_name_bind_destroy);
    const std::string text(70000, 'x');
    EXPECT_EQ(fqdn_domain_name_bind_name_set_cr(h, f, text.c_str(), 65537), 0u);
    EXPECT_EQ(f->name_len, 1u);
    EXPECT_STREQ(f->name, "x");

    // A 32-bit length field takes lengths far above the domain's published limits.
    auto *b = own(ovrin_epm_bind_policy_info_create(h, luid), ovrin_epm_bind_policy_info_destroy);
    EXPECT_EQ(ovrin_epm_bind_policy_info_sgacl_name_set_cr(h, b, text.c_str(), 600), 0u);
    EXPECT_EQ(b->max_sgacl_name_length, 600u);
    EXPECT_EQ(std::strlen(b->sgacl_name), 600u);
}

TEST_F(Composite, AFailedStringAllocationLeavesNoStringAndTheOldLength) {
    track();
    auto *s = own(sess_mgr_sensor_update_create(h, luid), sess_mgr_sensor_update_destroy);
    sess_mgr_sensor_update_agent_name_set(h, luid, s, "curl", 4, &err);
    EXPECT_EQ(sess_mgr_sensor_update_agent_name_state_flag_get(h, luid, s, &err), 2);
    uint64_t blocks = mgx_handle_live_allocations(h);
    mgx_handle_fail_allocation(h, 1);
    EXPECT_EQ(sess_mgr_sensor_update_agent_name_set_cr(h, s, "wget-x", 6), MGX_ENOMEM);
    EXPECT_EQ(s->agent_name, nullptr);
    EXPECT_EQ(s->http_agent_name_len, 4u);
    EXPECT_EQ(mgx_handle_live_allocations(h), blocks - 1);
}

} // namespace
