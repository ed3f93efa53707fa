// The runtime's primitive field types: wire, text and XML forms, short and hostile input, strict
// readers, descriptors, and the AAA attribute list's memory.
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

// One fixed-width primitive: its operations, a sample value, its wire bytes and its text.
#define PRIM_CASE(NAME, T, VALUE, TEXT, ...)                                                                \
    struct NAME {                                                                                           \
        using type = T;                                                                                     \
        static constexpr auto set = T##_set;                                                                \
        static constexpr auto marshal = T##_marshal;                                                        \
        static constexpr auto unmarshal = T##_unmarshal;                                                    \
        static constexpr auto len = T##_len;                                                                \
        static constexpr auto print = T##_print;                                                            \
        static constexpr auto to_xml = T##_to_xml;                                                          \
        static constexpr auto from_xml = T##_from_xml;                                                      \
        static T value() { return VALUE; }                                                                  \
        static std::vector<uint8_t> wire() { return {__VA_ARGS__}; }                                        \
        static constexpr const char *text = TEXT;                                                           \
    };
PRIM_CASE(U8Case, u_int8, 0xA5, "165", 0xA5)
PRIM_CASE(U16Case, u_int16, 0xBEEF, "48879", 0xBE, 0xEF)
PRIM_CASE(U32Case, u_int32, 0xDEADBEEFu, "3735928559", 0xDE, 0xAD, 0xBE, 0xEF)
PRIM_CASE(U64Case, u_int64, 0x0123456789ABCDEFull, "81985529216486895", 1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF)
PRIM_CASE(BoolCase, mgx_boolean, 1, "true", 1)
PRIM_CASE(MacCase, mgx_mac_addr, (mgx_mac_addr{{0, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}}), "00:1a:2b:3c:4d:5e", 0, 0x1a, 0x2b,
          0x3c, 0x4d, 0x5e)
PRIM_CASE(Ipv4Case, ipv4_addr, 0xC0A80001u, "192.168.0.1", 192, 168, 0, 1)
PRIM_CASE(Ipv6Case, ipv6_addr, v6("2001:db8::1"), "2001:db8::1", 0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1)

template <class C> class PrimTest : public RuntimeFixture {};
using PrimCases = ::testing::Types<U8Case, U16Case, U32Case, U64Case, BoolCase, MacCase, Ipv4Case, Ipv6Case>;
TYPED_TEST_SUITE(PrimTest, PrimCases);

template <class T> bool same(const T &a, const T &b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

TYPED_TEST(PrimTest, WireRoundTripAndShortBuffers) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    const std::vector<uint8_t> wire = C::wire();
    const auto w = static_cast<int32_t>(wire.size());
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
        typename C::type field{};
        EXPECT_EQ(C::marshal(h, 0, out.get(), &v, n, &e1) + C::unmarshal(h, 0, in.get(), &field, n, 0, &e2), 0u);
        EXPECT_EQ(e1 + e2, 2 * MGX_ESHORT) << n;
        EXPECT_EQ(std::count(out.get(), out.get() + bytes, 0xA5), long(bytes));
        EXPECT_TRUE(same(field, typename C::type{}));
    }
    EXPECT_EQ(mgx_handle_last_error(h), MGX_ESHORT);
}

TYPED_TEST(PrimTest, SetIsHookedAndAPendingErrorStopsEverything) {
    using C = TypeParam;
    mgx_handle_t *h = this->h;
    const typename C::type v = C::value();
    typename C::type field{}, other{};
    mgx_journal_clear(h);
    C::set(h, 7, &field, &v, &this->err);
    EXPECT_TRUE(same(field, v));
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, &field);
    EXPECT_EQ(mgx_journal_entry(h, 0)->length, sizeof field);

    uint32_t pending = 5;
    uint8_t wire[16] = {};
    char text[64] = "kept";
    C::set(h, 0, &other, &v, &pending);
    EXPECT_EQ(C::marshal(h, 0, wire, &v, 16, &pending) + C::unmarshal(h, 0, C::wire().data(), &other, 1, 0, &pending) +
                  C::print(h, 0, text, 0, "f", &v, 64, &pending) + C::to_xml(h, 0, "f", text, &v, 64, 0, &pending),
              0u);
    EXPECT_TRUE(same(other, typename C::type{}));
    EXPECT_STREQ(text, "kept");
    EXPECT_EQ(wire[0] + pending, 5u);
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
    EXPECT_EQ(this->err, 0u);
    EXPECT_TRUE(same(back, v));
    C::from_xml(h, 0, "r/missing", doc.get(), &back, &this->err, nullptr, 0);
    EXPECT_EQ(this->err, MGX_ENOENT);
    char msg[64] = "";
    for (const char *path : {"r/junk", "r/empty"}) {
        uint32_t e = 0;
        C::from_xml(h, 0, path, doc.get(), &back, &e, msg, sizeof msg);
        EXPECT_EQ(e, MGX_EINVAL) << path;
    }
    EXPECT_STREQ(msg, "Invalid value at r/empty");
    EXPECT_TRUE(same(back, v));
}

