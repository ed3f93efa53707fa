// Field access and state tracking of records and unions: the variant gate, state flags in every
// tracking mode, write notification, containment, whole-instance copies with their ownership and
// flags, get_all/set_all and flag offset registration (the raw copy-out cleanup and array copies
// are swept over every type in sm_sweep_test.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_check.h"

namespace {

constexpr uint32_t luid = 1;
constexpr size_t start_area = 200; // sess_mgr_session_start: untracked size, where its flags begin

using Access = RuntimeFixture;

uint8_t *at(void *instance, size_t offset) { return static_cast<uint8_t *>(instance) + offset; }

TEST_F(Access, SetsMarkTwoInTheFlattenedAreaOfNestedFields) {
    track();
    auto *s = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    uint8_t *area = at(s, start_area);
    auto *cl = own(sess_mgr_client_hdl_create(h, luid), sess_mgr_client_hdl_destroy);
    sess_mgr_session_start_cl_hdl_set(h, luid, s, cl, &err);
    sess_mgr_conn_hdl_conn_hdl_set_value(h, luid, &s->hdl, 1, &err);
    sess_mgr_client_hdl_client_hdl_set_value(h, luid, &s->cl_hdl, 2, &err);
    sess_mgr_extended_params_proximity_set_value(h, luid, &s->ext_params, 3, &err);
    sess_mgr_client_name_cl_name_len_set_value(h, luid, &s->cl_name, 0, &err);
    ASSERT_EQ(err, 0u);
    // Own byte of cl_hdl 2; nested areas: hdl's from 1, cl_hdl's from 3, ext_params' from 25, cl_name's from 30.
    std::vector<uint8_t> expected(32, 0);
    expected[2] = expected[1] = expected[3] = expected[25 + 1] = expected[30] = 2;
    EXPECT_EQ(bytes_at(area, 0, 32), expected);
    EXPECT_EQ(sess_mgr_extended_params_proximity_state_flag_get(h, luid, &s->ext_params, &err), 2);
    EXPECT_EQ(s->identity_attrs.sttr, area + 8);
    sess_mgr_conn_hdl_conn_hdl_state_flag_set(h, luid, &s->hdl, 7, &err);
    EXPECT_EQ(area[1], 7);
    sess_mgr_session_start_set_all_state_tracking_flag(h, luid, s, 0x5A);
    EXPECT_EQ(bytes_at(area, 0, 32), std::vector<uint8_t>(32, 0x5A));
}

TEST_F(Access, FlagsRefusedWhenTrackingIsOffOrTheInstanceUntracked) {
    auto *plain = own(sess_mgr_conn_hdl_create(h, luid), sess_mgr_conn_hdl_destroy); // no tracking record: no area
    track();
    auto *c = own(sess_mgr_conn_hdl_create(h, luid), sess_mgr_conn_hdl_destroy);
    *at(c, 24) = 0x33;
    // Tracking off: values go in, flags stay, flag access is refused without a word.
    track(h, MGX_STTR_UNTRACKED);
    sess_mgr_conn_hdl_conn_hdl_set_value(h, luid, c, 5, &err);
    EXPECT_EQ(c->conn_hdl, 5u);
    sess_mgr_conn_hdl_set_all_state_tracking_flag(h, luid, c, 1);
    EXPECT_EQ(sess_mgr_conn_hdl_conn_hdl_state_flag_get(h, luid, c, &err), 0);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(*at(c, 24), 0x33);
    EXPECT_EQ(mgx_trace_count(), 0u);
    // Tracking on, untracked instance: the value is written, the flag refused; two wordings.
    track();
    sess_mgr_conn_hdl_conn_hdl_set_value(h, luid, plain, 6, &err);
    EXPECT_EQ(plain->conn_hdl, 6u);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_TRUE(traced("The object is not state tracked"));
    EXPECT_EQ(sess_mgr_conn_hdl_conn_hdl_state_flag_get(h, luid, plain, &err), 0);
    EXPECT_EQ(err, MGX_EINVAL);
    EXPECT_TRUE(traced("The object is non state tracked"));
}

// Records, for each write hook call, the 4 bytes at the address at the time of the call.
std::vector<uint32_t> seen;
mgx_write_hook_fn journal = nullptr;
void remember(mgx_handle_t *h, const void *addr, size_t length, uint32_t l, const void *base) {
    uint32_t word = 0;
    std::memcpy(&word, addr, length < 4 ? length : 4);
    seen.push_back(word);
    journal(h, addr, length, l, base);
}

TEST_F(Access, WriteHookSeesEveryByteBeforeItChangesAndContainmentIsReported) {
    track();
    mgx_handle_set_flags(h, MGX_HANDLE_DATABASE);
    auto *s = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    s->hdl.conn_hdl = 0x11;
    journal = h->write_hook;
    h->write_hook = remember;
    seen.clear();
    mgx_hook_clear(h);
    sess_mgr_conn_hdl_conn_hdl_set_value(h, luid, &s->hdl, 0x22, &err);
    h->write_hook = journal;
    EXPECT_EQ(seen, (std::vector<uint32_t>{0x11, 0})); // the value, then its flag byte
    EXPECT_EQ(*at(s, start_area + 1), 2);

    EXPECT_EQ(sess_mgr_session_start_hdl_get(h, luid, s, &err), &s->hdl);
    EXPECT_EQ(sess_mgr_session_start_identity_attrs_get(h, luid, s, &err), &s->identity_attrs);
    sess_mgr_session_start_get(h, luid, s);
    std::vector<std::pair<const void *, const void *>> reported;
    for (size_t i = 0; i < mgx_hook_count(h); ++i)
        if (mgx_hook_entry(h, i)->kind == MGX_HOOK_CONTAINMENT)
            reported.emplace_back(mgx_hook_entry(h, i)->object, mgx_hook_entry(h, i)->container);
    const void *none = nullptr;
    EXPECT_EQ(reported, (std::vector<std::pair<const void *, const void *>>{
                            {&s->hdl.conn_hdl, &s->hdl}, // get of the value's address by set_value
                            {&s->hdl, none},             // a record-valued field: alone, then as the child
                            {&s->hdl, s},
                            {&s->identity_attrs, s}, // an attribute list: once
                            {s, none}}));            // the whole instance
    EXPECT_EQ(err, 0u);
}

// The journal's entries since the last clear, as (address, length).
std::vector<std::pair<const void *, size_t>> journalled(const mgx_handle_t *h) {
    std::vector<std::pair<const void *, size_t>> out;
    for (size_t i = 0; i < mgx_journal_count(h); ++i)
        out.emplace_back(mgx_journal_entry(h, i)->address, mgx_journal_entry(h, i)->length);
    return out;
}

// An instance laid out below the variant the handle's domain now gives its type: the first
// integer set raises the layout byte (through the write hook, capped to the type's last variant),
// later ones find it raised and write the value alone; a get reads without raising; the fields of
// the later variant stay out of reach of an instance of the earlier one.
TEST_F(Access, IntegerSettersRaiseALayoutBelowTheDomainOnceAndGettersNever) {
    mgx_handle_set_domain_variant(h, "ovrin_epm_bind_policy_info", 0);
    auto *p = own(ovrin_epm_bind_policy_info_create(h, luid), ovrin_epm_bind_policy_info_destroy);
    ASSERT_EQ(p->layout, 0);
    mgx_handle_set_domain_variant(h, "ovrin_epm_bind_policy_info", 9);
    mgx_journal_clear(h);
    EXPECT_EQ(ovrin_epm_bind_policy_info_vlan_get_value(h, luid, p, &err), 0u);
    EXPECT_EQ(p->layout, 0);
    EXPECT_EQ(mgx_journal_count(h), 0u);

    ovrin_epm_bind_policy_info_vlan_set_value(h, luid, p, 5, &err);
    using Writes = std::vector<std::pair<const void *, size_t>>;
    EXPECT_EQ(journalled(h), (Writes{{&p->layout, 1}, {&p->vlan, 4}}));
    EXPECT_EQ(p->layout, 1);
    EXPECT_EQ(p->variant, 0);
    mgx_journal_clear(h);
    ovrin_epm_bind_policy_info_urlRedirectPresent_set_value(h, luid, p, 1, &err);
    ovrin_epm_bind_policy_info_avg_data_dn_set_value(h, luid, p, 8, &err);
    EXPECT_EQ(take_err(), MGX_EVARIANT);
    p->avg_data_dn = 3; // as a decode of a later variant leaves it
    EXPECT_EQ(ovrin_epm_bind_policy_info_avg_data_dn_get_value(h, luid, p, &err), 0u);
    EXPECT_EQ(take_err(), MGX_EVARIANT);
    EXPECT_EQ(journalled(h), (Writes{{&p->urlRedirectPresent, 1}}));
    EXPECT_EQ(ovrin_epm_bind_policy_info_vlan_get_value(h, luid, p, &err), 5u);
    EXPECT_EQ(err, 0u);
}

// Without an error cell the setter and getter still work and fail into the handle's store; with a
// code already in the cell they do nothing at all; a missing instance is an invalid argument; the
// getter reports the field it read to the database, with the instance as its container.
TEST_F(Access, IntegerAccessorsWithoutACellOrAnInstanceOrWithAPendingCode) {
    auto *p = own(ovrin_epm_bind_policy_info_create(h, luid), ovrin_epm_bind_policy_info_destroy);
    p->variant = 0;
    ovrin_epm_bind_policy_info_vlan_set_value(h, luid, p, 7, nullptr);
    EXPECT_EQ(ovrin_epm_bind_policy_info_vlan_get_value(h, luid, p, nullptr), 7u);
    ovrin_epm_bind_policy_info_avg_data_dn_set_value(h, luid, p, 8, nullptr);
    EXPECT_EQ(p->avg_data_dn, 0u);

    ovrin_epm_bind_policy_info_vlan_set_value(h, luid, nullptr, 9, &err);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(ovrin_epm_bind_policy_info_vlan_get_value(h, luid, nullptr, &err), 0u);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(mgx_handle_last_error(h), MGX_EINVAL);

    err = MGX_ENOENT;
    ovrin_epm_bind_policy_info_vlan_set_value(h, luid, p, 9, &err);
    EXPECT_EQ(ovrin_epm_bind_policy_info_vlan_get_value(h, luid, p, &err), 0u);
    EXPECT_EQ(take_err(), MGX_ENOENT);
    EXPECT_EQ(mgx_handle_last_error(h), MGX_EINVAL); // not cleared
    EXPECT_EQ(p->vlan, 7u);

    mgx_handle_set_flags(h, MGX_HANDLE_DATABASE);
    mgx_hook_clear(h);
    EXPECT_EQ(ovrin_epm_bind_policy_info_vlan_get_value(h, luid, p, &err), 7u);
    ASSERT_EQ(mgx_hook_count_kind(h, MGX_HOOK_CONTAINMENT), 1u);
    EXPECT_EQ(mgx_hook_entry(h, 0)->object, &p->vlan);
    EXPECT_EQ(mgx_hook_entry(h, 0)->container, p);
    EXPECT_EQ(err, 0u);
}

TEST_F(Access, WholeSetCarriesValuesFlagsAndOwnershipUnderTracking) {
    track();
    auto *src = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    auto *dst = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    // dst finds its flags through a runtime-recorded offset (the same place, reached another way).
    mgx_sttr_offset_set(h, dst, start_area);
    dst->flags |= MGX_IF_STTR_OFFSET;
    sess_mgr_conn_hdl_conn_hdl_set_value(h, luid, &src->hdl, 7, &err);
    aaa_tlv_attr_add(h, luid, &src->identity_attrs, 1, "alice", 5, &err);
    src->cl_name.client_name = handle_text(h, "src-name", &src->cl_name.cl_name_len);
    sm_dot11_params *member = sm_dot11_params_create(h, luid);
    src->ext_params.dot11_param = member;
    sess_mgr_session_start_identity_attrs_state_flag_set(h, luid, src, 4, &err);
    aaa_tlv_attr_add(h, luid, &dst->identity_attrs, 2, "old", 3, &err); // dst's old storage is released by the copy
    dst->cl_name.client_name = handle_text(h, "old-name", &dst->cl_name.cl_name_len);
    sess_mgr_session_start_set_all_state_tracking_flag(h, luid, dst, 0x77);
    ASSERT_EQ(err, 0u);
    mgx_journal_clear(h);

    sess_mgr_session_start_set(h, luid, dst, src, &err);
    ASSERT_EQ(err, 0u);
    // The adjustment raises dst's layout byte; then header and fields are announced at once.
    ASSERT_GT(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 1)->address, dst);
    EXPECT_EQ(mgx_journal_entry(h, 1)->length, 184u);
    EXPECT_EQ(dst->hdl.conn_hdl, 7u);
    EXPECT_EQ(bytes_at(dst, start_area, 32), bytes_at(src, start_area, 32));
    EXPECT_TRUE(dst->flags & MGX_IF_STTR_OFFSET);
    const void *attr = nullptr; // (its own copies: the whole-copy sweep)
    uint32_t attr_length = 0;
    aaa_tlv_attr_at(&dst->identity_attrs, 0, &attr, &attr_length);
    EXPECT_EQ(std::string(static_cast<const char *>(attr), attr_length), "alice");
    EXPECT_STREQ(dst->cl_name.client_name, "src-name");
    EXPECT_EQ(dst->ext_params.dot11_param, member); // union members move
    EXPECT_EQ(src->ext_params.dot11_param, nullptr);

