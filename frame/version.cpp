// The package's version, exported by every bundle it builds as <domain>_version(), for programs
// that check at run time what they were loaded with.
#include "ovrin_sm/version.h"
#include "bundle_frame.h"

extern "C" __attribute__((visibility("default"))) const char *OVRIN_BUNDLE_EXPORT(version)(void) {
    return OVRIN_SM_VERSION_STRING;
}
