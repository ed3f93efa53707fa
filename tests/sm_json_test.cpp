// The JSON form: every type of the bundle under test (both catalogues) round trips through it, and
// the ovrin_sm catalogue pins the text, the strict refusals with their pointers, lenient reading,
// byte strings, the limits and refused memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#if __has_include("ovrin_sm/ops.h")
#include "ovrin_sm/ops.h"
#endif
#include "tests/prim_fixture.h"
#include "tests/sm_type_ops.h"

namespace {

using typeops::Ops;

// Marks the bytes of t's attribute lists (its inline records' too) in an instance at base: the
// runtime's list reader replaces a list's body without announcing it, whoever reads.
void mark_lists(const ovrin::Type &t, size_t base, std::vector<bool> &marked) {
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const ovrin::Field &f = t.fields[i];
        if (f.kind == ovrin::Kind::aaa_tlv) std::fill_n(marked.begin() + base + f.offset, f.size, true);
        else if (f.kind == ovrin::Kind::record && f.shape == ovrin::Shape::scalar) mark_lists(*f.type, base + f.offset, marked);
    }
}

struct Json : RuntimeFixture {
    // The whole text, or "(failed)".
    std::string json_of(const Ops &o, const void *inst, uint32_t flags = 0) {
        char *text = nullptr;
        size_t size = 0;
        int64_t n = o.to_json(h, inst, flags, &text, &size);
        std::string out = n >= 0 ? std::string(text, static_cast<size_t>(n)) : "(failed)";
        if (n >= 0) {
            EXPECT_EQ(text[n], '\0');
        }
        std::free(text);
        return out;
    }
    // A made instance read from the document: 0 and the instance, or the code with what and where;
    // and how many bytes of the instance itself (its flag area too, its attribute lists not) the
    // read changed without announcing them to the write hook first.
    struct Read {
        uint32_t code;
        std::string text, pointer;
        void *inst;
        size_t unannounced;
    };
    Read read(const Ops &o, const std::string &doc, uint32_t flags = 0) {
        void *inst = typeops::make(o, h);
        const auto *bytes = static_cast<const uint8_t *>(inst);
        const std::vector<uint8_t> before(bytes, bytes + o.type->tracked_size());
        mgx_journal_clear(h);
        ovrin_json_error e{};
        uint32_t code = o.from_json(h, 1, doc.data(), doc.size(), inst, flags, &e);
        size_t unannounced = 0;
        std::vector<bool> lists(before.size());
        if (!o.is_enum()) mark_lists(*o.type, 0, lists);
        for (size_t i = 0; i < before.size(); ++i) {
            bool announced = lists[i];
            for (size_t k = 0; k < mgx_journal_count(h) && !announced; ++k) {
                const auto *at = static_cast<const uint8_t *>(mgx_journal_entry(h, k)->address);
                announced = at <= bytes + i && bytes + i < at + mgx_journal_entry(h, k)->length;
            }
            unannounced += bytes[i] != before[i] && !announced;
        }
        Read r{code, e.text ? e.text : "", e.pointer ? e.pointer : "", inst, unannounced};
        EXPECT_EQ(code == 0, e.text == nullptr && e.pointer == nullptr);
        EXPECT_EQ(mgx_handle_last_error(h), code);
        ovrin_json_error_free(&e);
        return r;
    }
    void each(std::initializer_list<bool> modes, auto body) {
        for (bool tracked : modes) {
            mgx_handle_set_state_tracking(h, tracked, MGX_STTR_TRACKED);
            for (const Ops &o : typeops::all())
                for (unsigned arm = 0; arm < o.arms(); ++arm) {
                    SCOPED_TRACE(std::string(o.name) + " arm " + std::to_string(arm) + (tracked ? ", tracked" : ""));
                    body(o, arm);
                    ASSERT_FALSE(HasFatalFailure());
                    ASSERT_EQ(mgx_handle_live_allocations(h), 0u);
                }
        }
    }
};

