// The runtime's fixed-width primitives and their descriptors: wire, text and XML forms, short
// buffers, strict readers, the error slot, and the instance operations.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

#include <functional>

#include "prim_fixture.h"

namespace {

ipv6_addr v6(const char *text) {
    ipv6_addr a{};
    inet_pton(AF_INET6, text, a.word);
    return a;
}

// One primitive type: its operations, a sample value, the value's wire bytes and its text.
#define PRIM_CASE(NAME, T, VALUE, TEXT, ...)                                                                  \
    struct NAME {                                                                                             \
        using type = T;                                                                                       \
        static constexpr auto get = T##_get;                                                                  \
        static constexpr auto set = T##_set;                                                                  \
        static constexpr auto marshal = T##_marshal;                                                          \
        static constexpr auto unmarshal = T##_unmarshal;                                                      \
        static constexpr auto len = T##_len;                                                                  \
        static constexpr auto print = T##_print;                                                              \
        static constexpr auto to_xml = T##_to_xml;                                                            \
        static constexpr auto from_xml = T##_from_xml;                                                        \
        static constexpr auto hash = T##_hash;                                                                \
        static T value() { return VALUE; }                                                                    \
        static std::vector<uint8_t> wire() { return {__VA_ARGS__}; }                                          \
        static constexpr const char *text = TEXT;                                                             \
    };

PRIM_CASE(U8Case, u_int8, 0xA5, "165", 0xA5)
PRIM_CASE(U16Case, u_int16, 0xBEEF, "48879", 0xBE, 0xEF)
PRIM_CASE(U32Case, u_int32, 0xDEADBEEFu, "3735928559", 0xDE, 0xAD, 0xBE, 0xEF)
PRIM_CASE(U64Case, u_int64, 0x0123456789ABCDEFull, "81985529216486895", 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB,
          0xCD, 0xEF)
PRIM_CASE(BoolCase, mgx_boolean, 1, "true", 1)
PRIM_CASE(MacCase, mgx_mac_addr, (mgx_mac_addr{{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}}), "00:1a:2b:3c:4d:5e", 0x00,
          0x1a, 0x2b, 0x3c, 0x4d, 0x5e)
PRIM_CASE(Ipv4Case, ipv4_addr, 0xC0A80001u, "192.168.0.1", 192, 168, 0, 1)
PRIM_CASE(Ipv6Case, ipv6_addr, v6("2001:db8::1"), "2001:db8::1", 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
          0, 1)

template <class C> class PrimTest : public HandleTest {};
using PrimCases = ::testing::Types<U8Case, U16Case, U32Case, U64Case, BoolCase, MacCase, Ipv4Case, Ipv6Case>;
TYPED_TEST_SUITE(PrimTest, PrimCases);

template <class T> bool same(const T &a, const T &b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

TYPED_TEST(PrimTest, WireRoundTripInNetworkOrder) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    const std::vector<uint8_t> wire = C::wire();
    const auto w = static_cast<int32_t>(wire.size());
    EXPECT_EQ(C::len(h, 0, &v), static_cast<uint32_t>(w));

    auto buf = exact_block(wire.size());
    ASSERT_EQ(C::marshal(h, 0, buf.get(), &v, w, &this->err), static_cast<uint32_t>(w));
    EXPECT_EQ(std::vector<uint8_t>(buf.get(), buf.get() + w), wire);
    typename C::type back{};
    ASSERT_EQ(C::unmarshal(h, 0, buf.get(), &back, w, 0, &this->err), static_cast<uint32_t>(w));
    EXPECT_TRUE(same(back, v));
    EXPECT_EQ(this->err, 0u);
}

TYPED_TEST(PrimTest, ShortBuffersGiveError90AndTouchNothing) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    const std::vector<uint8_t> wire = C::wire();
    for (int32_t n = -1; n < static_cast<int32_t>(wire.size()); ++n) {
        SCOPED_TRACE(n);
        size_t bytes = n < 0 ? 0 : static_cast<size_t>(n);
        mgx_clear_last_error(h, 0, nullptr);
        uint32_t e = 0;
        auto out = exact_block(bytes);
        EXPECT_EQ(C::marshal(h, 0, out.get(), &v, n, &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
        EXPECT_EQ(mgx_handle_last_error(h), MGX_ESHORT);
        for (size_t i = 0; i < bytes; ++i) EXPECT_EQ(out[i], 0xA5);

        e = 0;
        auto in = exact_block(bytes, wire.data());
        typename C::type field{};
        EXPECT_EQ(C::unmarshal(h, 0, in.get(), &field, n, 0, &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
        EXPECT_TRUE(same(field, typename C::type{}));
    }
}

TYPED_TEST(PrimTest, SetGoesThroughTheWriteHookAndAPendingErrorStopsEverything) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    typename C::type field{};
    mgx_journal_clear(h);
    C::set(h, 7, &field, &v, &this->err);
    EXPECT_TRUE(same(field, v));
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, &field);
    EXPECT_EQ(mgx_journal_entry(h, 0)->length, sizeof field);
    EXPECT_EQ(mgx_journal_entry(h, 0)->luid, 7u);

    uint32_t pending = 5;
    typename C::type other{};
    C::set(h, 0, &other, &v, &pending);
    EXPECT_TRUE(same(other, typename C::type{}));
    EXPECT_EQ(C::get(h, 0, &field, &pending), nullptr);
    uint8_t wire[16];
    std::memset(wire, 0xA5, sizeof wire);
    EXPECT_EQ(C::marshal(h, 0, wire, &v, sizeof wire, &pending), 0u);
    EXPECT_EQ(wire[0], 0xA5);
    EXPECT_EQ(C::unmarshal(h, 0, C::wire().data(), &other, 16, 0, &pending), 0u);
    char text[64] = "untouched";
    EXPECT_EQ(C::print(h, 0, text, 0, "f", &v, sizeof text, &pending), 0u);
    EXPECT_EQ(C::to_xml(h, 0, "f", text, &v, sizeof text, 0, &pending), 0u);
    EXPECT_STREQ(text, "untouched");
    EXPECT_TRUE(same(other, typename C::type{}));
    EXPECT_EQ(pending, 5u);
}

TYPED_TEST(PrimTest, PrintAndXmlForms) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    const std::string text = C::text;
    char buf[128];

    std::string line = "  field: " + text + "\n";
    EXPECT_EQ(C::print(h, 0, buf, 2, "field", &v, sizeof buf, &this->err), line.size());
    EXPECT_EQ(buf, line);

    std::string xml = "<field state=\"2\">" + text + "</field>";
    EXPECT_EQ(C::to_xml(h, 0, "field", buf, &v, sizeof buf, 2, &this->err), xml.size());
    EXPECT_EQ(buf, xml);
    C::to_xml(h, 0, "field", buf, &v, sizeof buf, 0, &this->err);
    EXPECT_EQ(buf, "<field>" + text + "</field>");

    auto doc = this->parse("<r>\n  " + xml + "\n</r>");
    ASSERT_NE(doc, nullptr);
    typename C::type back{};
    C::from_xml(h, 0, "r/field", doc.get(), &back, &this->err, nullptr, 0);
    EXPECT_EQ(this->err, 0u);
    EXPECT_TRUE(same(back, v));
}

TYPED_TEST(PrimTest, XmlReaderRejectsAbsentAndMalformedElements) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    auto doc = this->parse("<r><junk>1x2</junk><empty/></r>");
    ASSERT_NE(doc, nullptr);
    typename C::type field{};
    C::from_xml(h, 0, "r/missing", doc.get(), &field, &this->err, nullptr, 0);
    EXPECT_EQ(this->err, MGX_ENOENT);
    EXPECT_EQ(mgx_handle_last_error(h), MGX_ENOENT);

