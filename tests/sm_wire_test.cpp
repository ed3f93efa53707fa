// The wire form of records and unions: exact bytes, state bytes, variants and the jump, unions,
// strings and arrays, hostile and truncated input, and the clone that goes through the wire.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_type_ops.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Wire : RuntimeFixture {

    // Counted strings and array blocks are owned by the record: they come from the handle.
    template <class Len> void set_text(char *&text, Len &len, const std::string &s) {
        if (text) h->inst_free(h->alloc_ctx, 1, text);
        text = nullptr;
        len = static_cast<Len>(s.size());
        if (s.empty()) return;
        text = static_cast<char *>(h->inst_alloc(h->alloc_ctx, 1, s.size() + 1));
        std::memcpy(text, s.c_str(), s.size() + 1);
    }
    // A session start with every field filled, a wireless access (and so a union member) included.
    sess_mgr_session_start *filled_start() {
        sess_mgr_session_start *s = sess_mgr_session_start_create(h, 1);
        testfill::fill(testfill::type("sess_mgr_session_start"), h, s, 1, testfill::every_arm);
        return s;
    }

    // The wire form of an instance of the named type through x, in space of _len bytes; err_out
    // gets the error cell, which must otherwise stay 0.
    static Bytes encode(mgx_handle_t *x, const char *type, const void *instance, uint32_t *err_out = nullptr) {
        uint32_t err = 0;
        Bytes b = typeops::encode(typeops::of(type), x, instance, &err);
        if (err_out) *err_out = err;
        else EXPECT_EQ(err, 0u);
        return b;
    }
    static Bytes encode_start(mgx_handle_t *x, const void *s, uint32_t *err_out = nullptr) {
        return encode(x, "sess_mgr_session_start", s, err_out);
    }
    static Bytes encode_resp(mgx_handle_t *x, const void *e) { return encode(x, "ovrin_smd_resp_event", e); }
};

Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST_F(Wire, OneFieldRecordExactBytesUntrackedAndTracked) {
    uint8_t buf[16] = {};
    auto *c = own(sess_mgr_conn_hdl_create(h, 1), sess_mgr_conn_hdl_destroy);
    c->conn_hdl = 7;
    EXPECT_EQ(sess_mgr_conn_hdl_len(h, 1, c), 10u);
    ASSERT_EQ(sess_mgr_conn_hdl_marshal(h, 1, buf, c, sizeof buf, &err), 10u);
    EXPECT_EQ(Bytes(buf, buf + 10), cat({{0, 0}, be32(8), be32(7)}));

    track(h);
    c = own(sess_mgr_conn_hdl_create(h, 1), sess_mgr_conn_hdl_destroy);
    sess_mgr_conn_hdl_conn_hdl_set_value(h, 1, c, 7, &err); // marks the field's state byte with 2
    EXPECT_EQ(sess_mgr_conn_hdl_len(h, 1, c), 11u);
    ASSERT_EQ(sess_mgr_conn_hdl_marshal(h, 1, buf, c, sizeof buf, &err), 11u);
    EXPECT_EQ(Bytes(buf, buf + 11), cat({{0, 0x08}, be32(9), be32(7), {2}}));
    EXPECT_EQ(take_err(), 0u);

    // Zero space: 90 and nothing; a negative variant: the header alone with a jump of 4.
    EXPECT_EQ(sess_mgr_conn_hdl_marshal(h, 1, buf, c, 0, &err), 0u);
    EXPECT_EQ(take_err(), 90u);
    // A code already in the caller's slot: neither encode nor decode runs, and the code stays.
    uint8_t untouched[16];
    std::memset(untouched, 0xA5, sizeof untouched);
    err = MGX_EINVAL;
    EXPECT_EQ(sess_mgr_conn_hdl_marshal(h, 1, untouched, c, sizeof untouched, &err), 0u);
    c->conn_hdl = 3;
    EXPECT_EQ(sess_mgr_conn_hdl_unmarshal(h, 1, buf, c, 11, 0, &err), 0u);
    EXPECT_EQ(take_err(), MGX_EINVAL);
    EXPECT_EQ(Bytes(untouched, untouched + sizeof untouched), Bytes(sizeof untouched, 0xA5));
    EXPECT_EQ(c->conn_hdl, 3u);
    c->variant = -1;
    ASSERT_EQ(sess_mgr_conn_hdl_marshal(h, 1, buf, c, sizeof buf, &err), 6u);
    EXPECT_EQ(Bytes(buf, buf + 6), cat({{0xff, 0x08}, be32(4)}));
}