using ScalarTest = RuntimeFixture;

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

template <class T, class F> std::function<uint32_t(void *)> reader(mgx_handle_t *h, F from_xml) {
    return [h, from_xml](void *doc) {
        T v{};
        uint32_t e = 0;
        from_xml(h, 0, "v", doc, &v, &e, nullptr, 0);
        return e;
    };
}

TEST_F(ScalarTest, ReadersAreStrict) {
    auto u8 = reader<u_int8>(h, u_int8_from_xml), u16 = reader<u_int16>(h, u_int16_from_xml),
         u32 = reader<u_int32>(h, u_int32_from_xml), u64 = reader<u_int64>(h, u_int64_from_xml),
         b = reader<mgx_boolean>(h, mgx_boolean_from_xml), mac = reader<mgx_mac_addr>(h, mgx_mac_addr_from_xml),
         ip4 = reader<ipv4_addr>(h, ipv4_addr_from_xml), ip6 = reader<ipv6_addr>(h, ipv6_addr_from_xml);
    const struct {
        std::function<uint32_t(void *)> &read;
        const char *text;
        bool ok;
    } cases[] = {{u8, "255", true}, {u8, " 42\n", true}, {u8, "256", false}, {u8, "-1", false}, {u8, "+1", false},
                 {u8, "0x1", false}, {u8, "1 2", false}, {u16, "65536", false}, {u32, "4294967295", true},
                 {u32, "99999999999999999999999", false}, {u64, "18446744073709551615", true},
                 {u64, "18446744073709551616", false}, {b, "yes", false}, {mac, "00:1A:2B:3C:4D:5E", true},
                 {mac, "00:1a:2b:3c:4d", false}, {mac, "00-1a-2b-3c-4d-5e", false}, {mac, "0g:1a:2b:3c:4d:5e", false},
                 {ip4, "1.2.3", false}, {ip4, "256.1.1.1", false}, {ip6, "::ffff:10.0.0.1", true},
                 {ip6, "1::2::3", false}};
    for (const auto &c : cases) {
        auto doc = parse_xml(std::string("<v>") + c.text + "</v>");
        EXPECT_EQ(c.read(doc.get()), c.ok ? 0u : MGX_EINVAL) << c.text;
    }
}

TEST_F(ScalarTest, InstanceComparisons) {
    mgx_mac_addr m1{{0, 0, 0, 0, 0, 9}}, m2{{0, 0, 0, 0, 1, 0}};
    EXPECT_EQ(mgx_mac_addr_compare(&m1, &m2), -1);
    EXPECT_EQ(mgx_mac_addr_compare(&m2, &m1), 1);
    EXPECT_EQ(mgx_mac_addr_compare(nullptr, nullptr), 0);
    EXPECT_EQ(mgx_mac_addr_compare(nullptr, &m1), -1);
    EXPECT_EQ(mgx_mac_addr_compare(&m1, nullptr), 1);
    ipv4_addr low = 0x0A000002, high = 0xC0A80001; // by value, not by the host-order bytes
    EXPECT_EQ(ipv4_addr_compare(&low, &high), -1);
    ipv6_addr a = v6("::2"), b = v6("1::");
    EXPECT_EQ(ipv6_addr_compare(&a, &b), -1);
    EXPECT_EQ(mgx_mac_addr_get_oid_count(h, 0, nullptr, &err), 0u);
    EXPECT_EQ(err, MGX_EINVAL);
}