    for (const char *path : {"r/junk", "r/empty"}) {
        uint32_t e = 0;
        char msg[64] = "";
        C::from_xml(h, 0, path, doc.get(), &field, &e, msg, sizeof msg);
        EXPECT_EQ(e, MGX_EINVAL) << path;
        EXPECT_EQ(std::string(msg), std::string("Invalid value at ") + path);
    }
    EXPECT_TRUE(same(field, typename C::type{}));
}

TYPED_TEST(PrimTest, HashChainsFromTheSeed) {
    using C = TypeParam;
    const typename C::type v = C::value(), zero{};
    EXPECT_EQ(C::hash(nullptr, 99), 99u);
    EXPECT_EQ(C::hash(&v, 1), C::hash(&v, 1));
    EXPECT_NE(C::hash(&v, 1), C::hash(&v, 2));
    EXPECT_NE(C::hash(&v, 1), C::hash(&zero, 1));
}

using ScalarTest = HandleTest;

TEST_F(ScalarTest, ValueAccessorsAtEveryWidth) {
    u_int8 a = 0;
    u_int16 b = 0;
    u_int32 c = 0;
    u_int64 d = 0;
    u_int8_set_value(h, 0, &a, 0xFF, &err);
    u_int16_set_value(h, 0, &b, 0xFFFF, &err);
    u_int32_set_value(h, 0, &c, 0xFFFFFFFFu, &err);
    u_int64_set_value(h, 0, &d, ~0ull, &err);
    EXPECT_EQ(u_int8_get_value(h, 0, &a, &err), 0xFF);
    EXPECT_EQ(u_int16_get_value(h, 0, &b, &err), 0xFFFF);
    EXPECT_EQ(u_int32_get_value(h, 0, &c, &err), 0xFFFFFFFFu);
    EXPECT_EQ(u_int64_get_value(h, 0, &d, &err), ~0ull);
    EXPECT_EQ(u_int32_get(h, 0, &c, &err), &c);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(u_int32_get_value(h, 0, nullptr, &err), 0u);
    EXPECT_EQ(err, MGX_EINVAL);
}

