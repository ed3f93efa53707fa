// The runtime's version and the texts of its error codes.
#include <cstring>

#include "mgx/runtime.h"

#define MGX_TEXT(x) #x
#define MGX_VERSION_TEXT(a, b, c) MGX_TEXT(a) "." MGX_TEXT(b) "." MGX_TEXT(c)

extern "C" {

const char *mgx_runtime_version(void) {
    return MGX_VERSION_TEXT(MGX_RUNTIME_VERSION_MAJOR, MGX_RUNTIME_VERSION_MINOR, MGX_RUNTIME_VERSION_PATCH);
}

// The codes the operations store have meanings of their own here (2 is an absent element rather
// than an absent file); any other value is an errno value passed on from the system.
const char *mgx_strerror(uint32_t code) {
    switch (code) {
    case 0: return "no error";
    case MGX_ENOENT: return "a member or element is missing";
    case MGX_ENOMEM: return "out of memory";
    case MGX_EINVAL: return "invalid value";
    case MGX_ERANGE: return "the text does not fit its buffer";
    case MGX_EVARIANT: return "a field or literal beyond the type's variant";
    case MGX_ESHORT: return "the bytes end too early";
    default: break;
    }
    if (code < 4096)
        if (const char *text = strerrordesc_np(static_cast<int>(code))) return text;
    return "an unknown error code";
}

} // extern "C"