// JSON -> instance -> JSON gives the same text, compact or indented; the instance read compares
// equal to the one written and encodes to the same bytes, every byte it changed announced to the
// write hook; and the wire form decoded gives the same JSON again (wire -> JSON -> wire).
TEST_F(Json, EveryTypeRoundTripsThroughItsTextAndTheWire) {
    each({false, true}, [&](const Ops &o, unsigned arm) {
        void *sent = typeops::make_filled(o, h, 11, arm);
        const std::string text = json_of(o, sent), pretty = json_of(o, sent, OVRIN_JSON_PRETTY);
        ASSERT_NE(text, "(failed)");
        EXPECT_EQ(text.find('\n'), std::string::npos);
        for (const std::string &doc : {text, pretty}) {
            Read r = read(o, doc);
            ASSERT_EQ(r.code, 0u) << r.text << " at " << r.pointer << " in " << doc;
            EXPECT_EQ(o.compare(r.inst, sent), 0);
            EXPECT_EQ(r.unannounced, 0u);
            EXPECT_EQ(json_of(o, r.inst), text);
            EXPECT_EQ(json_of(o, r.inst, OVRIN_JSON_PRETTY), pretty);
            uint32_t e1 = 0, e2 = 0;
            EXPECT_EQ(typeops::encode(o, h, r.inst, &e1), typeops::encode(o, h, sent, &e2));
            o.destroy(h, 1, r.inst);
        }
        uint32_t err = 0;
        std::vector<uint8_t> wire = typeops::encode(o, h, sent, &err);
        void *got = typeops::make(o, h);
        o.unmarshal(h, 1, wire.data(), got, static_cast<int32_t>(wire.size()), 0, &err);
        ASSERT_EQ(err, 0u);
        EXPECT_EQ(json_of(o, got), text);
        for (void *p : {sent, got}) o.destroy(h, 1, p);
    });
}

// Every allocation a read makes may be refused: each refusal answers 12, leaves nothing allocated
// and the instance destroyable; a read given enough memory succeeds.
TEST_F(Json, EveryRefusedAllocationOfAReadIsReportedAndLeaksNothing) {
    each({false}, [&](const Ops &o, unsigned arm) {
        void *sent = typeops::make_filled(o, h, 3, arm);
        const std::string text = json_of(o, sent);
        for (uint32_t nth = 1;; ++nth) {
            void *inst = typeops::make(o, h);
            mgx_handle_fail_allocation(h, nth);
            ovrin_json_error e{};
            uint32_t code = o.from_json(h, 1, text.data(), text.size(), inst, 0, &e);
            bool reached = mgx_handle_allocation_failure_pending(h) == 0;
            mgx_handle_fail_allocation(h, 0);
            if (reached) {
                EXPECT_EQ(code, 12u) << "allocation " << nth;
                EXPECT_STREQ(e.text, "out of memory");
            } else {
                EXPECT_EQ(code, 0u);
            }
            ovrin_json_error_free(&e);
            o.destroy(h, 1, inst);
            if (!reached) break;
        }
        o.destroy(h, 1, sent);
    });
}

TEST_F(Json, AnythingButAJsonDocumentIsRefusedWithTheParsersReason) {
    const Ops &o = typeops::all().back();
    for (const std::string doc : {"", "{", "[1,]", "\"\xff\"", "nul", "{} {}"}) {
        Read r = read(o, doc);
        EXPECT_EQ(r.code, 22u) << doc;
        EXPECT_FALSE(r.text.empty());
        EXPECT_EQ(r.pointer, "");
        o.destroy(h, 1, r.inst);
    }
    // Nesting past the limit is refused whatever the type; within it (brackets in a string do not
    // nest), the type decides.
    const auto nested = [](unsigned n) { return std::string(n, '[') + std::string(n, ']'); };
    Read r = read(o, nested(OVRIN_JSON_MAX_DEPTH + 1));
    EXPECT_EQ(r.code, 22u);
    EXPECT_EQ(r.text, "line 1, column 129: arrays and objects nest deeper than the 128 levels the reader takes");
    o.destroy(h, 1, r.inst);
    // So is a document with more values than the limit (counted by its brackets and separators).
    std::string many = "[0";
    for (uint32_t k = 1; k < OVRIN_JSON_MAX_VALUES; ++k) many += ",0";
    r = read(o, many + "]");
    EXPECT_EQ(r.text.find("more values"), std::string::npos) << r.text; // at the limit: the type refuses it
    o.destroy(h, 1, r.inst);
    r = read(o, many + ",0]");
    EXPECT_EQ(r.text, "line 1, column " + std::to_string(many.size() + 1) + ": more values than the 1048576 the reader takes");
    o.destroy(h, 1, r.inst);
    for (const std::string &doc : {nested(OVRIN_JSON_MAX_DEPTH), "{\"\\\"" + nested(OVRIN_JSON_MAX_DEPTH + 1) + "\":1}"}) {
        r = read(o, doc);
        EXPECT_EQ(r.code, 22u);
        EXPECT_EQ(r.text.find("deep"), std::string::npos) << r.text;
        o.destroy(h, 1, r.inst);
    }
    const std::string big(OVRIN_JSON_MAX_DOCUMENT + size_t{1}, ' ');
    r = read(o, big);
    EXPECT_EQ(r.text, "the document is larger than the 64 MiB the reader takes");
    o.destroy(h, 1, r.inst);
    void *inst = typeops::make(o, h);
    EXPECT_EQ(o.from_json(h, 1, nullptr, 3, inst, 0, nullptr), 22u); // no error record asked for
    EXPECT_EQ(o.from_json(h, 1, "1", 1, nullptr, 0, nullptr), 22u);
    char *text = nullptr;
    size_t size = 0;
    EXPECT_EQ(o.to_json(h, nullptr, 0, &text, &size), -1);
    std::free(text);
    o.destroy(h, 1, inst);
}

