// The runtime's primitive field types: wire, text and XML forms, short and hostile input, strict
// readers, and the AAA attribute list's memory.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <deque>
#include <functional>

#include "prim_fixture.h"

namespace {

ipv6_addr v6(const char *text) {
    ipv6_addr a{};
    inet_pton(AF_INET6, text, a.word);
    return a;
}

// One fixed-width primitive: its operations, a sample value, its wire bytes and its text.
#define PRIM_CASE(NAME, T, VALUE, TEXT, ...)                                                                                     \
    struct NAME {                                                                                                                \
        using type = T;                                                                                                          \
        static constexpr auto set = T##_set;                                                                                     \
        static constexpr auto marshal = T##_marshal;                                                                             \
        static constexpr auto unmarshal = T##_unmarshal;                                                                         \
        static constexpr auto len = T##_len;                                                                                     \
        static constexpr auto print = T##_print;                                                                                 \
        static constexpr auto to_xml = T##_to_xml;                                                                               \
        static constexpr auto from_xml = T##_from_xml;                                                                           \
        static T value() { return VALUE; }                                                                                       \
        static std::vector<uint8_t> wire() { return {__VA_ARGS__}; }                                                             \
        static constexpr const char *text = TEXT;                                                                                \
    };
PRIM_CASE(U8Case, u_int8, 0xA5, "165", 0xA5)
PRIM_CASE(U16Case, u_int16, 0xBEEF, "48879", 0xBE, 0xEF)
PRIM_CASE(U32Case, u_int32, 0xDEADBEEFu, "3735928559", 0xDE, 0xAD, 0xBE, 0xEF)
PRIM_CASE(U64Case, u_int64, 0x0123456789ABCDEFull, "81985529216486895", 1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF)
PRIM_CASE(BoolCase, mgx_boolean, 1, "true", 1)
PRIM_CASE(MacCase, mgx_mac_addr, (mgx_mac_addr{{0, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}}), "00:1a:2b:3c:4d:5e", 0, 0x1a, 0x2b, 0x3c,
          0x4d, 0x5e)
PRIM_CASE(Ipv4Case, ipv4_addr, 0xC0A80001u, "192.168.0.1", 192, 168, 0, 1)
PRIM_CASE(Ipv6Case, ipv6_addr, v6("2001:db8::1"), "2001:db8::1", 0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1)

template <class C> class PrimTest : public RuntimeFixture {};
using PrimCases = ::testing::Types<U8Case, U16Case, U32Case, U64Case, BoolCase, MacCase, Ipv4Case, Ipv6Case>;
TYPED_TEST_SUITE(PrimTest, PrimCases);

template <class T> bool same(const T &a, const T &b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

// set goes through the write hook; marshal and unmarshal are exact, refuse short buffers without
// touching a byte past them, and do nothing at all while an error is pending.
TYPED_TEST(PrimTest, SetWireFormShortBuffersAndAPendingError) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value(), none{};
    const std::vector<uint8_t> wire = C::wire();
    const auto w = static_cast<int32_t>(wire.size());
    typename C::type field{};
    mgx_journal_clear(h);
    C::set(h, 7, &field, &v, &this->err);
    EXPECT_TRUE(same(field, v));
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, &field);
    EXPECT_EQ(mgx_journal_entry(h, 0)->length, sizeof field);

    EXPECT_EQ(C::len(h, 0, &v), uint32_t(w));
    auto buf = exact_block(wire.size());
    ASSERT_EQ(C::marshal(h, 0, buf.get(), &v, w, &this->err), uint32_t(w));
    EXPECT_EQ(std::vector<uint8_t>(buf.get(), buf.get() + w), wire);
    typename C::type back{};
    ASSERT_EQ(C::unmarshal(h, 0, buf.get(), &back, w, 0, &this->err), uint32_t(w));
    EXPECT_TRUE(same(back, v));

    for (int32_t n = -1; n < w; ++n) { // too short: error 90, nothing read or written past n
        size_t bytes = n < 0 ? 0 : size_t(n);
        uint32_t e1 = 0, e2 = 0;
        auto out = exact_block(bytes), in = exact_block(bytes, wire.data());
        back = none;
        EXPECT_EQ(C::marshal(h, 0, out.get(), &v, n, &e1) + C::unmarshal(h, 0, in.get(), &back, n, 0, &e2), 0u);
        EXPECT_EQ(e1 + e2, 2 * MGX_ESHORT) << n;
        EXPECT_EQ(std::count(out.get(), out.get() + bytes, 0xA5), long(bytes));
        EXPECT_TRUE(same(back, none));
    }
    EXPECT_EQ(mgx_handle_last_error(h), MGX_ESHORT);
}

