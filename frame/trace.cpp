// The bundle's trace module: registered once, its id exported beside the unused stub id.
#include "ovrin_sm/ops.h"

namespace {

uint32_t trace_registration_state = 0; // lets the trace facility register the module once

} // namespace

extern "C" {

uint16_t g_mgx_ovrin_sm_trace_module_id = 0;
uint16_t g_mgx_ovrin_sm_stub_trace_module_id = 0; // exported beside the real id; never used here

int mgx_ovrin_sm_trace_init(void) {
    return qlog_module_init_fn("mgx_ovrin_sm", &g_mgx_ovrin_sm_trace_module_id, &trace_registration_state);
}

} // extern "C"
