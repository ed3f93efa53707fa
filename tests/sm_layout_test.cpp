// Layouts, state-flag areas and descriptors of the 79 types, held against the expected table
// and the byte layout the runtime reads, and the variant dump that prints them.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/sm_check.h"
// The bundle's own tables (the test program's private copy, sm_type_tables.cpp): the generator's
// layout and state-flag positions, next to the descriptors the library exports.
#include "ovrin_sm_internal/tables.h"

namespace {

using ovrin::Field, ovrin::Shape, ovrin::Type;

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

std::string hex(const uint8_t *bytes, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return s;
}

// What the variant dump prints, through capture.
std::string dumped;
int capture(const char *format, ...) {
    char line[256];
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    dumped += line;
    return n;
}

// Every descriptor in registration order: its identity, its fingerprint text agreeing with its
// bytes and a fingerprint of its own, its variants and its size, as the generator's tables have
// them and as the variant dump prints them.
TEST(Layout, EveryTypeHasTheExpectedVariantsAndSizeInRegistrationOrder) {
    ASSERT_NE(bundle_module(), nullptr);
    constexpr size_t n = sizeof expected / sizeof expected[0];
    ASSERT_EQ(n, 79u);
    ASSERT_EQ(ovrin::table::type_count, n);
    EXPECT_EQ(bundle_module()->descriptor_table[n], nullptr);
    std::set<std::string> fingerprints;
    std::string dump;
    for (size_t i = 0; i < n; ++i) {
        const ExpectedLayout &e = expected[i];
        const auto *d = static_cast<const mgx_type_info_t *>(bundle_module()->descriptor_table[i]);
        const Type &t = *ovrin::table::all[i];
        SCOPED_TRACE(e.name);
        ASSERT_NE(d, nullptr);
        EXPECT_STREQ(d->type_name, e.name);
        EXPECT_STREQ(d->kind, e.kind);
        EXPECT_EQ(t.descriptor, d);
        EXPECT_EQ(d->magic, MGX_TYPE_INFO_MAGIC);
        EXPECT_EQ(std::string(d->fingerprint_text, 33), hex(d->fingerprint, 16) + '\0');
        EXPECT_TRUE(fingerprints.insert(d->fingerprint_text).second) << "shared fingerprint";
        ASSERT_NE(d->variant_info, nullptr);
        ASSERT_EQ(d->variant_info->n_variants, e.n_variants);
        ASSERT_EQ(t.n_variants, e.n_variants);
        dump += "n_variants " + std::to_string(e.n_variants) + "\n";
        for (int v = 0; v < e.n_variants; ++v) {
            const mgx_variant_entry_t &entry = d->variant_info->entries[v];
            EXPECT_EQ(entry.index, static_cast<uint32_t>(v));
            EXPECT_EQ(entry.used_length, e.variants[v].used) << "variant " << v;
            EXPECT_EQ(entry.alloc_slop, e.variants[v].slop) << "variant " << v;
            EXPECT_TRUE(t.variants[v].used == entry.used_length && t.variants[v].slop == entry.alloc_slop);
            dump += "variant " + std::to_string(v) + " used length " + std::to_string(e.variants[v].used) + " alloc slop " +
                    std::to_string(e.variants[v].slop) + "\n";
        }
        EXPECT_EQ(t.size, e.size);
    }
    dumped.clear();
    ovrin_sm_type_variant_dump(capture);
    EXPECT_EQ(dumped, dump);
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
    EXPECT_EQ(bytes_at(b, 0, 4), (std::vector<uint8_t>{0x0D, 0xF0, 0xEF, 0xBE}));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(b + 20)), hex(b + 4, 16));
    auto padded = [&](size_t offset, const char *text) {
        size_t n = std::strlen(text);
        EXPECT_EQ(std::memcmp(b + offset, text, n), 0) << text;
        EXPECT_EQ(bytes_at(b, offset + n, 64 - n), std::vector<uint8_t>(64 - n, 0)) << text << " padding";
    };
    padded(53, "sess_mgr_session_start");
    padded(117, "ovrin_sm");
    padded(181, "type");
    EXPECT_EQ(bytes_at(b, 245, 11), (std::vector<uint8_t>{0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}));
    EXPECT_EQ(bytes_at(b, 264, 8), std::vector<uint8_t>(8, 0));
    const mgx_type_variant_info_t *info;
    std::memcpy(&info, b + 256, sizeof info);
    ASSERT_EQ(info, d->variant_info);
    EXPECT_EQ(bytes_at(info, 0, 8), (std::vector<uint8_t>{2, 0, 0, 0, 0, 0, 0, 0}));
    uint32_t words[4];
    std::memcpy(words, &info->entries[1], sizeof words);
    EXPECT_EQ(std::vector<uint32_t>(words, words + 4), (std::vector<uint32_t>{1, 184, 16, 0}));
}

} // namespace