TEST_F(ScalarTest, Descriptors) {
    const std::pair<const mgx_type_info_t *, uint32_t> all[] = {
        {&_mgx_boolean_type_info_internal, 4}, {&_mgx_mac_addr_type_info_internal, 6},
        {&_ipv4_addr_type_info_internal, 4},   {&_ipv6_addr_type_info_internal, 16},
        {&_aaa_tlv_type_info_internal, 32}};
    std::vector<std::string> fingerprints;
    for (const auto &[t, width] : all) {
        char hex[33] = {};
        for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", t->fingerprint[i]);
        EXPECT_STREQ(t->fingerprint_text, hex) << t->type_name;
        fingerprints.push_back(hex);
        EXPECT_EQ(t->magic, MGX_TYPE_INFO_MAGIC);
        EXPECT_EQ(std::string(t->domain_name) + t->kind + std::to_string(t->registry_slot), "mgxtype-1");
        ASSERT_EQ(t->variant_info->n_variants, 1);
        EXPECT_EQ(t->variant_info->entries[0].used_length, width) << t->type_name;
    }
    EXPECT_STREQ(_ipv6_addr_type_info_internal.type_name, "ipv6_addr");
    std::sort(fingerprints.begin(), fingerprints.end());
    EXPECT_EQ(std::unique(fingerprints.begin(), fingerprints.end()), fingerprints.end());
}

// ---------------------------------------------------------------------------- aaa_tlv

