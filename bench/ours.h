// The benchmark messages built as ovrin_sm instances through the typed API, as an application
// (cli/demo_cmd.cpp) builds them. Each builder returns an instance the caller destroys, or null
// when a step failed.
#ifndef OVRIN_BENCH_OURS_H
#define OVRIN_BENCH_OURS_H

#include "bench/content.h"
#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"

namespace bench {

constexpr uint32_t kLuid = 1;

sess_mgr_conn_hdl *build(mgx_handle_t *h, const Small &c);
ovrin_smd_in_event *build(mgx_handle_t *h, const Medium &c);
ovrin_smd_resp_event *build(mgx_handle_t *h, const Large &c);
sess_mgr_sess_attr_query_resp *build(mgx_handle_t *h, const Bulk &c);
// The medium message through the C++ interface (bench/ours_cxx.cpp).
ovrin_smd_in_event *build_cxx(mgx_handle_t *h, const Medium &c);

// The operations of one ovrin_sm message type that the benchmarks use.
template <class T> struct Ops {
    const char *name;
    T *(*create)(mgx_handle_t *, uint32_t);
    void (*destroy)(mgx_handle_t *, uint32_t, T *);
    uint32_t (*adjust_variant)(mgx_handle_t *, uint32_t, T *, uint32_t *);
    uint32_t (*len)(mgx_handle_t *, uint32_t, const T *);
    uint32_t (*marshal)(mgx_handle_t *, uint32_t, uint8_t *, const T *, int32_t, uint32_t *);
    uint32_t (*unmarshal)(mgx_handle_t *, uint32_t, const uint8_t *, T *, int32_t, uint32_t, uint32_t *);
    void (*clone)(mgx_handle_t *, uint32_t, const T *, T **, uint8_t *, uint32_t, uint32_t *);
    int32_t (*compare)(const T *, const T *);
    uint32_t (*hash)(const T *, uint32_t);
    uint32_t (*to_xml)(mgx_handle_t *, uint32_t, const char *, char *, const T *, uint32_t, uint8_t, uint32_t *);
    void (*from_xml)(mgx_handle_t *, uint32_t, const char *, void *, T *, uint32_t *, char *, uint32_t);
    uint32_t (*print)(mgx_handle_t *, uint32_t, char *, uint32_t, const char *, const T *, uint32_t, uint32_t *);
    int64_t (*to_json)(mgx_handle_t *, const T *, uint32_t, char **, size_t *);
    uint32_t (*from_json)(mgx_handle_t *, uint32_t, const char *, size_t, T *, uint32_t, ovrin_json_error *);
};

#define OVRIN_BENCH_OPS(t)                                                                                                       \
    ::bench::Ops<t> {                                                                                                            \
#t, t##_create, t##_destroy, t##_adjust_variant, t##_len, t##_marshal, t##_unmarshal, t##_clone, t##_compare, t##_hash,  \
            t##_to_xml, t##_from_xml, t##_print, t##_to_json, t##_from_json                                                      \
    }

} // namespace bench

#endif