// The length routine leaves retained-data blocks out: an instance whose flag byte has 0x20 (and
// each nested one that has it) encodes 2 + n bytes more than _len says, n being the retained bytes
// the runtime holds for it. Given only _len, the encoder stops with 90.
TEST_F(Wire, RetainedDataIsWrittenBeyondWhatTheLengthSays) {
    auto *r = own(sess_mgr_register_create(h, 1), sess_mgr_register_destroy);
    sess_mgr_conn_hdl *nested = sess_mgr_register_rcl_conn_hdl_get(h, 1, r, &err);
    const uint32_t len = sess_mgr_register_len(h, 1, r);
    r->flags |= MGX_IF_HD_MAPPED;
    ASSERT_EQ(mgx_retained_data_set(h, r, "abcd", 4), 1);
    nested->flags |= MGX_IF_HD_MAPPED; // nothing retained for it: its block is the length alone
    EXPECT_EQ(sess_mgr_register_len(h, 1, r), len);
    Bytes buf(len + 16);
    sess_mgr_register_marshal(h, 1, buf.data(), r, int32_t(len), &err);
    EXPECT_EQ(take_err(), 90u);
    ASSERT_EQ(sess_mgr_register_marshal(h, 1, buf.data(), r, int32_t(len + 2 + 4 + 2), &err), len + 2 + 4 + 2);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(Bytes(buf.begin() + 2, buf.begin() + 8), cat({{0, 4}, {'a', 'b', 'c', 'd'}}));
    EXPECT_EQ(Bytes(buf.begin() + 12, buf.begin() + 16), cat({{0, 0x20}, {0, 0}})); // the nested header's block
}

TEST_F(Wire, CountedStringStateBytesAndTheLengthUpperBound) {
    track(h);
    auto *n = own(sess_mgr_client_name_create(h, 1), sess_mgr_client_name_destroy);
    set_text(n->client_name, n->cl_name_len, "hello");
    EXPECT_EQ(sess_mgr_client_name_len(h, 1, n), 21u); // 6 + 4 + 5 + (1 + 5): an upper bound
    Bytes buf(32), small(13);
    EXPECT_EQ(sess_mgr_client_name_marshal(h, 1, buf.data(), n, 21, &err), 16u); // one state byte only
    EXPECT_EQ(Bytes(buf.begin() + 6, buf.begin() + 15), cat({be32(5), {'h', 'e', 'l', 'l', 'o'}}));

    // Too little space: 90 and a truncated copy.
    EXPECT_EQ(sess_mgr_client_name_marshal(h, 1, small.data(), n, 12, &err), 12u);
    EXPECT_EQ(take_err(), 90u);
    EXPECT_EQ(std::string(small.begin() + 10, small.begin() + 12), "he");

    // On an untracked handle a string's state byte is stepped over only with a byte to spare;
    // here it is the last byte, so the variant jump steps over it, and says so.
    mgx_handle_t *plain = mgx_handle_create();
    sess_mgr_client_name *r = sess_mgr_client_name_create(plain, 1);
    mgx_trace_clear();
    EXPECT_EQ(sess_mgr_client_name_unmarshal(plain, 1, buf.data(), r, 16, 0, &err), 16u);
    EXPECT_EQ(err, 0u);
    EXPECT_STREQ(r->client_name, "hello");
    ASSERT_EQ(mgx_trace_count(), 1u);
    EXPECT_EQ(std::string(mgx_trace_text(0)).rfind("offset_jump read_len 15 ", 0), 0u) << mgx_trace_text(0);
    sess_mgr_client_name_destroy(plain, 1, r);
    EXPECT_EQ(mgx_handle_live_allocations(plain), 0u);
    mgx_handle_destroy(plain);
}

