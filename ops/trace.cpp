// Trace emission through the bundle context of the type that traces.
#include "ops/trace.h"

namespace ovrin {

namespace {
uint16_t module_of(const Bundle &b) { return __atomic_load_n(b.trace_module, __ATOMIC_RELAXED); }
} // namespace

void trace(const Bundle &b, BundleMessage m, uint32_t severity) {
    qlog_emit_0(b.trace_table, static_cast<uint32_t>(m), module_of(b), severity);
}

void trace(const Type &t, Message m, uint32_t severity) {
    qlog_emit_0(t.bundle->trace_table, message_number(t, m), module_of(*t.bundle), severity);
}

void trace(const Type &t, Message m, uint32_t severity, const char *s) {
    qlog_emit_s(t.bundle->trace_table, message_number(t, m), module_of(*t.bundle), severity, s);
}

void trace(const Type &t, Message m, uint32_t severity, uint32_t a, uint32_t b) {
    qlog_emit_uu(t.bundle->trace_table, message_number(t, m), module_of(*t.bundle), severity, a, b);
}

void trace(const Type &t, Message m, uint32_t severity, const void *p, const char *s) {
    qlog_emit_ps(t.bundle->trace_table, message_number(t, m), module_of(*t.bundle), severity, p, s);
}

void trace(const Type &t, Message m, uint32_t severity, int32_t a, int32_t b, int32_t c) {
    qlog_emit_ddd(t.bundle->trace_table, message_number(t, m), module_of(*t.bundle), severity, a, b, c);
}

bool first_time(const Type &t) {
    return t.index < t.bundle->type_count && !__atomic_exchange_n(&t.bundle->traced_once[t.index], 1, __ATOMIC_RELAXED);
}

} // namespace ovrin
