// The bundle's trace module: registered once, its id exported beside the unused stub id.
#include "bundle_frame.h"

namespace {

uint32_t trace_registration_state = 0; // lets the trace facility register the module once

} // namespace

extern "C" {

uint16_t OVRIN_BUNDLE_TRACE_MODULE_ID = 0;
uint16_t OVRIN_BUNDLE_STUB_TRACE_MODULE_ID = 0; // exported beside the real id; never used here

int OVRIN_BUNDLE_TRACE_INIT(void) {
    return qlog_module_init_fn(OVRIN_BUNDLE_TRACE_MODULE, &OVRIN_BUNDLE_TRACE_MODULE_ID, &trace_registration_state);
}

} // extern "C"
