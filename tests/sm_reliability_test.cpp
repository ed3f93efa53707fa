// Failure paths under pressure: every allocation of create, decode, clone, XML read and the
// composite setters failing in turn; every truncation of every type's encoding; and the inputs
// that once broke the decoders, kept as named cases.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/sm_type_ops.h"

namespace {

using Bytes = std::vector<uint8_t>;
using typeops::Ops;
using ovrin::Field;
using ovrin::Shape;

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
    void arm(uint32_t nth) {
        mgx_clear_last_error(h, 1, nullptr);
        mgx_handle_fail_allocation(h, nth);
        mark = total();
    }
    uint64_t made() {
        mgx_handle_fail_allocation(h, 0);
        return total() - mark;
    }
};

std::string label(const Ops &o, unsigned arm, bool tracked) {
    return std::string(o.name()) + (o.is_union() ? " arm " + std::to_string(arm) : "") +
           (tracked ? " tracked" : " untracked");
}

// The unions, and records that hold strings, arrays, attribute lists and nested unions.
std::vector<const Ops *> swept_types() {
    std::vector<const Ops *> out;
    for (const Ops &o : typeops::all())
        if (o.is_union()) out.push_back(&o);
    for (const char *name : {"sess_mgr_session_start", "ovrin_svm_epm_notify_domain_name_bind",
                             "sess_mgr_sess_attr_query_resp", "sess_mgr_client_name", "bm_authz_params"})
        out.push_back(&typeops::of(name));
    return out;
}

// ---------------------------------------------------------------- allocation failures

