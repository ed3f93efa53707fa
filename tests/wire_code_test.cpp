// The compiled wire code against the table walk, for every record and union of the catalogue the
// program is built with (it links the bundle's own objects, so both paths are at hand): for every
// member a union can select, untracked and tracked, and with the handle's domain below the
// instance's variant, both must give the same length, the same bytes at every space from none to
// enough, the same decode of every prefix of the encoding into a fresh instance and into a filled
// one, and the same errors in the slot and the handle.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ops/ops.h"
#include "ops/wire/code.h"
#include "tests/sm_fill.h"

namespace {

using ovrin::Type;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t untouched = 0xA5; // what a buffer holds where neither path wrote

struct Outcome {
    uint32_t n, err, last_error;
    Bytes bytes;
    bool operator==(const Outcome &) const = default;
};

std::string describe(const Outcome &o) {
    std::string s = "n=" + std::to_string(o.n) + " err=" + std::to_string(o.err) + " last=" + std::to_string(o.last_error) + " [";
    for (uint8_t b : o.bytes) s += std::to_string(b) + " ";
    return s + "]";
}

// A tracked encode may store one byte past the space: the buffer has room for it.
Outcome encode_with(bool compiled, const Type &t, mgx_handle_t *h, const void *instance, int32_t space, uint32_t pending = 0) {
    Outcome o{0, pending, 0, Bytes(static_cast<size_t>(space) + 1, untouched)};
    o.n = compiled ? ovrin::compiled(t)->encode(h, 1, o.bytes.data(), instance, space, true, &o.err)
                   : ovrin::walked_encode(t, h, 1, o.bytes.data(), instance, space, true, &o.err);
    o.last_error = h->last_error;
    return o;
}

// A decode's outcome, with the instance it left encoded by the walk (both instances are read the
// same way, so a difference in them shows as a difference in these bytes).
Outcome decode_with(bool compiled, const Type &t, mgx_handle_t *h, const Bytes &in, size_t length, void *instance,
                    uint32_t flags) {
    Outcome o{0, 0, 0, {}};
    o.n = compiled ? ovrin::compiled(t)->decode(h, 1, in.data(), instance, static_cast<int32_t>(length), flags, &o.err)
                   : ovrin::walked_decode(t, h, 1, in.data(), instance, static_cast<int32_t>(length), flags, &o.err);
    o.last_error = h->last_error;
    uint32_t e = 0;
    uint32_t size = ovrin::walked_length(t, h, 1, instance) + 1;
    o.bytes.assign(size, untouched);
    o.bytes.resize(ovrin::walked_encode(t, h, 1, o.bytes.data(), instance, static_cast<int32_t>(size - 1), false, &e));
    return o;
}

void *fresh(const Type &t, mgx_handle_t *h) {
    void *instance = testfill::create(t, h);
    uint32_t e = 0;
    ovrin::raise_variant(t, h, 1, instance, &e);
    return instance;
}

void check_type(const Type &t, mgx_handle_t *h, unsigned arm) {
    SCOPED_TRACE(std::string(t.name) + " arm " + std::to_string(arm));
    void *instance = fresh(t, h);
    testfill::fill(t, h, instance, 7, arm);

    uint32_t length = ovrin::walked_length(t, h, 1, instance);
    ASSERT_EQ(ovrin::compiled(t)->length(h, 1, instance), length);
    ASSERT_EQ(ovrin::compiled(t)->length(h, 1, nullptr), ovrin::walked_length(t, h, 1, nullptr));

    // Every space from none to enough (and a pending error): the runs fall back where they must.
    for (int32_t space = 0; space <= static_cast<int32_t>(length); ++space) {
        Outcome walked = encode_with(false, t, h, instance, space);
        Outcome compiled = encode_with(true, t, h, instance, space);
        ASSERT_EQ(compiled, walked) << "space " << space << "\ncompiled " << describe(compiled) << "\nwalked   "
                                    << describe(walked);
    }
    ASSERT_EQ(encode_with(true, t, h, instance, static_cast<int32_t>(length), 5),
              encode_with(false, t, h, instance, static_cast<int32_t>(length), 5));
    Bytes whole = encode_with(false, t, h, instance, static_cast<int32_t>(length)).bytes;
    whole.resize(length);

    // Every prefix into fresh instances, and the whole over filled ones keeping their storage.
    for (size_t k = 0; k <= whole.size(); ++k) {
        void *a = fresh(t, h), *b = fresh(t, h);
        Outcome walked = decode_with(false, t, h, whole, k, a, 0);
        Outcome compiled = decode_with(true, t, h, whole, k, b, 0);
        ASSERT_EQ(compiled, walked) << "prefix " << k << "\ncompiled " << describe(compiled) << "\nwalked   " << describe(walked);
        ovrin::destroy(t, h, 1, a);
        ovrin::destroy(t, h, 1, b);
    }
    // The instances decoded into hold another filling of the same member, as a receiver's do.
    void *other = fresh(t, h);
    testfill::fill(t, h, other, 3, arm);
    uint32_t other_length = ovrin::walked_length(t, h, 1, other);
    Bytes before = encode_with(false, t, h, other, static_cast<int32_t>(other_length)).bytes;
    ovrin::destroy(t, h, 1, other);
    for (uint32_t flags : {0u, 0xFFFFFFFFu}) {
        void *a = fresh(t, h), *b = fresh(t, h);
        decode_with(false, t, h, before, other_length, a, 0);
        decode_with(false, t, h, before, other_length, b, 0);
        Outcome walked = decode_with(false, t, h, whole, whole.size(), a, flags);
        Outcome compiled = decode_with(true, t, h, whole, whole.size(), b, flags);
        ASSERT_EQ(compiled, walked) << "over a filled instance, flags " << flags;
        ovrin::destroy(t, h, 1, a);
        ovrin::destroy(t, h, 1, b);
    }
    ovrin::destroy(t, h, 1, instance);
}

class WireCode : public ::testing::TestWithParam<int> {};

// param: 0 untracked, 1 tracked, 2 untracked with every type's domain variant at 0 (instances
// raised above it are encoded at 0 with error 43).
TEST_P(WireCode, AgreesWithTheTableWalkForEveryTypeAndMember) {
    mgx_handle_t *h = mgx_handle_create();
    if (GetParam() == 1) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
    unsigned checked = 0;
    for (const Type *t : testfill::types()) {
        if (t->kind == ovrin::TypeKind::enumeration) continue;
        ASSERT_NE(ovrin::compiled(*t), nullptr) << t->name;
        unsigned arms = t->kind == ovrin::TypeKind::union_ ? testfill::members(*t) : 1;
        for (unsigned arm = 0; arm < arms; ++arm) {
            void *raised = GetParam() == 2 ? fresh(*t, h) : nullptr;
            if (raised) mgx_handle_set_domain_variant(h, t->name, 0);
            check_type(*t, h, arm);
            if (raised) {
                // An instance made before the domain was lowered keeps its higher variant.
                testfill::fill(*t, h, raised, 5, arm);
                uint32_t length = ovrin::walked_length(*t, h, 1, raised);
                for (int32_t space : {0, static_cast<int32_t>(length) / 2, static_cast<int32_t>(length)})
                    ASSERT_EQ(encode_with(true, *t, h, raised, space), encode_with(false, *t, h, raised, space)) << t->name;
                ovrin::destroy(*t, h, 1, raised);
            }
            if (HasFatalFailure()) break;
            ASSERT_EQ(mgx_handle_live_allocations(h), 0u) << t->name;
            ++checked;
        }
        if (HasFatalFailure()) break;
    }
    EXPECT_GT(checked, 0u);
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
    mgx_handle_destroy(h);
}

INSTANTIATE_TEST_SUITE_P(Handles, WireCode, ::testing::Values(0, 1, 2), [](const auto &info) {
    return std::string(info.param == 0 ? "untracked" : info.param == 1 ? "tracked" : "domain_at_0");
});

// The widths a run of fixed-width members reserves are the ones the runtime's primitives write.
TEST(WireCodeWidths, AreTheRuntimesOwn) {
    mgx_handle_t *h = mgx_handle_create();
    uint8_t zero[32] = {};
#define OVRIN_WIDTH(K, T, S, A)                                                                                                  \
    if (ovrin::wire::width_of(ovrin::Kind::K)) {                                                                                 \
        EXPECT_EQ(T##_len(h, 1, reinterpret_cast<const T *>(zero)),                                                              \
                  static_cast<uint32_t>(ovrin::wire::width_of(ovrin::Kind::K)))                                                  \
            << #T;                                                                                                               \
    }
    OVRIN_ALL_PRIMS(OVRIN_WIDTH)
#undef OVRIN_WIDTH
    EXPECT_EQ(ovrin::wire::width_of(ovrin::Kind::aaa_tlv), 0) << "an attribute list's length is its own";
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
    mgx_handle_destroy(h);
}

} // namespace