// A tracked variable array carries its own state byte, then one byte per element, in element
// order: each element's byte comes from its own flag slot and lands in its own slot again.
TEST_F(Wire, PerElementStateBytesTravelInElementOrder) {
    track(h);
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *d = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *value = own(fqdn_domain_name_bind_create(h, 1), fqdn_domain_name_bind_destroy);
    // Empty, the array carries no byte at all (len counts one: an upper bound); nor does an empty string.
    Bytes empty(64);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_marshal(h, 1, empty.data(), r, 63, &err),
              ovrin_svm_epm_notify_domain_name_bind_len(h, 1, r) - 1);
    EXPECT_EQ(fqdn_domain_name_bind_marshal(h, 1, empty.data(), value, 63, &err), fqdn_domain_name_bind_len(h, 1, value) - 1);
    for (uint32_t k = 0; k < 3; ++k) ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, 1, r, k, value, &err);
    for (uint32_t k = 0; k < 3; ++k)
        ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_set(h, 1, r, k, static_cast<uint8_t>(5 + k), &err);
    ASSERT_EQ(err, 0u);
    const Bytes buf = encode(h, "ovrin_svm_epm_notify_domain_name_bind", r);
    EXPECT_EQ(Bytes(buf.end() - 4, buf.end()), (Bytes{2, 5, 6, 7})); // the array's byte, then each element's

    ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, buf.data(), d, static_cast<int32_t>(buf.size()), 0, &err);
    ASSERT_EQ(err, 0u);
    for (uint32_t k = 0; k < 3; ++k)
        EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_get(h, 1, d, k, &err), 5 + k) << k;

    // Made on an untracked handle, the array's block has no flag slots: encoded by the tracking
    // handle, the elements' state bytes are 0 (the block is not read past; the sanitizer gate
    // sees any read beyond it).
    mgx_handle_t *plain = mgx_handle_create();
    // Each of its blocks is followed by bytes that are not 0, so that a read past one shows here too.
    static mgx_alloc_fn plain_alloc;
    plain_alloc = plain->inst_alloc;
    plain->inst_alloc = [](void *ctx, uint32_t l, size_t size) -> void * {
        auto *p = static_cast<uint8_t *>(plain_alloc(ctx, l, size + 64));
        if (p) std::memset(p + size, 0xEE, 64);
        return p;
    };
    auto *u = ovrin_svm_epm_notify_domain_name_bind_create(plain, 1);
    for (uint32_t k = 0; k < 3; ++k) ovrin_svm_epm_notify_domain_name_bind_domain_names_set(plain, 1, u, k, value, &err);
    const Bytes untracked = encode(h, "ovrin_svm_epm_notify_domain_name_bind", u);
    EXPECT_EQ(Bytes(untracked.end() - 4, untracked.end()), (Bytes{0, 0, 0, 0}));

    // A sender without state bytes leaves each element's slot 0, whether the receiver keeps the
    // block (non-zero decode flags, the same count) or makes a new one.
    const Bytes plain_bytes = encode(plain, "ovrin_svm_epm_notify_domain_name_bind", u);
    for (uint32_t flags : {1u, 0u}) {
        ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, buf.data(), d, static_cast<int32_t>(buf.size()), 0, &err);
        ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, plain_bytes.data(), d, static_cast<int32_t>(plain_bytes.size()),
                                                        flags, &err);
        ASSERT_EQ(err, 0u);
        for (uint32_t k = 0; k < 3; ++k)
            EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_domain_names_state_flag_get(h, 1, d, k, &err), 0) << flags << k;
    }
    // The untracked handle steps over the tracking sender's state bytes and takes nothing of its
    // tracking into the instance.
    auto *p = ovrin_svm_epm_notify_domain_name_bind_create(plain, 1);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_unmarshal(plain, 1, buf.data(), p, static_cast<int32_t>(buf.size()), 0, &err),
              buf.size());
    EXPECT_EQ(p->flags & MGX_IF_TRACKED, 0);
    EXPECT_EQ(encode(plain, "ovrin_svm_epm_notify_domain_name_bind", p),
              encode(plain, "ovrin_svm_epm_notify_domain_name_bind", r));
    ovrin_svm_epm_notify_domain_name_bind_destroy(plain, 1, p);
    ovrin_svm_epm_notify_domain_name_bind_destroy(plain, 1, u);
    EXPECT_EQ(mgx_handle_live_allocations(plain), 0u);
    mgx_handle_destroy(plain);
}

