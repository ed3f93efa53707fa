// Benchmarks of the ovrin_sm operations on four realistic messages, beside the same messages as
// protocol buffers (when the build found them) and memcpy of the encoded bytes as the floor.
//
//   ours/<message>/<op>   len marshal unmarshal_new unmarshal_reuse clone compare hash to_xml
//                         from_xml to_json from_json print build
//   pb/<message>/<op>     byte_size serialize parse_new parse_reuse parse_arena copy equals
//                         to_json from_json debug_string build
//   memcpy/<message>      a copy of the ovrin_sm encoding
//   cxx/<message>/<op>    marshal unmarshal_reuse through the C++ interface (encode_to, decode_from),
//                         and build (medium) and set_value (large): beside the ours/ rows of the
//                         same work, to show the interface costs nothing over the C calls
//
// Counters: bytes (encoded message), text_bytes (the JSON rows: the text written or read), rt_allocs (blocks from the runtime's instance allocator per
// operation), heap_allocs (global operator new per operation; the comparator allocates this way,
// and so does the reference runtime's own bookkeeping). After the run a summary with the ratios
// ours/comparator is printed (see docs/performance.md).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench/alloc_count.h"
#include "bench/ours.h"
#include "bench/summary.h"
#include "mgx/runtime.h"
#include "ovrin_sm/ovrin_sm.hpp"

#ifdef OVRIN_BENCH_PROTOBUF
#include <google/protobuf/arena.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/message_differencer.h>

#include "bench/comparator.h"
#endif

