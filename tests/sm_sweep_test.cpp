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
#include "ops/common.h"
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

// ---------------------------------------------------------------- instances the filler never makes

// A count or length set through its own setter while the array or string holds no storage, or a
// discriminator set to a member's literal while no member is there. Every operation copes as its
// rules say: the storage that is not there holds nothing (print, XML, hash and compare see no
// elements, no text, no member), `len` and encode take the count at its word (each element absent,
// each character zero) but refuse a selected member that is missing (2), and whatever a decode
// or an XML read makes of that has every count and length describing storage really there.
struct Odd {
    const ovrin::Type *type;
    const ovrin::Field *field;  // the count, length or discriminator set
    const ovrin::Field *target; // what it counts (null for a discriminator)
    uint32_t value;
};

std::vector<Odd> odd_cases(const ovrin::Type &t) {
    std::vector<Odd> out;
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const ovrin::Field &f = t.fields[i];
        if (f.shape == ovrin::Shape::var_array || f.shape == ovrin::Shape::var_string)
            out.push_back({&t, &t.fields[f.companion], &f, 3});
        if (f.shape == ovrin::Shape::member) out.push_back({&t, &t.fields[t.discriminator], nullptr, f.select});
    }
    return out;
}

#if defined(__clang__)
__attribute__((no_sanitize("function"))) // the setters are reached by name, as the filler reaches them
#endif
void set_odd(const Odd &c, mgx_handle_t *h, void *instance, uint32_t *err) {
    std::string name = c.field->name;
    if (!c.target) {
        using set_value = void (*)(mgx_handle_t *, uint32_t, void *, uint32_t, uint32_t *);
        reinterpret_cast<set_value>(testfill::op(*c.type, (name + "_set_value").c_str()))(h, 1, instance, c.value, err);
        return;
    }
    using set = void (*)(mgx_handle_t *, uint32_t, void *, const void *, uint32_t *);
    uint16_t narrow = static_cast<uint16_t>(c.value);
    const void *value = c.field->kind == ovrin::Kind::u16 ? static_cast<const void *>(&narrow) : &c.value;
    reinterpret_cast<set>(testfill::op(*c.type, (name + "_set").c_str()))(h, 1, instance, value, err);
}

// Whether every string and variable array of the instance that has a count has storage for it.
bool counts_backed(const ovrin::Type &t, const void *instance) {
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const ovrin::Field &f = t.fields[i];
        if (f.shape != ovrin::Shape::var_array && f.shape != ovrin::Shape::var_string) continue;
        if (ovrin::count_at(instance, t.fields[f.companion]) &&
            !*static_cast<void *const *>(ovrin::field_at(instance, f)))
            return false;
    }
    return true;
}

struct Unfilled : Sweep {
    std::string whole(const Ops &o, const void *instance, bool xml) {
        char *text = nullptr;
        size_t size = 0;
        int64_t n = (xml ? o.toxml_whole : o.print_whole)(h, instance, &text, &size);
        std::string out = n >= 0 ? std::string(text, static_cast<size_t>(n)) : "(failed)";
        std::free(text);
        return out;
    }
};