TEST_F(Reliability, CreateDecodeAndCloneFailEveryAllocationCleanly) {
    for (bool tracked : {false, true}) {
        set_tracked(tracked);
        for (const Ops *o : swept_types()) {
            for (unsigned a = 0; a < o->arms(); ++a) {
                std::string what = label(*o, a, tracked);
                void *source = typeops::make_filled(*o, h, 3, a);
                uint32_t err = 0;
                Bytes wire = typeops::encode(*o, h, source, &err);
                ASSERT_EQ(err, 0u) << what;

                sweep(what + ": create", [&](uint32_t nth) {
                    arm(nth);
                    void *p = o->create(h, 1);
                    uint64_t n = made();
                    EXPECT_EQ(p == nullptr, nth != 0);
                    o->destroy(h, 1, p);
                    return n;
                });

                // Into a fresh instance, and into one that already holds another member, strings
                // and arrays that the decode has to replace.
                for (bool used : {false, true}) {
                    sweep(what + (used ? ": decode over a filled instance" : ": decode"), [&](uint32_t nth) {
                        void *into = used ? typeops::make_filled(*o, h, 5, a + 1) : typeops::make(*o, h);
                        uint32_t e = 0;
                        arm(nth);
                        uint32_t got = o->unmarshal(h, 1, wire.data(), into, static_cast<int32_t>(wire.size()), 0, &e);
                        uint64_t n = made();
                        if (nth == 0) {
                            EXPECT_EQ(e, 0u);
                            EXPECT_EQ(got, wire.size());
                        } else {
                            EXPECT_EQ(e, MGX_ENOMEM);
                            EXPECT_EQ(mgx_handle_last_error(h), MGX_ENOMEM);
                        }
                        o->destroy(h, 1, into);
                        return n;
                    }, used ? 0 : 1); // the same member again may need nothing new
                }

                sweep(what + ": clone", [&](uint32_t nth) {
                    Bytes work(wire.size() + 64);
                    void *copy = nullptr;
                    uint32_t e = 0;
                    arm(nth);
                    o->clone(h, 1, source, &copy, work.data(), static_cast<uint32_t>(work.size()), &e);
                    uint64_t n = made();
                    EXPECT_EQ(e, nth ? MGX_ENOMEM : 0u);
                    EXPECT_EQ(copy == nullptr, nth != 0);
                    if (copy) o->destroy(h, 1, copy);
                    return n;
                });
                o->destroy(h, 1, source);
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST_F(Reliability, XmlReadFailsEveryAllocationCleanly) {
    std::vector<const Ops *> types = swept_types();
    if (!types.front()->from_xml || !types.front()->to_xml) GTEST_SKIP() << "no XML reader in this build";
    for (bool tracked : {false, true}) {
        set_tracked(tracked);
        for (const Ops *o : types) {
            for (unsigned a = 0; a < o->arms(); ++a) {
                std::string what = label(*o, a, tracked) + ": from_xml";
                void *source = typeops::make_filled(*o, h, 7, a);
                std::vector<char> text(1 << 16);
                uint32_t err = 0;
                uint32_t n = o->to_xml(h, 1, o->name(), text.data(), source, static_cast<uint32_t>(text.size()), 0, &err);
                ASSERT_EQ(err, 0u) << what;
                ASSERT_LT(n, text.size()) << what;
                void *doc = mgx_xml_document_parse(text.data(), n);
                ASSERT_NE(doc, nullptr) << what << "\n" << std::string(text.data(), n);
                std::string path = std::string("/") + o->name();
                sweep(what, [&](uint32_t nth) {
                    void *into = typeops::make(*o, h);
                    uint32_t e = 0;
                    char msg[128] = {};
                    arm(nth);
                    o->from_xml(h, 1, path.c_str(), doc, into, &e, msg, sizeof msg);
                    uint64_t made_n = made();
                    EXPECT_EQ(e, nth ? MGX_ENOMEM : 0u);
                    o->destroy(h, 1, into);
                    return made_n;
                });
                mgx_xml_document_free(doc);
                o->destroy(h, 1, source);
                if (HasFatalFailure()) return;
            }
        }
    }
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
                std::string symbol = std::string(o.name()) + "_" + f.name + "_set";
                void *setter = dlsym(RTLD_DEFAULT, symbol.c_str());
                if (!setter) continue;
                ++swept;
                std::string what = symbol + (tracked ? " tracked" : " untracked");
                for (uint32_t index : {0u, 3u}) {
                    sweep(what + " at " + std::to_string(index), [&](uint32_t nth) {
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
                    });
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
// more consumed than given, nothing leaked. The whole encoding decodes to an equal instance.
TEST_F(Reliability, EveryPrefixOfEveryTypeDecodesToAnError) {
    for (bool tracked : {false, true}) {
        set_tracked(tracked);
        for (const Ops &o : typeops::all()) {
            for (unsigned a = 0; a < o.arms(); ++a) {
                std::string what = label(o, a, tracked);
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
                EXPECT_EQ(o.unmarshal(h, 1, wire.data(), whole, static_cast<int32_t>(wire.size()), 0, &e), wire.size())
                    << what;
                EXPECT_EQ(e, 0u) << what;
                EXPECT_EQ(typeops::encode(o, h, whole, &e), wire) << what;
                if (o.compare) {
                    EXPECT_EQ(o.compare(source, whole), 0) << what;
                }
                o.destroy(h, 1, whole);
                o.destroy(h, 1, source);
            }
        }
    }
}

// ---------------------------------------------------------------- inputs found by fuzzing

// Replays a wire fuzz input as the fuzz target reads it (byte 0: the type, byte 1: bit 0 a tracked
// handle, bit 1 storage reuse; then the wire form) and checks what the target checks: no read
// past the input, no leak, and an accepted input that encodes, decodes and encodes the same.
void replay_wire_input(const std::string &hex) {
    Bytes data;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        data.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    ASSERT_GE(data.size(), 2u);
    const Ops &o = typeops::all()[data[0] % typeops::all().size()];
    mgx_handle_t *h = mgx_handle_create();
    if (data[1] & 1) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
    std::unique_ptr<uint8_t[]> in(new uint8_t[data.size() - 2]);
    std::memcpy(in.get(), data.data() + 2, data.size() - 2);
    void *a = typeops::make(o, h);
    uint32_t err = 0;
    uint32_t used = o.unmarshal(h, 1, in.get(), a, static_cast<int32_t>(data.size() - 2), (data[1] & 2) ? ~0u : 0u, &err);
    EXPECT_LE(used, data.size() - 2) << o.name();
    if (err == 0) {
        uint32_t e = 0;
        Bytes first = typeops::encode(o, h, a, &e);
        EXPECT_EQ(e, 0u) << o.name();
        void *b = typeops::make(o, h);
        EXPECT_EQ(o.unmarshal(h, 1, first.data(), b, static_cast<int32_t>(first.size()), 0, &e), first.size());
        EXPECT_EQ(typeops::encode(o, h, b, &e), first) << o.name();
        o.destroy(h, 1, b);
    }
    o.destroy(h, 1, a);
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u) << o.name();
    mgx_handle_destroy(h);
}

// A decoded instance took every bit of the wire's flag byte: a stray OID-mapped bit made destroy
// keep a union member alive (a leak), and a stray owned-descriptor bit made destroy free the
// static descriptor.
TEST(FuzzFinding, WireFlagBitsBeyondStateAndRetainedDataAreIgnored) {
    replay_wire_input( // an inbound event whose operational-data member's flag byte has bit 0x01
        "3e010208000000570200000011000000000000000000000000000000000008000000350008000000097e7e61f8000000"
        "08000000099d9d81170000000800000016000000000000001100000000000000000000000000000000000800");
    mgx_handle_t *h = mgx_handle_create();
    const Ops &o = typeops::of("sess_mgr_update_oper_data");
    void *source = typeops::make_filled(o, h, 1);
    uint32_t err = 0;
    Bytes wire = typeops::encode(o, h, source, &err);
    for (uint8_t stray : {0x01, 0x02, 0x04, 0x10, 0x40, 0x80}) {
        Bytes hostile = wire;
        hostile[1] |= stray;
        void *into = typeops::make(o, h);
        EXPECT_EQ(o.unmarshal(h, 1, hostile.data(), into, static_cast<int32_t>(hostile.size()), 0, &err), wire.size());
        EXPECT_EQ(err, 0u);
        EXPECT_EQ(static_cast<mgx_instance_hdr_t *>(into)->flags & stray, 0) << int{stray};
        o.destroy(h, 1, into);
    }
    o.destroy(h, 1, source);
    EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
    mgx_handle_destroy(h);
}

} // namespace