// Decode flags 0 give every string fresh storage, even one of the same length as the instance
// already holds; non-zero flags reuse it.
TEST_F(Wire, DecodeFlagsDecideWhetherAStringOfTheSameLengthKeepsItsStorage) {
    auto *n = own(sess_mgr_client_name_create(h, 1), sess_mgr_client_name_destroy);
    set_text(n->client_name, n->cl_name_len, "hello");
    Bytes buf(32);
    uint32_t used = sess_mgr_client_name_marshal(h, 1, buf.data(), n, 32, &err);
    for (uint32_t flags : {0u, 1u}) {
        uint64_t before = mgx_handle_total_allocations(h);
        sess_mgr_client_name_unmarshal(h, 1, buf.data(), n, static_cast<int32_t>(used), flags, &err);
        ASSERT_EQ(err, 0u);
        EXPECT_EQ(mgx_handle_total_allocations(h) - before, flags ? 0u : 1u) << flags;
        EXPECT_STREQ(n->client_name, "hello");
    }
}

TEST_F(Wire, UnionsEncodeTheSelectedArmOnly) {
    auto *e = own(ovrin_smd_resp_event_create(h, 1), ovrin_smd_resp_event_destroy);
    auto *r = own(ovrin_smd_resp_event_create(h, 1), ovrin_smd_resp_event_destroy);
    e->resp_type.value = SESS_MGR_RCL_CONFIG_NOTIFY_CB; // selects no arm
    e->reg_result = session_mgr_reg_result_create(h, 1);
    Bytes buf(256);
    const uint32_t leading = 6 + 10 + 5 + 4;
    EXPECT_EQ(ovrin_smd_resp_event_len(h, 1, e), leading);
    EXPECT_EQ(ovrin_smd_resp_event_marshal(h, 1, buf.data(), e, 256, &err), leading);
    e->resp_type.value = SESS_MGR_RCL_REGISTER_RESULT_NOTIFY;
    uint32_t with_arm = ovrin_smd_resp_event_len(h, 1, e);
    EXPECT_GT(with_arm, leading);
    EXPECT_EQ(ovrin_smd_resp_event_marshal(h, 1, buf.data(), e, 256, &err), with_arm);

    // A selected arm that is missing: error 2, the rest is still written.
    e->resp_type.value = SESS_MGR_RCL_NEW_CLIENT_NOTIFY_CB;
    EXPECT_EQ(ovrin_smd_resp_event_marshal(h, 1, buf.data(), e, 256, &err), leading);
    EXPECT_EQ(take_err(), 2u);
    // Inside a record the union's 2 stays the record's error when a later member then finds no
    // room: the first error is the one reported.
    auto *s = own(filled_start(), sess_mgr_session_start_destroy);
    sm_dot11_params_destroy(h, 1, s->ext_params.dot11_param);
    s->ext_params.dot11_param = nullptr;
    Bytes big(4096);
    const uint32_t written = sess_mgr_session_start_marshal(h, 1, big.data(), s, 4096, &err);
    EXPECT_EQ(take_err(), 2u);
    sess_mgr_session_start_marshal(h, 1, big.data(), s, static_cast<int32_t>(written) - 1, &err);
    EXPECT_EQ(take_err(), 2u);
    EXPECT_EQ(mgx_handle_last_error(h), 90u); // the handle keeps the last

    // The receiver creates the arm it needs, and only that one, tagging the allocation (what the
    // arm holds arrives: the operations-table round trip).
    e->resp_type.value = SESS_MGR_RCL_REGISTER_RESULT_NOTIFY;
    uint32_t n = ovrin_smd_resp_event_marshal(h, 1, buf.data(), e, 256, &err);
    EXPECT_EQ(ovrin_smd_resp_event_unmarshal(h, 1, buf.data(), r, static_cast<int32_t>(n), 0, &err), n);
    ASSERT_NE(r->reg_result, nullptr);
    EXPECT_EQ(r->new_client, nullptr);
    ASSERT_GE(mgx_callsite_tag_count(h), 1u);
    EXPECT_EQ(mgx_callsite_tag(h, mgx_callsite_tag_count(h) - 1), 0xB03C3000u); // the first arm's call site
}