TEST_F(ScalarTest, BooleansAreNormalisedToZeroOrOne) {
    mgx_boolean b = 0;
    mgx_boolean_set_value(h, 0, &b, 7, &err);
    EXPECT_EQ(b, 1u);

    mgx_boolean raw = 0x100; // a non-zero value written behind the setters' back
    uint8_t byte = 0xEE;
    ASSERT_EQ(mgx_boolean_marshal(h, 0, &byte, &raw, 1, &err), 1u);
    EXPECT_EQ(byte, 1);
    byte = 0x80;
    ASSERT_EQ(mgx_boolean_unmarshal(h, 0, &byte, &b, 1, 0, &err), 1u);
    EXPECT_EQ(b, 1u);
    byte = 0;
    mgx_boolean_unmarshal(h, 0, &byte, &b, 1, 0, &err);
    EXPECT_EQ(b, 0u);

    auto doc = parse("<r><a>1</a><b>false</b><c>yes</c></r>");
    mgx_boolean_from_xml(h, 0, "r/a", doc.get(), &b, &err, nullptr, 0);
    EXPECT_EQ(b, 1u);
    mgx_boolean_from_xml(h, 0, "r/b", doc.get(), &b, &err, nullptr, 0);
    EXPECT_EQ(b, 0u);
    EXPECT_EQ(err, 0u);
    mgx_boolean_from_xml(h, 0, "r/c", doc.get(), &b, &err, nullptr, 0);
    EXPECT_EQ(err, MGX_EINVAL);
}

TEST_F(ScalarTest, ReadersAreStrict) {
    struct Case {
        const char *text;
        bool ok;
    };
    auto check = [&](auto reader, const char *type, std::initializer_list<Case> cases) {
        for (const Case &c : cases) {
            auto doc = parse(std::string("<v>") + c.text + "</v>");
            ASSERT_NE(doc, nullptr) << c.text;
            uint32_t e = 0;
            reader(doc.get(), &e);
            EXPECT_EQ(e, c.ok ? 0u : MGX_EINVAL) << type << " '" << c.text << "'";
        }
    };
    check([&](void *d, uint32_t *e) { u_int8 v; u_int8_from_xml(h, 0, "v", d, &v, e, nullptr, 0); }, "u_int8",
          {{"255", true}, {" 42\n", true}, {"256", false}, {"-1", false}, {"+1", false}, {"0x1", false},
           {"1 2", false}});
    check([&](void *d, uint32_t *e) { u_int16 v; u_int16_from_xml(h, 0, "v", d, &v, e, nullptr, 0); }, "u_int16",
          {{"65535", true}, {"65536", false}});
    check([&](void *d, uint32_t *e) { u_int32 v; u_int32_from_xml(h, 0, "v", d, &v, e, nullptr, 0); }, "u_int32",
          {{"4294967295", true}, {"4294967296", false}, {"99999999999999999999999", false}});
    check([&](void *d, uint32_t *e) { u_int64 v; u_int64_from_xml(h, 0, "v", d, &v, e, nullptr, 0); }, "u_int64",
          {{"18446744073709551615", true}, {"18446744073709551616", false}});
    check([&](void *d, uint32_t *e) { mgx_mac_addr v; mgx_mac_addr_from_xml(h, 0, "v", d, &v, e, nullptr, 0); },
          "mac", {{"00:1A:2B:3C:4D:5E", true}, {"00:1a:2b:3c:4d", false}, {"00-1a-2b-3c-4d-5e", false},
                  {"0g:1a:2b:3c:4d:5e", false}, {"00:1a:2b:3c:4d:5e:6f", false}});
    check([&](void *d, uint32_t *e) { ipv4_addr v; ipv4_addr_from_xml(h, 0, "v", d, &v, e, nullptr, 0); }, "ipv4",
          {{"10.0.0.255", true}, {"1.2.3", false}, {"256.1.1.1", false}, {"1.2.3.4.5", false}});
    check([&](void *d, uint32_t *e) { ipv6_addr v; ipv6_addr_from_xml(h, 0, "v", d, &v, e, nullptr, 0); }, "ipv6",
          {{"::1", true}, {"::ffff:10.0.0.1", true}, {"1::2::3", false}, {"12345::", false}});
}

