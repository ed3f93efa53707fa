// Several threads, each with its own handle, working the whole catalogue at once: the bundle's
// only process-wide state (the trace registration, descriptor statistics, the once-per-process
// reallocation trace) is shared between them. Meant to run under ThreadSanitizer; each test runs
// in a process of its own under CTest, so the first use of the bundle happens here.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/sm_type_ops.h"

namespace {

using Bytes = std::vector<uint8_t>;
using typeops::Ops;

constexpr int thread_count = 4;

// Spins until every thread has arrived, so that the threads' first calls collide.
struct StartLine {
    std::atomic<int> waiting{thread_count};
    void arrive() {
        waiting.fetch_sub(1);
        while (waiting.load() > 0) std::this_thread::yield();
    }
};

// Every type, every union member: fill, encode, decode into a fresh instance, clone that and
// check the clone against it, destroy. Returns the number of steps that went wrong.
int round_trips(mgx_handle_t *h, unsigned seed) {
    int bad = 0;
    for (const Ops &o : typeops::all()) {
        for (unsigned a = 0; a < o.arms(); ++a) {
            void *source = typeops::make_filled(o, h, seed, a);
            uint32_t err = 0;
            Bytes wire = typeops::encode(o, h, source, &err);
            void *copy = typeops::make(o, h);
            uint32_t used = o.unmarshal(h, 1, wire.data(), copy, static_cast<int32_t>(wire.size()), 0, &err);
            bad += err != 0 || used != wire.size();
            if (o.clone) {
                void *cloned = nullptr;
                Bytes work(wire.size() + 8);
                o.clone(h, 1, copy, &cloned, work.data(), static_cast<uint32_t>(work.size()), &err);
                bad += err != 0 || !cloned;
                if (cloned) {
                    uint32_t e1 = 0, e2 = 0;
                    bad += typeops::encode(o, h, cloned, &e1) != typeops::encode(o, h, copy, &e2) || e1 || e2;
                    if (o.compare) bad += o.compare(copy, cloned) != 0;
                    o.destroy(h, 1, cloned);
                }
            }
            o.destroy(h, 1, copy);
            o.destroy(h, 1, source);
        }
    }
    return bad;
}

// Grows every variable array of every record past the two elements it was filled with, which
// moves the block: the first such move of each type in the process is traced, once.
std::vector<std::string> grow_arrays(mgx_handle_t *h) {
    using array_set_fn = void (*)(mgx_handle_t *, uint32_t, void *, uint32_t, void *, uint32_t *);
    std::vector<std::string> grown;
    for (const Ops &o : typeops::all()) {
        if (o.is_enum()) continue;
        for (uint16_t i = 0; i < o.type->n_fields; ++i) {
            const ovrin::Field &f = o.type->fields[i];
            if (f.shape != ovrin::Shape::var_array) continue;
            auto set = reinterpret_cast<array_set_fn>(dlsym(RTLD_DEFAULT, (std::string(o.name) + "_" + f.name + "_set").c_str()));
            if (!set) continue;
            void *instance = typeops::make_filled(o, h, 1);
            const Ops &element_ops = typeops::of(f.type->name);
            void *element = typeops::make_filled(element_ops, h, 2);
            uint32_t err = 0;
            set(h, 1, instance, 4, element, &err);
            if (err == 0) grown.push_back(o.name);
            element_ops.destroy(h, 1, element);
            o.destroy(h, 1, instance);
        }
    }
    return grown;
}

TEST(Concurrency, ThreadsWithTheirOwnHandlesShareNothingButTheBundle) {
    mgx_trace_clear();
    StartLine start;
    std::vector<int> bad(thread_count, 0);
    std::vector<uint64_t> leaked(thread_count, 0);
    std::vector<std::vector<std::string>> grown(thread_count);
    std::vector<std::thread> threads;
    for (int i = 0; i < thread_count; ++i) {
        threads.emplace_back([&, i] {
            mgx_handle_t *h = mgx_handle_create();
            if (i & 1) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
            if (i & 2) mgx_handle_set_domain_mode(h, 2); // instances point at this handle's registered copies
            start.arrive();
            // The first calls into the bundle in the process: trace registration on first use.
            sess_mgr_conn_hdl *c = sess_mgr_conn_hdl_create(h, 1);
            sess_mgr_conn_hdl_destroy(h, 1, c);
            for (unsigned round = 0; round < 2; ++round) bad[i] += round_trips(h, static_cast<unsigned>(i) * 7 + round);
            grown[i] = grow_arrays(h);
            leaked[i] = mgx_handle_live_allocations(h);
            mgx_handle_destroy(h);
        });
    }
    for (std::thread &t : threads) t.join();
    for (int i = 0; i < thread_count; ++i) {
        EXPECT_EQ(bad[i], 0) << "thread " << i;
        EXPECT_EQ(leaked[i], 0u) << "thread " << i;
        EXPECT_EQ(grown[i], grown[0]) << "thread " << i;
    }

    // One module registration for all; a reallocation is traced at most once however many
    // threads grow arrays of the same type at the same time (none when an earlier test of this
    // process already grew them).
    EXPECT_NE(g_mgx_ovrin_sm_trace_module_id, 0);
    for (const std::string &name : grown[0]) {
        std::string text = "Reallocating resource for " + name;
        int seen = 0;
        for (size_t k = 0; k < mgx_trace_count(); ++k) seen += text == mgx_trace_text(k);
        EXPECT_LE(seen, 1) << text;
    }
    for (size_t k = 0; k < mgx_trace_count(); ++k)
        ASSERT_EQ(mgx_trace_module(k), g_mgx_ovrin_sm_trace_module_id) << mgx_trace_text(k);
}

} // namespace
