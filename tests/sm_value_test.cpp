// Compare, hash and member validity of records and unions: the ordering rules per field kind,
// the chained hash, and a sweep over every field of every type driven by the type tables.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_check.h"
#include "tests/sm_type_ops.h"

namespace {

using ovrin::Field, ovrin::Kind, ovrin::Shape, ovrin::Type;

using typeops::Ops;
using valid_fn = mgx_boolean (*)(mgx_handle_t *, const void *, uint32_t, uint32_t);

constexpr size_t enum_value = offsetof(sm_access_type, value);
uint8_t *at(void *instance, const Field &f) { return static_cast<uint8_t *>(instance) + f.offset; }
template <class T> T get(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class T> void put(void *p, T v) { std::memcpy(p, &v, sizeof v); }

uint32_t get_count(void *instance, const Field &f) {
    return f.kind == Kind::u16 ? get<uint16_t>(at(instance, f)) : get<uint32_t>(at(instance, f));
}

struct Value : RuntimeFixture {
    // A domain-name array with one element per name, set through the array's setter.
    void names(ovrin_svm_epm_notify_domain_name_bind *r, std::vector<const char *> list) {
        auto *e = fqdn_domain_name_bind_create(h, 1);
        for (uint32_t i = 0; i < list.size(); ++i) {
            fqdn_domain_name_bind_name_set(h, 1, e, list[i], static_cast<uint32_t>(std::strlen(list[i])), &err);
            ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, 1, r, i, e, &err);
        }
        fqdn_domain_name_bind_destroy(h, 1, e);
        ASSERT_EQ(take_err(), 0u);
    }

    // One change to one field of an instance, and its undoing; `orders` says whether compare is
    // to see it (not inside an arm the discriminator does not select).
    struct Change {
        std::string where;
        bool orders;
        std::function<void()> make, undo;
    };
    template <class T> static Change flip(std::string where, bool orders, uint8_t *p, T to) {
        T was = get<T>(p);
        return {where, orders, [=] { put(p, to); }, [=] { put(p, was); }};
    }
    void changes(const Type &t, void *p, bool orders, const std::string &path, std::vector<Change> &out) {
        uint32_t selected = t.discriminator >= 0 ? get<uint32_t>(at(p, t.fields[t.discriminator]) + enum_value) : 0;
        for (uint16_t i = 0; i < t.n_fields; ++i) {
            const Field &f = t.fields[i];
            std::string where = path + "." + f.name;
            uint8_t *q = at(p, f);
            if (f.shape == Shape::var_string) {
                char *s = get<char *>(q);
                uint32_t n = get_count(p, t.fields[f.companion]);
                out.push_back(
                    flip(where + "[last]", orders, reinterpret_cast<uint8_t *>(s + n - 1), static_cast<char>(s[n - 1] ^ 1)));
            } else if (f.shape == Shape::var_array) {
                for (int k = 0; k < 2; ++k)
                    changes(*f.type, get<uint8_t *>(q) + k * f.elem_size, orders, where + "[" + std::to_string(k) + "]", out);
            } else if (f.shape == Shape::member) {
                bool arm_orders = orders && f.select == selected;
                out.push_back(flip(where + "=null", arm_orders, q, static_cast<void *>(nullptr)));
                changes(*f.type, get<void *>(q), arm_orders, where, out);
            } else {
                for (uint16_t k = 0; k < f.count; ++k) element_change(f, q + k * f.elem_size, orders, where, out);
            }
        }
    }
    void element_change(const Field &f, uint8_t *q, bool orders, const std::string &where, std::vector<Change> &out) {
        switch (f.kind) {
        // Decrements, so a count or length stays within what its block holds; any other 16-bit
        // value changes in its high byte alone, which only a compare of the whole width sees.
        case Kind::u8: return out.push_back(flip(where, orders, q, static_cast<uint8_t>(get<uint8_t>(q) - 1)));
        case Kind::u16:
            return out.push_back(flip(where, orders, q,
                                      static_cast<uint16_t>(f.companion >= 0 ? get<uint16_t>(q) - 1 : get<uint16_t>(q) ^ 0x100)));
        case Kind::u32:
        case Kind::ipv4_addr: return out.push_back(flip(where, orders, q, get<uint32_t>(q) - 1));
        case Kind::u64: return out.push_back(flip(where, orders, q, get<uint64_t>(q) - 1));
        case Kind::boolean: return out.push_back(flip(where, orders, q, get<uint32_t>(q) ^ 1u));
        case Kind::mac_addr:
        case Kind::ipv6_addr:
            return out.push_back(flip(where, orders, q + f.elem_size - 1, static_cast<uint8_t>(q[f.elem_size - 1] ^ 1)));
        case Kind::enumeration: return out.push_back(flip(where, orders, q + enum_value, get<uint32_t>(q + enum_value) + 1));
        case Kind::record: return changes(*f.type, q, orders, where, out);
        case Kind::character: return;
        case Kind::aaa_tlv: {
            auto *tlv = reinterpret_cast<aaa_tlv *>(q);
            return out.push_back({where, orders, [=, this] { aaa_tlv_attr_add(h, 1, tlv, 99, "x", 1, &err); },
                                  [=, this] { aaa_tlv_attr_remove(h, 1, tlv, aaa_tlv_attr_count(tlv) - 1, &err); }});
        }
        }
    }
};

int sign(int32_t c) { return c < 0 ? -1 : (c > 0 ? 1 : 0); }

// Every type filled in full (every arm of a union, the first selected), against a copy in which
// one field at a time differs: compare and hash both see the difference, except that compare
// ignores arms the discriminator does not select. Both instances are taken down to variant 0
// first: later-variant fields still count. A null instance orders first and hashes to the seed.
TEST_F(Value, EveryFieldOfEveryTypeTakesPartInCompareAndHash) {
    for (const Ops &o : typeops::all()) {
        if (o.is_enum()) continue;
        SCOPED_TRACE(o.name);
        void *a = typeops::make_filled(o, h, 1, testfill::every_arm);
        void *b = typeops::make_filled(o, h, 1, testfill::every_arm);
        EXPECT_EQ(o.compare(nullptr, nullptr), 0);
        EXPECT_EQ(o.compare(nullptr, a), -1);
        EXPECT_EQ(o.compare(a, nullptr), 1);
        EXPECT_EQ(o.hash(nullptr, 0x5eed), 0x5eedu);
        int8_t variant = static_cast<mgx_instance_hdr_t *>(a)->variant;
        static_cast<mgx_instance_hdr_t *>(a)->variant = static_cast<mgx_instance_hdr_t *>(b)->variant = 0;
        ASSERT_EQ(o.compare(a, b), 0);
        ASSERT_EQ(o.hash(a, 7), o.hash(b, 7));
        std::vector<Change> list;
        changes(*o.type, b, true, o.name, list);
        for (Change &c : list) {
            c.make();
            EXPECT_EQ(o.compare(a, b) != 0, c.orders) << c.where;
            EXPECT_EQ(sign(o.compare(b, a)), -sign(o.compare(a, b))) << c.where;
            EXPECT_NE(o.hash(a, 7), o.hash(b, 7)) << c.where;
            c.undo();
            EXPECT_EQ(o.compare(a, b), 0) << c.where;
        }
        EXPECT_EQ(o.hash(a, 7), o.hash(b, 7));
        static_cast<mgx_instance_hdr_t *>(a)->variant = static_cast<mgx_instance_hdr_t *>(b)->variant = variant;
        for (void *p : {a, b}) o.destroy(h, 1, p);
    }
}

TEST_F(Value, UnionsOrderByTheRawDiscriminatorDifferenceThenTheSelectedArm) {
    auto *a = own(sess_mgr_extended_params_create(h, 1), sess_mgr_extended_params_destroy);
    auto *b = own(sess_mgr_extended_params_create(h, 1), sess_mgr_extended_params_destroy);
    a->dot11_param = sm_dot11_params_create(h, 1);
    b->dot11_param = sm_dot11_params_create(h, 1);
    a->dot11_param->wlan_id = 5;
    b->dot11_param->wlan_id = 9; // (while the arm is not selected compare ignores it: the every-field sweep)
    a->encap_type.value = b->encap_type.value = SM_WIRELESS_ACCESS;
    EXPECT_EQ(sess_mgr_extended_params_compare(a, b), -1);
    sm_dot11_params_destroy(h, 1, b->dot11_param);
    b->dot11_param = nullptr;
    EXPECT_EQ(sess_mgr_extended_params_compare(a, b), 1); // selected arm present against empty slot

    auto *x = own(ovrin_smd_in_event_create(h, 1), ovrin_smd_in_event_destroy);
    auto *y = own(ovrin_smd_in_event_create(h, 1), ovrin_smd_in_event_destroy);
    x->event_type.value = SESS_MGR_RCL_IN_REGISTER;
    y->event_type.value = SESS_MGR_RCL_IN_SESSION_START;
    EXPECT_EQ(ovrin_smd_in_event_compare(x, y), -3);
    EXPECT_EQ(ovrin_smd_in_event_compare(y, x), 3);
    x->event_type.value = 0;
    y->event_type.value = 0xFFFFFFFFu;
    EXPECT_EQ(ovrin_smd_in_event_compare(x, y), 1); // the 32-bit difference wraps around
}

TEST_F(Value, CountedStringsAndArraysOrderByLengthThenContent) {
    auto *a = own(sess_mgr_client_name_create(h, 1), sess_mgr_client_name_destroy);
    auto *b = own(sess_mgr_client_name_create(h, 1), sess_mgr_client_name_destroy);
    a->client_name = handle_text(h, "ab", &a->cl_name_len);
    b->client_name = handle_text(h, "abc", &b->cl_name_len);
    EXPECT_EQ(sess_mgr_client_name_compare(a, b), -1); // by length, though "ab" is a prefix
    h->inst_free(h->alloc_ctx, 1, a->client_name);
    a->client_name = handle_text(h, "abd", &a->cl_name_len);
    EXPECT_EQ(sess_mgr_client_name_compare(a, b), std::memcmp(a->client_name, b->client_name, 3)); // as it is

    // Domain-name elements: the 16-bit name length, then the 8-bit flag, then the characters.
    auto *x = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *y = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_compare(x, y), 0); // both empty
    names(x, {"z.example", "b"});
    names(y, {"z.example", "aa", "c"});
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_compare(x, y), -1); // 2 elements against 3
    y->domain_names_length = 2;                                         // "b" against "aa": shorter first
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_compare(x, y), -1);
    x->domain_names[1].name[0] = 'a';
    x->domain_names[1].name_len = 2; // "a\0" against "aa": the characters decide ...
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_compare(x, y),
              std::memcmp(x->domain_names[1].name, y->domain_names[1].name, 2));
    x->domain_names[1].fqdn_register = 1; // ... but only after the flag
    EXPECT_EQ(ovrin_svm_epm_notify_domain_name_bind_compare(x, y), 1);
    x->domain_names[1].name_len = 1;
    y->domain_names_length = 3;
}