TEST_F(ScalarTest, InstanceComparisons) {
    mgx_mac_addr m1{{0, 0, 0, 0, 0, 9}}, m2{{0, 0, 0, 0, 1, 0}};
    EXPECT_EQ(mgx_mac_addr_compare(&m1, &m2), -1);
    EXPECT_EQ(mgx_mac_addr_compare(&m2, &m1), 1);
    EXPECT_EQ(mgx_mac_addr_compare(&m1, &m1), 0);
    EXPECT_EQ(mgx_mac_addr_compare(nullptr, nullptr), 0);
    EXPECT_EQ(mgx_mac_addr_compare(nullptr, &m1), -1);
    EXPECT_EQ(mgx_mac_addr_compare(&m1, nullptr), 1);
    // By value, not by the host-order bytes in memory.
    ipv4_addr low = 0x0A000002, high = 0xC0A80001;
    EXPECT_EQ(ipv4_addr_compare(&low, &high), -1);
    ipv6_addr a = v6("::2"), b = v6("1::");
    EXPECT_EQ(ipv6_addr_compare(&a, &b), -1);
    mgx_boolean t = 1, f = 0;
    EXPECT_EQ(mgx_boolean_compare(&f, &t), -1);
    EXPECT_EQ(mgx_boolean_compare(nullptr, &t), -1);
}

TEST_F(ScalarTest, InstanceLikePrimitivesHoldNoReferences) {
    ipv4_addr a = 1;
    uint64_t refs[1] = {42};
    EXPECT_EQ(ipv4_addr_get_oid_count(h, 0, &a, &err), 0u);
    ipv4_addr_get_object_references(h, 0, &a, refs, 1, &err);
    EXPECT_EQ(refs[0], 42u);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(mgx_mac_addr_get_oid_count(h, 0, nullptr, &err), 0u);
    EXPECT_EQ(err, MGX_EINVAL);
    err = 0;
    mgx_boolean_get_object_references(h, 0, nullptr, refs, 1, &err);
    EXPECT_EQ(err, MGX_EINVAL);
}

TEST_F(ScalarTest, Descriptors) {
    struct Expect {
        const mgx_type_info_t *info;
        const char *name;
        uint32_t width;
    };
    const Expect all[] = {{&_mgx_boolean_type_info_internal, "mgx_boolean", 4},
                          {&_mgx_mac_addr_type_info_internal, "mgx_mac_addr", 6},
                          {&_ipv4_addr_type_info_internal, "ipv4_addr", 4},
                          {&_ipv6_addr_type_info_internal, "ipv6_addr", 16},
                          {&_aaa_tlv_type_info_internal, "aaa_tlv", 32}};
    std::vector<std::string> fingerprints;
    for (const Expect &e : all) {
        SCOPED_TRACE(e.name);
        const mgx_type_info_t &t = *e.info;
        EXPECT_EQ(t.magic, MGX_TYPE_INFO_MAGIC);
        char hex[33] = {};
        for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", t.fingerprint[i]);
        EXPECT_STREQ(t.fingerprint_text, hex);
        fingerprints.push_back(hex);
        EXPECT_STREQ(t.type_name, e.name);
        EXPECT_STREQ(t.domain_name, "mgx");
        EXPECT_STREQ(t.kind, "type");
        EXPECT_EQ(t.registry_slot, -1);
        ASSERT_NE(t.variant_info, nullptr);
        ASSERT_EQ(t.variant_info->n_variants, 1);
        EXPECT_EQ(t.variant_info->entries[0].index, 0u);
        EXPECT_EQ(t.variant_info->entries[0].used_length, e.width);
    }
    std::sort(fingerprints.begin(), fingerprints.end());
    EXPECT_EQ(std::unique(fingerprints.begin(), fingerprints.end()), fingerprints.end());
}

