// The enumeration types: range checks and user/wire mapping, compare and hash, access, the
// 5-byte wire form, print and XML, validity per domain variant, and a sweep of every literal of
// the fourteen types.
#include <numeric>
#include <string>
#include <vector>

#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_type_ops.h"

namespace {

using E = sm_peer_state; // every enumeration shares this layout
using SetValue = void (*)(mgx_handle_t *, uint32_t, E *, uint32_t, uint32_t *);

template <class Fn> Fn op(const std::string &type, const char *name) { return testfill::op<Fn>(testfill::type(type), name); }

struct Enums : RuntimeFixture {
    // A new instance of the enumeration type, destroyed when the test ends.
    E *make(const std::string &type = "sm_peer_state") {
        return own(op<E *(*)(mgx_handle_t *, uint32_t)>(type, "create")(h, 1),
                   op<void (*)(mgx_handle_t *, uint32_t, E *)>(type, "destroy"));
    }
    // Sets value into a new instance of type at the given variant; the error, with the value
    // checked against it.
    uint32_t try_set(const char *type, uint32_t value, int variant) {
        E *e = make(type);
        e->variant = static_cast<int8_t>(variant);
        e->value = 0xAA;
        op<SetValue>(type, "set_value")(h, 1, e, value, &err);
        EXPECT_EQ(e->value, err ? 0xAAu : value) << type << " " << value << " at variant " << variant;
        return take_err();
    }
    std::string print(const E *e, uint32_t indent = 0) {
        char buf[256] = "";
        uint32_t n = sm_peer_state_print(h, 1, buf, indent, "state", e, sizeof buf, &err);
        EXPECT_EQ(n, std::strlen(buf));
        return buf;
    }
    std::string xml(const E *e, uint8_t state_flag = 0) {
        char buf[256] = "";
        uint32_t n = sm_peer_state_to_xml(h, 1, "state", buf, e, sizeof buf, state_flag, &err);
        EXPECT_EQ(n, std::strlen(buf));
        return buf;
    }
};

// Set checks a value against the instance's variant, validity against the domain's; values no
// literal carries are valid up to the type's bound (every literal, at its variant and below it:
// the sweep below).
TEST_F(Enums, SetAndValidityAdmitAValueFromTheVariantThatKnowsIt) {
    for (auto [type, value, variant, code] : {std::tuple{"sm_peer_state", 7u, 0, 43u},
                                              {"sm_peer_state", 7u, 1, 0u}, // a newer variant may know more literals
                                              {"sm_peer_state", 7u, -1, 43u},
                                              {"sm_max_name_len", 0u, 0, 0u}, // valid, though no literal has it
                                              {"sm_max_name_len", 31u, 0, 43u}})
        EXPECT_EQ(try_set(type, value, variant), code);
    EXPECT_EQ(mgx_handle_last_error(h), 43u);

    // the inbound selector: value -> the lowest instance variant that may hold it, and the lowest
    // domain variant that admits it (-2: never)
    for (int v = -1; v <= 3; ++v) {
        if (v <= 2) mgx_handle_set_domain_variant(h, "ovrin_sm_in_event_type", static_cast<int8_t>(v));
        for (auto [value, instance, domain] : {std::tuple{23u, -1, -1}, {24u, 1, 1}, {25u, 1, 1}, {26u, 2, 2}, {27u, 3, -2}}) {
            EXPECT_EQ(try_set("ovrin_sm_in_event_type", value, v), v >= instance ? 0u : 43u) << value;
            if (v > 2) continue;
            EXPECT_EQ(ovrin_sm_in_event_type_is_valid_cr(h, value) != 0, domain != -2 && v >= domain)
                << value << " in domain variant " << v;
        }
    }
}

TEST_F(Enums, SetCopiesTheWholeInstanceAndSetValueOnlyTheValue) {
    E *e = make(), *src = make();
    sm_peer_state_set_value(h, 1, e, 3, &err);

    src->value = 9;
    sm_peer_state_set(h, 1, e, src, &err); // 9 into variant 0
    EXPECT_EQ(err, 43u);
    sm_peer_state_set_value(h, 1, e, 2, &err); // a pending error makes it a no-op
    EXPECT_EQ(e->value, 3u);
    EXPECT_EQ(take_err(), 43u);

    e->variant = 1;
    sm_peer_state_set(h, 1, e, src, &err);
    EXPECT_EQ(e->value, 9u);
    EXPECT_EQ(e->variant, 0); // the source's header came along
    EXPECT_EQ(take_err(), 0u);
}

// Compare is the raw 32-bit difference of the values (the sweep below checks it for every literal):
// it wraps, and is not clamped to -1, 0 or 1. A null instance orders first.
TEST_F(Enums, CompareIsTheRawDifferenceAndWraps) {
    E *a = make(), *b = make();
    EXPECT_EQ(sm_peer_state_compare(nullptr, nullptr) + sm_peer_state_compare(nullptr, b), -1);
    EXPECT_EQ(sm_peer_state_compare(a, nullptr), 1);
    a->value = 0x80000000u;
    EXPECT_EQ(sm_peer_state_compare(a, b), INT32_MIN);
    EXPECT_EQ(sm_peer_state_hash(nullptr, 0x1234), 0x1234u);
}

TEST_F(Enums, MarshalWritesFiveBytesAtTheDomainVariantAndRefusesShortSpace) {
    E *e = make();
    e->value = 0x01020304;
    auto none = exact_block(0), three = exact_block(3);
    EXPECT_EQ(sm_peer_state_marshal(h, 1, none.get(), e, 0, &err), 0u);
    EXPECT_EQ(take_err(), 90u);
    EXPECT_EQ(sm_peer_state_marshal(h, 1, three.get(), e, 3, &err), 1u); // the variant byte fits, the value not
    EXPECT_EQ(take_err(), 90u);
    EXPECT_EQ(sm_peer_state_marshal(h, 1, nullptr, e, 5, &err), 0u); // no buffer is no room, whatever the space says
    EXPECT_EQ(take_err(), 90u);
    EXPECT_EQ(sm_peer_state_unmarshal(h, 1, nullptr, e, 5, 0, &err), 0u);
    EXPECT_EQ(take_err(), 90u);

    // ahead of the domain: 43, and the bytes still go out at the domain's variant
    uint8_t buf[5];
    e->variant = 1;
    EXPECT_EQ(sm_peer_state_marshal(h, 1, buf, e, 5, &err), 5u);
    EXPECT_EQ(take_err(), 43u);
    EXPECT_EQ(buf[0], 0);
    EXPECT_EQ(sm_peer_state_marshal(h, 1, three.get(), e, 3, &err), 1u);
    EXPECT_EQ(take_err(), 90u);                            // an incomplete encoding outranks the variant error
    mgx_handle_set_domain_variant(h, "sm_peer_state", -1); // a negative variant is kept
    e->variant = -1;
    sm_peer_state_marshal(h, 1, buf, e, 5, &err);
    EXPECT_EQ(buf[0], 0xFF);

    const uint8_t in[] = {3, 0, 0, 0, 9};
    e->layout = 0;
    mgx_handle_set_domain_mode(h, 1); // the instance takes the handle's copy of the descriptor
    EXPECT_EQ(sm_peer_state_unmarshal(h, 1, in, e, 5, 0, &err), 5u);
    EXPECT_EQ(e->variant, 0); // capped to the layout byte
    EXPECT_EQ(e->value, 9u);  // no range check
    EXPECT_EQ(e->descriptor, mgx_handle_registry_lookup(h, _sm_peer_state_type_info_internal.fingerprint_text));
    EXPECT_EQ(sm_peer_state_unmarshal(h, 1, in, e, 3, 0, &err), 1u);
    EXPECT_EQ(err, 90u);
}

TEST_F(Enums, TextNamesTheLiteralOrSaysOutOfRangeWithoutLineEnd) {
    E *e = make();
    e->value = SM_PEER_STATE_CONN_WAIT;
    EXPECT_EQ(print(e, 4), "    state@sm_peer_state:SM_PEER_STATE_CONN_WAIT\n"); // a literal: the sweep below
    e->value = 9;
    EXPECT_EQ(print(e), "state@sm_peer_state:Enum value out of range");

    // XML: the literal as an empty element; reading takes the first literal present
    e->value = SM_PEER_STATE_CONN_WAIT;
    EXPECT_EQ(xml(e, 2), "<state state=\"2\"><SM_PEER_STATE_CONN_WAIT/></state>");
    e->value = 7;
    EXPECT_EQ(xml(e), "<state><sm_peer_state value out of range/></state>");

    // value order decides, not document order
    auto doc = parse_xml("<r><s><SM_PEER_STATE_CONNECTED/><SM_PEER_STATE_CONN_WAIT/></s><empty/></r>");
    char msg[32] = "";
    sm_peer_state_from_xml(h, 1, "r/s", doc.get(), e, &err, msg, sizeof msg);
    EXPECT_EQ(e->value, 1u);
    sm_peer_state_from_xml(h, 1, "r/empty", doc.get(), e, &err, msg, sizeof msg);
    EXPECT_EQ(take_err(), 0u); // no literal present: no error, value kept
    EXPECT_EQ(e->value, 1u);

    // a literal element whose text does not fit the 128-byte value buffer fails the lookup
    auto bad = parse_xml("<r><SM_PEER_STATE_CONNECTING>" + std::string(200, 'x') + "</SM_PEER_STATE_CONNECTING></r>");
    sm_peer_state_from_xml(h, 1, "r", bad.get(), e, &err, msg, sizeof msg);
    EXPECT_EQ(err, 28u);
    EXPECT_STREQ(msg, "Failed xpath: r");
    EXPECT_EQ(e->value, 1u);
}

// ------------------------------------------------------------------ every literal of every type

struct EnumCase {
    const char *type;
    std::vector<const char *> names; // in value order; the wire value is the position
    std::vector<uint32_t> users;     // empty: the positions
    std::vector<int> from;           // empty: all variant 0
};

std::vector<uint32_t> positions_then(uint32_t n, std::vector<uint32_t> tail) {
    std::vector<uint32_t> v(n);
    std::iota(v.begin(), v.end(), 0u);
    v.insert(v.end(), tail.begin(), tail.end());
    return v;
}

const std::vector<EnumCase> &cases() {
    static const std::vector<EnumCase> list = {
#include "tests/sm_enum_literals.inc"
    };
    return list;
}

TEST_F(Enums, EveryLiteralRoundTripsThroughValueWireTextAndXml) {
    std::vector<const typeops::Ops *> enums;
    for (const typeops::Ops &o : typeops::all())
        if (o.is_enum()) enums.push_back(&o);
    ASSERT_EQ(enums.size(), cases().size());

    for (size_t i = 0; i < cases().size(); ++i) {
        const EnumCase &c = cases()[i];
        const typeops::Ops &o = *enums[i];
        const std::string t = c.type;
        ASSERT_EQ(t, o.name); // the cases follow the registration order
        auto set_value = op<SetValue>(t, "set_value");
        auto to_wire = op<uint32_t (*)(uint32_t)>(t, "map_to_internal_value");
        auto is_valid = op<mgx_boolean (*)(mgx_handle_t *, uint32_t)>(t, "is_valid_cr");
        ASSERT_TRUE(set_value && to_wire && is_valid && o.from_xml);

        E *e = make(t), *back = make(t);
        const int8_t created = e->variant;
        for (uint32_t w = 0; w < c.names.size(); ++w) {
            const std::string name = c.names[w];
            uint32_t user = c.users.empty() ? w : c.users[w];
            SCOPED_TRACE(t + " " + name);
            set_value(h, 1, e, user, &err); // created at the domain's (highest) variant
            ASSERT_EQ(err, 0u);
            EXPECT_EQ(to_wire(user), w);
            EXPECT_TRUE(is_valid(h, user));

            uint8_t buf[5];
            ASSERT_EQ(o.marshal(h, 1, buf, e, 5, &err), 5u);
            EXPECT_EQ(buf[4] | buf[3] << 8 | buf[2] << 16 | buf[1] << 24, static_cast<int>(w));
            back->layout = e->variant;
            ASSERT_EQ(o.unmarshal(h, 1, buf, back, 5, 0, &err), 5u);
            EXPECT_EQ(back->value, user);
            EXPECT_EQ(back->variant, e->variant);
            back->value = user + 6;
            back->variant = static_cast<int8_t>(e->variant ^ 1); // the header takes no part in either
            EXPECT_EQ(o.compare(e, back), -6);
            EXPECT_EQ(o.hash(back, 7), SuperFastHash(reinterpret_cast<const char *>(&back->value), 4, 7));

            char text[256];
            o.print_cr(h, e, text, sizeof text);
            EXPECT_EQ(text, t + "@" + t + ":" + name + "\n");
            o.toxml_cr(h, e, text, sizeof text);
            EXPECT_EQ(text, "<" + t + "><" + name + "/></" + t + ">");
            auto doc = parse_xml(text);
            back->value = ~0u;
            o.from_xml(h, 1, c.type, doc.get(), back, &err, nullptr, 0);
            EXPECT_EQ(back->value, user);
            EXPECT_EQ(err, 0u);

            int from = c.from.empty() ? 0 : c.from[w];
            e->variant = static_cast<int8_t>(from - 1);
            set_value(h, 1, e, user, &err);
            EXPECT_EQ(take_err(), from > 0 ? 43u : 0u); // later literals are refused below their variant
            e->variant = created;
        }
        EXPECT_FALSE(is_valid(h, c.users.empty() ? c.names.size() : c.users.back() + 1));
    }
}

} // namespace