TYPED_TEST(PrimTest, PrintAndXmlForms) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    const std::string text = C::text, xml = "<field state=\"2\">" + text + "</field>";
    char buf[128];
    EXPECT_EQ(C::print(h, 0, buf, 2, "field", &v, sizeof buf, &this->err), text.size() + 10);
    EXPECT_EQ(buf, "  field: " + text + "\n");
    EXPECT_EQ(C::to_xml(h, 0, "field", buf, &v, sizeof buf, 2, &this->err), xml.size());
    EXPECT_EQ(buf, xml);

    auto doc = parse_xml("<r>\n  " + xml + "\n<junk>1x2</junk><empty/></r>");
    typename C::type back{};
    C::from_xml(h, 0, "r/field", doc.get(), &back, &this->err, nullptr, 0);
    EXPECT_EQ(this->take_err(), 0u);
    EXPECT_TRUE(same(back, v));
    C::from_xml(h, 0, "r/missing", doc.get(), &back, &this->err, nullptr, 0);
    EXPECT_EQ(this->err, MGX_ENOENT);
    EXPECT_TRUE(same(back, v));
}

using ScalarTest = RuntimeFixture;

// Addresses order by their bytes as they travel, the first deciding: a MAC or IPv6 address whose
// first byte is lower is lower whatever follows.
TEST_F(ScalarTest, AddressesOrderByTheirBytesFirstByteFirst) {
    const mgx_mac_addr mac_low{{0x00, 0xff, 0xff, 0xff, 0xff, 0xff}}, mac_high{{0x01, 0, 0, 0, 0, 0}};
    EXPECT_EQ(mgx_mac_addr_compare(&mac_low, &mac_high), -1);
    EXPECT_EQ(mgx_mac_addr_compare(&mac_high, &mac_low), 1);
    EXPECT_EQ(mgx_mac_addr_compare(&mac_low, &mac_low), 0);
    const ipv6_addr v6_low = v6("fe80::ffff"), v6_high = v6("ff00::1");
    EXPECT_EQ(ipv6_addr_compare(&v6_low, &v6_high), -1);
    EXPECT_EQ(ipv6_addr_compare(&v6_high, &v6_low), 1);
    EXPECT_EQ(ipv6_addr_compare(&v6_high, &v6_high), 0);
}

TEST_F(ScalarTest, BooleansAreNormalisedToZeroOrOne) {
    mgx_boolean b = 0, raw = 0x100; // raw: a non-zero value written behind the setters' back
    mgx_boolean_set_value(h, 0, &b, 7, &err);
    EXPECT_EQ(b, 1u);
    uint8_t byte = 0xEE;
    mgx_boolean_marshal(h, 0, &byte, &raw, 1, &err);
    EXPECT_EQ(byte, 1);
    byte = 0x80;
    mgx_boolean_unmarshal(h, 0, &byte, &b, 1, 0, &err);
    EXPECT_EQ(mgx_boolean_get_value(h, 0, &b, &err), 1u);
    auto doc = parse_xml("<r><a>1</a><b>false</b></r>");
    mgx_boolean_from_xml(h, 0, "r/b", doc.get(), &b, &err, nullptr, 0);
    EXPECT_EQ(b, 0u);
    mgx_boolean_from_xml(h, 0, "r/a", doc.get(), &b, &err, nullptr, 0);
    EXPECT_EQ(b, 1u);
}

TEST_F(ScalarTest, ReadersAreStrict) {
    // Reads each text into a value of sample's type; ok: whether the reader takes it.
    auto check = [&](auto sample, auto from_xml, std::initializer_list<std::pair<const char *, bool>> cases) {
        for (auto [text, ok] : cases) {
            auto doc = parse_xml(std::string("<v>") + text + "</v>");
            uint32_t e = 0;
            from_xml(h, 0, "v", doc.get(), &sample, &e, nullptr, 0);
            EXPECT_EQ(e, ok ? 0u : MGX_EINVAL) << text;
        }
    };
    check(u_int8{}, u_int8_from_xml,
          {{"255", true}, {" 42\n", true}, {"256", false}, {"-1", false}, {"+1", false}, {"0x1", false}, {"1 2", false}});
    check(u_int64{}, u_int64_from_xml, {{"18446744073709551615", true}, {"18446744073709551616", false}});
    check(mgx_mac_addr{}, mgx_mac_addr_from_xml,
          {{"00:1A:2B:3C:4D:5E", true}, {"00:1a:2b:3c:4d", false}, {"00-1a-2b-3c-4d-5e", false}, {"0g:1a:2b:3c:4d:5e", false}});
    check(ipv4_addr{}, ipv4_addr_from_xml, {{"1.2.3", false}, {"256.1.1.1", false}});
    check(ipv6_addr{}, ipv6_addr_from_xml, {{"::ffff:10.0.0.1", true}, {"1::2::3", false}});
}