// Strictly, a document is refused exactly when what it leaves is not encodable: "{}" (every
// union left with its fresh discriminator) and the text of a fresh instance (every union named)
// are taken or refused alike, with the same words, and what is taken encodes.
TEST_F(Json, AFreshInstanceAndItsOwnTextAreTakenOrRefusedAlike) {
    unsigned refused = 0;
    for (const Ops &o : typeops::all()) {
        if (o.is_enum()) continue;
        SCOPED_TRACE(o.name);
        void *fresh = typeops::make(o, h);
        const std::string text = json_of(o, fresh);
        Read empty = read(o, "{}"), own = read(o, text);
        EXPECT_EQ(empty.code, own.code) << text;
        EXPECT_EQ(empty.text, own.text);
        uint32_t err = 0;
        if (!empty.code) {
            EXPECT_FALSE(typeops::encode(o, h, empty.inst, &err).empty());
            EXPECT_EQ(err, 0u);
        }
        refused += empty.code != 0;
        for (void *p : {fresh, empty.inst, own.inst}) o.destroy(h, 1, p);
    }
#if __has_include("ovrin_sm/ops.h")
    EXPECT_GT(refused, 0u); // some union's fresh discriminator selects a member
#endif
}

// A member (or a literal) of a later variant than the instance's is left out of its text and
// refused in a document; leniently it is skipped.
TEST_F(Json, MembersOfALaterVariantAreLeftOutAndRefused) {
    unsigned seen = 0, literals = 0;
    for (const Ops &o : typeops::all()) {
        const ovrin::Literal *last = o.is_enum() ? &o.type->literals[o.type->n_literals - 1] : nullptr;
        if (last && last->from_variant > 0) {
            ++literals;
            ASSERT_EQ(mgx_handle_set_domain_variant(h, o.name, 0), 0);
            // by name or by its value (which the instance's text would give by name)
            for (const std::string &doc : {std::string("\"") + last->name + "\"", std::to_string(last->user)}) {
                Read r = read(o, doc);
                EXPECT_EQ(r.text, std::string(last->name) + " is not a literal of " + o.name + " in variant 0");
                o.destroy(h, 1, r.inst);
            }
            ASSERT_EQ(mgx_handle_set_domain_variant(h, o.name, o.type->last_variant()), 0);
        }
        const ovrin::Field *later = nullptr;
        for (uint16_t i = 0; i < o.type->n_fields && !later; ++i)
            if (o.type->fields[i].from_variant > 0) later = &o.type->fields[i];
        if (!later || o.is_enum()) continue;
        ++seen;
        SCOPED_TRACE(o.name);
        ASSERT_EQ(mgx_handle_set_domain_variant(h, o.name, 0), 0);
        void *old = typeops::make_filled(o, h, 5);
        EXPECT_EQ(json_of(o, old).find(std::string("\"") + later->name + "\""), std::string::npos);
        // (a union's member with a discriminator that selects it: read leniently, it stays out)
        const std::string doc = later->shape != ovrin::Shape::member
                                    ? std::string("{\"") + later->name + "\":null}"
                                    : std::string("{\"") + o.type->fields[o.type->discriminator].name +
                                          "\":" + std::to_string(later->select) + ",\"" + later->name + "\":{}}";
        Read r = read(o, doc);
        EXPECT_EQ(r.text, std::string(o.name) + " has no member " + later->name + " in variant 0");
        EXPECT_EQ(r.pointer, std::string("/") + later->name);
        o.destroy(h, 1, r.inst);
        r = read(o, doc, OVRIN_JSON_LENIENT);
        EXPECT_EQ(r.code, 0u);
        for (void *p : {old, r.inst}) o.destroy(h, 1, p);
        ASSERT_EQ(mgx_handle_set_domain_variant(h, o.name, o.type->last_variant()), 0);
    }
    EXPECT_GT(seen, 0u);
    EXPECT_GT(literals, 0u);
}

