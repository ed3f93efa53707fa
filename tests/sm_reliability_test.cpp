// Failure paths under pressure, over every type of the bundle under test (both catalogues): every
// allocation of create, decode, clone, XML read and the composite setters failing in turn; every
// truncation of every type's encoding, and the whole encoding decoding back equal.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "tests/sm_type_ops.h"

namespace {

using Bytes = std::vector<uint8_t>;
using ovrin::Field, ovrin::Shape;
using typeops::Ops;

struct Reliability : ::testing::Test {
    mgx_handle_t *h = mgx_handle_create();
    void SetUp() override { mgx_trace_clear(); }
    void TearDown() override {
        EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
        mgx_handle_destroy(h);
    }
    void set_tracked(bool on) { mgx_handle_set_state_tracking(h, on, MGX_STTR_TRACKED); }
    uint64_t live() const { return mgx_handle_live_allocations(h); }
    uint64_t total() const { return mgx_handle_total_allocations(h); }

    // Runs attempt(0) to learn how many allocations the operation makes, then attempt(n) for each
    // n up to that count. attempt builds what it needs without failures, calls arm(n) right before
    // the operation, checks the outcome (success for 0, failure otherwise), cleans up, and returns
    // the allocations the operation made. Every run must leave the handle's live blocks as found.
    // The operation must make at least at_least allocations, so that a sweep cannot pass by
    // testing nothing.
    void sweep(const std::string &what, const std::function<uint64_t(uint32_t)> &attempt, uint64_t at_least = 1) {
        uint64_t base = live();
        uint64_t n = attempt(0);
        EXPECT_EQ(live(), base) << what << ": unfailed run leaks";
        EXPECT_GE(n, at_least) << what;
        for (uint32_t k = 1; k <= n; ++k) {
            SCOPED_TRACE(what + ", allocation " + std::to_string(k) + " of " + std::to_string(n) + " fails");
            attempt(k);
            mgx_handle_fail_allocation(h, 0);
            EXPECT_EQ(live(), base);
            if (HasFailure()) break;
        }
    }
    uint64_t mark = 0;
    uint32_t armed = 0;
    void arm(uint32_t nth) {
        mgx_clear_last_error(h, 1, nullptr);
        mgx_handle_fail_allocation(h, armed = nth);
        mark = total();
    }
    uint64_t made() {
        EXPECT_EQ(mgx_handle_allocation_failure_pending(h), 0u) << "the refused allocation was reached, or none armed";
        mgx_handle_fail_allocation(h, 0);
        return total() - mark;
    }
    // Calls body(type, arm, tracked, label) for every member of every one of types, untracked and
    // tracked, the handle in that mode; stops at the first fatal failure.
    template <class Body> void each(const std::vector<const Ops *> &types, Body body) {
        for (bool tracked : {false, true}) {
            set_tracked(tracked);
            for (const Ops *o : types)
                for (unsigned a = 0; a < o->arms(); ++a) {
                    body(*o, a, tracked, label(*o, a, tracked));
                    if (HasFatalFailure()) return;
                }
        }
    }
    static std::string label(const Ops &o, unsigned arm, bool tracked) {
        return std::string(o.name) + (o.is_union() ? " arm " + std::to_string(arm) : "") + (tracked ? " tracked" : " untracked");
    }
};

// The unions, and the records that own storage of their own: strings, arrays, attribute lists.
std::vector<const Ops *> swept_types() {
    std::vector<const Ops *> out;
    for (const Ops &o : typeops::all()) {
        bool owns = o.is_union();
        for (uint16_t i = 0; !o.is_enum() && i < o.type->n_fields; ++i) {
            const Field &f = o.type->fields[i];
            owns |= f.shape == Shape::var_string || f.shape == Shape::var_array || f.kind == ovrin::Kind::aaa_tlv;
        }
        if (owns) out.push_back(&o);
    }
    return out;
}

// ---------------------------------------------------------------- allocation failures

TEST_F(Reliability, CreateDecodeAndCloneFailEveryAllocationCleanly) {
    each(swept_types(), [&](const Ops &o, unsigned a, bool, const std::string &what) {
        void *source = typeops::make_filled(o, h, 3, a);
        uint32_t err = 0;
        Bytes wire = typeops::encode(o, h, source, &err);
        ASSERT_EQ(err, 0u) << what;

        sweep(what + ": create", [&](uint32_t nth) {
            arm(nth);
            void *p = o.create(h, 1);
            uint64_t n = made();
            EXPECT_EQ(p == nullptr, nth != 0);
            o.destroy(h, 1, p);
            return n;
        });

        // Into a fresh instance, and into one that already holds another member, strings and
        // arrays that the decode has to replace.
        for (bool used : {false, true}) {
            sweep(
                what + (used ? ": decode over a filled instance" : ": decode"),
                [&](uint32_t nth) {
                    void *into = used ? typeops::make_filled(o, h, 5, a + 1) : typeops::make(o, h);
                    uint32_t e = 0;
                    arm(nth);
                    uint32_t got = o.unmarshal(h, 1, wire.data(), into, static_cast<int32_t>(wire.size()), 0, &e);
                    uint64_t n = made();
                    if (nth == 0) {
                        EXPECT_EQ(e, 0u);
                        EXPECT_EQ(got, wire.size());
                    } else {
                        EXPECT_EQ(e, MGX_ENOMEM);
                        EXPECT_EQ(mgx_handle_last_error(h), MGX_ENOMEM);
                    }
                    o.destroy(h, 1, into);
                    return n;
                },
                used ? 0 : 1); // the same member again may need nothing new
        }

        sweep(what + ": clone", [&](uint32_t nth) {
            Bytes work(wire.size() + 64);
            void *copy = nullptr;
            uint32_t e = 0;
            arm(nth);
            o.clone(h, 1, source, &copy, work.data(), static_cast<uint32_t>(work.size()), &e);
            uint64_t n = made();
            EXPECT_EQ(e, nth ? MGX_ENOMEM : 0u);
            EXPECT_EQ(copy == nullptr, nth != 0);
            if (copy) o.destroy(h, 1, copy);
            return n;
        });
        o.destroy(h, 1, source);
    });
}

TEST_F(Reliability, XmlReadFailsEveryAllocationCleanly) {
    std::vector<const Ops *> types = swept_types();
    if (!types.front()->from_xml || !types.front()->to_xml) GTEST_SKIP() << "no XML reader in this build";
    each(types, [&](const Ops &o, unsigned a, bool, const std::string &label) {
        const std::string what = label + ": from_xml";
        void *source = typeops::make_filled(o, h, 7, a);
        std::vector<char> text(1 << 16);
        uint32_t err = 0;
        uint32_t n = o.to_xml(h, 1, o.name, text.data(), source, static_cast<uint32_t>(text.size()), 0, &err);
        ASSERT_EQ(err, 0u) << what;
        ASSERT_LT(n, text.size()) << what;
        void *doc = mgx_xml_document_parse(text.data(), n);
        ASSERT_NE(doc, nullptr) << what << "\n" << std::string(text.data(), n);
        std::string path = std::string("/") + o.name;
        sweep(what, [&](uint32_t nth) {
            void *into = typeops::make(o, h);
            uint32_t e = 0;
            char msg[128] = {};
            arm(nth);
            o.from_xml(h, 1, path.c_str(), doc, into, &e, msg, sizeof msg);
            uint64_t made_n = made();
            EXPECT_EQ(e, nth ? MGX_ENOMEM : 0u);
            o.destroy(h, 1, into);
            return made_n;
        });
        mgx_xml_document_free(doc);
        o.destroy(h, 1, source);
    });
}

// Whether instances of t hold storage of their own (strings, arrays, lists, members), at any depth.
bool owns_storage(const ovrin::Type &t) {
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (f.shape != Shape::scalar && f.shape != Shape::fixed_array) return true;
        if (f.kind == ovrin::Kind::aaa_tlv || (f.kind == ovrin::Kind::record && owns_storage(*f.type))) return true;
    }
    return false;
}