// A negative variant byte decodes as the header alone, over an instance that held a union arm
// too; destroy then releases what the instance holds up to its layout (the arm), though the
// variant says it has no members.
TEST_F(Wire, AHeaderAloneDecodedOverAHeldArmLeavesNothingBehind) {
    ovrin_smd_resp_event *e = ovrin_smd_resp_event_create(h, 1);
    e->resp_type.value = SESS_MGR_RCL_REGISTER_RESULT_NOTIFY;
    ovrin_smd_resp_event_reg_result_set(h, 1, e, session_mgr_reg_result_create(h, 1), &err);
    const Bytes negative = {0xff, 0x00, 0x00, 0x00, 0x00, 0x04};
    EXPECT_EQ(ovrin_smd_resp_event_unmarshal(h, 1, negative.data(), e, 6, 0, &err), 6u);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(e->variant, -1);
    EXPECT_EQ(encode_resp(h, e), negative); // and encodes as that header again
    ovrin_smd_resp_event_destroy(h, 1, e);  // the fixture checks that the arm went too
}

// Decoded without state bytes (an untracked sender), a tracking instance keeps the state flags it
// had: the same bytes decoded over an instance that earlier took a tracked message with an arm,
// and into a new one, compare equal but encode that arm's state byte differently.
TEST_F(Wire, StateFlagsOutliveADecodeWithoutStateBytes) {
    mgx_handle_t *tracked = mgx_handle_create(), *plain = mgx_handle_create();
    track(tracked);
    ovrin_smd_resp_event *with_arm = ovrin_smd_resp_event_create(tracked, 1);
    with_arm->resp_type.value = SESS_MGR_RCL_REGISTER_RESULT_NOTIFY;
    ovrin_smd_resp_event_reg_result_set(tracked, 1, with_arm, session_mgr_reg_result_create(tracked, 1), &err);
    ovrin_smd_resp_event *without = ovrin_smd_resp_event_create(plain, 1);
    const Bytes first = encode_resp(tracked, with_arm), second = encode_resp(plain, without);

    track(h);
    ovrin_smd_resp_event *reused = ovrin_smd_resp_event_create(h, 1), *fresh = ovrin_smd_resp_event_create(h, 1);
    ovrin_smd_resp_event_unmarshal(h, 1, first.data(), reused, static_cast<int32_t>(first.size()), 0, &err);
    ovrin_smd_resp_event_unmarshal(h, 1, second.data(), reused, static_cast<int32_t>(second.size()), 0, &err);
    ovrin_smd_resp_event_unmarshal(h, 1, second.data(), fresh, static_cast<int32_t>(second.size()), 0, &err);
    ASSERT_EQ(err, 0u);
    EXPECT_EQ(ovrin_smd_resp_event_compare(reused, fresh), 0);
    const Bytes a = encode_resp(h, reused), b = encode_resp(h, fresh);
    ASSERT_EQ(a.size(), b.size());
    size_t arm_byte = a.size() - 13; // reg_result's arm byte, the first of the 14 at the end
    for (size_t i = 0; i < a.size(); ++i) EXPECT_EQ(a[i], i == arm_byte ? 2 : b[i]) << "byte " << i;
    EXPECT_EQ(b[arm_byte], 0);

    for (auto [x, e] : {std::pair{h, reused}, {h, fresh}, {tracked, with_arm}, {plain, without}})
        ovrin_smd_resp_event_destroy(x, 1, e);
    for (mgx_handle_t *x : {tracked, plain}) {
        EXPECT_EQ(mgx_handle_live_allocations(x), 0u);
        mgx_handle_destroy(x);
    }
}

