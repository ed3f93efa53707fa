// No C++ exception leaves the libraries. Every C++ allocation that a whole message cycle makes on
// a new handle (the runtime's registry, block table, recorders and text building included) is
// made to fail in turn, for every type, untracked, tracked, and with per-handle descriptors and
// every recorder on. Each failing run must end in error codes, not an exception, and leave
// nothing allocated in the handle and nothing counted in the types' statistics.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "tests/sm_heap.h"
#include "tests/sm_type_ops.h"

namespace {

enum class Mode { untracked, tracked, registry_and_recorders };

using print_fn = uint32_t (*)(mgx_handle_t *, uint32_t, char *, uint32_t, const char *, const void *, uint32_t, uint32_t *);

// What one cycle needs of the C++ heap is allocated before a failure is armed.
struct Room {
    std::vector<uint8_t> wire = std::vector<uint8_t>(1 << 16);
    std::vector<uint8_t> work = std::vector<uint8_t>(1 << 16);
    std::vector<char> text = std::vector<char>(1 << 16);
    char msg[256] = {};
};

struct Outcome {
    bool escaped = false; // an exception reached the caller
    uint32_t error = 0;   // the first error an operation reported
    uint64_t live = 0;    // handle blocks and bookkeeping entries left after every instance was destroyed
    bool differs = false; // the cycle completed, but a copy did not compare equal
    int64_t counted = 0;  // creations less destructions in the statistics of every type, after it
};

// Creations less destructions over every type and variant of the bundle.
int64_t counted_instances() {
    int64_t n = 0;
    for (const typeops::Ops &o : typeops::all()) {
        auto *d = static_cast<const mgx_type_info_t *>(o.type->descriptor);
        for (int v = 0; v < d->variant_info->n_variants; ++v)
            n += static_cast<int64_t>(mgx_stats_created(d, v) - mgx_stats_destroyed(d, v));
    }
    return n;
}

// One cycle on a new handle: decode bytes into a new instance, measure and encode it, clone and
// compare, render to XML and print, read the XML back into another new instance and compare,
// then destroy everything. Each step runs only while nothing has failed.
Outcome cycle(const typeops::Ops &o, print_fn print, Mode setup, const std::vector<uint8_t> &bytes, Room &room) noexcept {
    Outcome out;
    const int64_t counted = counted_instances();
    try {
        mgx_handle_t *h = mgx_handle_create();
        if (!h) return out.error = MGX_ENOMEM, out;
        if (setup == Mode::tracked) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
        if (setup == Mode::registry_and_recorders) {
            mgx_handle_set_domain_mode(h, 1);
            mgx_handle_set_recorders(h, MGX_RECORD_ALL);
        }
        uint32_t err = 0;
        void *x = o.create(h, 1), *copy = nullptr, *back = nullptr;
        auto made = [&](void *p) {
            if (!p && !err) err = mgx_handle_last_error(h) ? mgx_handle_last_error(h) : MGX_ENOMEM;
            return p;
        };
        if (made(x)) o.adjust_variant(h, 1, x, &err);
        if (!err) o.unmarshal(h, 1, bytes.data(), x, static_cast<int32_t>(bytes.size()), 0, &err);
        uint32_t n = err ? 0 : o.is_enum() ? 5 : o.len(h, 1, x);
        if (!err) o.marshal(h, 1, room.wire.data(), x, static_cast<int32_t>(n), &err);
        if (!err && o.clone) {
            o.clone(h, 1, x, &copy, room.work.data(), static_cast<uint32_t>(room.work.size()), &err);
            if (!err) out.differs |= !copy || o.compare(copy, x) != 0;
        }
        uint32_t length = err ? 0 : o.to_xml(h, 1, o.name, room.text.data(), x, 1 << 16, 0, &err);
        void *doc = err ? nullptr : mgx_xml_document_parse(room.text.data(), length);
        if (doc && made(back = o.create(h, 1))) {
            o.from_xml(h, 1, o.name, doc, back, &err, room.msg, sizeof room.msg);
            if (!err) out.differs |= o.compare(back, x) != 0;
        }
        if (doc) mgx_xml_document_free(doc);
        if (!err) print(h, 1, room.text.data(), 0, o.name, x, 1 << 16, &err);
        out.error = err;
        for (void *p : {x, copy, back})
            if (p) o.destroy(h, 1, p);
        out.live = mgx_handle_live_allocations(h) + mgx_handle_bookkeeping(h);
        mgx_handle_destroy(h);
        out.counted = counted_instances() - counted;
    } catch (...) {
        out.escaped = true;
    }
    return out;
}

TEST(Exceptions, NoneLeavesTheLibrariesWhenTheirOwnAllocationsFail) {
    Room room;
    size_t runs = 0, refused = 0;
    for (const typeops::Ops &o : typeops::all()) {
        auto print = reinterpret_cast<print_fn>(testfill::op(*o.type, "print"));
        for (Mode setup : {Mode::untracked, Mode::tracked, Mode::registry_and_recorders}) {
            // The message every run decodes, from a handle of the same tracking.
            mgx_handle_t *source = mgx_handle_create();
            if (setup == Mode::tracked) mgx_handle_set_state_tracking(source, 1, MGX_STTR_TRACKED);
            void *filled = typeops::make_filled(o, source, 5, o.arms() - 1);
            uint32_t err = 0;
            std::vector<uint8_t> bytes = typeops::encode(o, source, filled, &err);
            o.destroy(source, 1, filled);
            mgx_handle_destroy(source);
            ASSERT_EQ(err, 0u) << o.name;

            const uint64_t before = heap::allocations();
            Outcome clean = cycle(o, print, setup, bytes, room);
            const uint64_t needed = heap::allocations() - before;
            ASSERT_FALSE(clean.escaped || clean.error || clean.live || clean.differs || clean.counted) << o.name;
            for (uint64_t nth = 1; nth <= needed; ++nth) {
                heap::fail_at(nth);
                Outcome failed = cycle(o, print, setup, bytes, room);
                bool fired = heap::fired();
                heap::fail_at(0);
                SCOPED_TRACE(std::string(o.name) + ", setup " + std::to_string(static_cast<int>(setup)) + ", allocation " +
                             std::to_string(nth) + " of " + std::to_string(needed));
                ASSERT_FALSE(failed.escaped);
                ASSERT_EQ(failed.live, 0u);
                ASSERT_EQ(failed.counted, 0);
                // A failure either surfaced as an error code, or was absorbed (a recorder that
                // dropped a record): then the cycle's results are as without it.
                ASSERT_FALSE(!failed.error && failed.differs);
                ++runs;
                refused += fired && failed.error != 0;
            }
        }
    }
    RecordProperty("runs", static_cast<int>(runs));
    EXPECT_GT(refused, 0u); // the sweep did reach allocations whose failure is reported
}

} // namespace
