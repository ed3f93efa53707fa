// Every type of the bundle under test walked through each family: lifecycle and whole-instance copy
// under tracking. Built into the tests of both catalogues (ovrin_sm, and
// the second catalogue of tests/shapes), with the allocation-failure, truncation, reuse and
// exception sweeps beside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ops/common.h"
#include "tests/prim_fixture.h"
#include "tests/sm_type_ops.h"

namespace {

using ovrin::Field, ovrin::Kind, ovrin::Shape, ovrin::Type;
using typeops::Ops;

const mgx_instance_hdr_t *hdr(const void *p) { return static_cast<const mgx_instance_hdr_t *>(p); }

// `<type>_<field>_<name>` called with the instance and args (the error slot last), by name as the
// filler calls (exempt from clang's function-type check for that).
template <class R = void, class... A>
#if defined(__clang__)
__attribute__((no_sanitize("function")))
#endif
R call(const Type &t, const Field &f, const std::string &name, mgx_handle_t *h, void *inst, A... args) {
    void *fn = testfill::op(t, (std::string(f.name) + "_" + name).c_str());
    return reinterpret_cast<R (*)(mgx_handle_t *, uint32_t, void *, A...)>(fn)(h, 1, inst, args...);
}

bool is_counter(const Field &f) { return f.companion >= 0 && f.shape == Shape::scalar; }
bool is_array(const Field &f) { return f.shape == Shape::fixed_array || f.shape == Shape::var_array; }

// One state byte as the accessors reach it: a field's own (an array's whole-array byte) or an
// array element's (index >= 0), named by its path.
struct FlagAt {
    std::string path;
    const Type *type;
    const Field *field;
    void *instance;
    int64_t index = -1;

    uint8_t get(mgx_handle_t *h, uint32_t *err) const {
        if (index >= 0) return call<uint8_t>(*type, *field, "state_flag_get", h, instance, uint32_t(index), err);
        return call<uint8_t>(*type, *field, is_array(*field) ? "state_flag_whole_get" : "state_flag_get", h, instance, err);
    }
    void set(mgx_handle_t *h, uint8_t v, uint32_t *err) const {
        if (index >= 0) return call(*type, *field, "state_flag_set", h, instance, uint32_t(index), v, err);
        call(*type, *field, is_array(*field) ? "state_flag_whole_set" : "state_flag_set", h, instance, v, err);
    }
};

// Every state byte of an instance that travels, at every depth: each field's own (a count or
// length has none: the byte of what it counts travels), a variable array's elements' bytes, and
// those of nested records and of the arm the union holds. An array element's fields are not
// walked: no flag area is recorded for an element itself, so its accessors reach no flag.
void flags_of(const Type &t, void *inst, const std::string &path, std::vector<FlagAt> &out) {
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (!ovrin::present(f, hdr(inst)->variant) || is_counter(f)) continue;
        const std::string at = path + "." + f.name;
        out.push_back({at, &t, &f, inst});
        void *field = static_cast<uint8_t *>(inst) + f.offset;
        if (f.shape == Shape::scalar && f.kind == Kind::record) flags_of(*f.type, field, at, out);
        if (f.shape == Shape::member && *static_cast<void **>(field)) flags_of(*f.type, *static_cast<void **>(field), at, out);
        if (f.shape != Shape::var_array) continue;
        const void *block = *static_cast<void **>(field);
        for (uint32_t k = 0; block && k < ovrin::count_at(inst, t.fields[f.companion]); ++k)
            out.push_back({at + "[" + std::to_string(k) + "]", &t, &f, inst, k});
    }
}

// A user value no literal of the enumeration has.
uint32_t no_literal(const Type &e) {
    uint32_t v = e.n_literals;
    for (uint16_t i = 0; i < e.n_literals; ++i) v = std::max(v, e.literals[i].user + 1);
    return v;
}

struct Sweep : RuntimeFixture {
    template <class Fn> Fn op(const Ops &o, const char *name) { return testfill::op<Fn>(*o.type, name); }