// A string or array behind a 16-bit length or count is refused past 65535 bytes or elements.
TEST_F(Json, SixteenBitCountsRefuseWhatTheyCannotHold) {
    unsigned seen = 0;
    for (const Ops &o : typeops::all())
        for (uint16_t i = 0; i < o.type->n_fields && !o.is_enum(); ++i) {
            const ovrin::Field &f = o.type->fields[i];
            const bool string = f.shape == ovrin::Shape::var_string;
            if ((!string && f.shape != ovrin::Shape::var_array) || o.type->fields[f.companion].kind != ovrin::Kind::u16) continue;
            ++seen;
            SCOPED_TRACE(std::string(o.name) + "." + f.name);
            // (past the limit only, for an array: 65535 elements are slow to make)
            for (size_t n = string ? UINT16_MAX : UINT16_MAX + 1; n <= UINT16_MAX + 1; ++n) {
                std::string doc = std::string("{\"") + f.name + "\":";
                if (string) {
                    doc += "\"" + std::string(n, 'a') + "\"";
                } else {
                    const std::string element = f.kind == ovrin::Kind::record ? "{}" : "0";
                    for (size_t k = 0; k < n; ++k) doc += (k ? "," : "[") + element;
                    doc += "]";
                }
                Read r = read(o, doc + "}");
                const bool fits = n <= UINT16_MAX;
                EXPECT_EQ(r.text, fits     ? ""
                                  : string ? "a string of 65536 bytes is longer than its u_int16 length holds"
                                           : "holds 65536 elements, more than its count member holds");
                EXPECT_EQ(r.pointer, fits ? "" : std::string("/") + f.name);
                o.destroy(h, 1, r.inst);
            }
        }
    EXPECT_GT(seen, 0u);
}

#if __has_include("ovrin_sm/ops.h")

const Ops &type_named(const char *name) { return typeops::of(name); }

TEST_F(Json, ARecordsTextIsItsMembersInOrderCompactOrAsJqIndentsIt) {
    auto *r = own(sess_mgr_register_create(h, 1), sess_mgr_register_destroy);
    r->rcl_conn_hdl.conn_hdl = 7;
    r->session_type = 2;
    const Ops &o = type_named("sess_mgr_register");
    EXPECT_EQ(json_of(o, r), R"({"rcl_conn_hdl":{"conn_hdl":7},"cl_name":{"cl_name_len":0,"client_name":""},)"
                             R"("meth_name":{"meth_name_len":0,"method_name":""},"session_type":2,"cb_bitmap":0})");
    EXPECT_EQ(json_of(o, r, OVRIN_JSON_PRETTY), R"({
  "rcl_conn_hdl": {
    "conn_hdl": 7
  },
  "cl_name": {
    "cl_name_len": 0,
    "client_name": ""
  },
  "meth_name": {
    "meth_name_len": 0,
    "method_name": ""
  },
  "session_type": 2,
  "cb_bitmap": 0
})");
    auto *q = own(sess_mgr_sess_attr_query_resp_create(h, 1), sess_mgr_sess_attr_query_resp_destroy);
    EXPECT_NE(json_of(type_named("sess_mgr_sess_attr_query_resp"), q, OVRIN_JSON_PRETTY).find("\"resp_array\": []"),
              std::string::npos); // an empty array stays "[]"
}