// The chains written out by hand: a union hashes every arm behind the discriminator's value
// bytes; a counted string hashes its length twice before its characters.
TEST_F(Value, HashChainsThroughTheFieldsInDeclarationOrder) {
    auto *p = own(sess_mgr_extended_params_create(h, 1), sess_mgr_extended_params_destroy);
    p->trusted = 3;
    p->proximity = 4;
    p->encap_type.value = SM_WIRED_ACCESS; // the arm is hashed even when not selected
    p->dot11_param = sm_dot11_params_create(h, 1);
    p->dot11_param->vlan_id = 12;
    const char *disc = reinterpret_cast<const char *>(&p->encap_type.value);
    uint32_t want = u_int32_hash(&p->proximity, u_int32_hash(&p->trusted, 11));
    want = SuperFastHash(disc, 4, SuperFastHash(disc, 4, want));
    want = sm_dot11_params_hash(p->dot11_param, want);
    EXPECT_EQ(sess_mgr_extended_params_hash(p, 11), want);
    EXPECT_EQ(sess_mgr_extended_params_hash(p, 11), want);
    sm_dot11_params_destroy(h, 1, p->dot11_param);
    p->dot11_param = nullptr; // an empty slot gives back its seed
    EXPECT_EQ(sess_mgr_extended_params_hash(p, 11),
              SuperFastHash(disc, 4, SuperFastHash(disc, 4, u_int32_hash(&p->proximity, u_int32_hash(&p->trusted, 11)))));

    auto *f = own(fqdn_domain_name_bind_create(h, 1), fqdn_domain_name_bind_destroy);
    f->name = handle_text(h, "host.example", &f->name_len);
    f->fqdn_register = 1;
    uint32_t chain = u_int16_hash(&f->name_len, u_int8_hash(&f->fqdn_register, u_int16_hash(&f->name_len, 0)));
    EXPECT_EQ(fqdn_domain_name_bind_hash(f, 0), SuperFastHash(f->name, f->name_len, chain));
}