    // body(o, arm) for every type (the enumerations too when enums says so) and each member of a
    // union, at each tracking mode of modes (in `tracked`); nothing may stay allocated after each.
    bool tracked = false;
    template <class Body> void each(std::initializer_list<bool> modes, bool enums, Body body) {
        for (bool mode : modes) {
            tracked = mode;
            mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
            for (const Ops &o : typeops::all()) {
                for (unsigned arm = 0; arm < o.arms() && (enums || !o.is_enum()); ++arm) {
                    SCOPED_TRACE(std::string(o.name) + " arm " + std::to_string(arm) + (tracked ? ", tracked" : ""));
                    body(o, arm);
                    ASSERT_FALSE(HasFatalFailure());
                    ASSERT_EQ(mgx_handle_live_allocations(h), 0u);
                }
            }
        }
    }

    // What a refused write must leave as it was: the instance's bytes with the flag area a made
    // instance holds behind them, and its tracked wire form (values and flags at every depth).
    std::vector<uint8_t> image(const Ops &o, void *inst) {
        const auto *b = static_cast<const uint8_t *>(inst);
        std::vector<uint8_t> out(b, b + o.type->tracked_size());
        uint32_t e = 0;
        std::vector<uint8_t> wire = typeops::encode(o, h, inst, &e);
        out.insert(out.end(), wire.begin(), wire.end());
        return out;
    }

    // `_set_value`, at the field's own width, of an element (index) or the field.
    void set_value(const Type &t, const Field &f, void *inst, int64_t index, uint64_t v) {
        auto with = [&](auto value) {
            if (index < 0) return call(t, f, "set_value", h, inst, value, &err);
            call(t, f, "set_value", h, inst, uint32_t(index), value, &err);
        };
        switch (f.kind) {
        case Kind::u8: return with(uint8_t(v));
        case Kind::u16: return with(uint16_t(v));
        case Kind::u64: return with(uint64_t(v));
        default: return with(uint32_t(v));
        }
    }

    // Every setter of a field called so that it must refuse: with valid arguments when the field
    // is not in the instance's variant (43); otherwise with an argument it cannot take (22: no
    // value, no text, more elements than a fixed array holds, index UINT32_MAX, no flags) or an
    // enumeration value no literal has (43). check(what, code) follows each call.
    template <class Check> void refuse_writes(const Type &t, const Field &f, void *inst, const Check &check) {
        static const std::vector<uint64_t> zeros(128); // any primitive's value, any fixed array's elements
        const std::string at = std::string(t.name) + "." + f.name + " ";
        const bool absent = !ovrin::present(f, hdr(inst)->variant), enumeration = f.kind == Kind::enumeration;
        const uint32_t code = absent ? MGX_EVARIANT : MGX_EINVAL;
        ASSERT_LE(f.size, zeros.size() * sizeof(uint64_t)) << at;
        const bool integer = f.kind <= Kind::boolean || enumeration;
        void *value = f.kind == Kind::record || enumeration ? testfill::create(*f.type, h) : nullptr;
        if (enumeration && !absent) { // a value this enumeration does not have
            const uint32_t bad = no_literal(*f.type);
            std::memcpy(static_cast<uint8_t *>(value) + 12, &bad, sizeof bad);
        }
        const void *given = value ? value : zeros.data();
        switch (f.shape) {
        case Shape::scalar:
            call(t, f, "set", h, inst, absent ? given : nullptr, &err), check(at + "set", code);
            if (enumeration && !absent) call(t, f, "set", h, inst, given, &err), check(at + "set a non-literal", MGX_EVARIANT);
            if (static_cast<int>(&f - t.fields) == t.discriminator)
                set_value(t, f, inst, -1, absent ? 0 : no_literal(*f.type)), check(at + "set_value", MGX_EVARIANT);
            else if (absent && integer && !enumeration) set_value(t, f, inst, -1, 0), check(at + "set_value", MGX_EVARIANT);
            break;
        case Shape::member: call(t, f, "set", h, inst, absent ? value : nullptr, &err), check(at + "set", code); break;
        case Shape::var_string: call(t, f, "set", h, inst, absent ? "abc" : nullptr, 3u, &err), check(at + "set", code); break;
        case Shape::var_array:
            call(t, f, "set", h, inst, 0u, absent ? value : nullptr, &err), check(at + "set", code);
            if (!absent) call(t, f, "set", h, inst, UINT32_MAX, value, &err), check(at + "set at UINT32_MAX", code);
            break;
        case Shape::fixed_array:
            call(t, f, "set_mem", h, inst, given, int32_t(f.count + !absent), &err), check(at + "set_mem", code);
            if (absent) call(t, f, "set", h, inst, 0u, given, &err), check(at + "set", code);
            if (integer && (absent || enumeration))
                set_value(t, f, inst, 0, absent ? 0 : no_literal(*f.type)), check(at + "set_value", MGX_EVARIANT);
            if (enumeration && !absent)
                call(t, f, "set", h, inst, 0u, given, &err), check(at + "set a non-literal", MGX_EVARIANT);
            break;
        }
        // The flag setters refuse a field not in the variant as well, and an array's flags given as none.
        const uint32_t count = f.shape == Shape::var_array ? ovrin::count_at(inst, t.fields[f.companion]) : f.count;
        if (is_array(f)) {
            call(t, f, "state_flag_set_arr", h, inst, static_cast<const uint8_t *>(nullptr), count, &err);
            check(at + "state_flag_set_arr", count || absent ? code : 0u);
        }
        if (absent) {
            call(t, f, is_array(f) ? "state_flag_whole_set" : "state_flag_set", h, inst, uint8_t{5}, &err);
            check(at + "state_flag_set", code);
        }
        if (value) reinterpret_cast<void (*)(mgx_handle_t *, uint32_t, void *)>(testfill::op(*f.type, "destroy"))(h, 1, value);
    }
};

