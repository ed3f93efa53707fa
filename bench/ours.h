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

} // namespace bench

#endif