// ---------------------------------------------------------------------------- aaa_tlv

class AaaTlvTest : public HandleTest {
protected:
    // An initialised, empty list, destroyed by the test's end.
    aaa_tlv *make() {
        lists.push_back(std::make_unique<aaa_tlv>());
        aaa_tlv *t = lists.back().get();
        std::memset(t, 0, sizeof *t);
        aaa_tlv_initialize(h, 0, t, &_aaa_tlv_type_info_internal, 0, 0, 0, nullptr, &err);
        return t;
    }
    void add(aaa_tlv *t, uint32_t type, const std::string &value) {
        aaa_tlv_attr_add(h, 0, t, type, value.data(), static_cast<uint32_t>(value.size()), &err);
    }
    std::string value_at(const aaa_tlv *t, uint32_t i) {
        const void *v = nullptr;
        uint32_t n = 0;
        aaa_tlv_attr_at(t, i, &v, &n);
        return std::string(static_cast<const char *>(v), n);
    }
    std::vector<uint8_t> encode(const aaa_tlv *t) {
        std::vector<uint8_t> out(aaa_tlv_len(h, 0, t));
        EXPECT_EQ(aaa_tlv_marshal(h, 0, out.data(), t, static_cast<int32_t>(out.size()), &err), out.size());
        return out;
    }
    void TearDown() override {
        for (auto &t : lists) aaa_tlv_destroy_internal(h, 0, t.get(), 0);
        HandleTest::TearDown();
    }
    std::vector<std::unique_ptr<aaa_tlv>> lists;
};

TEST_F(AaaTlvTest, AttributeListApi) {
    aaa_tlv *t = make();
    EXPECT_EQ(t->hdr.descriptor, &_aaa_tlv_type_info_internal);
    EXPECT_EQ(aaa_tlv_attr_count(t), 0u);
    add(t, 1, "alice");
    add(t, 31, std::string("\0\x01", 2));
    add(t, 1, "");
    ASSERT_EQ(err, 0u);
    EXPECT_EQ(aaa_tlv_attr_count(t), 3u);
    EXPECT_EQ(value_at(t, 1), std::string("\0\x01", 2));
    EXPECT_EQ(aaa_tlv_attr_find(t, 1), 0);
    EXPECT_EQ(aaa_tlv_attr_find(t, 99), -1);

    aaa_tlv_attr_remove(h, 0, t, 0, &err);
    EXPECT_EQ(aaa_tlv_attr_count(t), 2u);
    EXPECT_EQ(aaa_tlv_attr_find(t, 1), 1);
    EXPECT_EQ(value_at(t, 0), std::string("\0\x01", 2));

    const void *v = t;
    uint32_t n = 9;
    EXPECT_EQ(aaa_tlv_attr_at(t, 2, &v, &n), 0u);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(n, 0u);
    aaa_tlv_attr_remove(h, 0, t, 2, &err);
    EXPECT_EQ(err, MGX_ENOENT);
    err = 0;
    aaa_tlv_attr_remove(h, 0, t, 0, &err);
    aaa_tlv_attr_remove(h, 0, t, 0, &err);
    EXPECT_EQ(aaa_tlv_attr_count(t), 0u);
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u) << "an empty list holds no memory";
}

TEST_F(AaaTlvTest, WireForm) {
    aaa_tlv *t = make();
    add(t, 1, "ab");
    add(t, 0x01020304, "");
    const std::vector<uint8_t> expected = {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 2, 'a', 'b', 1, 2, 3, 4, 0, 0, 0, 0};
    EXPECT_EQ(encode(t), expected);

    aaa_tlv *back = make();
    add(back, 5, "replaced by the decode");
    auto in = exact_block(expected.size(), expected.data());
    EXPECT_EQ(aaa_tlv_unmarshal(h, 0, in.get(), back, static_cast<int32_t>(expected.size()), 0, &err),
              expected.size());
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(aaa_tlv_compare(back, t), 0);
    EXPECT_EQ(aaa_tlv_hash(back, 3), aaa_tlv_hash(t, 3));

    aaa_tlv *empty = make();
    EXPECT_EQ(encode(empty), std::vector<uint8_t>(4, 0));
}