TEST_F(Value, MemberValidityFollowsTheDomainAndInstanceVariants) {
    auto *s = own(sess_mgr_session_start_create(h, 1), sess_mgr_session_start_destroy); // the domain gives variant 1
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, s, 4, 0), 1u);
    s->variant = 0;
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, s, 4, 0), 0u);
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, s, 4, 1), 1u);       // the domain alone decides
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, nullptr, 4, 1), 1u); // whatever the instance
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, nullptr, 4, 0), 0u);
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 9); // capped to the last variant
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, s, 4, 1), 1u);
    mgx_handle_set_domain_variant(h, "sess_mgr_session_start", 0);
    s->variant = 1;
    EXPECT_EQ(sess_mgr_session_start_is_valid_cr(h, s, 4, 0), 0u);

    // A single-variant type: every index below the member count, union members included.
    for (const Type *t : testfill::types()) {
        if (t->kind == ovrin::TypeKind::enumeration || t->n_variants > 1) continue;
        auto valid = testfill::op<valid_fn>(*t, "is_valid_cr");
        EXPECT_EQ(valid(h, nullptr, t->n_fields - 1u, 0), 1u) << t->name;
        EXPECT_EQ(valid(h, nullptr, t->n_fields, 1), 0u) << t->name;
    }
}

} // namespace