// Unions: the discriminator's literal and the member it selects; 64-bit values as strings of
// digits; addresses in their text forms; attribute lists as type and hexadecimal value.
TEST_F(Json, UnionsAddressesWideNumbersAndAttributeListsHaveTheirOwnForms) {
    const Ops &ev = type_named("ovrin_smd_in_event");
    const std::string doc = R"({"event_type":"SESS_MGR_RCL_IN_REGISTER","reg_client":{"session_type":3,"cb_bitmap":4294967295}})";
    Read r = read(ev, doc, OVRIN_JSON_LENIENT);
    ASSERT_EQ(r.code, 0u) << r.text;
    std::string back = json_of(ev, r.inst);
    EXPECT_EQ(back.rfind(R"({"event_type":"SESS_MGR_RCL_IN_REGISTER","reg_client":{"rcl_conn_hdl":)", 0), 0u) << back;
    EXPECT_NE(back.find(R"("session_type":3,"cb_bitmap":4294967295})"), std::string::npos) << back;
    ev.destroy(h, 1, r.inst);
    // Only the selected member is written, whatever other members the instance holds.
    void *every = typeops::make(ev, h);
    testfill::fill(*ev.type, h, every, 3, testfill::every_arm);
    r = read(ev, json_of(ev, every));
    EXPECT_EQ(r.code, 0u) << r.text;
    for (void *p : {every, r.inst}) ev.destroy(h, 1, p);

    auto *opts = own(sess_mgr_api_options_create(h, 1), sess_mgr_api_options_destroy);
    opts->options = UINT64_MAX;
    EXPECT_EQ(json_of(type_named("sess_mgr_api_options"), opts), R"({"options":"18446744073709551615"})");
    // As a number, a 64-bit value reads up to 2^63 - 1; past it only as a string.
    for (const char *doc :
         {R"({"options":9223372036854775807})", R"({"options":"18446744073709551615"})", R"({"options":18446744073709551615})"}) {
        Read wide = read(type_named("sess_mgr_api_options"), doc);
        const bool too_big = std::strstr(doc, ":18") != nullptr;
        EXPECT_EQ(wide.code, too_big ? 22u : 0u) << doc;
        if (too_big) {
            EXPECT_EQ(wide.text, "line 1, column 31: too big integer near '18446744073709551615'");
            EXPECT_EQ(wide.pointer, "/options");
        } else
            EXPECT_EQ(static_cast<sess_mgr_api_options *>(wide.inst)->options, std::strstr(doc, "\"18") ? UINT64_MAX : INT64_MAX);
        sess_mgr_api_options_destroy(h, 1, static_cast<sess_mgr_api_options *>(wide.inst));
    }

    // (members in any order: each value is stored at its own width, its neighbours untouched)
    const Ops &dot11 = type_named("sm_dot11_params");
    Read d = read(dot11, R"({"mcast_vlan_id":7,"vlan_id":65535,"apfMsBssid":"00:1A:2b:3c:4d:5e"})");
    ASSERT_EQ(d.code, 0u) << d.text;
    EXPECT_NE(json_of(dot11, d.inst).find(R"("apfMsBssid":"00:1a:2b:3c:4d:5e")"), std::string::npos);
    EXPECT_NE(json_of(dot11, d.inst).find(R"("vlan_id":65535,"mcast_vlan_id":7,)"), std::string::npos);
    dot11.destroy(h, 1, d.inst);

    const Ops &notif = type_named("sess_mgr_new_client_notif");
    Read n = read(notif, R"({"attr_list":[{"type":1,"value":"00ff"},{"value":"","type":4294967295}]})");
    ASSERT_EQ(n.code, 0u) << n.text;
    EXPECT_NE(json_of(notif, n.inst).find(R"("attr_list":[{"type":1,"value":"00ff"},{"type":4294967295,"value":""}])"),
              std::string::npos)
        << json_of(notif, n.inst);
    notif.destroy(h, 1, n.inst);
}

