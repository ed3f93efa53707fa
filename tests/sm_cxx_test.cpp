// The C++ interface: every accessor of every type compiled, every record and union through
// encode/decode, XML and print as messages, and the interface's own logic: ownership, refusals as
// exceptions with the member's name, whole outputs, decode with the variant raised.
#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "tests/sm_fill.h"
#ifdef OVRIN_CXX_SHAPES
#include "shapes/shapes.hpp"
namespace cat = shapes;
#define FOR_EACH_MESSAGE SHAPES_FOR_EACH_MESSAGE
#else
#include "ovrin_sm/ovrin_sm.hpp"
namespace cat = ovrin::sm;
#define FOR_EACH_MESSAGE OVRIN_SM_FOR_EACH_MESSAGE
#endif

// Every accessor of every type, instantiated for the message and the reference alike.
#define INSTANTIATE(T)                                                                                                           \
    template struct cat::T##_fields<cat::T>;                                                                                     \
    template struct cat::T##_fields<cat::T##_ref>;
FOR_EACH_MESSAGE(INSTANTIATE)

// Enumerations carry the values callers see (the user values), not the wire positions.
#ifdef OVRIN_CXX_SHAPES
static_assert(static_cast<uint32_t>(shapes::shp_colour::SHP_GREEN) == SHP_GREEN && SHP_GREEN == 5);
#else
static_assert(static_cast<uint32_t>(ovrin::sm::ovrin_sm_in_event_type::SESS_MGR_RCL_IN_REMOTE_UPDATE) ==
                  SESS_MGR_RCL_IN_REMOTE_UPDATE &&
              SESS_MGR_RCL_IN_REMOTE_UPDATE == 25);
#endif