TEST_F(AaaTlvTest, ShortInputAtEveryLengthFailsWithoutAllocating) {
    aaa_tlv *t = make();
    add(t, 1, "abc");
    add(t, 2, "de");
    const std::vector<uint8_t> wire = encode(t);
    aaa_tlv *target = make();
    add(target, 9, "kept");
    const uint64_t before = mgx_handle_total_allocations(h);
    for (size_t n = 0; n < wire.size(); ++n) {
        SCOPED_TRACE(n);
        uint32_t e = 0;
        auto out = exact_block(n);
        EXPECT_EQ(aaa_tlv_marshal(h, 0, out.get(), t, static_cast<int32_t>(n), &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
        for (size_t i = 0; i < n; ++i) EXPECT_EQ(out[i], 0xA5);
        e = 0;
        auto in = exact_block(n, wire.data());
        EXPECT_EQ(aaa_tlv_unmarshal(h, 0, in.get(), target, static_cast<int32_t>(n), 0, &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
    }
    EXPECT_EQ(mgx_handle_total_allocations(h), before);
    ASSERT_EQ(aaa_tlv_attr_count(target), 1u);
    EXPECT_EQ(value_at(target, 0), "kept");
}

TEST_F(AaaTlvTest, HostileCountsAndLengthsFailCleanly) {
    const std::vector<std::vector<uint8_t>> hostile = {
        {0xFF, 0xFF, 0xFF, 0xFF},                                     // four billion attributes, no bytes
        {0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0, 0, 0},             // huge count, one real attribute
        {0, 0, 0, 1, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 'x'},        // a 4 GiB value
        {0, 0, 0, 1, 0, 0, 0, 1, 0x7F, 0xFF, 0xFF, 0xF0, 'x'},        // a 2 GiB value
        {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 'x', 0, 0, 0, 2, 0, 0},  // second header cut short
        {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 'x', 0, 0, 0, 2, 0, 0, 0, 9, 'y'},
    };
    aaa_tlv *target = make();
    const uint64_t before = mgx_handle_total_allocations(h);
    for (const auto &bytes : hostile) {
        uint32_t e = 0;
        auto in = exact_block(bytes.size(), bytes.data());
        EXPECT_EQ(aaa_tlv_unmarshal(h, 0, in.get(), target, static_cast<int32_t>(bytes.size()), 0, &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
    }
    EXPECT_EQ(mgx_handle_total_allocations(h), before);
    EXPECT_EQ(aaa_tlv_attr_count(target), 0u);

    // Trailing bytes after the list belong to the next member: the decode stops at its end.
    const std::vector<uint8_t> followed = {0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 1, 'z', 0xEE, 0xEE};
    auto in = exact_block(followed.size(), followed.data());
    EXPECT_EQ(aaa_tlv_unmarshal(h, 0, in.get(), target, static_cast<int32_t>(followed.size()), 0, &err), 13u);
    EXPECT_EQ(value_at(target, 0), "z");
}

TEST_F(AaaTlvTest, DeepCopyOwnsItsMemory) {
    aaa_tlv *src = make(), *dst = make();
    add(src, 1, "user");
    add(src, 2, "secret");
    add(dst, 3, "old");
    aaa_tlv_set(h, 0, dst, src, &err);
    ASSERT_EQ(err, 0u);
    EXPECT_EQ(aaa_tlv_compare(dst, src), 0);
    EXPECT_NE(dst->body, src->body);
    EXPECT_EQ(mgx_handle_live_allocations(h), 2u) << "the old body of dst was freed";

    aaa_tlv_attr_remove(h, 0, src, 0, &err);
    EXPECT_EQ(aaa_tlv_attr_count(dst), 2u);
    EXPECT_EQ(value_at(dst, 0), "user");

    aaa_tlv_set(h, 0, dst, dst, &err); // no-op
    EXPECT_EQ(aaa_tlv_attr_count(dst), 2u);

    // After a raw byte copy of a record, both lists share one body; set gives the copy its own.
    aaa_tlv *raw = make();
    std::memcpy(raw, src, sizeof *raw);
    aaa_tlv_set(h, 0, raw, src, &err);
    EXPECT_NE(raw->body, src->body);
    EXPECT_EQ(aaa_tlv_compare(raw, src), 0);
    EXPECT_EQ(value_at(src, 0), "secret");
}

TEST_F(AaaTlvTest, AllocationFailureLeavesTheListAsItWas) {
    aaa_tlv *src = make(), *dst = make();
    add(src, 1, "one");
    add(dst, 2, "two");
    const std::vector<uint8_t> wire = encode(src);
    auto doc = parse("<l><attr><type>4</type><value>00ff</value></attr></l>");
    ASSERT_NE(doc, nullptr);

    using Op = std::function<void(uint32_t *)>;
    const std::vector<std::pair<const char *, Op>> ops = {
        {"set", [&](uint32_t *e) { aaa_tlv_set(h, 0, dst, src, e); }},
        {"unmarshal",
         [&](uint32_t *e) { aaa_tlv_unmarshal(h, 0, wire.data(), dst, static_cast<int32_t>(wire.size()), 0, e); }},
        {"from_xml", [&](uint32_t *e) { aaa_tlv_from_xml(h, 0, "l", doc.get(), dst, e, nullptr, 0); }},
        {"attr_add", [&](uint32_t *e) { aaa_tlv_attr_add(h, 0, dst, 7, "x", 1, e); }},
        {"attr_remove", [&](uint32_t *e) { aaa_tlv_attr_remove(h, 0, dst, 0, e); }},
    };
    for (const auto &[name, op] : ops) {
        SCOPED_TRACE(name);
        // Put dst back to two attributes, then fail the one allocation the operation makes.
        aaa_tlv_destroy_internal(h, 0, dst, 0);
        add(dst, 2, "two");
        add(dst, 3, "three");
        const uint64_t live = mgx_handle_live_allocations(h);
        mgx_handle_fail_allocation(h, 1);
        uint32_t e = 0;
        op(&e);
        EXPECT_EQ(e, MGX_ENOMEM);
        EXPECT_EQ(mgx_handle_live_allocations(h), live);
        ASSERT_EQ(aaa_tlv_attr_count(dst), 2u);
        EXPECT_EQ(value_at(dst, 0), "two");
        e = 0;
        op(&e);
        EXPECT_EQ(e, 0u) << "the same operation succeeds once memory is back";
    }
    mgx_handle_fail_allocation(h, 0);
}

TEST_F(AaaTlvTest, ObjectReferencesAreCountedAndCopied) {
    aaa_tlv *owner = make(), *a = make(), *b = make();
    const uint64_t oid = mgx_oid_map(h, owner);
    ASSERT_NE(oid, 0u);
    aaa_tlv_add_object_reference(h, 0, a, oid, &err);
    add(a, 1, "x");
    ASSERT_EQ(err, 0u);
    EXPECT_EQ(mgx_oid_ref_count(h, oid), 1u);
    EXPECT_EQ(aaa_tlv_get_oid_count(h, 0, a, &err), 1u);

    aaa_tlv_set(h, 0, b, a, &err);
    EXPECT_EQ(mgx_oid_ref_count(h, oid), 2u) << "the copy holds its own reference";
    uint64_t refs[2] = {};
    aaa_tlv_get_object_references(h, 0, b, refs, 2, &err);
    EXPECT_EQ(refs[0], oid);
    aaa_tlv_get_object_references(h, 0, b, refs, 0, &err);
    EXPECT_EQ(err, MGX_EINVAL) << "an array too small for the references";
    err = 0;

    // Decoding replaces the attributes only; the references stay with the list.
    const std::vector<uint8_t> none = {0, 0, 0, 0};
    aaa_tlv_unmarshal(h, 0, none.data(), b, 4, 0, &err);
    EXPECT_EQ(aaa_tlv_attr_count(b), 0u);
    EXPECT_EQ(aaa_tlv_get_oid_count(h, 0, b, &err), 1u);

    aaa_tlv_add_object_reference(h, 0, a, oid + 1000, &err);
    EXPECT_EQ(err, MGX_ENOENT);
    err = 0;

    // What a containing record's destroy does: release each reference, then destroy the list.
    for (aaa_tlv *t : {a, b}) {
        uint32_t n = aaa_tlv_get_oid_count(h, 0, t, &err);
        std::vector<uint64_t> held(n);
        aaa_tlv_get_object_references(h, 0, t, held.data(), n, &err);
        for (uint64_t r : held) mgxlib_lookup_and_update_oid_ref_count(h, 0, r, 0, &err);
    }
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(mgx_oid_ref_count(h, oid), 0u);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 0, owner, &err), 1);
}

TEST_F(AaaTlvTest, CompareOrdersByCountThenTypeLengthAndBytes) {
    aaa_tlv *a = make(), *b = make();
    EXPECT_EQ(aaa_tlv_compare(a, b), 0);
    EXPECT_EQ(aaa_tlv_compare(nullptr, a), -1);
    EXPECT_EQ(aaa_tlv_compare(a, nullptr), 1);
    add(a, 5, "zz");
    EXPECT_EQ(aaa_tlv_compare(a, b), 1);
    add(b, 4, "zzz");
    EXPECT_EQ(aaa_tlv_compare(a, b), 1) << "type before length";
    aaa_tlv_attr_remove(h, 0, b, 0, &err);
    add(b, 5, "a");
    EXPECT_EQ(aaa_tlv_compare(a, b), 1) << "length before bytes";
    aaa_tlv_attr_remove(h, 0, b, 0, &err);
    add(b, 5, "zy");
    EXPECT_EQ(aaa_tlv_compare(b, a), -1);
    EXPECT_NE(aaa_tlv_hash(a, 0), aaa_tlv_hash(b, 0));
    EXPECT_EQ(aaa_tlv_hash(nullptr, 77), 77u);
}

TEST_F(AaaTlvTest, PrintAndXmlRoundTrip) {
    aaa_tlv *t = make();
    add(t, 1, "hi");
    add(t, 7, "");
    add(t, 26, std::string("<&>\0\xff", 5));
    char buf[512];
    const std::string printed = "  attrs@aaa_tlv: {\n"
                                "    attr[0]: type 1: 6869\n"
                                "    attr[1]: type 7: \n"
                                "    attr[2]: type 26: 3c263e00ff\n"
                                "  }\n";
    EXPECT_EQ(aaa_tlv_print(h, 0, buf, 2, "attrs", t, sizeof buf, &err), printed.size());
    EXPECT_EQ(buf, printed);

    const std::string xml = "<attrs state=\"2\"><attr><type>1</type><value>6869</value></attr>"
                            "<attr><type>7</type><value></value></attr>"
                            "<attr><type>26</type><value>3c263e00ff</value></attr></attrs>";
    EXPECT_EQ(aaa_tlv_to_xml(h, 0, "attrs", buf, t, sizeof buf, 2, &err), xml.size());
    EXPECT_EQ(buf, xml);
    // Cut short, the text is a prefix of the whole.
    EXPECT_EQ(aaa_tlv_to_xml(h, 0, "attrs", buf, t, 40, 2, &err), 39u);
    EXPECT_EQ(std::string(buf), xml.substr(0, 39));

    auto doc = parse("<r>" + xml + "<bad><attr><type>1</type><value>6g</value></attr></bad></r>");
    ASSERT_NE(doc, nullptr);
    aaa_tlv *back = make();
    add(back, 99, "replaced");
    aaa_tlv_from_xml(h, 0, "r/attrs", doc.get(), back, &err, nullptr, 0);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(aaa_tlv_compare(back, t), 0);

    aaa_tlv_from_xml(h, 0, "r/bad", doc.get(), back, &err, nullptr, 0);
    EXPECT_EQ(err, MGX_EINVAL);
    err = 0;
    aaa_tlv_from_xml(h, 0, "r/none", doc.get(), back, &err, nullptr, 0);
    EXPECT_EQ(err, MGX_ENOENT);
    EXPECT_EQ(aaa_tlv_compare(back, t), 0) << "failed reads leave the list as it was";
}

TEST_F(AaaTlvTest, HeaderFlagsAndStateArea) {
    mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
    aaa_tlv *t = make();
    EXPECT_EQ(t->hdr.flags, MGX_IF_TRACKED);
    mgx_handle_set_state_tracking(h, 1, MGX_STTR_UNTRACKED);
    aaa_tlv nested{};
    aaa_tlv_initialize(h, 0, &nested, &_aaa_tlv_type_info_internal, 1, 0, MGX_IF_NESTED, nullptr, &err);
    EXPECT_EQ(nested.hdr.flags, MGX_IF_NESTED);

    mgx_journal_clear(h);
    aaa_tlv_set_instance_embedded(h, 0, t);
    EXPECT_EQ(t->hdr.flags, MGX_IF_TRACKED | MGX_IF_EMBEDDED);
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, &t->hdr.flags);

    uint8_t area[AAA_TLV_STTR_AREA] = {};
    aaa_tlv_offset_update(h, 0, t, area, &err);
    EXPECT_EQ(t->sttr, area);
    aaa_tlv_offset_remove(h, 0, t, &err);
    EXPECT_EQ(t->sttr, nullptr);
    EXPECT_EQ(err, 0u);
}

} // namespace
