// Adopting the bundle: the registered handler, passed on to the bundles the catalogue names as
// those this one depends on (src/sm_dependents.cpp, generated).
#include "bundle_frame.h"

extern "C" {

uint64_t OVRIN_BUNDLE_EXPORT(bundle_registered_handler) = 0;

// Registration is not counted: a second call overwrites the handler and registers with the
// dependent bundles again; the previous handler is returned so that the caller can restore it.
uint64_t OVRIN_BUNDLE_EXPORT(bundle_handler_register)(uint64_t handler, void *arg) {
    uint64_t previous = OVRIN_BUNDLE_EXPORT(bundle_registered_handler);
    OVRIN_BUNDLE_EXPORT(bundle_registered_handler) = handler;
    ovrin::frame::register_dependent_bundles(handler, arg);
    return previous;
}

// Unregisters from the dependent bundles in the same order as registration, not reversed.
uint64_t OVRIN_BUNDLE_EXPORT(bundle_handler_unregister)(void *arg) {
    uint64_t previous = OVRIN_BUNDLE_EXPORT(bundle_registered_handler);
    OVRIN_BUNDLE_EXPORT(bundle_registered_handler) = 0;
    ovrin::frame::unregister_dependent_bundles(arg);
    return previous;
}

} // extern "C"