// ---------------------------------------------------------------------------- aaa_tlv

using Attrs = std::vector<std::pair<uint32_t, std::string>>;

class AaaTlvTest : public RuntimeFixture {
protected:
    aaa_tlv *make(const Attrs &attrs = {}) { // an initialised list, destroyed at the end of the test
        aaa_tlv *t = &lists.emplace_back();
        aaa_tlv_initialize(h, 0, t, &_aaa_tlv_type_info_internal, 0, 0, 0, nullptr, &err);
        owned.push_back([this, t] { aaa_tlv_destroy_internal(h, 0, t, 0); });
        for (const auto &[type, value] : attrs) add(t, type, value);
        return t;
    }
    void add(aaa_tlv *t, uint32_t type, const std::string &value) {
        aaa_tlv_attr_add(h, 0, t, type, value.data(), uint32_t(value.size()), &err);
    }
    std::string value_at(const aaa_tlv *t, uint32_t i) {
        const void *v = nullptr;
        uint32_t n = 0;
        aaa_tlv_attr_at(t, i, &v, &n);
        return std::string(static_cast<const char *>(v), n);
    }
    std::vector<uint8_t> encode(const aaa_tlv *t) { // in exactly the bytes _len asks for
        std::vector<uint8_t> out(aaa_tlv_len(h, 0, t));
        out.resize(aaa_tlv_marshal(h, 0, out.data(), t, int32_t(out.size()), &err));
        return out;
    }
    uint32_t decode(aaa_tlv *t, const std::vector<uint8_t> &bytes, size_t n, uint32_t *e) {
        auto in = exact_block(n, bytes.data());
        return aaa_tlv_unmarshal(h, 0, in.get(), t, int32_t(n), 0, e);
    }
    std::deque<aaa_tlv> lists; // stays put as it grows
};

TEST_F(AaaTlvTest, AttributeApiAndOrdering) {
    const std::string v01("\0\x01", 2), v02("\0\x02", 2);
    aaa_tlv *t = make({{1, "alice"}, {31, v01}, {1, ""}});
    EXPECT_EQ(aaa_tlv_attr_count(t), 3u);
    EXPECT_EQ(value_at(t, 1), v01);
    EXPECT_EQ(aaa_tlv_attr_find(t, 1), 0);
    EXPECT_EQ(aaa_tlv_attr_find(t, 99), -1);
    aaa_tlv_attr_remove(h, 0, t, 0, &err);
    EXPECT_EQ(aaa_tlv_attr_find(t, 1), 1);
    aaa_tlv_attr_remove(h, 0, t, 2, &err);
    EXPECT_EQ(take_err(), MGX_ENOENT);
    aaa_tlv_set(h, 0, t, t, &err);
    EXPECT_EQ(aaa_tlv_attr_count(t), 2u);

    // compare: count, then type, length and bytes of each attribute; hash: the same bytes
    const std::pair<Attrs, int> orders[] = {{{{31, v01}}, -1},             // count first
                                            {{{30, "zzz"}, {1, ""}}, -1},  // type before length
                                            {{{31, "\x01"}, {1, ""}}, -1}, // length before bytes
                                            {{{31, v02}, {1, ""}}, 1},
                                            {{{31, v01}, {1, ""}}, 0}};
    for (const auto &[attrs, order] : orders) {
        aaa_tlv *other = make(attrs);
        EXPECT_EQ(aaa_tlv_compare(other, t), order) << attrs[0].first;
        EXPECT_EQ(aaa_tlv_hash(other, 5) == aaa_tlv_hash(t, 5), order == 0) << attrs[0].first;
    }
}