namespace {

using namespace bench;

constexpr size_t kTextSize = 1u << 20;

// Allocations over a benchmark's timed loop, reported per operation.
class AllocationCount {
public:
    explicit AllocationCount(mgx_handle_t *h = nullptr)
        : h_(h), rt_(h ? mgx_handle_total_allocations(h) : 0), heap_(heap_allocations()) {}
    void report(benchmark::State &state) const {
        // Read the heap count first: reading the runtime's count allocates nothing, but be exact.
        double heap = static_cast<double>(heap_allocations() - heap_);
        double rt = h_ ? static_cast<double>(mgx_handle_total_allocations(h_) - rt_) : 0;
        state.counters["heap_allocs"] = benchmark::Counter(heap, benchmark::Counter::kAvgIterations);
        state.counters["rt_allocs"] = benchmark::Counter(rt, benchmark::Counter::kAvgIterations);
    }

private:
    mgx_handle_t *h_;
    uint64_t rt_, heap_;
};

// A handle (journal off, as an application runs) holding one built message and its encoding.
// Ends by checking that the benchmark left nothing allocated in the handle.
template <class T> class Ours {
public:
    template <class C> Ours(const Ops<T> &ops, const C &content) : ops(ops), h(mgx_handle_create()) {
        msg = build(h, content);
        if (!msg) return;
        wire.resize(ops.len(h, kLuid, msg));
        uint32_t err = 0;
        wire.resize(ops.marshal(h, kLuid, wire.data(), msg, static_cast<int32_t>(wire.size()), &err));
        if (err) wire.clear();
    }
    ~Ours() {
        if (msg) ops.destroy(h, kLuid, msg);
        mgx_handle_destroy(h);
    }
    // A fresh instance as a receiver makes it: created, then brought to the handle's variants.
    T *fresh() {
        T *t = ops.create(h, kLuid);
        uint32_t err = 0;
        ops.adjust_variant(h, kLuid, t, &err);
        return t;
    }
    bool ok(benchmark::State &state) {
        if (msg && !wire.empty()) return true;
        state.SkipWithError("cannot build or encode the message");
        return false;
    }
    void finish(benchmark::State &state, const AllocationCount &count) {
        count.report(state);
        state.counters["bytes"] = static_cast<double>(wire.size());
        state.SetItemsProcessed(state.iterations());
        if (msg) ops.destroy(h, kLuid, msg);
        msg = nullptr;
        if (mgx_handle_live_allocations(h) != 0) state.SkipWithError("the benchmark leaked instance allocations");
    }

    const Ops<T> &ops;
    mgx_handle_t *h;
    T *msg = nullptr;
    std::vector<uint8_t> wire;
};

using Body = std::function<void(benchmark::State &)>;

// OVRIN_BENCH_ITERATIONS=N runs every benchmark exactly N times: for instruction counts under
// callgrind, where two runs with different N give the cost of one operation by difference.
void add(const std::string &name, Body body) {
    auto *b = benchmark::RegisterBenchmark(name.c_str(), [body](benchmark::State &state) { body(state); });
    b->Unit(benchmark::kNanosecond);
    if (const char *n = std::getenv("OVRIN_BENCH_ITERATIONS")) b->Iterations(std::strtoll(n, nullptr, 10));
}

template <class T, class C> void register_ours(const std::string &label, const Ops<T> &ops, const C &content) {
    const std::string base = "ours/" + label + "/";
    auto run = [&ops, &content](auto loop) {
        return [&ops, &content, loop](benchmark::State &state) {
            Ours<T> m(ops, content);
            if (!m.ok(state)) return;
            loop(state, m);
        };
    };
    add(base + "len", run([](benchmark::State &state, Ours<T> &m) {
            AllocationCount count(m.h);
            for (auto _ : state) benchmark::DoNotOptimize(m.ops.len(m.h, kLuid, m.msg));
            m.finish(state, count);
        }));
    add(base + "marshal", run([](benchmark::State &state, Ours<T> &m) {
            std::vector<uint8_t> out(m.wire.size());
            auto space = static_cast<int32_t>(out.size());
            AllocationCount count(m.h);
            for (auto _ : state) {
                uint32_t err = 0;
                benchmark::DoNotOptimize(m.ops.marshal(m.h, kLuid, out.data(), m.msg, space, &err));
                benchmark::ClobberMemory();
            }
            m.finish(state, count);
            if (out != m.wire) state.SkipWithError("the encoding changed between runs");
        }));
    add(base + "unmarshal_new", run([](benchmark::State &state, Ours<T> &m) {
            auto length = static_cast<int32_t>(m.wire.size());
            AllocationCount count(m.h);
            for (auto _ : state) {
                T *t = m.fresh();
                uint32_t err = 0;
                benchmark::DoNotOptimize(m.ops.unmarshal(m.h, kLuid, m.wire.data(), t, length, 0, &err));
                m.ops.destroy(m.h, kLuid, t);
            }
            m.finish(state, count);
        }));
    add(base + "unmarshal_reuse", run([](benchmark::State &state, Ours<T> &m) {
            auto length = static_cast<int32_t>(m.wire.size());
            T *t = m.fresh();
            uint32_t err = 0;
            m.ops.unmarshal(m.h, kLuid, m.wire.data(), t, length, 0, &err);
            AllocationCount count(m.h);
            for (auto _ : state) {
                err = 0;
                benchmark::DoNotOptimize(m.ops.unmarshal(m.h, kLuid, m.wire.data(), t, length, 1, &err));
            }
            if (err || m.ops.compare(t, m.msg) != 0) state.SkipWithError("the reused instance differs");
            m.ops.destroy(m.h, kLuid, t);
            m.finish(state, count);
        }));
    add(base + "clone", run([](benchmark::State &state, Ours<T> &m) {
            std::vector<uint8_t> work(m.wire.size() + 64);
            AllocationCount count(m.h);
            for (auto _ : state) {
                T *copy = nullptr;
                uint32_t err = 0;
                m.ops.clone(m.h, kLuid, m.msg, &copy, work.data(), static_cast<uint32_t>(work.size()), &err);
                benchmark::DoNotOptimize(copy);
                if (copy) m.ops.destroy(m.h, kLuid, copy);
            }
            m.finish(state, count);
        }));
    add(base + "compare", run([](benchmark::State &state, Ours<T> &m) {
            T *other = m.fresh();
            uint32_t err = 0;
            m.ops.unmarshal(m.h, kLuid, m.wire.data(), other, static_cast<int32_t>(m.wire.size()), 0, &err);
            AllocationCount count(m.h);
            for (auto _ : state) benchmark::DoNotOptimize(m.ops.compare(m.msg, other));
            m.ops.destroy(m.h, kLuid, other);
            m.finish(state, count);
        }));
    add(base + "hash", run([](benchmark::State &state, Ours<T> &m) {
            AllocationCount count(m.h);
            for (auto _ : state) benchmark::DoNotOptimize(m.ops.hash(m.msg, 0x5eed));
            m.finish(state, count);
        }));
    add(base + "to_xml", run([](benchmark::State &state, Ours<T> &m) {
            std::vector<char> text(kTextSize);
            AllocationCount count(m.h);
            for (auto _ : state) {
                uint32_t err = 0;
                benchmark::DoNotOptimize(m.ops.to_xml(m.h, kLuid, m.ops.name, text.data(), m.msg, kTextSize, 0, &err));
            }
            m.finish(state, count);
        }));
    add(base + "from_xml", run([](benchmark::State &state, Ours<T> &m) {
            std::vector<char> text(kTextSize);
            uint32_t err = 0;
            uint32_t n = m.ops.to_xml(m.h, kLuid, m.ops.name, text.data(), m.msg, kTextSize, 0, &err);
            AllocationCount count(m.h);
            for (auto _ : state) {
                void *doc = mgx_xml_document_parse(text.data(), n);
                T *t = m.fresh();
                err = 0;
                m.ops.from_xml(m.h, kLuid, m.ops.name, doc, t, &err, nullptr, 0);
                benchmark::DoNotOptimize(t);
                m.ops.destroy(m.h, kLuid, t);
                mgx_xml_document_free(doc);
            }
            m.finish(state, count);
        }));
    // The JSON form as the comparator's rows make theirs: a new text each time (the block from
    // malloc, freed after), and a new instance read from the text and destroyed.
    add(base + "to_json", run([](benchmark::State &state, Ours<T> &m) {
            int64_t n = 0;
            AllocationCount count(m.h);
            for (auto _ : state) {
                char *text = nullptr;
                size_t size = 0;
                n = m.ops.to_json(m.h, m.msg, 0, &text, &size);
                benchmark::DoNotOptimize(text);
                std::free(text);
            }
            state.counters["text_bytes"] = static_cast<double>(n);
            m.finish(state, count);
            if (n < 0) state.SkipWithError("to_json failed");
        }));
    add(base + "from_json", run([](benchmark::State &state, Ours<T> &m) {
            char *text = nullptr;
            size_t size = 0;
            int64_t n = m.ops.to_json(m.h, m.msg, 0, &text, &size);
            std::string json = n >= 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
            std::free(text);
            if (n < 0) {
                state.SkipWithError("to_json failed");
                return;
            }
            uint32_t err = 0;
            AllocationCount count(m.h);
            for (auto _ : state) {
                T *t = m.fresh();
                err |= m.ops.from_json(m.h, kLuid, json.data(), json.size(), t, 0, nullptr);
                benchmark::DoNotOptimize(t);
                m.ops.destroy(m.h, kLuid, t);
            }
            state.counters["text_bytes"] = static_cast<double>(json.size());
            m.finish(state, count);
            if (err) state.SkipWithError("from_json failed");
        }));
    add(base + "print", run([](benchmark::State &state, Ours<T> &m) {
            std::vector<char> text(kTextSize);
            AllocationCount count(m.h);
            for (auto _ : state) {
                uint32_t err = 0;
                benchmark::DoNotOptimize(m.ops.print(m.h, kLuid, text.data(), 0, m.ops.name, m.msg, kTextSize, &err));
            }
            m.finish(state, count);
        }));
    add(base + "build", run([&content](benchmark::State &state, Ours<T> &m) {
            AllocationCount count(m.h);
            for (auto _ : state) {
                T *t = build(m.h, content);
                benchmark::DoNotOptimize(t);
                m.ops.destroy(m.h, kLuid, t);
            }
            m.finish(state, count);
        }));
    // The same two through the C++ interface, on the same instance.
    add("cxx/" + label + "/marshal", run([](benchmark::State &state, Ours<T> &m) {
            std::vector<uint8_t> out(m.wire.size());
            const ovrin::view_base<T> view(m.h, kLuid, m.msg);
            AllocationCount count(m.h);
            for (auto _ : state) {
                std::error_code ec;
                benchmark::DoNotOptimize(view.encode_to(out, ec));
                benchmark::ClobberMemory();
            }
            m.finish(state, count);
            if (out != m.wire) state.SkipWithError("the encoding differs");
        }));
    add("cxx/" + label + "/unmarshal_reuse", run([](benchmark::State &state, Ours<T> &m) {
            ovrin::view_base<T> view(m.h, kLuid, m.fresh());
            std::error_code ec;
            view.decode_from(m.wire, ec);
            AllocationCount count(m.h);
            for (auto _ : state) benchmark::DoNotOptimize(view.decode_from(m.wire, ec));
            if (ec || m.ops.compare(view.get(), m.msg) != 0) state.SkipWithError("the reused instance differs");
            m.ops.destroy(m.h, kLuid, view.get());
            m.finish(state, count);
        }));
    // The floor: the encoded bytes copied as they are.
    add("memcpy/" + label, run([](benchmark::State &state, Ours<T> &m) {
            std::vector<uint8_t> out(m.wire.size());
            AllocationCount count(m.h);
            for (auto _ : state) {
                std::memcpy(out.data(), m.wire.data(), m.wire.size());
                benchmark::ClobberMemory();
            }
            m.finish(state, count);
        }));
}

#ifdef OVRIN_BENCH_PROTOBUF

// The comparator's message, filled from the same content, and its encoding.
template <class P> struct Theirs {
    template <class C> explicit Theirs(const C &content) {
        fill(msg, content);
        wire.resize(msg.ByteSizeLong());
        msg.SerializeToArray(wire.data(), static_cast<int>(wire.size()));
    }
    void finish(benchmark::State &state, const AllocationCount &count) const {
        count.report(state);
        state.counters["bytes"] = static_cast<double>(wire.size());
        state.SetItemsProcessed(state.iterations());
    }
    P msg;
    std::string wire;
};

template <class P, class C> void register_comparator(const std::string &label, const C &content) {
    const std::string base = "pb/" + label + "/";
    auto run = [&content](auto loop) {
        return [&content, loop](benchmark::State &state) {
            Theirs<P> m(content);
            loop(state, m);
        };
    };
    add(base + "byte_size", run([](benchmark::State &state, Theirs<P> &m) {
            AllocationCount count;
            for (auto _ : state) benchmark::DoNotOptimize(m.msg.ByteSizeLong());
            m.finish(state, count);
        }));
    add(base + "serialize", run([](benchmark::State &state, Theirs<P> &m) {
            // SerializeToArray works out the sizes itself before it writes.
            std::string out(m.wire.size(), '\0');
            AllocationCount count;
            for (auto _ : state) {
                benchmark::DoNotOptimize(m.msg.SerializeToArray(out.data(), static_cast<int>(out.size())));
                benchmark::ClobberMemory();
            }
            m.finish(state, count);
            if (out != m.wire) state.SkipWithError("the encoding changed between runs");
        }));
    add(base + "parse_new", run([](benchmark::State &state, Theirs<P> &m) {
            AllocationCount count;
            for (auto _ : state) {
                P t;
                benchmark::DoNotOptimize(t.ParseFromArray(m.wire.data(), static_cast<int>(m.wire.size())));
            }
            m.finish(state, count);
        }));
    add(base + "parse_reuse", run([](benchmark::State &state, Theirs<P> &m) {
            P t;
            t.ParseFromArray(m.wire.data(), static_cast<int>(m.wire.size()));
            AllocationCount count;
            for (auto _ : state) benchmark::DoNotOptimize(t.ParseFromArray(m.wire.data(), static_cast<int>(m.wire.size())));
            m.finish(state, count);
            if (!google::protobuf::util::MessageDifferencer::Equals(t, m.msg)) state.SkipWithError("the reused message differs");
        }));
    add(base + "parse_arena", run([](benchmark::State &state, Theirs<P> &m) {
            // An arena that starts in a block of its own keeps it across resets: no allocation.
            static thread_local std::vector<char> block(1u << 20);
            google::protobuf::ArenaOptions options;
            options.initial_block = block.data();
            options.initial_block_size = block.size();
            google::protobuf::Arena arena(options);
            AllocationCount count;
            for (auto _ : state) {
                P *t = google::protobuf::Arena::CreateMessage<P>(&arena);
                benchmark::DoNotOptimize(t->ParseFromArray(m.wire.data(), static_cast<int>(m.wire.size())));
                arena.Reset();
            }
            m.finish(state, count);
        }));
    add(base + "copy", run([](benchmark::State &state, Theirs<P> &m) {
            AllocationCount count;
            for (auto _ : state) {
                P copy(m.msg);
                benchmark::DoNotOptimize(copy);
            }
            m.finish(state, count);
        }));
    add(base + "equals", run([](benchmark::State &state, Theirs<P> &m) {
            P other;
            other.ParseFromArray(m.wire.data(), static_cast<int>(m.wire.size()));
            AllocationCount count;
            for (auto _ : state) benchmark::DoNotOptimize(google::protobuf::util::MessageDifferencer::Equals(m.msg, other));
            m.finish(state, count);
        }));
    add(base + "to_json", run([](benchmark::State &state, Theirs<P> &m) {
            size_t n = 0;
            AllocationCount count;
            for (auto _ : state) {
                std::string out;
                benchmark::DoNotOptimize(google::protobuf::util::MessageToJsonString(m.msg, &out));
                n = out.size();
            }
            state.counters["text_bytes"] = static_cast<double>(n);
            m.finish(state, count);
        }));
    add(base + "from_json", run([](benchmark::State &state, Theirs<P> &m) {
            std::string json;
            (void)google::protobuf::util::MessageToJsonString(m.msg, &json);
            bool ok = true;
            AllocationCount count;
            for (auto _ : state) {
                P t;
                ok &= google::protobuf::util::JsonStringToMessage(json, &t).ok();
                benchmark::DoNotOptimize(t);
            }
            state.counters["text_bytes"] = static_cast<double>(json.size());
            m.finish(state, count);
            if (!ok) state.SkipWithError("JsonStringToMessage failed");
        }));
    add(base + "debug_string", run([](benchmark::State &state, Theirs<P> &m) {
            AllocationCount count;
            for (auto _ : state) benchmark::DoNotOptimize(m.msg.DebugString());
            m.finish(state, count);
        }));
    add(base + "build", run([&content](benchmark::State &state, Theirs<P> &m) {
            AllocationCount count;
            for (auto _ : state) {
                P t;
                fill(t, content);
                benchmark::DoNotOptimize(t);
            }
            m.finish(state, count);
        }));
}

#endif

const auto kSmallOps = OVRIN_BENCH_OPS(sess_mgr_conn_hdl);
const auto kMediumOps = OVRIN_BENCH_OPS(ovrin_smd_in_event);
const auto kLargeOps = OVRIN_BENCH_OPS(ovrin_smd_resp_event);
const auto kBulkOps = OVRIN_BENCH_OPS(sess_mgr_sess_attr_query_resp);

// One setter call, the call an application makes most: the large message's policy VLAN, its
// record reached once before the loop, against the comparator's setter of the same field.
void register_setters() {
    add("ours/large/set_value", [](benchmark::State &state) {
        Ours<ovrin_smd_resp_event> m(kLargeOps, large());
        if (!m.ok(state)) return;
        uint32_t err = 0;
        ovrin_epm_bind_policy_info *p = sess_mgr_authc_result_notif_policy_result_get(
            m.h, kLuid, ovrin_smd_resp_event_authc_result_get(m.h, kLuid, m.msg, &err), &err);
        AllocationCount count(m.h);
        uint32_t v = 0;
        for (auto _ : state) {
            ovrin_epm_bind_policy_info_vlan_set_value(m.h, kLuid, p, ++v, &err);
            benchmark::ClobberMemory();
        }
        if (err) state.SkipWithError("the setter failed");
        m.finish(state, count);
    });
    add("cxx/large/set_value", [](benchmark::State &state) {
        Ours<ovrin_smd_resp_event> m(kLargeOps, large());
        if (!m.ok(state)) return;
        auto event = ovrin::sm::ovrin_smd_resp_event_ref(m.h, kLuid, m.msg);
        auto policy = event.authc_result().policy_result();
        AllocationCount count(m.h);
        uint32_t v = 0;
        for (auto _ : state) {
            policy.set_vlan(++v);
            benchmark::ClobberMemory();
        }
        m.finish(state, count);
    });
    add("cxx/medium/build", [](benchmark::State &state) {
        Ours<ovrin_smd_in_event> m(kMediumOps, medium());
        if (!m.ok(state)) return;
        ovrin_smd_in_event *t = build_cxx(m.h, medium());
        if (!t || m.ops.compare(t, m.msg) != 0) state.SkipWithError("the C++ builder makes another message");
        if (t) m.ops.destroy(m.h, kLuid, t);
        AllocationCount count(m.h);
        for (auto _ : state) {
            t = build_cxx(m.h, medium());
            benchmark::DoNotOptimize(t);
            m.ops.destroy(m.h, kLuid, t);
        }
        m.finish(state, count);
    });
#ifdef OVRIN_BENCH_PROTOBUF
    add("pb/large/set_value", [](benchmark::State &state) {
        Theirs<ovrin_bench::RespEvent> m(large());
        ovrin_bench::BindPolicyInfo *p = m.msg.mutable_authc_result()->mutable_policy_result();
        AllocationCount count;
        uint32_t v = 0;
        for (auto _ : state) {
            p->set_vlan(++v);
            benchmark::ClobberMemory();
        }
        m.finish(state, count);
    });
#endif
}

void register_all() {
    register_ours("small", kSmallOps, small());
    register_ours("medium", kMediumOps, medium());
    register_ours("large", kLargeOps, large());
    register_setters();
    register_ours("bulk1", kBulkOps, bulk(1));
    register_ours("bulk64", kBulkOps, bulk(64));
#ifdef OVRIN_BENCH_PROTOBUF
    register_comparator<ovrin_bench::ConnHdl>("small", small());
    register_comparator<ovrin_bench::InEvent>("medium", medium());
    register_comparator<ovrin_bench::RespEvent>("large", large());
    register_comparator<ovrin_bench::SessAttrQueryResp>("bulk1", bulk(1));
    register_comparator<ovrin_bench::SessAttrQueryResp>("bulk64", bulk(64));
#endif
}

// The output format asked for with --benchmark_format (the last one given wins, as for the library).
std::string output_format(int argc, char **argv) {
    std::string format = "console";
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "--benchmark_format=", 19) == 0) format = argv[i] + 19;
    return format;
}

// A reporter of the library's that also notes a benchmark that failed.
template <class Base> class Noting : public Base {
public:
    void ReportRuns(const std::vector<benchmark::BenchmarkReporter::Run> &runs) override {
        Base::ReportRuns(runs);
        for (const auto &run : runs) failed_ |= run.error_occurred;
    }
    bool failed() const { return failed_; }

private:
    bool failed_ = false;
};

} // namespace

int main(int argc, char **argv) {
    const std::string format = output_format(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    register_all();
    bool failed = false;
    // The summary tables follow the console table only: JSON stays whole for its readers
    // (tools/plot_bench.py reads it).
    if (format == "json") {
        Noting<benchmark::JSONReporter> reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        failed = reporter.failed();
    } else if (format != "console") {
        benchmark::RunSpecifiedBenchmarks(); // the library's own reporter for the format (CSV)
    } else {
        SummaryReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        reporter.print_summary(stdout);
        failed = reporter.failed();
    }
    benchmark::Shutdown();
    return failed ? 1 : 0;
}