TEST_F(Wire, LaterVariantMembersAreSteppedOverByTheJump) {
    sess_mgr_session_start *s = own(filled_start(), sess_mgr_session_start_destroy);
    Bytes b = encode_start(h, s);

    // A receiver whose domain knows only variant 0.
    mgx_handle_t *old = mgx_handle_create();
    mgx_handle_set_domain_variant(old, "sess_mgr_session_start", 0);
    sess_mgr_session_start *r = sess_mgr_session_start_create(old, 1);
    sess_mgr_session_start_adjust_variant(old, 1, r, &err);
    mgx_trace_clear();
    EXPECT_EQ(sess_mgr_session_start_unmarshal(old, 1, b.data(), r, static_cast<int32_t>(b.size()), 0, &err), b.size());
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(r->variant, 0);
    EXPECT_EQ(r->cl_name.client_name, nullptr);
    EXPECT_EQ(r->hdl.conn_hdl, s->hdl.conn_hdl);
    ASSERT_EQ(mgx_trace_count(), 1u);
    EXPECT_EQ(std::string(mgx_trace_text(0)).rfind("offset_jump read_len ", 0), 0u);
    sess_mgr_session_start_destroy(old, 1, r);
    EXPECT_EQ(mgx_handle_live_allocations(old), 0u);
    mgx_handle_destroy(old);

    // An instance newer than the domain is encoded at the domain's variant, with error 43.
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 0);
    uint32_t err43 = 0;
    Bytes b0 = encode_start(h, s, &err43);
    EXPECT_EQ(err43, 43u);
    EXPECT_EQ(b0[0], 0);
    EXPECT_LT(b0.size(), b.size());
    // A variant past the type's last is clamped to it.
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 5);
    s->variant = 2;
    EXPECT_EQ(encode_start(h, s), b);
}

TEST_F(Wire, ArraysShrinkToNothingAndHostileCountsAreRefused) {
    auto *a = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *empty = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *block = static_cast<fqdn_domain_name_bind *>(h->inst_alloc(h->alloc_ctx, 1, 3 * sizeof(fqdn_domain_name_bind)));
    std::memset(block, 0, 3 * sizeof(fqdn_domain_name_bind));
    for (int i = 0; i < 3; ++i) {
        fqdn_domain_name_bind_initialize(h, 1, &block[i], &_fqdn_domain_name_bind_type_info_internal, 0, 0, MGX_IF_NESTED,
                                         nullptr, &err);
        set_text(block[i].name, block[i].name_len, "host" + std::to_string(i) + ".example.com");
        block[i].fqdn_register = 1;
    }
    a->domain_names = block;
    a->domain_names_length = 3;
    Bytes b(512);
    uint32_t n = ovrin_svm_epm_notify_domain_name_bind_marshal(h, 1, b.data(), a, 512, &err);
    EXPECT_EQ(n, ovrin_svm_epm_notify_domain_name_bind_len(h, 1, a));
    ASSERT_EQ(ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, b.data(), r, static_cast<int32_t>(n), 0, &err), n);
    ASSERT_EQ(r->domain_names_length, 3u);

    // The sender drops to zero names: the receiver ends with no storage at all.
    n = ovrin_svm_epm_notify_domain_name_bind_marshal(h, 1, b.data(), empty, 512, &err);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, b.data(), r, static_cast<int32_t>(n), 0, &err), n);
    EXPECT_EQ(r->domain_names_length, 0u);
    EXPECT_EQ(r->domain_names, nullptr);

    // A count of four billion names in a few bytes: refused before any allocation.
    uint64_t before = mgx_handle_total_allocations(h);
    uint32_t count_at = 6 + 6 + 4; // header, mac, wlclient_num
    b[count_at] = b[count_at + 1] = b[count_at + 2] = b[count_at + 3] = 0xff;
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, b.data(), r, static_cast<int32_t>(n), 0, &err),
              static_cast<uint32_t>(count_at + 4));
    EXPECT_EQ(take_err(), 90u);
    EXPECT_EQ(mgx_handle_total_allocations(h), before);
    EXPECT_EQ(r->domain_names_length, 0u);
    // Every element takes at least its 6-byte header: 11 names in 60 bytes are refused as well.
    std::fill(b.begin() + count_at, b.end(), 0);
    b[count_at + 3] = 11;
    EXPECT_EQ(
        ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, b.data(), r, static_cast<int32_t>(count_at + 4 + 60), 0, &err),
        static_cast<uint32_t>(count_at + 4));
    EXPECT_EQ(err, 90u);
    EXPECT_EQ(mgx_handle_total_allocations(h), before);
    // Eleven names that are not there (a count set without storage) go as eleven bare headers, the
    // least a sender writes for an element; the message, ending exactly after them, is taken.
    err = 0;
    auto *bare = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    ovrin_svm_epm_notify_domain_name_bind_domain_names_length_set_value(h, 1, bare, 11, &err);
    n = ovrin_svm_epm_notify_domain_name_bind_marshal(h, 1, b.data(), bare, 512, &err);
    ASSERT_EQ(n, count_at + 4 + 11 * 6);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_unmarshal(h, 1, b.data(), r, static_cast<int32_t>(n), 0, &err), n);
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(r->domain_names_length, 11u);
}