class AaaTlvTest : public RuntimeFixture {
protected:
    aaa_tlv *make() { // an initialised empty list, destroyed at the end of the test
        lists.push_back(std::make_unique<aaa_tlv>());
        aaa_tlv_initialize(h, 0, lists.back().get(), &_aaa_tlv_type_info_internal, 0, 0, 0, nullptr, &err);
        return lists.back().get();
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
    std::vector<uint8_t> encode(const aaa_tlv *t) {
        std::vector<uint8_t> out(aaa_tlv_len(h, 0, t));
        EXPECT_EQ(aaa_tlv_marshal(h, 0, out.data(), t, int32_t(out.size()), &err), out.size());
        return out;
    }
    uint32_t decode(aaa_tlv *t, const std::vector<uint8_t> &bytes, size_t n, uint32_t *e) {
        auto in = exact_block(n, bytes.data());
        return aaa_tlv_unmarshal(h, 0, in.get(), t, int32_t(n), 0, e);
    }
    void TearDown() override {
        for (auto &t : lists) aaa_tlv_destroy_internal(h, 0, t.get(), 0);
        RuntimeFixture::TearDown();
    }
    std::vector<std::unique_ptr<aaa_tlv>> lists;
};

TEST_F(AaaTlvTest, AttributeApiAndOrdering) {
    aaa_tlv *t = make(), *u = make();
    add(t, 1, "alice");
    add(t, 31, std::string("\0\x01", 2));
    add(t, 1, "");
    EXPECT_EQ(aaa_tlv_attr_count(t), 3u);
    EXPECT_EQ(value_at(t, 1), std::string("\0\x01", 2));
    EXPECT_EQ(aaa_tlv_attr_find(t, 1), 0);
    EXPECT_EQ(aaa_tlv_attr_find(t, 99), -1);
    aaa_tlv_attr_remove(h, 0, t, 0, &err);
    EXPECT_EQ(aaa_tlv_attr_find(t, 1), 1);
    EXPECT_EQ(aaa_tlv_attr_at(t, 2, nullptr, nullptr), 0u);
    aaa_tlv_attr_remove(h, 0, t, 2, &err);
    EXPECT_EQ(err, MGX_ENOENT);
    err = 0;

    // compare: count, then type, length and bytes of each attribute
    auto list = [&](std::initializer_list<std::pair<uint32_t, std::string>> attrs) {
        aaa_tlv *l = make();
        for (const auto &[type, value] : attrs) add(l, type, value);
        return l;
    };
    const std::string v01("\0\x01", 2), v02("\0\x02", 2);
    EXPECT_EQ(aaa_tlv_compare(list({{31, v01}}), t), -1) << "count first";
    EXPECT_EQ(aaa_tlv_compare(list({{30, "zzz"}, {1, ""}}), t), -1) << "type before length";
    EXPECT_EQ(aaa_tlv_compare(list({{31, "\x01"}, {1, ""}}), t), -1) << "length before bytes";
    EXPECT_EQ(aaa_tlv_compare(list({{31, v02}, {1, ""}}), t), 1);
    EXPECT_EQ(aaa_tlv_compare(list({{31, v01}, {1, ""}}), t), 0);
    EXPECT_EQ(aaa_tlv_hash(list({{31, v01}, {1, ""}}), 5), aaa_tlv_hash(t, 5));
    EXPECT_NE(aaa_tlv_hash(list({{31, v02}, {1, ""}}), 5), aaa_tlv_hash(t, 5));
    EXPECT_EQ(aaa_tlv_compare(nullptr, u) + aaa_tlv_compare(u, nullptr) + aaa_tlv_compare(nullptr, nullptr), 0);
    for (uint32_t i = 0; i < 2; ++i) aaa_tlv_attr_remove(h, 0, t, 0, &err);
    EXPECT_EQ(t->body, nullptr) << "an empty list holds no memory";
}

TEST_F(AaaTlvTest, WireFormAndEveryShortLength) {
    aaa_tlv *t = make(), *back = make();
    add(t, 1, "ab");
    add(t, 0x01020304, "");
    const std::vector<uint8_t> wire = {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 2, 'a', 'b', 1, 2, 3, 4, 0, 0, 0, 0};
    EXPECT_EQ(encode(t), wire);
    add(back, 5, "replaced by the decode");
    EXPECT_EQ(decode(back, wire, wire.size(), &err), wire.size());
    EXPECT_EQ(aaa_tlv_compare(back, t), 0);
    EXPECT_EQ(aaa_tlv_hash(back, 3), aaa_tlv_hash(t, 3));

    const uint64_t allocations = mgx_handle_total_allocations(h);
    for (size_t n = 0; n < wire.size(); ++n) {
        uint32_t e1 = 0, e2 = 0;
        auto out = exact_block(n);
        EXPECT_EQ(aaa_tlv_marshal(h, 0, out.get(), t, int32_t(n), &e1) + decode(back, wire, n, &e2), 0u);
        EXPECT_EQ(e1 + e2, 2 * MGX_ESHORT) << n;
        EXPECT_EQ(std::count(out.get(), out.get() + n, 0xA5), long(n));
    }
    EXPECT_EQ(mgx_handle_total_allocations(h), allocations);
    EXPECT_EQ(aaa_tlv_compare(back, t), 0);
}

TEST_F(AaaTlvTest, HostileInputFailsBeforeAllocating) {
    const std::vector<std::vector<uint8_t>> hostile = {
        {0xFF, 0xFF, 0xFF, 0xFF},                                    // four billion attributes, no bytes
        {0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0, 0, 0},            // huge count, one real attribute
        {0, 0, 0, 1, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 'x'},       // a 4 GiB value
        {0, 0, 0, 1, 0, 0, 0, 1, 0x7F, 0xFF, 0xFF, 0xF0, 'x'},       // a 2 GiB value
        {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 'x', 0, 0, 0, 2, 0, 0}, // second header cut short
        {0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 'x', 0, 0, 0, 2, 0, 0, 0, 9, 'y'},
    };
    aaa_tlv *t = make();
    for (const auto &bytes : hostile) {
        uint32_t e = 0;
        EXPECT_EQ(decode(t, bytes, bytes.size(), &e), 0u);
        EXPECT_EQ(e, MGX_ESHORT);
    }
    EXPECT_EQ(mgx_handle_total_allocations(h), 0u);
    // Bytes after the list belong to the next member: the decode stops at the list's end.
    EXPECT_EQ(decode(t, {0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0, 1, 'z', 0xEE}, 14, &err), 13u);
    EXPECT_EQ(value_at(t, 0), "z");
}

TEST_F(AaaTlvTest, DeepCopyOwnsItsMemory) {
    aaa_tlv *src = make(), *dst = make(), *raw = make();
    add(src, 1, "user");
    add(src, 2, "secret");
    add(dst, 3, "old");
    aaa_tlv_set(h, 0, dst, src, &err);
    EXPECT_EQ(aaa_tlv_compare(dst, src), 0);
    EXPECT_EQ(mgx_handle_live_allocations(h), 2u) << "the old body of dst was freed";
    aaa_tlv_attr_remove(h, 0, src, 0, &err);
    EXPECT_EQ(value_at(dst, 0), "user");
    aaa_tlv_set(h, 0, dst, dst, &err);
    EXPECT_EQ(aaa_tlv_attr_count(dst), 2u);
    // After a raw byte copy of a record both share one body; set gives the copy its own.
    std::memcpy(raw, src, sizeof *raw);
    aaa_tlv_set(h, 0, raw, src, &err);
    EXPECT_NE(raw->body, src->body);
    EXPECT_EQ(aaa_tlv_compare(raw, src), 0);
    EXPECT_EQ(err, 0u);
}

TEST_F(AaaTlvTest, AllocationFailureLeavesTheListAsItWas) {
    aaa_tlv *src = make(), *dst = make();
    add(src, 1, "one");
    const std::vector<uint8_t> wire = encode(src);
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
        EXPECT_EQ(aaa_tlv_attr_count(dst) == 2 && value_at(dst, 0) == "two", true) << name;
        e = 0;
        op(&e);
        EXPECT_EQ(e, 0u) << name << " succeeds once memory is back";
    }
}