TEST_F(Sweep, EveryTypeCreatesAndDestroysTrackedOrNotAndCountsItsVariant) {
    each({false, true}, true, [&](const Ops &o, unsigned) {
        void *inst = o.create(h, 1);
        ASSERT_NE(inst, nullptr);
        auto *d = static_cast<const mgx_type_info_t *>(hdr(inst)->descriptor);
        ASSERT_STREQ(d->type_name, o.name);
        int variant = hdr(inst)->variant;
        EXPECT_EQ(variant, d->variant_info->n_variants - 1); // the domain's default: the highest
        EXPECT_EQ(hdr(inst)->layout, 0);
        EXPECT_EQ((hdr(inst)->flags & MGX_IF_TRACKED) != 0, tracked);
        uint64_t created = mgx_stats_created(d, variant), destroyed = mgx_stats_destroyed(d, variant);
        o.destroy(h, 1, inst);
        EXPECT_EQ(mgx_stats_destroyed(d, variant), destroyed + 1);
        EXPECT_GE(created, 1u);
    });
}

// The common walk (no write hook to call, the static descriptors, no tracking) makes and destroys
// what the general one makes, with the same counts, errors and traces: a decode into a new
// instance on a handle without hooks, on one whose journal is its hook and on one whose instances
// point at registered descriptors, each also with the first count of the decode refused.
TEST_F(Sweep, EveryTypeIsMadeAlikeWhateverTheHandleWatches) {
    mgx_handle_t *plain = mgx_handle_create(), *journaled = recording_handle(), *registered = mgx_handle_create();
    mgx_handle_set_domain_mode(registered, 1);
    auto counts = [] {
        std::vector<uint64_t> out;
        for (const Ops &o : typeops::all())
            for (int v = 0; v < o.type->n_variants; ++v) {
                out.push_back(mgx_stats_created(o.type->descriptor, v));
                out.push_back(mgx_stats_destroyed(o.type->descriptor, v));
            }
        return out;
    };
    struct Outcome {
        std::vector<uint8_t> wire;
        std::vector<uint64_t> counted;
        uint32_t err, last_error;
        std::vector<std::string> traces;
        bool operator==(const Outcome &) const = default;
    };
    each({false}, true, [&](const Ops &o, unsigned arm) {
        void *source = typeops::make_filled(o, h, 3, arm);
        const std::vector<uint8_t> wire = typeops::encode(o, h, source, &err);
        ASSERT_EQ(take_err(), 0u);
        o.destroy(h, 1, source);
        auto decode = [&](mgx_handle_t *x, bool refuse_count) {
            Outcome out{};
            std::vector<uint64_t> before = counts();
            void *into = typeops::make(o, x);
            mgx_trace_clear();
            if (refuse_count) mgx_handle_fail_stats(x, MGX_ENOMEM);
            o.unmarshal(x, 1, wire.data(), into, static_cast<int32_t>(wire.size()), 0, &out.err);
            mgx_handle_fail_stats(x, 0);
            out.last_error = mgx_handle_last_error(x);
            for (size_t i = 0; i < mgx_trace_count(); ++i) out.traces.push_back(mgx_trace_text(i));
            uint32_t e = 0;
            out.wire = typeops::encode(o, x, into, &e);
            o.destroy(x, 1, into);
            out.counted = counts();
            for (size_t i = 0; i < before.size(); ++i) out.counted[i] -= before[i];
            EXPECT_EQ(mgx_handle_live_allocations(x), 0u);
            return out;
        };
        for (bool refuse : {false, true}) {
            const Outcome common = decode(plain, refuse);
            EXPECT_EQ(common, decode(journaled, refuse)) << (refuse ? "with a refused count" : "");
            EXPECT_EQ(common, decode(registered, refuse)) << (refuse ? "with a refused count" : "");
            if (!refuse) {
                EXPECT_EQ(common.wire, wire);
            }
        }
    });
    for (mgx_handle_t *x : {plain, journaled, registered}) mgx_handle_destroy(x);
}