    mgx_journal_clear(h);
    std::vector<uint8_t> before = bytes_at(dst, 0, 232);
    sess_mgr_session_start_set(h, luid, dst, dst, &err);
    EXPECT_EQ(mgx_journal_count(h), 0u);
    EXPECT_EQ(bytes_at(dst, 0, 232), before);

    // A later-variant source is refused; an untracked target gets the values, not the flags.
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 0);
    auto *old = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    sess_mgr_session_start_set(h, luid, old, src, &err);
    EXPECT_EQ(take_err(), MGX_EVARIANT);
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 1);
    mgx_handle_set_state_tracking(h, 0, 0);
    auto *untracked = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    track();
    sess_mgr_session_start_set(h, luid, untracked, src, &err);
    EXPECT_EQ(err, MGX_EINVAL);
    EXPECT_TRUE(traced("The object is not state tracked"));
    EXPECT_EQ(untracked->hdl.conn_hdl, 7u);
    EXPECT_NE(untracked->identity_attrs.body, src->identity_attrs.body);
}

// A copy from an instance of an earlier variant (in the same layout, as a decode from an older
// sender leaves it) into one of a later variant, under a domain of the earlier, brings the target
// down to that variant: the storage of the target's later fields goes with them (the fixture
// counts what is left). An array block is released element by element, as many as the target
// held, not as many as the source holds.
TEST_F(Access, WholeSetReleasesWhatTheTargetHeldBeyondTheSource) {
    auto *early = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    auto *later = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    early->variant = 0;
    later->cl_name.client_name = handle_text(h, "later-name", &later->cl_name.cl_name_len);
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 0);
    sess_mgr_session_start_set(h, luid, later, early, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(later->variant, 0);

    auto *one = own(sess_mgr_sess_attr_query_resp_create(h, luid), sess_mgr_sess_attr_query_resp_destroy);
    auto *three = own(sess_mgr_sess_attr_query_resp_create(h, luid), sess_mgr_sess_attr_query_resp_destroy);
    auto *value = own(sess_mgr_query_resp_create(h, luid), sess_mgr_query_resp_destroy);
    aaa_tlv_attr_add(h, luid, &value->attr_list, 1, "alice", 5, &err);
    sess_mgr_sess_attr_query_resp_resp_array_set(h, luid, one, 0, value, &err);
    for (uint32_t k = 0; k < 3; ++k) sess_mgr_sess_attr_query_resp_resp_array_set(h, luid, three, k, value, &err);
    ASSERT_EQ(err, 0u);
    sess_mgr_sess_attr_query_resp_set(h, luid, three, one, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(three->no_of_entries, 1u);
}

TEST_F(Access, GetAllAndSetAllAreDeliberatelyAsymmetric) {
    auto *d = own(sm_dot11_params_create(h, luid), sm_dot11_params_destroy);
    d->oui[0] = 0xEE;
    sm_dot11_params_set_all(h, luid, d, 1, 2, 0x303, 0x404, 0x505, 0x606, 7, &err);
    EXPECT_EQ(d->oui[0], 0xEE); // arrays and addresses are in neither
    u_int8 slot = 0, wlan = 0, control = 0;
    u_int16 global = 0, vlan = 0, mcast = 0, etype = 0;
    sm_dot11_params_get_all(h, luid, d, &slot, &wlan, &global, &vlan, &mcast, &etype, &control, &err);
    EXPECT_EQ(std::vector<int>({slot, wlan, global, vlan, mcast, etype, control}),
              std::vector<int>({1, 2, 0x303, 0x404, 0x505, 0x606, 7}));
    EXPECT_EQ(d->eType, 0x606);

    // The union: the integer and the discriminator out, the integer alone in.
    auto *ev = own(ovrin_smd_resp_event_create(h, luid), ovrin_smd_resp_event_destroy);
    auto *kind = own(ovrin_sm_resp_type_create(h, luid), ovrin_sm_resp_type_destroy);
    kind->value = 4;
    ovrin_smd_resp_event_resp_type_set(h, luid, ev, kind, &err);
    ovrin_smd_resp_event_set_all(h, luid, ev, 21, &err);
    uint32_t resp_type = 0;
    u_int32 session_type = 0;
    ovrin_smd_resp_event_get_all(h, luid, ev, &resp_type, &session_type, &err);
    EXPECT_EQ(resp_type, 4u);
    EXPECT_EQ(session_type, 21u);
    EXPECT_EQ(err, 0u);
}

TEST_F(Access, OffsetUpdateAndRemoveFollowTheNestedAreas) {
    auto *s = own(sess_mgr_session_start_create(h, luid), sess_mgr_session_start_destroy);
    uint8_t base[32] = {};
    sess_mgr_session_start_offset_update(h, luid, s, base, &err);
    auto position = [&](const void *field) {
        int64_t offset = 0;
        EXPECT_TRUE(mgx_sttr_offset_lookup(h, field, &offset));
        return static_cast<const uint8_t *>(field) + offset - base;
    };
    EXPECT_EQ(std::vector<long>({position(&s->hdl), position(&s->cl_hdl), position(&s->identity_attrs), position(&s->ext_params),
                                 position(&s->cl_name)}),
              std::vector<long>({1, 3, 8, 25, 30}));
    EXPECT_EQ(s->identity_attrs.sttr, base + 8);
    mgx_hook_clear(h);
    sess_mgr_session_start_offset_remove(h, luid, s, &err);
    EXPECT_EQ(mgx_hook_count_kind(h, MGX_HOOK_HD_MAPPING_DESTROY), 5u);
    EXPECT_FALSE(mgx_sttr_offset_lookup(h, &s->hdl, nullptr));
    EXPECT_EQ(s->identity_attrs.sttr, nullptr);
    EXPECT_EQ(err, 0u);
}

using AccessDeath = Access;

TEST_F(AccessDeath, CorruptMarkerAbortsEveryTrackingPath) {
    track();
    auto *c = own(sess_mgr_conn_hdl_create(h, luid), sess_mgr_conn_hdl_destroy);
    track(h, 0x1234);
    mgx_trace_set_stderr_level(0);
    EXPECT_DEATH(sess_mgr_conn_hdl_conn_hdl_set_value(h, luid, c, 1, &err), "Corrupted MGX Handle");
    EXPECT_DEATH(sess_mgr_conn_hdl_conn_hdl_state_flag_get(h, luid, c, &err), "Corrupted MGX Handle");
    EXPECT_DEATH(sess_mgr_conn_hdl_set_all_state_tracking_flag(h, luid, c, 1), "Corrupted MGX Handle");
    mgx_trace_set_stderr_level(-1);
    track();
}

} // namespace