namespace {

class Cxx : public ::testing::Test {
protected:
    mgx::handle h;
    void SetUp() override { ASSERT_EQ(mgx_handle_set_guard_bytes(h.get(), 64), 0); }
    void TearDown() override {
        EXPECT_EQ(h.live_allocations(), 0u);
        EXPECT_EQ(mgx_handle_overruns(h.get()), 0u);
    }
    template <class T> T filled(unsigned seed, unsigned arm) {
        T m = T::create(h);
        testfill::fill(testfill::type(T::type_name()), h.get(), m.get(), seed, arm);
        return m;
    }
};

// Each message, filled (each union once per arm), comes back equal from its encoding, its XML
// and a clone, prints the same after each, hashes alike when equal, and refuses a trailing byte.
// (Under tracking the stated size is an upper bound, and a byte after a union can be taken for
// the state byte its last arm goes without at the very end of an encoding.)
template <class T> void round_trips(mgx::handle &h, T &m, bool tracked) {
    SCOPED_TRACE(T::type_name());
    std::vector<uint8_t> bytes = m.encode();
    if (tracked) EXPECT_LE(bytes.size(), m.encoded_size());
    else EXPECT_EQ(bytes.size(), m.encoded_size());
    T back = T::decode(h, bytes);
    EXPECT_TRUE(back == m);
    EXPECT_EQ(back.encode(), bytes);
    EXPECT_EQ(back.to_string(), m.to_string());
    T from_xml = T::from_xml(h, m.to_xml());
    EXPECT_TRUE(from_xml == m) << m.to_xml();
    const std::string pretty = m.to_json(true); // a record's members a line each; an enumeration's one word
    EXPECT_EQ(pretty.find('\n') != std::string::npos, pretty[0] == '{') << pretty;
    T from_json = T::from_json(h, pretty);
    EXPECT_TRUE(from_json == m) << m.to_json();
    T copy = m.clone();
    EXPECT_TRUE(copy == m);
    EXPECT_EQ(std::hash<T>()(copy), std::hash<T>()(m));

    if (!tracked) {
        bytes.push_back(0);
        std::error_code ec;
        T refused = T::decode(h, bytes, ec);
        EXPECT_EQ(ec.value(), int(MGX_EINVAL));
        EXPECT_FALSE(refused);
        bytes.pop_back();
    }
    back.decode_from(bytes); // into a used instance
    EXPECT_TRUE(back == m);
}

TEST_F(Cxx, EveryMessageRoundTrips) {
    bool tracked = false;
    auto each = [&]<class T>(T *) {
        const unsigned arms = std::max(1u, testfill::members(testfill::type(T::type_name())));
        for (unsigned arm = 0; arm < arms; ++arm) {
            T m = filled<T>(arm + 3, arm);
            round_trips(h, m, tracked);
        }
    };
    for (bool on : {false, true}) { // a tracked instance's encoding carries its state bytes too
        h.set_state_tracking(tracked = on);
        [&]<class... T>(std::tuple<T...> *) {
            (each(static_cast<T *>(nullptr)), ...);
        }(static_cast<cat::all_messages *>(nullptr));
    }
}

// Misuse the types can see does not compile.
template <class T, class V> concept settable_session_type = requires(T t, V v) { t.set_session_type(v); };
template <class T, class V> concept settable_cl_name = requires(T t, V v) { t.set_cl_name(std::move(v)); };

#ifndef OVRIN_CXX_SHAPES
using ovrin::sm::sess_mgr_register;
using ovrin::sm::sess_mgr_session_start;

static_assert(settable_session_type<sess_mgr_register, uint32_t>);
static_assert(!settable_session_type<sess_mgr_register, const char *>);
static_assert(!settable_session_type<sess_mgr_register, std::string>);
static_assert(settable_cl_name<ovrin::sm::sess_mgr_session_stop, ovrin::sm::sess_mgr_client_name>);
static_assert(!settable_cl_name<ovrin::sm::sess_mgr_session_stop, ovrin::sm::sess_mgr_method_name>);
static_assert(!std::is_copy_constructible_v<sess_mgr_register> && std::is_nothrow_move_constructible_v<sess_mgr_register>);
// A count or length follows from its array or string: it has no setter of its own.
template <class T> concept settable_length = requires(T t) { t.set_cl_name_len(3); };
static_assert(!settable_length<ovrin::sm::sess_mgr_client_name_ref>);

TEST_F(Cxx, TheIntroductionsProgram) {
    auto reg = sess_mgr_register::create(h);
    reg.cl_name().set_client_name("bob");
    reg.set_session_type(2).set_cb_bitmap(5);
    std::vector<uint8_t> bytes = reg.encode();
    auto back = sess_mgr_register::decode(h, bytes);
    EXPECT_TRUE(back == reg);
    EXPECT_EQ(back.cl_name().client_name(), "bob");
    EXPECT_EQ(back.cl_name().cl_name_len(), 3u);
    EXPECT_EQ(back.session_type(), 2u);
    std::ostringstream printed;
    printed << back;
    EXPECT_NE(printed.str().find("client_name: bob"), std::string::npos) << printed.str();
    auto again = sess_mgr_register::from_xml(h, back.to_xml());
    EXPECT_TRUE(again == reg);
    std::unordered_set<sess_mgr_register::ref, std::hash<sess_mgr_register::ref>> seen;
    (void)seen;
}

// A decode raises the new instance to the handle's variant first: a member the sender's later
// variant has arrives, where the C interface's create-then-unmarshal drops it.
TEST_F(Cxx, DecodeKeepsWhatTheSendersVariantAdds) {
    auto start = sess_mgr_session_start::create(h);
    start.cl_name().set_client_name("alice");
    const std::vector<uint8_t> bytes = start.encode();
    EXPECT_EQ(sess_mgr_session_start::decode(h, bytes).cl_name().client_name(), "alice");

    mgx::handle old;
    old.set_domain_variant("sess_mgr_session_start", 0);
    auto at_zero = sess_mgr_session_start::create(old);
    // A reused message keeps the room for the later member across an older peer's message.
    auto reused = sess_mgr_session_start::decode(h, at_zero.encode());
    reused.decode_from(bytes);
    EXPECT_EQ(reused.cl_name().client_name(), "alice");
    try {
        at_zero.cl_name();
        ADD_FAILURE() << "a member newer than the instance's variant was reached";
    } catch (const mgx::error &e) {
        EXPECT_EQ(e.value(), MGX_EVARIANT);
        EXPECT_EQ(e.where(), "sess_mgr_session_start.cl_name");
        EXPECT_STREQ(e.what(),
                     ("sess_mgr_session_start.cl_name: " + std::string(mgx_strerror(MGX_EVARIANT)) + " (error 43)").c_str());
    }
}

template <class F> uint32_t refusal(F f, std::string *where = nullptr) {
    try {
        f();
    } catch (const mgx::error &e) {
        if (where) *where = e.where();
        return e.value();
    }
    return 0;
}

TEST_F(Cxx, RefusalsNameTheMember) {
    std::string where;
    auto event = ovrin::sm::ovrin_smd_in_event::create(h);
    EXPECT_FALSE(event.has_reg_client());
    EXPECT_EQ(refusal([&] { event.reg_client(); }, &where), MGX_ENOENT);
    EXPECT_EQ(where, "ovrin_smd_in_event.reg_client");
    event.emplace_reg_client().set_session_type(7);
    EXPECT_EQ(event.which(), ovrin::sm::ovrin_sm_in_event_type::SESS_MGR_RCL_IN_REGISTER);
    EXPECT_EQ(event.reg_client().session_type(), 7u);
    EXPECT_EQ(refusal([&] { event.unreg_client(); }), MGX_ENOENT);

    auto query = ovrin::sm::sess_mgr_sess_attr_query_resp::create(h);
    EXPECT_EQ(refusal([&] { query.resp_array()[0]; }, &where), MGX_ENOENT);
    EXPECT_EQ(where, "sess_mgr_sess_attr_query_resp.resp_array");
    auto policy = ovrin::sm::ovrin_epm_bind_policy_info::create(h);
    EXPECT_EQ(refusal([&] { policy.policy_src(4); }), MGX_ENOENT);
    EXPECT_EQ(refusal([&] { policy.set_policy_src(4, ovrin::sm::ovrin_epm_policy_source{}); }), MGX_ENOENT);

    std::error_code ec;
    const uint8_t junk[] = {0xFF, 0xFF, 0xFF};
    EXPECT_FALSE(sess_mgr_register::decode(h, junk, ec));
    EXPECT_TRUE(ec);
    EXPECT_EQ(refusal([&] { sess_mgr_register::decode(h, junk); }, &where), uint32_t(ec.value()));
    EXPECT_EQ(where, "sess_mgr_register.decode");
    EXPECT_EQ(refusal([&] { sess_mgr_register::from_xml(h, "<sess_mgr_register><session_type>x</session_type>"); }), MGX_EINVAL);
    EXPECT_EQ(
        refusal(
            [&] { sess_mgr_register::from_xml(h, "<sess_mgr_register><session_type>abc</session_type></sess_mgr_register>"); },
            &where),
        MGX_EINVAL);
    EXPECT_EQ(where, "sess_mgr_register: Invalid value at /sess_mgr_register/session_type");
    EXPECT_EQ(refusal([&] { sess_mgr_register::from_json(h, R"({"cl_name":{"client_nam":""}})"); }, &where), MGX_EINVAL);
    EXPECT_EQ(where, "sess_mgr_register /cl_name/client_nam: sess_mgr_client_name has no member client_nam");
    EXPECT_EQ(sess_mgr_register::from_json(h, R"({"cl_name":{"client_nam":""}})", true), sess_mgr_register::create(h));

    auto reg = sess_mgr_register::create(h);
    std::vector<uint8_t> small(reg.encoded_size() - 1);
    EXPECT_EQ(reg.encode_to(small, ec), 0u);
    EXPECT_EQ(ec.value(), int(MGX_ESHORT));
    sess_mgr_register empty;
    EXPECT_EQ(refusal([&] { empty.set_session_type(1); }), MGX_EINVAL);
    EXPECT_EQ(refusal([&] { empty.encode(); }), MGX_EINVAL);
}

// Outputs come whole whatever their size.
TEST_F(Cxx, OutputsAreWhole) {
    auto reg = sess_mgr_register::create(h);
    const std::string name(200000, 'n');
    reg.cl_name().set_client_name(name);
    EXPECT_NE(reg.to_string().find(name + "\n"), std::string::npos);
    EXPECT_NE(reg.to_xml().find(">" + name + "<"), std::string::npos);
    EXPECT_EQ(sess_mgr_register::from_xml(h, reg.to_xml()).cl_name().client_name(), name);
}

// Members of a union: the union owns what it is given, and a member its arm held before is freed
// (the C interface detaches it and leaves it to the caller).
TEST_F(Cxx, UnionArmsOwnTheirMembers) {
    auto event = ovrin::sm::ovrin_smd_in_event::create(h);
    event.emplace_reg_client().set_session_type(1);
    auto second = sess_mgr_register::create(h);
    second.set_session_type(2);
    event.set_reg_client(std::move(second));
    EXPECT_FALSE(second);
    EXPECT_EQ(event.reg_client().session_type(), 2u);
    event.emplace_unreg_client();
    EXPECT_TRUE(event.has_unreg_client());
    EXPECT_FALSE(event.has_reg_client());
    event.emplace_reg_client();
    auto moved = std::move(event);
    EXPECT_FALSE(event);
    EXPECT_TRUE(moved.has_reg_client());
    ::ovrin_smd_in_event *raw = moved.release();
    auto adopted = ovrin::sm::ovrin_smd_in_event::adopt(h.get(), h.luid(), raw);
    EXPECT_TRUE(adopted.has_reg_client());
}

// Arrays grow and shrink with their elements' contents kept; the count follows.
TEST_F(Cxx, VariableArrays) {
    auto bind = ovrin::sm::ovrin_svm_epm_notify_domain_name_bind::create(h);
    auto names = bind.domain_names();
    EXPECT_TRUE(names.empty());
    for (const char *n : {"a.example", "b.example", "c.example"}) names.emplace_back().set_name(n);
    auto extra = ovrin::sm::fqdn_domain_name_bind::create(h);
    extra.set_name("d.example").set_fqdn_register(1);
    names.push_back(std::move(extra));
    EXPECT_EQ(bind.domain_names_length(), 4u);
    std::vector<std::string> seen;
    for (auto e : names) seen.push_back(e.name());
    EXPECT_EQ(seen, (std::vector<std::string>{"a.example", "b.example", "c.example", "d.example"}));
    names.resize(2);
    names.resize(2); // to the size it has: nothing changes
    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(names.back().name(), "b.example");
    names.resize(3);
    EXPECT_EQ(names[2].name(), "");
    EXPECT_EQ(names[0].name_view(), "a.example");
    names.clear();
    EXPECT_EQ(bind.domain_names_length(), 0u);
}

// The handle and the error type: a moved handle keeps its owner id, the counts are the runtime's,
// and an error reads "WHERE: TEXT (error CODE)", or without a place "TEXT (error CODE)".
TEST_F(Cxx, HandleAndErrorType) {
    mgx::handle seven(7), other;
    other = std::move(seven);
    EXPECT_EQ(other.luid(), 7u);
    EXPECT_EQ(seven.get(), nullptr);
    auto conn = ovrin::sm::sess_mgr_conn_hdl::create(h);
    EXPECT_EQ(h.live_allocations(), 1u);
    EXPECT_GT(h.live_bytes(), 1u);
    EXPECT_STREQ(mgx::error(MGX_EINVAL, "").what(), (std::string(mgx_strerror(MGX_EINVAL)) + " (error 22)").c_str());
    EXPECT_EQ(mgx::error(MGX_ENOENT, "t.m").code(), std::error_code(2, mgx::error_category()));
}

// Decoding again into a message of the same sizes allocates nothing; a counted string's text ends
// at a NUL as the library reads it, its length as given; a 16-bit length takes at most 65535.
TEST_F(Cxx, StorageTextAndLimits) {
    auto reg = sess_mgr_register::create(h);
    reg.cl_name().set_client_name(std::string_view("ab\0cd", 5));
    EXPECT_EQ(reg.cl_name().client_name(), "ab");
    EXPECT_EQ(reg.cl_name().cl_name_len(), 5u);
    reg.meth_name().set_method_name("dot1x");
    const std::vector<uint8_t> bytes = reg.encode();
    auto again = sess_mgr_register::decode(h, bytes);
    const uint64_t before = mgx_handle_total_allocations(h.get());
    again.decode_from(bytes);
    EXPECT_EQ(mgx_handle_total_allocations(h.get()), before);

    auto bind = ovrin::sm::fqdn_domain_name_bind::create(h);
    EXPECT_EQ(refusal([&] { bind.set_name(std::string(65536, 'x')); }), MGX_EINVAL);
    bind.set_name(std::string(65535, 'x'));
    EXPECT_EQ(bind.name_len(), 65535u);
}

// An enumeration member written through its holder reads back and is marked set under tracking;
// a member the union stores and then refuses (not tracked, under tracking) is the union's.
TEST_F(Cxx, EnumerationsAndMembersUnderTracking) {
    auto untracked = ovrin::sm::sess_mgr_ctrl_dir::create(h);
    h.set_state_tracking(true);
    auto policy = ovrin::sm::ovrin_epm_bind_policy_info::create(h);
    policy.set_fail_type(ovrin::sm::ovrin_bind_policy_fail_type::OVRIN_BIND_POLICY_FAIL_QOS);
    EXPECT_EQ(policy.fail_type(), ovrin::sm::ovrin_bind_policy_fail_type::OVRIN_BIND_POLICY_FAIL_QOS);
    uint32_t err = 0;
    EXPECT_EQ(ovrin_epm_bind_policy_info_fail_type_state_flag_get(h.get(), h.luid(), policy.get(), &err), 2);

    auto oper = ovrin::sm::sess_mgr_oper_data::create(h);
    EXPECT_EQ(refusal([&] { oper.set_oper_ctrl_dir(std::move(untracked)); }), MGX_EINVAL);
    EXPECT_FALSE(untracked);
    EXPECT_TRUE(oper.has_oper_ctrl_dir());
}

TEST_F(Cxx, FixedArraysEnumerationsAndAttributeLists) {
    auto policy = ovrin::sm::ovrin_epm_bind_policy_info::create(h);
    using src = ovrin::sm::ovrin_epm_policy_source;
    policy.set_policy_src(3, src::OVRIN_EPM_SOURCE_AAA);
    EXPECT_EQ(policy.policy_src(3), src::OVRIN_EPM_SOURCE_AAA);
    EXPECT_EQ(ovrin::to_string(src::OVRIN_EPM_SOURCE_AAA), "OVRIN_EPM_SOURCE_AAA");
    EXPECT_EQ(ovrin::from_string<src>("OVRIN_EPM_SOURCE_AAA"), src::OVRIN_EPM_SOURCE_AAA);
    EXPECT_EQ(ovrin::from_string<src>("nothing"), std::nullopt);

    auto dot11 = ovrin::sm::sm_dot11_params::create(h);
    const u_int8 oui[3] = {1, 2, 3};
    dot11.set_oui(oui).set_oui(2, 9);
    EXPECT_EQ(std::vector<u_int8>(dot11.oui().begin(), dot11.oui().end()), (std::vector<u_int8>{1, 2, 9}));
    EXPECT_EQ(refusal([&] { dot11.set_oui(3, 1); }), MGX_ENOENT);
    const mgx_mac_addr mac{{0, 1, 2, 3, 4, 5}};
    dot11.set_apfMsBssid(mac);
    EXPECT_EQ(dot11.apfMsBssid().octet[5], 5);

    auto stop = ovrin::sm::sess_mgr_session_stop::create(h);
    auto attrs = stop.identity_attrs();
    attrs.add(7, "seven");
    attrs.add(9, std::vector<uint8_t>{1, 2});
    ASSERT_EQ(attrs.size(), 2u);
    EXPECT_EQ(attrs.find(9), 1u);
    EXPECT_EQ(attrs[1].value.size(), 2u);
    attrs.remove(0);
    EXPECT_EQ(attrs.find(7), std::nullopt);
    EXPECT_EQ(refusal([&] { attrs[1]; }), MGX_ENOENT);
    EXPECT_EQ(ovrin::sm::sess_mgr_session_stop::decode(h, stop.encode()).identity_attrs()[0].type, 9u);
}
#endif

} // namespace