// A whole-instance set from a filled source (union members pass over to the destination), then a
// raw copy of the result made independent by the cleanup: three owners, no storage shared, each
// destroyed on its own.
TEST_F(Sweep, EveryTypeCopiesWholeAndAfterARawCopyWithoutSharingStorage) {
    using copy_fn = void (*)(mgx_handle_t *, uint32_t, void *, void *, uint32_t *);
    each({false, true}, false, [&](const Ops &o, unsigned arm) {
        void *src = typeops::make_filled(o, h, 3, arm), *dst = typeops::make(o, h);
        op<copy_fn>(o, "set")(h, 1, dst, src, &err);
        uint32_t size = op<uint32_t (*)(mgx_handle_t *)>(o, "sizeof")(h);
        void *copy = h->inst_alloc(h->alloc_ctx, 1, size);
        std::memcpy(copy, dst, size);
        op<copy_fn>(o, "post_copyout_cleanup")(h, 1, copy, dst, &err);
        EXPECT_EQ(err, 0u);
        for (void *p : {src, dst, copy}) o.destroy(h, 1, p);
    });
}

// The whole-text operations make in one walk what the bounded writers make given room enough,
// from no block and from small blocks that grow at every power of two (each piece that meets the
// end written again), and answer -1 while the handle's error store holds a code.
TEST_F(Sweep, EveryTypeWritesItsWholeTextInOneWalkAsTheBoundedWritersDo) {
    std::vector<char> room(1 << 20);
    each({false, true}, true, [&](const Ops &o, unsigned arm) {
        void *inst = typeops::make_filled(o, h, 5, arm);
        for (bool xml : {false, true}) {
            auto size = static_cast<uint32_t>(room.size());
            int64_t n = xml ? int64_t{static_cast<int32_t>(o.toxml_cr(h, inst, room.data(), size))}
                            : o.print_cr(h, inst, room.data(), size);
            ASSERT_TRUE(n >= 0 && n + 1 < size);
            const std::string bounded(room.data(), static_cast<size_t>(n));
            for (size_t first : {0, 1, 5, 24}) {
                size_t block = first;
                auto *text = static_cast<char *>(first ? std::malloc(first) : nullptr);
                int64_t whole = (xml ? o.toxml_whole : o.print_whole)(h, inst, &text, &block);
                ASSERT_EQ(whole, n) << "from " << first;
                EXPECT_EQ(std::string(text, static_cast<size_t>(n) + 1), bounded + '\0');
                EXPECT_GT(block, static_cast<size_t>(n));
                std::free(text);
            }
        }
        mgx_store_err(h, 22);
        char *text = nullptr;
        size_t block = 0;
        EXPECT_EQ(o.print_whole(h, inst, &text, &block), -1);
        std::free(text);
        o.destroy(h, 1, inst);
    });
}

