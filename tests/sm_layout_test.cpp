// Layouts, state-flag areas and descriptors of the 79 types, held against the expected table
// and the byte layout the runtime reads.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "ovrin_sm/ops.h"
// The bundle's own tables (the test program's private copy, sm_type_tables.cpp): the generator's
// layout and state-flag positions, next to the descriptors the library exports.
#include "ovrin_sm_internal/tables.h"

namespace {

using ovrin::Field;
using ovrin::Shape;
using ovrin::Type;

struct ExpectedLayout {
    const char *name;
    const char *kind;
    int n_variants;
    struct {
        uint32_t used, slop;
    } variants[3];
    uint32_t size;
};

const ExpectedLayout expected[] = {
#include "tests/sm_layout_expected.inc"
};

const mgx_module_node_t *bundle_module() {
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next)
        if (!std::strcmp(n->domain_name, "ovrin_sm")) return n;
    return nullptr;
}

const mgx_type_info_t *descriptor_at(size_t i) {
    return static_cast<const mgx_type_info_t *>(bundle_module()->descriptor_table[i]);
}

const Field &field(const Type &t, const char *name) {
    for (uint16_t i = 0; i < t.n_fields; ++i)
        if (!std::strcmp(t.fields[i].name, name)) return t.fields[i];
    ADD_FAILURE() << t.name << " has no field " << name;
    return t.fields[0];
}

std::string hex(const uint8_t *bytes, size_t n) {
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        s += two;
    }
    return s;
}

TEST(Layout, EveryTypeHasTheExpectedVariantsAndSizeInRegistrationOrder) {
    ASSERT_NE(bundle_module(), nullptr);
    constexpr size_t n = sizeof expected / sizeof expected[0];
    ASSERT_EQ(n, 79u);
    ASSERT_EQ(ovrin::table::type_count, n);
    EXPECT_EQ(bundle_module()->descriptor_table[n], nullptr);
    for (size_t i = 0; i < n; ++i) {
        const ExpectedLayout &e = expected[i];
        const mgx_type_info_t *d = descriptor_at(i);
        const Type &t = *ovrin::table::all[i];
        SCOPED_TRACE(e.name);
        ASSERT_NE(d, nullptr);
        EXPECT_STREQ(d->type_name, e.name);
        EXPECT_STREQ(d->kind, e.kind);
        EXPECT_EQ(t.descriptor, d);
        ASSERT_NE(d->variant_info, nullptr);
        ASSERT_EQ(d->variant_info->n_variants, e.n_variants);
        ASSERT_EQ(t.n_variants, e.n_variants);
        for (int v = 0; v < e.n_variants; ++v) {
            const mgx_variant_entry_t &entry = d->variant_info->entries[v];
            EXPECT_EQ(entry.index, static_cast<uint32_t>(v));
            EXPECT_EQ(entry.used_length, e.variants[v].used) << "variant " << v;
            EXPECT_EQ(entry.alloc_slop, e.variants[v].slop) << "variant " << v;
            EXPECT_EQ(entry.used_length + entry.alloc_slop, e.size) << "variant " << v;
            EXPECT_EQ(t.variants[v].used, e.variants[v].used);
            EXPECT_EQ(t.variants[v].slop, e.variants[v].slop);
        }
        EXPECT_EQ(t.size, e.size);
    }
}

TEST(Layout, PublicStructsCarryTheInstanceLayout) {
    EXPECT_EQ(sizeof(::sess_mgr_conn_hdl), 24u);
    EXPECT_EQ(offsetof(::sess_mgr_conn_hdl, conn_hdl), 12u);
    EXPECT_EQ(sizeof(::sess_mgr_session_start), 200u);
    EXPECT_EQ(offsetof(::sess_mgr_session_start, hdl), 16u);
    EXPECT_EQ(offsetof(::sess_mgr_session_start, identity_attrs), 64u);
    EXPECT_EQ(offsetof(::sess_mgr_session_start, cl_name), 152u);
    EXPECT_EQ(sizeof(::sm_dot11_params), 56u);
    EXPECT_EQ(offsetof(::sm_dot11_params, control), 44u);
    EXPECT_EQ(sizeof(::ovrin_smd_resp_event), 192u);
    EXPECT_EQ(offsetof(::ovrin_smd_resp_event, reg_result), 64u);
    EXPECT_EQ(sizeof(::ovrin_smd_in_event), 232u);
    EXPECT_EQ(sizeof(::sm_peer_state), 16u);
    EXPECT_EQ(offsetof(::sm_peer_state, value), 12u);
    EXPECT_EQ(static_cast<uint32_t>(SESS_MGR_RCL_IN_READER_STATUS), 26u);
    EXPECT_EQ(static_cast<uint32_t>(SM_MAX_STR_LEN), 512u);
}

