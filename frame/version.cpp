// The library's own version, for programs that check at run time what they were loaded with.
#include "ovrin_sm/version.h"

extern "C" const char *ovrin_sm_version(void) { return OVRIN_SM_VERSION_STRING; }