// A tracking sender's state bytes land, on a tracking receiver, each on its own field's flag: every
// byte of the sender gets a value of its own, and every flag the receiver reads back (fields,
// nested records, arrays and their elements, union arms) holds the value of the same field.
TEST_F(Sweep, EveryStateByteArrivesAtItsOwnFieldsFlag) {
    each({true}, false, [&](const Ops &o, unsigned arm) {
        void *sent = typeops::make_filled(o, h, 7, arm), *got = typeops::make(o, h);
        std::vector<FlagAt> flags, arrived;
        flags_of(*o.type, sent, o.name, flags);
        auto value = [](size_t i) { return static_cast<uint8_t>(1 + i % 255); };
        for (size_t i = 0; i < flags.size(); ++i) flags[i].set(h, value(i), &err);
        ASSERT_EQ(take_err(), 0u);
        // One byte of space more than _len: a union's last arm writes its state byte only while
        // two bytes of space remain.
        uint32_t space = o.len(h, 1, sent) + 1;
        std::vector<uint8_t> wire(space + 1);
        uint32_t n = o.marshal(h, 1, wire.data(), sent, static_cast<int32_t>(space), &err);
        o.unmarshal(h, 1, wire.data(), got, static_cast<int32_t>(n), 0, &err);
        ASSERT_EQ(take_err(), 0u);
        flags_of(*o.type, got, o.name, arrived);
        ASSERT_EQ(arrived.size(), flags.size());
        for (size_t i = 0; i < flags.size(); ++i) {
            ASSERT_EQ(arrived[i].path, flags[i].path);
            EXPECT_EQ(arrived[i].get(h, &err), value(i)) << arrived[i].path;
        }
        EXPECT_EQ(take_err(), 0u);
        for (void *p : {sent, got}) o.destroy(h, 1, p);
    });
}

