// Every type of the bundle under test walked through each family: lifecycle and whole-instance copy
// under tracking. Built into the tests of both catalogues (ovrin_sm, and
// the second catalogue of tests/shapes), with the allocation-failure, truncation, reuse and
// exception sweeps beside it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "tests/prim_fixture.h"
#include "tests/sm_type_ops.h"

namespace {

using typeops::Ops;

const mgx_instance_hdr_t *hdr(const void *p) { return static_cast<const mgx_instance_hdr_t *>(p); }

struct Sweep : RuntimeFixture {
    template <class Fn> Fn op(const Ops &o, const char *name) { return reinterpret_cast<Fn>(testfill::op(*o.type, name)); }
};

TEST_F(Sweep, EveryTypeCreatesAndDestroysTrackedOrNotAndCountsItsVariant) {
    for (bool tracked : {false, true}) {
        mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
        for (const Ops &o : typeops::all()) {
            void *inst = o.create(h, 1);
            ASSERT_NE(inst, nullptr) << o.name;
            auto *d = static_cast<const mgx_type_info_t *>(hdr(inst)->descriptor);
            ASSERT_STREQ(d->type_name, o.name);
            int variant = hdr(inst)->variant;
            EXPECT_EQ(variant, d->variant_info->n_variants - 1) << o.name; // the domain's default: the highest
            EXPECT_EQ(hdr(inst)->layout, 0);
            EXPECT_EQ((hdr(inst)->flags & MGX_IF_TRACKED) != 0, tracked) << o.name;
            uint64_t created = mgx_stats_created(d, variant), destroyed = mgx_stats_destroyed(d, variant);
            o.destroy(h, 1, inst);
            EXPECT_EQ(mgx_stats_destroyed(d, variant), destroyed + 1) << o.name;
            EXPECT_GE(created, 1u);
            EXPECT_EQ(mgx_handle_live_allocations(h), 0u) << o.name;
        }
    }
}

// A whole-instance set from a filled source (union members pass over to the destination), then a
// raw copy of the result made independent by the cleanup: three owners, no storage shared, each
// destroyed on its own.
TEST_F(Sweep, EveryTypeCopiesWholeAndAfterARawCopyWithoutSharingStorage) {
    using copy_fn = void (*)(mgx_handle_t *, uint32_t, void *, void *, uint32_t *);
    for (bool tracked : {false, true}) {
        mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
        for (const Ops &o : typeops::all()) {
            if (o.is_enum()) continue;
            for (unsigned arm = 0; arm < o.arms(); ++arm) {
                void *src = typeops::make_filled(o, h, 3, arm), *dst = typeops::make(o, h);
                op<copy_fn>(o, "set")(h, 1, dst, src, &err);
                uint32_t size = op<uint32_t (*)(mgx_handle_t *)>(o, "sizeof")(h);
                void *copy = h->inst_alloc(h->alloc_ctx, 1, size);
                std::memcpy(copy, dst, size);
                op<copy_fn>(o, "post_copyout_cleanup")(h, 1, copy, dst, &err);
                EXPECT_EQ(err, 0u) << o.name;
                for (void *p : {src, dst, copy}) o.destroy(h, 1, p);
                ASSERT_EQ(mgx_handle_live_allocations(h), 0u) << o.name << (tracked ? " tracked" : "");
            }
        }
    }
}

// The whole-text operations make in one walk what the bounded writers make given room enough,
// from no block and from small blocks that grow at every power of two (each piece that meets the
// end written again), and answer -1 while the handle's error store holds a code.
TEST_F(Sweep, EveryTypeWritesItsWholeTextInOneWalkAsTheBoundedWritersDo) {
    std::vector<char> room(1 << 20);
    for (bool tracked : {false, true}) {
        mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
        for (const Ops &o : typeops::all()) {
            for (unsigned arm = 0; arm < o.arms(); ++arm) {
                void *inst = typeops::make_filled(o, h, 5, arm);
                for (bool xml : {false, true}) {
                    auto size = static_cast<uint32_t>(room.size());
                    int64_t n = xml ? int64_t{static_cast<int32_t>(o.toxml_cr(h, inst, room.data(), size))}
                                    : o.print_cr(h, inst, room.data(), size);
                    ASSERT_TRUE(n >= 0 && n + 1 < size) << o.name;
                    const std::string bounded(room.data(), static_cast<size_t>(n));
                    for (size_t first : {0, 1, 5, 24}) {
                        size_t block = first;
                        auto *text = static_cast<char *>(first ? std::malloc(first) : nullptr);
                        int64_t whole = (xml ? o.toxml_whole : o.print_whole)(h, inst, &text, &block);
                        ASSERT_EQ(whole, n) << o.name << " from " << first;
                        EXPECT_EQ(std::string(text, static_cast<size_t>(n) + 1), bounded + '\0') << o.name;
                        EXPECT_GT(block, static_cast<size_t>(n));
                        std::free(text);
                    }
                }
                mgx_store_err(h, 22);
                char *text = nullptr;
                size_t block = 0;
                EXPECT_EQ(o.print_whole(h, inst, &text, &block), -1) << o.name;
                std::free(text);
                o.destroy(h, 1, inst);
                ASSERT_EQ(mgx_handle_live_allocations(h), 0u) << o.name;
            }
        }
    }
}

// Type::min_wire is what a decoder holds a claimed count of elements to, so it must never exceed
// an encoding a sender can make: every filled instance, at every arm, encodes to at least it. It
// is also the least: a record at variant 0 with its fields zero (strings and arrays empty)
// encodes to exactly it.
TEST_F(Sweep, EveryTypesLeastEncodingIsItsMinimumOnTheWire) {
    std::vector<uint8_t> buf(1 << 16);
    for (const Ops &o : typeops::all()) {
        if (o.is_enum()) continue;
        for (unsigned arm = 0; arm < o.arms(); ++arm) {
            void *filled = typeops::make_filled(o, h, 3, arm);
            EXPECT_GE(o.marshal(h, 1, buf.data(), filled, int32_t(buf.size()), &err), o.type->min_wire) << o.name;
            o.destroy(h, 1, filled);
        }
    }
    EXPECT_EQ(take_err(), 0u);
    for (const Ops &o : typeops::all()) mgx_handle_set_domain_variant(h, o.name, 0);
    for (const Ops &o : typeops::all()) {
        if (o.type->kind != ovrin::TypeKind::record) continue;
        void *least = o.create(h, 1);
        // A union inside whose selected arm is not there encodes without it and reports 2.
        EXPECT_EQ(o.marshal(h, 1, buf.data(), least, int32_t(buf.size()), &err), o.type->min_wire) << o.name;
        take_err();
        o.destroy(h, 1, least);
    }
}

} // namespace