TEST(StateFlags, ExemplarAreasAndTrackedSizes) {
    namespace tbl = ovrin::table;
    EXPECT_EQ(tbl::sess_mgr_conn_hdl.sttr_size, 1u);
    EXPECT_EQ(tbl::sess_mgr_conn_hdl.tracked_size(), 25u);
    EXPECT_EQ(field(tbl::sess_mgr_conn_hdl, "conn_hdl").sttr_pos, 0u);

    EXPECT_EQ(tbl::sess_mgr_session_start.sttr_size, 32u);
    EXPECT_EQ(tbl::sess_mgr_session_start.tracked_size(), 232u);
    struct {
        const char *name;
        uint16_t own, nested;
    } start[] = {{"hdl", 0, 1}, {"cl_hdl", 2, 3}, {"identity_attrs", 4, 8}, {"ext_params", 24, 25}, {"cl_name", 29, 30}};
    for (const auto &f : start) {
        EXPECT_EQ(field(tbl::sess_mgr_session_start, f.name).sttr_pos, f.own) << f.name;
        EXPECT_EQ(field(tbl::sess_mgr_session_start, f.name).sttr_nested, f.nested) << f.name;
    }

    EXPECT_EQ(tbl::ovrin_smd_resp_event.sttr_size, 18u);
    EXPECT_EQ(tbl::ovrin_smd_resp_event.tracked_size(), 210u);
    EXPECT_EQ(field(tbl::ovrin_smd_resp_event, "rcl_conn_hdl").sttr_pos, 0u);
    EXPECT_EQ(field(tbl::ovrin_smd_resp_event, "rcl_conn_hdl").sttr_nested, 1u);
    EXPECT_EQ(field(tbl::ovrin_smd_resp_event, "resp_type").sttr_pos, 2u);
    EXPECT_EQ(field(tbl::ovrin_smd_resp_event, "resp_type").sttr_nested, ovrin::no_area);
    EXPECT_EQ(field(tbl::ovrin_smd_resp_event, "session_type").sttr_pos, 3u);
    uint16_t next = 4;
    for (uint16_t i = 3; i < tbl::ovrin_smd_resp_event.n_fields; ++i) {
        const Field &m = tbl::ovrin_smd_resp_event.fields[i];
        EXPECT_EQ(m.shape, Shape::member) << m.name;
        EXPECT_EQ(m.sttr_pos, next++) << m.name;
    }
    EXPECT_EQ(next, 18u);
}

// Marks the bytes of t's area, placed at base, in used; fails on overlaps and misplacements.
void mark_area(const Type &t, size_t base, std::vector<int> &used) {
    auto mark = [&](size_t pos, size_t n, const std::string &what) {
        for (size_t i = pos; i < pos + n; ++i) {
            ASSERT_LT(i, used.size()) << what;
            EXPECT_EQ(used[i]++, 0) << what << " overlaps at byte " << i;
        }
    };
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        std::string what = std::string(t.name) + "." + f.name;
        mark(base + f.sttr_pos, 1, what);
        if (f.sttr_nested == ovrin::no_area) continue;
        EXPECT_GT(f.sttr_nested, f.sttr_pos) << what;
        if (f.kind == ovrin::Kind::aaa_tlv) {
            EXPECT_EQ((base + f.sttr_nested) % 8, 0u) << what;
            mark(base + f.sttr_nested, ovrin::aaa_tlv_area_size, what);
        } else if (f.shape == Shape::var_array) {
            EXPECT_EQ((base + f.sttr_nested) % 8, 0u) << what;
            mark(base + f.sttr_nested, 8, what);
        } else if (f.shape == Shape::fixed_array) {
            mark(base + f.sttr_nested, f.count, what);
        } else {
            ASSERT_NE(f.type, nullptr) << what;
            EXPECT_EQ((base + f.sttr_nested) % f.type->sttr_align, 0u) << what;
            mark_area(*f.type, base + f.sttr_nested, used);
        }
    }
}