// A setter that refuses, with 43 (the field is not in the instance's variant) or 22 (an argument
// it cannot take), enumerations and discriminators included, leaves the value and its state flag
// as they were: every setter of every field of every type, at each variant, under tracking, with
// every union's members held and every flag set beforehand.
TEST_F(Sweep, EveryRefusedSetLeavesTheValueAndItsFlagAsTheyWere) {
    track();
    for (const Ops &o : typeops::all()) {
        const Type &t = *o.type;
        for (int8_t variant = 0; variant < t.n_variants; ++variant) {
            mgx_handle_set_domain_variant(h, o.name, variant);
            void *inst = typeops::make_filled(o, h, 9, testfill::every_arm);
            ASSERT_FALSE(hdr(inst)->flags & MGX_IF_STTR_OFFSET) << o.name; // the area is behind the instance
            if (!o.is_enum())
                op<void (*)(mgx_handle_t *, uint32_t, void *, uint8_t)>(o, "set_all_state_tracking_flag")(h, 1, inst, 7);
            const std::vector<uint8_t> before = image(o, inst);
            auto check = [&](const std::string &what, uint32_t code) {
                EXPECT_EQ(take_err(), code) << what << " at variant " << int{variant};
                EXPECT_EQ(image(o, inst), before) << what << " at variant " << int{variant};
            };
            if (o.is_enum()) {
                op<void (*)(mgx_handle_t *, uint32_t, void *, uint32_t, uint32_t *)>(o, "set_value")(h, 1, inst, no_literal(t),
                                                                                                     &err);
                check(std::string(o.name) + " set_value", MGX_EVARIANT);
            }
            for (uint16_t i = 0; i < t.n_fields; ++i) refuse_writes(t, t.fields[i], inst, check);
            o.destroy(h, 1, inst);
        }
        mgx_handle_set_domain_variant(h, o.name, t.last_variant());
        ASSERT_EQ(mgx_handle_live_allocations(h), 0u) << o.name;
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

void set_odd(const Odd &c, mgx_handle_t *h, void *instance, uint32_t *err) {
    if (!c.target) return call(*c.type, *c.field, "set_value", h, instance, c.value, err);
    uint16_t narrow = static_cast<uint16_t>(c.value);
    const void *value = c.field->kind == ovrin::Kind::u16 ? static_cast<const void *>(&narrow) : &c.value;
    call(*c.type, *c.field, "set", h, instance, value, err);
}

// Whether every string and variable array of the instance that has a count has storage for it.
bool counts_backed(const ovrin::Type &t, const void *instance) {
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const ovrin::Field &f = t.fields[i];
        if (f.shape != ovrin::Shape::var_array && f.shape != ovrin::Shape::var_string) continue;
        if (ovrin::count_at(instance, t.fields[f.companion]) && !*static_cast<void *const *>(ovrin::field_at(instance, f)))
            return false;
    }
    return true;
}

using Unfilled = RuntimeFixture;

TEST_F(Unfilled, CountsWithoutStorageAndMembersNotThereCopeInEveryOperation) {
    std::vector<uint8_t> work(1 << 16);
    size_t cases = 0;
    for (bool tracked : {false, true}) {
        mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
        for (const Ops &o : typeops::all()) {
            for (const Odd &c : odd_cases(*o.type)) {
                const std::string name = c.field->name;
                const std::string what = std::string(o.name) + "." + name + "=" + std::to_string(c.value) +
                                         (tracked ? " tracked" : "");
                SCOPED_TRACE(what);
                ++cases;
                in_child(what, [&] {
                    void *odd = typeops::make(o, h), *twin = typeops::make(o, h);
                    for (void *p : {odd, twin}) set_odd(c, h, p, &err);
                    ASSERT_EQ(take_err(), 0u);
                    EXPECT_EQ(o.compare(odd, twin), 0);
                    EXPECT_EQ(o.compare(twin, odd), 0);
                    EXPECT_EQ(o.hash(odd, 7), o.hash(twin, 7));

                    const std::string print = typeops::whole_text(o, h, odd);
                    const std::string xml = typeops::whole_text(o, h, odd, true);
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
                            char out[8] = "x";
                            call(*o.type, *c.target, "get", h, odd, out, uint32_t{sizeof out}, &err);
                            EXPECT_EQ(take_err(), 0u);
                            EXPECT_STREQ(out, "");
                        } else { // no elements
                            EXPECT_EQ(print.find("\n  " + counted + "["), std::string::npos) << print;
                            EXPECT_EQ(xml.find("<" + counted + ">"), std::string::npos) << xml;
                            // Setting element 0 of the twin makes a block for that one element.
                            const Ops &element = typeops::of(c.target->type->name);
                            void *value = typeops::make(element, h);
                            call(*o.type, *c.target, "set", h, twin, uint32_t{0}, value, &err);
                            EXPECT_EQ(take_err(), 0u);
                            EXPECT_EQ(ovrin::count_at(twin, *c.field), 1u);
                            EXPECT_TRUE(counts_backed(*o.type, twin));
                            element.destroy(h, 1, value);
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
                        typeops::whole_text(o, h, decoded); // safe to print
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
                    EXPECT_EQ(mgx_handle_overruns(h) + mgx_handle_foreign_frees(h), 0u);
                });
            }
        }
    }
    EXPECT_GT(cases, 0u);
}

} // namespace