TEST_F(Unfilled, CountsWithoutStorageAndMembersNotThereCopeInEveryOperation) {
    std::vector<uint8_t> work(1 << 16);
    size_t cases = 0;
    for (bool tracked : {false, true}) {
        mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
        for (const Ops &o : typeops::all()) {
            for (const Odd &c : odd_cases(*o.type)) {
                const std::string name = c.field->name;
                SCOPED_TRACE(std::string(o.name) + "." + name + "=" + std::to_string(c.value) + (tracked ? " tracked" : ""));
                ++cases;
                void *odd = typeops::make(o, h), *twin = typeops::make(o, h);
                set_odd(c, h, odd, &err);
                set_odd(c, h, twin, &err);
                ASSERT_EQ(take_err(), 0u);
                EXPECT_EQ(o.compare(odd, twin), 0);
                EXPECT_EQ(o.compare(twin, odd), 0);
                EXPECT_EQ(o.hash(odd, 7), o.hash(twin, 7));

                const std::string print = whole(o, odd, false), xml = whole(o, odd, true);
                ASSERT_NE(print, "(failed)");
                ASSERT_NE(xml, "(failed)");
                if (!c.target) { // no member is shown
                    EXPECT_EQ(print.find("  " + name + "."), std::string::npos) << print;
                    EXPECT_EQ(xml.find("<" + name + "-"), std::string::npos) << xml;
                } else {
                    const std::string counted = c.target->name;
                    EXPECT_NE(print.find("  " + name + ": 3\n"), std::string::npos) << print;
                    EXPECT_NE(xml.find(">3</" + name + ">"), std::string::npos) << xml;
                    if (c.target->shape == ovrin::Shape::var_string) { // a null text is empty
                        EXPECT_NE(print.find("\n  " + counted + ": \n"), std::string::npos) << print;
                        EXPECT_NE(xml.find("<" + counted + "></" + counted + ">"), std::string::npos) << xml;
                    } else { // no elements
                        EXPECT_EQ(print.find("\n  " + counted + "["), std::string::npos) << print;
                        EXPECT_EQ(xml.find("<" + counted + ">"), std::string::npos) << xml;
                    }
                }

                // The wire: a missing member is refused (2) and left out; a count is taken at its word.
                uint32_t len = o.len(h, 1, odd);
                std::vector<uint8_t> wire = typeops::encode(o, h, odd, &err);
                EXPECT_EQ(take_err(), c.target ? 0u : uint32_t{MGX_ENOENT});
                if (c.target && !tracked) {
                    EXPECT_EQ(wire.size(), len);
                }
                EXPECT_LE(wire.size(), len);
                mgx_store_err(h, 0);
                void *copy = nullptr;
                o.clone(h, 1, odd, &copy, work.data(), static_cast<uint32_t>(work.size()), &err);
                uint32_t cloned = take_err();
                mgx_store_err(h, 0);
                if (!c.target) {
                    EXPECT_EQ(cloned, uint32_t{MGX_ENOENT});
                    EXPECT_EQ(copy, nullptr);
                } else {
                    // A receiver holds a count to what the bytes can carry: it keeps the elements
                    // or refuses them (90), and then every count describes its storage.
                    void *decoded = typeops::make(o, h);
                    uint32_t used = o.unmarshal(h, 1, wire.data(), decoded, static_cast<int32_t>(wire.size()), 0, &err);
                    uint32_t decode_err = take_err();
                    mgx_store_err(h, 0);
                    EXPECT_TRUE(decode_err == 0 || decode_err == MGX_ESHORT) << decode_err;
                    EXPECT_TRUE(counts_backed(*o.type, decoded));
                    if (!decode_err) {
                        EXPECT_EQ(used, wire.size());
                        EXPECT_EQ(typeops::encode(o, h, decoded, &err), wire); // what was sent, again
                        EXPECT_EQ(take_err(), 0u);
                    }
                    EXPECT_EQ(cloned, decode_err);
                    EXPECT_EQ(copy != nullptr, decode_err == 0);
                    if (copy) {
                        EXPECT_EQ(o.compare(copy, decoded), 0);
                    }
                    whole(o, decoded, false); // safe to print
                    o.destroy(h, 1, decoded);
                }
                if (copy) o.destroy(h, 1, copy);

                // Its XML read back: a count the document does not back is refused (22), a
                // length without a text goes back to what it was; every count has its storage.
                // (A fresh enumeration whose 0 is no literal writes an element no reader takes.)
                void *read = typeops::make(o, h);
                if (void *doc = mgx_xml_document_parse(xml.data(), xml.size())) {
                    o.from_xml(h, 1, o.name, doc, read, &err, nullptr, 0);
                    mgx_xml_document_free(doc);
                    uint32_t read_err = take_err();
                    mgx_store_err(h, 0);
                    if (c.target && c.target->shape == ovrin::Shape::var_array) {
                        EXPECT_EQ(read_err, uint32_t{MGX_EINVAL});
                    }
                    EXPECT_TRUE(counts_backed(*o.type, read));
                }
                for (void *p : {read, twin, odd}) o.destroy(h, 1, p);
                ASSERT_EQ(mgx_handle_live_allocations(h), 0u);
            }
        }
    }
    EXPECT_GT(cases, 0u);
}

} // namespace
