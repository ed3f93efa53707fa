// Allocation behaviour of the wire operations, over every type: encoding allocates nothing (not
// from the handle, not from the C++ heap), and decoding again into an instance whose strings,
// attribute lists and arrays have the same sizes (decode flags non-zero) allocates nothing and
// leaves an instance equal to the source.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "mgx/runtime.h"
#include "tests/sm_check.h"
#include "tests/sm_heap.h"
#include "tests/sm_type_ops.h"

namespace {

// Allocations so far: from the handle, and from the C++ heap.
using Counts = std::pair<uint64_t, uint64_t>;
Counts counts(mgx_handle_t *h) { return {mgx_handle_total_allocations(h), heap::allocations()}; }

// Runs the checks over every record and union of the catalogue, each filled with every union
// member in turn, in a handle as the caller prepares it.
template <class Prepare> void every_type(Prepare prepare) {
    for (const typeops::Ops &o : typeops::all()) {
        if (o.is_enum()) continue;
        for (uint32_t arm = 0; arm < std::max(1u, testfill::members(*o.type)); ++arm) {
            SCOPED_TRACE(std::string(o.name) + " member " + std::to_string(arm));
            mgx_handle_t *h = mgx_handle_create();
            prepare(h);
            void *source = o.create(h, 1);
            testfill::fill(*o.type, h, source, 7, arm);
            std::vector<uint8_t> wire(o.len(h, 1, source) + 1), again(wire.size());
            auto space = static_cast<int32_t>(wire.size() - 1);
            uint32_t err = 0;

            Counts before = counts(h);
            uint32_t n = o.marshal(h, 1, wire.data(), source, space, &err);
            EXPECT_EQ(counts(h), before) << "encoding allocated (from the handle, from the heap)";
            ASSERT_EQ(err, 0u);

            void *target = o.create(h, 1);
            o.adjust_variant(h, 1, target, &err);
            o.unmarshal(h, 1, wire.data(), target, static_cast<int32_t>(n), 0, &err);
            ASSERT_EQ(err, 0u);
            before = counts(h);
            uint32_t m = o.unmarshal(h, 1, wire.data(), target, static_cast<int32_t>(n), 1, &err);
            EXPECT_EQ(counts(h), before) << "decoding into the same sizes allocated (from the handle, from the heap)";
            EXPECT_EQ(err, 0u);
            EXPECT_EQ(m, n);
            EXPECT_EQ(o.compare(target, source), 0);
            EXPECT_EQ(o.marshal(h, 1, again.data(), target, space, &err), n);
            EXPECT_TRUE(std::equal(wire.begin(), wire.begin() + n, again.begin()));

            o.destroy(h, 1, target);
            o.destroy(h, 1, source);
            EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
            mgx_handle_destroy(h);
        }
    }
}

TEST(WireAllocations, NoneWhileEncodingOrDecodingIntoTheSameSizes) {
    every_type([](mgx_handle_t *) {});
}

// A domain that names variants looks them up by type name for every record and enumeration
// written: still without building anything on the heap.
TEST(WireAllocations, NoneWithDomainVariantsSet) {
    every_type([](mgx_handle_t *h) {
        mgx_handle_set_domain_variant(h, "ovrin_smd_in_event", 2);
        mgx_handle_set_domain_variant(h, "ovrin_epm_bind_policy_info_long_name_that_is_not_a_type", 0);
    });
}

// A tracking handle carries state bytes and per-element flags through the same paths.
TEST(WireAllocations, NoneUnderStateTracking) {
    every_type([](mgx_handle_t *h) { mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED); });
}

// Called through the table (every type found by its name, and only by its whole name), a filled
// instance of every type (every union member) survives the wire, XML and a clone, and prints the
// same before and after.
TEST(OperationsTable, CallsRoundTripFilledInstances) {
    std::vector<char> text(1 << 16), again(text.size());
    const auto size = static_cast<uint32_t>(text.size());
    EXPECT_EQ(typeops::find(""), nullptr);
    for (const typeops::Ops &o : typeops::all()) {
        const typeops::Entry &e = o;
        EXPECT_EQ(typeops::find(e.name), typeops::table().data() + (&o - typeops::all().data()));
        EXPECT_EQ(typeops::find((std::string(e.name) + "_").c_str()), nullptr);
        for (unsigned arm = 0; arm < o.arms(); ++arm) {
            SCOPED_TRACE(std::string(e.name) + " member " + std::to_string(arm));
            mgx_handle_t *h = mgx_handle_create();
            void *source = typeops::make_filled(o, h, 11, arm);
            uint32_t err = 0;
            std::vector<uint8_t> wire = typeops::encode(o, h, source, &err);
            ASSERT_EQ(err, 0u);
            void *decoded = typeops::make(o, h);
            EXPECT_EQ(e.unmarshal(h, 1, wire.data(), decoded, static_cast<int32_t>(wire.size()), 0, &err), wire.size());
            EXPECT_EQ(err, 0u);
            EXPECT_EQ(e.compare(decoded, source), 0);
            EXPECT_EQ(e.hash(decoded, 3), e.hash(source, 3));

            int32_t printed = e.print_cr(h, source, text.data(), size);
            ASSERT_GT(printed, 0);
            EXPECT_EQ(e.print_cr(h, decoded, again.data(), size), printed);
            EXPECT_EQ(std::string(again.data(), size_t(printed)), std::string(text.data(), size_t(printed)));

            uint32_t xml = e.toxml_cr(h, source, text.data(), size);
            ASSERT_GT(xml, 0u);
            ASSERT_LT(xml, size);
            void *read = typeops::make(o, h);
            read_xml(h, e.from_xml, e.name, std::string(text.data(), xml), read, &err);
            EXPECT_EQ(err, 0u);
            EXPECT_EQ(e.compare(read, source), 0);

            if (e.clone) {
                void *copy = typeops::clone(o, h, source, &err);
                ASSERT_EQ(err, 0u);
                ASSERT_NE(copy, nullptr);
                EXPECT_EQ(e.compare(copy, source), 0);
                e.destroy(h, 1, copy);
            }
            for (void *instance : {read, decoded, source}) e.destroy(h, 1, instance);
            EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
            mgx_handle_destroy(h);
        }
    }
}

} // namespace
