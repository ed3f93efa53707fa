// Adopting the bundle: the registered handler and the four bundles whose types this one reuses.
#include "bundle_frame.h"

extern "C" {

uint64_t OVRIN_BUNDLE_EXPORT(bundle_registered_handler) = 0;

// Registration is not counted: a second call overwrites the handler and registers the four
// bundles again; the previous handler is returned so that the caller can restore it.
uint64_t OVRIN_BUNDLE_EXPORT(bundle_handler_register)(uint64_t handler, void *arg) {
    uint64_t previous = OVRIN_BUNDLE_EXPORT(bundle_registered_handler);
    OVRIN_BUNDLE_EXPORT(bundle_registered_handler) = handler;
    if_common_bundle_handler_register(handler, arg);
    platform_comm_bundle_handler_register(handler);
    aaa_common_bundle_handler_register(handler);
    aaa_proxy_bundle_handler_register(handler);
    return previous;
}

// Unregisters in the same order as registration, not reversed.
uint64_t OVRIN_BUNDLE_EXPORT(bundle_handler_unregister)(void *arg) {
    uint64_t previous = OVRIN_BUNDLE_EXPORT(bundle_registered_handler);
    OVRIN_BUNDLE_EXPORT(bundle_registered_handler) = 0;
    if_common_bundle_handler_unregister(arg);
    platform_comm_bundle_handler_unregister();
    aaa_common_bundle_handler_unregister();
    aaa_proxy_bundle_handler_unregister();
    return previous;
}

} // extern "C"