// A clone goes through the wire form in a work buffer: one byte short gives 90 and leaves an
// existing destination as it was; the handle's own work space serves the _cr form. (Every
// allocation of a clone failing in turn: the reliability sweep.)
TEST_F(Wire, CloneThroughAShortWorkBufferLeavesTheDestinationAlone) {
    auto *s = own(filled_start(), sess_mgr_session_start_destroy);
    auto *copy = own(sess_mgr_session_start_create(h, 1), sess_mgr_session_start_destroy);
    Bytes ws(1024);
    copy->hdl.conn_hdl = 1;
    sess_mgr_session_start *keep = copy;
    sess_mgr_session_start_clone_internal(h, 1, s, &copy, ws.data(), sess_mgr_session_start_len(h, 1, s) - 1, &err);
    EXPECT_EQ(take_err(), 90u);
    EXPECT_EQ(copy, keep);
    EXPECT_EQ(copy->hdl.conn_hdl, 1u);
    sess_mgr_session_start_clone_internal(h, 1, s, nullptr, ws.data(), 1024, &err);
    EXPECT_EQ(err, 2u);

    mgx_clear_last_error(h, 1, nullptr);
    auto *cr = own(sess_mgr_session_start_clone_cr(h, s, 0), sess_mgr_session_start_destroy);
    ASSERT_NE(cr, nullptr);
    EXPECT_STREQ(cr->cl_name.client_name, s->cl_name.client_name);
    EXPECT_NE(cr->cl_name.client_name, s->cl_name.client_name);
}

TEST_F(Wire, AnOlderSenderLeavesTheNewerMembersAlone) {
    // The sender's domain knows variant 0 of the session start; the receiver's knows variant 1.
    mgx_handle_t *old = mgx_handle_create();
    mgx_handle_set_domain_variant(old, "sess_mgr_session_start", 0);
    sess_mgr_session_start *s = sess_mgr_session_start_create(old, 1);
    ASSERT_EQ(s->variant, 0);
    s->hdl.conn_hdl = 5;
    const Bytes b = encode_start(old, s);
    sess_mgr_session_start_destroy(old, 1, s);
    mgx_handle_destroy(old);

    auto *r = own(filled_start(), sess_mgr_session_start_destroy); // holds a client name from before
    const std::string name = r->cl_name.client_name;
    sess_mgr_session_start_adjust_variant(h, 1, r, &err);
    EXPECT_EQ(sess_mgr_session_start_unmarshal(h, 1, b.data(), r, static_cast<int32_t>(b.size()), 0, &err), b.size());
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(r->variant, 0);
    EXPECT_EQ(r->hdl.conn_hdl, 5u);
    EXPECT_EQ(r->cl_name.client_name, name); // not on the wire: untouched, still owned
}

} // namespace