// Values are written in hex a block at a time: every byte of a value longer than a block shows,
// in order, in the print and in the XML.
TEST_F(AaaTlvTest, LongValuesShowEveryByteInText) {
    std::string value, hex;
    static const char digits[] = "0123456789abcdef";
    for (int i = 0; i < 1000; ++i) {
        value += char(i * 7 + i / 256);
        hex += {digits[(i * 7 + i / 256) >> 4 & 15], digits[(i * 7 + i / 256) & 15]};
    }
    aaa_tlv *t = make({{3, value}, {4, "z"}});
    std::vector<char> buf(8192);
    std::string printed(buf.data(), aaa_tlv_print(h, 0, buf.data(), 0, "l", t, uint32_t(buf.size()), &err));
    EXPECT_NE(printed.find("attr[0]: type 3: " + hex + "\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("attr[1]: type 4: 7a\n"), std::string::npos) << printed;
    std::string xml(buf.data(), aaa_tlv_to_xml(h, 0, "l", buf.data(), t, uint32_t(buf.size()), 0, &err));
    EXPECT_NE(xml.find("<value>" + hex + "</value></attr><attr><type>4</type><value>7a</value>"), std::string::npos) << xml;
    EXPECT_EQ(take_err(), 0u);
}

TEST_F(AaaTlvTest, WireFormShortLengthsAndHostileInput) {
    aaa_tlv *t = make({{1, "ab"}, {0x01020304, ""}}), *back = make({{5, "replaced by the decode"}});
    const std::vector<uint8_t> wire = {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 2, 'a', 'b', 1, 2, 3, 4, 0, 0, 0, 0};
    EXPECT_EQ(aaa_tlv_len(h, 0, t), wire.size());
    EXPECT_EQ(encode(t), wire);
    EXPECT_EQ(decode(back, wire, wire.size(), &err), wire.size());
    EXPECT_EQ(aaa_tlv_compare(back, t), 0);

    const uint64_t allocations = mgx_handle_total_allocations(h);
    for (size_t n = 0; n < wire.size(); ++n) {
        uint32_t e1 = 0, e2 = 0;
        auto cut = exact_block(n);
        EXPECT_EQ(aaa_tlv_marshal(h, 0, cut.get(), t, int32_t(n), &e1) + decode(back, wire, n, &e2), 0u);
        EXPECT_EQ(e1 + e2, 2 * MGX_ESHORT) << n;
        EXPECT_EQ(std::count(cut.get(), cut.get() + n, 0xA5), long(n));
    }
    EXPECT_EQ(aaa_tlv_compare(back, t), 0);

    // Counts and lengths the bytes cannot back fail before anything is allocated.
    const std::vector<std::vector<uint8_t>> hostile = {
        {0xFF, 0xFF, 0xFF, 0xFF},                                    // four billion attributes, no bytes
        {0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0, 0, 0},            // huge count, one real attribute
        {0, 0, 0, 1, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 'x'},       // a 4 GiB value
        {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 'x', 0, 0, 0, 2, 0, 0}, // second header cut short
    };
    for (const auto &bytes : hostile) {
        uint32_t e = 0;
        EXPECT_EQ(decode(back, bytes, bytes.size(), &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
    }
    EXPECT_EQ(mgx_handle_total_allocations(h), allocations);
    // Bytes after the list belong to the next member: the decode stops at the list's end.
    EXPECT_EQ(decode(back, {0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 1, 'z', 0xEE}, 14, &err), 13u);
    EXPECT_EQ(value_at(back, 0), "z");
}

TEST_F(AaaTlvTest, AllocationFailureLeavesTheListAsItWas) {
    aaa_tlv *src = make({{1, "one"}}), *dst = make();
    const std::vector<uint8_t> wire = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 3, 'o', 'n', 'e'};
    auto doc = parse_xml("<l><attr><type>4</type><value>00ff</value></attr></l>");
    const std::pair<const char *, std::function<void(uint32_t *)>> ops[] = {
        {"set", [&](uint32_t *e) { aaa_tlv_set(h, 0, dst, src, e); }},
        {"unmarshal", [&](uint32_t *e) { decode(dst, wire, wire.size(), e); }},
        {"from_xml", [&](uint32_t *e) { aaa_tlv_from_xml(h, 0, "l", doc.get(), dst, e, nullptr, 0); }},
        {"attr_add", [&](uint32_t *e) { aaa_tlv_attr_add(h, 0, dst, 7, "x", 1, e); }},
        {"attr_remove", [&](uint32_t *e) { aaa_tlv_attr_remove(h, 0, dst, 0, e); }},
    };
    for (const auto &[name, op] : ops) {
        aaa_tlv_destroy_internal(h, 0, dst, 0);
        add(dst, 2, "two");
        add(dst, 3, "three");
        const uint64_t live = mgx_handle_live_allocations(h);
        uint32_t e = 0;
        mgx_handle_fail_allocation(h, 1);
        op(&e);
        EXPECT_EQ(e, MGX_ENOMEM) << name;
        EXPECT_EQ(mgx_handle_live_allocations(h), live) << name;
        EXPECT_TRUE(aaa_tlv_attr_count(dst) == 2 && value_at(dst, 0) == "two") << name;
        e = 0;
        op(&e);
        EXPECT_EQ(e, 0u) << name << " succeeds once memory is back";
    }
}

// Adding N attributes one by one moves the body O(log N) times, so the bytes copied stay linear;
// the room kept for later adds is seen nowhere: a list built by adds reads, encodes, compares and
// hashes as its exact copy does.
TEST_F(AaaTlvTest, AddsGrowTheBodyByAFactor) {
    // An add into the room already there allocates nothing: a pending failure stays pending.
    aaa_tlv *room = make({{1, "abcd"}, {2, "efgh"}, {3, "ijkl"}}); // room for 4 attributes, 16 data bytes
    aaa_tlv *data = make({{1, "abcd"}, {2, "efgh"}, {3, "ijkl"}});
    mgx_handle_fail_allocation(h, 1);
    add(room, 4, "m");
    EXPECT_EQ(take_err(), 0u);
    EXPECT_EQ(mgx_handle_allocation_failure_pending(h), 1u);
    // Past the room the body must move: the failure leaves the list as it was. Room for another
    // attribute is not room for its value.
    add(data, 4, "mnopqrst");
    ASSERT_EQ(take_err(), MGX_ENOMEM);
    EXPECT_EQ(aaa_tlv_attr_count(data), 3u);
    mgx_handle_fail_allocation(h, 1);
    add(room, 5, "n");
    EXPECT_EQ(take_err(), MGX_ENOMEM);
    EXPECT_EQ(aaa_tlv_attr_count(room), 4u);
    EXPECT_EQ(value_at(room, 3), "m");
    EXPECT_EQ(take_err(), 0u);

    aaa_tlv *t = make(), *copy = make();
    constexpr uint32_t n = 4096;
    const uint64_t before = mgx_handle_total_allocations(h), live = mgx_handle_live_allocations(h);
    const size_t journal = mgx_journal_count(h);
    for (uint32_t i = 0; i < n; ++i) add(t, i, std::string(i % 7, char('a' + i % 26)));
    ASSERT_EQ(take_err(), 0u);
    // Both areas double when they grow: about log2(n) moves each, 12 at each of 4096.
    EXPECT_LE(mgx_handle_total_allocations(h) - before, 26u);
    EXPECT_EQ(mgx_handle_live_allocations(h), live + 1);
    EXPECT_EQ(mgx_journal_count(h) - journal, size_t{n}) << "every add announces the body word";

    aaa_tlv_set(h, 0, copy, t, &err);
    ASSERT_EQ(aaa_tlv_attr_count(t), n);
    EXPECT_EQ(value_at(t, n - 1), std::string((n - 1) % 7, char('a' + (n - 1) % 26)));
    EXPECT_EQ(aaa_tlv_compare(t, copy), 0);
    EXPECT_EQ(aaa_tlv_hash(t, 3), aaa_tlv_hash(copy, 3));
    EXPECT_EQ(encode(t), encode(copy));
}

// References grow the same way, and keep the attributes they sit before.
TEST_F(AaaTlvTest, ReferencesGrowByAFactorBesideTheAttributes) {
    aaa_tlv *t = make({{9, "value"}});
    std::array<uint8_t, 24> object{};
    const std::vector<uint64_t> oids(64, mgx_oid_map(h, object.data())); // one object, 64 references
    const uint64_t before = mgx_handle_total_allocations(h);
    for (uint64_t oid : oids) {
        aaa_tlv_add_object_reference(h, 0, t, oid, &err);
        uint32_t length = 0;
        ASSERT_EQ(aaa_tlv_attr_at(t, 0, nullptr, &length), 9u); // the attribute stays where it was
        ASSERT_EQ(length, 5u);
    }
    ASSERT_EQ(take_err(), 0u);
    EXPECT_LE(mgx_handle_total_allocations(h) - before, 8u);
    EXPECT_EQ(aaa_tlv_get_oid_count(h, 0, t, &err), 64u);
    std::vector<uint64_t> back(64);
    aaa_tlv_get_object_references(h, 0, t, back.data(), 64, &err);
    EXPECT_EQ(back, oids);
    add(t, 10, "more");
    EXPECT_EQ(value_at(t, 0), "value");
    EXPECT_EQ(value_at(t, 1), "more");
    for (uint64_t oid : oids) mgxlib_lookup_and_update_oid_ref_count(h, 0, oid, 0, &err);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 0, object.data(), &err), 1);
    EXPECT_EQ(take_err(), 0u);
}

} // namespace