// Every byte of a counted string survives: control characters as JSON escapes, bytes that are not
// UTF-8 and the bytes of a literal U+E000..U+E0FF as private-use characters.
TEST_F(Json, EveryByteOfACountedStringSurvives) {
    const Ops &o = type_named("sess_mgr_client_name");
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    // U+E041, é, an emoji, a surrogate, U+E0FF, and a lead byte past U+10FFFF with its continuations
    all += "\xee\x81\x81 \xc3\xa9 \xf0\x9f\x99\x82 \xed\xa0\x80 \xee\x83\xbf \xf5\x80\x80\x80";
    auto *c = own(sess_mgr_client_name_create(h, 1), sess_mgr_client_name_destroy);
    c->client_name = static_cast<char *>(h->inst_alloc(h->alloc_ctx, 1, all.size() + 1));
    std::memcpy(c->client_name, all.c_str(), all.size() + 1);
    c->cl_name_len = static_cast<uint32_t>(all.size());
    const std::string text = json_of(o, c);
    EXPECT_NE(text.find(R"(\u0000\u0001)"), std::string::npos);
    EXPECT_NE(text.find(R"(\n\u000b\f\r)"), std::string::npos);
    EXPECT_NE(text.find(R"(!\"#)"), std::string::npos);
    EXPECT_NE(text.find(R"([\\])"), std::string::npos);
    EXPECT_NE(text.find(R"(\ue080\ue081)"), std::string::npos); // 0x80 0x81 alone are not UTF-8
    EXPECT_NE(text.find(R"(\ue0ee\ue081\ue081 é 🙂 \ue0ed\ue0a0\ue080 \ue0ee\ue083\ue0bf \ue0f5\ue080\ue080\ue080")"),
              std::string::npos)
        << text;
    Read r = read(o, text);
    ASSERT_EQ(r.code, 0u) << r.text;
    EXPECT_EQ(o.compare(r.inst, c), 0);
    o.destroy(h, 1, r.inst);
    // An empty string is no block at all, as in a fresh instance: the two compare equal.
    Read empty = read(o, R"({"client_name":""})");
    EXPECT_EQ(static_cast<sess_mgr_client_name *>(empty.inst)->client_name, nullptr);
    o.destroy(h, 1, empty.inst);
    // A private-use character written as it is stands for its byte too; a string read again
    // replaces the one there.
    Read p = read(o, "{\"client_name\":\"a\xee\x80\x81\"}");
    ASSERT_EQ(p.code, 0u);
    auto *got = static_cast<sess_mgr_client_name *>(p.inst);
    EXPECT_EQ(std::string(got->client_name, got->cl_name_len), std::string("a\x01", 2));
    const std::string again = R"({"client_name":"bc"})";
    ASSERT_EQ(o.from_json(h, 1, again.data(), again.size(), p.inst, 0, nullptr), 0u);
    EXPECT_EQ(std::string(got->client_name, got->cl_name_len), "bc");
    o.destroy(h, 1, p.inst);
}