// Every type's area holds each field's byte and every nested area exactly once, inside the area,
// with address-holding areas 8-aligned; the tracked size adds the area to the instance size.
TEST(StateFlags, EveryAreaIsAFlattenedTreeWithoutOverlaps) {
    for (const Type *t : ovrin::table::all) {
        SCOPED_TRACE(t->name);
        if (t->kind == ovrin::TypeKind::enumeration) continue;
        std::vector<int> used(t->sttr_size, 0);
        mark_area(*t, 0, used);
        EXPECT_EQ(t->sttr_size % t->sttr_align, 0u);
        EXPECT_EQ(t->fields[0].sttr_pos, 0u);
    }
}

// The bytes the runtime reads, at their offsets.
TEST(Descriptor, BytesAtTheirOffsets) {
    const auto *d = &_sess_mgr_session_start_type_info_internal;
    const auto *b = reinterpret_cast<const uint8_t *>(d);
    EXPECT_EQ(b[0], 0x0D);
    EXPECT_EQ(b[1], 0xF0);
    EXPECT_EQ(b[2], 0xEF);
    EXPECT_EQ(b[3], 0xBE);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(b + 20)), hex(b + 4, 16));
    EXPECT_EQ(b[52], 0);
    auto padded = [&](size_t offset, const char *text) {
        size_t n = std::strlen(text);
        EXPECT_EQ(std::memcmp(b + offset, text, n), 0) << text;
        for (size_t i = offset + n; i < offset + 64; ++i) EXPECT_EQ(b[i], 0) << text << " padding at " << i;
    };
    padded(53, "sess_mgr_session_start");
    padded(117, "ovrin_sm");
    padded(181, "type");
    for (size_t i : {245, 246, 247, 252, 253, 254, 255, 264, 265, 266, 267, 268, 269, 270, 271}) EXPECT_EQ(b[i], 0) << i;
    for (size_t i = 248; i < 252; ++i) EXPECT_EQ(b[i], 0xFF);
    const mgx_type_variant_info_t *info;
    std::memcpy(&info, b + 256, sizeof info);
    ASSERT_EQ(info, d->variant_info);
    const auto *vb = reinterpret_cast<const uint8_t *>(info);
    EXPECT_EQ(vb[0], 2);
    for (size_t i = 1; i < 8; ++i) EXPECT_EQ(vb[i], 0);
    const auto *e1 = reinterpret_cast<const uint8_t *>(&info->entries[1]);
    uint32_t words[4];
    std::memcpy(words, e1, sizeof words);
    EXPECT_EQ(words[0], 1u);
    EXPECT_EQ(words[1], 184u);
    EXPECT_EQ(words[2], 16u);
    EXPECT_EQ(words[3], 0u);
}

// Every descriptor: its identity, its fingerprint text agreeing with its bytes, and a
// fingerprint of its own.
TEST(Descriptor, EveryDescriptorIsWellFormedAndDistinct) {
    std::set<std::string> fingerprints;
    for (size_t i = 0; i < ovrin::table::type_count; ++i) {
        const mgx_type_info_t *d = descriptor_at(i);
        SCOPED_TRACE(d->type_name);
        EXPECT_EQ(d->magic, MGX_TYPE_INFO_MAGIC);
        EXPECT_EQ(std::string(d->fingerprint_text, 33), hex(d->fingerprint, 16) + '\0');
        EXPECT_STREQ(d->domain_name, "ovrin_sm");
        EXPECT_EQ(d->registry_slot, -1);
        EXPECT_EQ(d->registry_mode, 0u);
        EXPECT_TRUE(fingerprints.insert(d->fingerprint_text).second) << "shared fingerprint";
    }
    // the first three and last two of the registration order
    EXPECT_STREQ(descriptor_at(0)->type_name, "sess_mgr_conn_hdl");
    EXPECT_STREQ(descriptor_at(1)->type_name, "sess_mgr_client_name");
    EXPECT_STREQ(descriptor_at(2)->type_name, "sess_mgr_method_name");
    EXPECT_STREQ(descriptor_at(77)->type_name, "ovrin_feature_type");
    EXPECT_STREQ(descriptor_at(78)->type_name, "ovrin_epm_policy_source");
}

} // namespace
