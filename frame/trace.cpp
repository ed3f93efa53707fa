// Trace registration and emission.
#include "frame/trace.h"

#include "ovrin_sm/ops.h"
#include "ovrin_sm_internal/tables.h"

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

namespace ovrin {

void trace(BundleMessage m, uint32_t severity) {
    qlog_emit_0(&trace_table, static_cast<uint32_t>(m), g_mgx_ovrin_sm_trace_module_id, severity);
}

void trace(const Type &t, Message m, uint32_t severity) {
    qlog_emit_0(&trace_table, message_number(t, m), g_mgx_ovrin_sm_trace_module_id, severity);
}

void trace(const Type &t, Message m, uint32_t severity, const char *s) {
    qlog_emit_s(&trace_table, message_number(t, m), g_mgx_ovrin_sm_trace_module_id, severity, s);
}

void trace(const Type &t, Message m, uint32_t severity, uint32_t a, uint32_t b) {
    qlog_emit_uu(&trace_table, message_number(t, m), g_mgx_ovrin_sm_trace_module_id, severity, a, b);
}

void trace(const Type &t, Message m, uint32_t severity, const void *p, const char *s) {
    qlog_emit_ps(&trace_table, message_number(t, m), g_mgx_ovrin_sm_trace_module_id, severity, p, s);
}

void trace(const Type &t, Message m, uint32_t severity, int32_t a, int32_t b, int32_t c) {
    qlog_emit_ddd(&trace_table, message_number(t, m), g_mgx_ovrin_sm_trace_module_id, severity, a, b, c);
}

} // namespace ovrin