// Each kind of fault in a document, refused strictly with its pointer, and read around leniently.
TEST_F(Json, StrictReadingRefusesEachFaultWhereItIsAndLenientReadingSkipsIt) {
    struct Case {
        const char *type, *doc, *text, *pointer;
    };
    const Case cases[] = {
        {"sess_mgr_register", R"({"sesion_type":2})", "sess_mgr_register has no member sesion_type", "/sesion_type"},
        {"sess_mgr_register", R"({"session_type":1,"session_type":2})",
         "line 1, column 32: duplicate object key near '\"session_type\"'", "/session_type"},
        {"sess_mgr_register", R"({"session_type":"2"})", "expected a number, found a string", "/session_type"},
        {"sess_mgr_register", R"({"session_type":4294967296})", "4294967296 is above 4294967295, the largest u_int32",
         "/session_type"},
        {"sess_mgr_register", R"({"session_type":-1})", "-1 is below 0, the smallest u_int32", "/session_type"},
        {"sess_mgr_register", R"({"session_type":1.5})", "1.5 is not a whole number", "/session_type"},
        {"sess_mgr_api_options", R"({"options":"18446744073709551616"})",
         "\"18446744073709551616\" is above 18446744073709551615, the largest u_int64", "/options"},
        {"sess_mgr_register", R"({"cl_name":{"cl_name_len":6,"client_name":"alice"}})", "says 6, but client_name holds 5 bytes",
         "/cl_name/cl_name_len"},
        {"sess_mgr_register", R"({"cl_name":[]})", "expected an object (sess_mgr_client_name), found an array", "/cl_name"},
        {"sess_mgr_session_start", R"({"ext_params":{"encap_type":"NOPE"}})", "NOPE is not a literal of sm_access_type",
         "/ext_params/encap_type"},
        {"ovrin_smd_in_event", R"({"event_type":"SESS_MGR_RCL_IN_REGISTER","start_client":{}})",
         "event_type is SESS_MGR_RCL_IN_REGISTER, which selects reg_client", "/start_client"},
        {"ovrin_smd_in_event", R"({"event_type":"SESS_MGR_RCL_IN_REGISTER"})",
         "event_type is SESS_MGR_RCL_IN_REGISTER, which selects reg_client: it is missing", "/reg_client"},
        {"sm_dot11_params", R"({"apfMsBssid":"00:1a:2b"})", "\"00:1a:2b\" is not a MAC address", "/apfMsBssid"},
        {"sm_dot11_params", R"({"apfMsBssid":"00:1a:2b:3c:4d-5e"})", "\"00:1a:2b:3c:4d-5e\" is not a MAC address", "/apfMsBssid"},
        {"sess_mgr_new_client_notif", R"({"attr_list":[{"type":1,"value":"0g"}]})", "\"0g\" is not hexadecimal bytes",
         "/attr_list/0/value"},
        {"sess_mgr_new_client_notif", R"({"attr_list":[{"type":1,"value":"abc"}]})", "\"abc\" is not hexadecimal bytes",
         "/attr_list/0/value"},
        {"sess_mgr_new_client_notif", R"({"attr_list":[{"type":1}]})", "an attribute needs both type and value", "/attr_list/0"},
        {"sess_mgr_sess_attr_query_resp", R"({"no_of_entries":2,"resp_array":[{}]})", "says 2, but resp_array holds 1 elements",
         "/no_of_entries"},
        {"sess_mgr_sess_attr_query_resp", R"({"resp_array":[{},{"a~b/c":1}]})", "", "/resp_array/1/a~0b~1c"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.doc);
        const Ops &o = type_named(c.type);
        Read strict = read(o, c.doc);
        EXPECT_EQ(strict.code, 22u);
        if (*c.text) {
            EXPECT_EQ(strict.text, c.text);
        }
        EXPECT_EQ(strict.pointer, c.pointer);
        o.destroy(h, 1, strict.inst);
        Read lenient = read(o, c.doc, OVRIN_JSON_LENIENT);
        EXPECT_EQ(lenient.code, 0u) << lenient.text;
        o.destroy(h, 1, lenient.inst);
    }
    // What the parser refuses is refused in either mode, where it stopped.
    for (uint32_t mode : {0u, OVRIN_JSON_LENIENT}) {
        Read r = read(type_named("sess_mgr_sess_attr_query_resp"), R"({"resp_array":[{}, {"~/":[1,2,01]}]})", mode);
        EXPECT_EQ(r.code, 22u);
        EXPECT_EQ(r.text.rfind("line 1, column 31: ", 0), 0u) << r.text;
        EXPECT_EQ(r.pointer, "/resp_array/1/~0~1/2");
        sess_mgr_sess_attr_query_resp_destroy(h, 1, static_cast<sess_mgr_sess_attr_query_resp *>(r.inst));
    }
    // Leniently the last of a repeated member counts, what cannot be read keeps its value, and a
    // fixed array takes the elements it has room for.
    Read r = read(type_named("sess_mgr_register"), R"({"session_type":1,"session_type":2,"cb_bitmap":"x"})", OVRIN_JSON_LENIENT);
    EXPECT_EQ(static_cast<sess_mgr_register *>(r.inst)->session_type, 2u);
    EXPECT_EQ(static_cast<sess_mgr_register *>(r.inst)->cb_bitmap, 0u);
    sess_mgr_register_destroy(h, 1, static_cast<sess_mgr_register *>(r.inst));
    r = read(type_named("sm_dot11_params"), R"({"oui":[1,2,3,4]})", OVRIN_JSON_LENIENT);
    const auto *oui = static_cast<sm_dot11_params *>(r.inst)->oui;
    EXPECT_EQ(std::vector<int>(oui, oui + 3), std::vector<int>({1, 2, 3}));
    sm_dot11_params_destroy(h, 1, static_cast<sm_dot11_params *>(r.inst));
}

#endif

} // namespace