TEST_F(AaaTlvTest, ObjectReferencesAreCountedAndCopied) {
    aaa_tlv *owner = make(), *a = make(), *b = make();
    const uint64_t oid = mgx_oid_map(h, owner);
    aaa_tlv_add_object_reference(h, 0, a, oid, &err);
    add(a, 1, "x");
    aaa_tlv_set(h, 0, b, a, &err);
    EXPECT_EQ(mgx_oid_ref_count(h, oid), 2u) << "the copy holds its own reference";
    uint64_t refs[1] = {};
    aaa_tlv_get_object_references(h, 0, b, refs, 0, &err);
    EXPECT_EQ(err, MGX_EINVAL) << "an array too small for the references";
    err = 0;
    decode(b, {0, 0, 0, 0}, 4, &err); // decoding replaces attributes; references stay
    EXPECT_EQ(aaa_tlv_attr_count(b) + 10 * aaa_tlv_get_oid_count(h, 0, b, &err), 10u);
    aaa_tlv_add_object_reference(h, 0, a, oid + 1000, &err);
    EXPECT_EQ(err, MGX_ENOENT);
    err = 0;
    for (aaa_tlv *t : {a, b}) { // what a containing record's destroy does before destroying the list
        ASSERT_EQ(aaa_tlv_get_oid_count(h, 0, t, &err), 1u);
        aaa_tlv_get_object_references(h, 0, t, refs, 1, &err);
        EXPECT_EQ(refs[0], oid);
        mgxlib_lookup_and_update_oid_ref_count(h, 0, refs[0], 0, &err);
    }
    EXPECT_EQ(mgx_oid_ref_count(h, oid) + err, 0u);
    EXPECT_EQ(mgx_request_oid_mapping_destroy(h, 0, owner, &err), 1);
}

TEST_F(AaaTlvTest, PrintAndXmlForms) {
    aaa_tlv *t = make(), *back = make();
    add(t, 1, "hi");
    add(t, 7, "");
    add(t, 26, std::string("<&>\0\xff", 5));
    char buf[512];
    const std::string printed = "  attrs@aaa_tlv: {\n    attr[0]: type 1: 6869\n    attr[1]: type 7: \n"
                                "    attr[2]: type 26: 3c263e00ff\n  }\n";
    EXPECT_EQ(aaa_tlv_print(h, 0, buf, 2, "attrs", t, sizeof buf, &err), printed.size());
    EXPECT_EQ(buf, printed);
    const std::string xml = "<attrs state=\"2\"><attr><type>1</type><value>6869</value></attr>"
                            "<attr><type>7</type><value></value></attr>"
                            "<attr><type>26</type><value>3c263e00ff</value></attr></attrs>";
    EXPECT_EQ(aaa_tlv_to_xml(h, 0, "attrs", buf, t, sizeof buf, 2, &err), xml.size());
    EXPECT_EQ(buf, xml);
    EXPECT_EQ(aaa_tlv_to_xml(h, 0, "attrs", buf, t, 40, 2, &err), 39u);
    EXPECT_EQ(std::string(buf), xml.substr(0, 39));

    auto doc = parse_xml("<r>" + xml + "<bad><attr><type>1</type><value>6g</value></attr></bad></r>");
    add(back, 99, "replaced");
    aaa_tlv_from_xml(h, 0, "r/attrs", doc.get(), back, &err, nullptr, 0);
    EXPECT_EQ(aaa_tlv_compare(back, t) + err, 0u);
    aaa_tlv_from_xml(h, 0, "r/bad", doc.get(), back, &err, nullptr, 0);
    EXPECT_EQ(err, MGX_EINVAL);
    err = 0;
    aaa_tlv_from_xml(h, 0, "r/none", doc.get(), back, &err, nullptr, 0);
    EXPECT_EQ(err, MGX_ENOENT);
    EXPECT_EQ(aaa_tlv_compare(back, t), 0) << "failed reads leave the list as it was";
}

TEST_F(AaaTlvTest, HeaderFlags) {
    mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
    aaa_tlv *t = make();
    EXPECT_EQ(t->hdr.descriptor, &_aaa_tlv_type_info_internal);
    mgx_journal_clear(h);
    aaa_tlv_set_instance_embedded(h, 0, t);
    EXPECT_EQ(t->hdr.flags, MGX_IF_TRACKED | MGX_IF_EMBEDDED);
    ASSERT_EQ(mgx_journal_count(h), 1u);
    EXPECT_EQ(mgx_journal_entry(h, 0)->address, &t->hdr.flags);
}

} // namespace