// Every counted-string and variable-array setter of every record: the string setter copies the
// text; the array setter grows the block to the index and deep-copies a filled element, both over
// an instance that already holds values.
TEST_F(Reliability, CompositeSettersFailEveryAllocationCleanly) {
    using string_set_fn = void (*)(mgx_handle_t *, uint32_t, void *, const char *, uint32_t, uint32_t *);
    using array_set_fn = void (*)(mgx_handle_t *, uint32_t, void *, uint32_t, void *, uint32_t *);
    unsigned swept = 0;
    for (bool tracked : {false, true}) {
        set_tracked(tracked);
        for (const Ops &o : typeops::all()) {
            if (o.is_enum()) continue;
            for (uint16_t i = 0; i < o.type->n_fields; ++i) {
                const Field &f = o.type->fields[i];
                if (f.shape != Shape::var_string && f.shape != Shape::var_array) continue;
                std::string symbol = std::string(o.name) + "_" + f.name + "_set";
                void *setter = dlsym(RTLD_DEFAULT, symbol.c_str());
                if (!setter) continue;
                ++swept;
                std::string what = symbol + (tracked ? " tracked" : " untracked");
                for (uint32_t index : {0u, 3u}) {
                    sweep(
                        what + " at " + std::to_string(index),
                        [&](uint32_t nth) {
                            void *into = typeops::make_filled(o, h, 9);
                            void *element = nullptr;
                            const Ops *element_ops = nullptr;
                            if (f.shape == Shape::var_array) {
                                element_ops = &typeops::of(f.type->name);
                                element = typeops::make_filled(*element_ops, h, 11);
                            }
                            uint32_t e = 0;
                            arm(nth);
                            if (f.shape == Shape::var_string) {
                                std::string text = "a replacement string of some length #" + std::to_string(index);
                                reinterpret_cast<string_set_fn>(setter)(h, 1, into, text.c_str(),
                                                                        static_cast<uint32_t>(text.size()), &e);
                            } else {
                                reinterpret_cast<array_set_fn>(setter)(h, 1, into, index, element, &e);
                            }
                            uint64_t n = made();
                            EXPECT_EQ(e, nth ? MGX_ENOMEM : 0u);
                            if (element) element_ops->destroy(h, 1, element);
                            o.destroy(h, 1, into);
                            return n;
                        }, // an element set in place copies storage only when the element type has some
                        f.shape == Shape::var_array && index == 0 && !owns_storage(*f.type) ? 0 : 1);
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
    if (!swept) GTEST_SKIP() << "no string or array setters in this build";
}

// ---------------------------------------------------------------- truncation

// Every prefix of a full encoding of every type (every member of a union), from an exact-size heap
// copy so that AddressSanitizer sees any read past the cut, into a fresh instance: an error, no
// more consumed than given, nothing leaked. The whole encoding decodes to an equal instance, in
// either tracking mode.
TEST_F(Reliability, EveryPrefixOfEveryTypeDecodesToAnError) {
    std::vector<const Ops *> types;
    for (const Ops &o : typeops::all()) types.push_back(&o);
    each(types, [&](const Ops &o, unsigned a, bool tracked, const std::string &what) {
        void *source = typeops::make_filled(o, h, 13, a);
        uint32_t err = 0;
        Bytes wire = typeops::encode(o, h, source, &err);
        ASSERT_EQ(err, 0u) << what;
        uint64_t base = live();
        for (size_t cut = 0; cut < wire.size(); ++cut) {
            std::unique_ptr<uint8_t[]> prefix(new uint8_t[cut]);
            std::memcpy(prefix.get(), wire.data(), cut);
            void *into = typeops::make(o, h);
            uint32_t e = 0;
            uint32_t used = o.unmarshal(h, 1, prefix.get(), into, static_cast<int32_t>(cut), 0, &e);
            EXPECT_NE(e, 0u) << what << ": cut at " << cut << " of " << wire.size();
            EXPECT_LE(used, cut) << what << ": cut at " << cut;
            o.destroy(h, 1, into);
            ASSERT_EQ(live(), base) << what << ": cut at " << cut;
        }
        void *whole = typeops::make(o, h);
        uint32_t e = 0;
        EXPECT_EQ(o.unmarshal(h, 1, wire.data(), whole, static_cast<int32_t>(wire.size()), 0, &e), wire.size()) << what;
        EXPECT_EQ(e, 0u) << what;
        Bytes again = typeops::encode(o, h, whole, &e);
        EXPECT_EQ(again, wire) << what << ": first difference at byte "
                               << std::mismatch(again.begin(), again.end(), wire.begin(), wire.end()).first - again.begin();
        if (o.compare) {
            EXPECT_EQ(o.compare(source, whole), 0) << what;
            EXPECT_EQ(o.hash(source, 77), o.hash(whole, 77)) << what;
        }
        o.destroy(h, 1, whole);
        // A receiver in the other tracking mode reads it as well: a tracked one takes an untracked
        // sender's bytes, an untracked one steps over a tracked sender's state bytes.
        mgx_handle_t *other = mgx_handle_create();
        mgx_handle_set_state_tracking(other, !tracked, MGX_STTR_TRACKED);
        void *there = typeops::make(o, other);
        EXPECT_EQ(o.unmarshal(other, 1, wire.data(), there, static_cast<int32_t>(wire.size()), 0, &e), wire.size())
            << what << ": read by the other mode";
        EXPECT_EQ(e, 0u) << what;
        EXPECT_TRUE(!o.compare || o.compare(source, there) == 0) << what << ": read by the other mode";
        o.destroy(other, 1, there);
        EXPECT_EQ(mgx_handle_live_allocations(other), 0u) << what;
        mgx_handle_destroy(other);
        o.destroy(h, 1, source);
    });
}

} // namespace
