// Trace emission for the engine: every message goes out by number through the runtime's trace
// facility, with the message table and trace module of the bundle the type belongs to. The texts
// live in ops/messages.def; each type has its own numbered copy of the type messages.
#ifndef OVRIN_OPS_TRACE_H
#define OVRIN_OPS_TRACE_H

#include <cstdint>

#include "ops/types.h"

namespace ovrin {

enum class BundleMessage : uint32_t {
#define OVRIN_BUNDLE_MESSAGE(id, text) id,
#include "ops/messages.def"
};

enum class Message : uint32_t {
#define OVRIN_TYPE_MESSAGE(id, record_text, enum_text) id,
#include "ops/messages.def"
};

inline uint32_t message_number(const Type &t, Message m) { return t.msg_base + static_cast<uint32_t>(m); }

// severity: one of MGX_SEV_EMERG, MGX_SEV_ERROR, MGX_SEV_INFO, MGX_SEV_DEBUG.
void trace(const Bundle &b, BundleMessage m, uint32_t severity);
void trace(const Type &t, Message m, uint32_t severity);
void trace(const Type &t, Message m, uint32_t severity, const char *s);
void trace(const Type &t, Message m, uint32_t severity, uint32_t a, uint32_t b);
void trace(const Type &t, Message m, uint32_t severity, const void *p, const char *s);
void trace(const Type &t, Message m, uint32_t severity, int32_t a, int32_t b, int32_t c);

// Whether this is the first time this process reaches the once-only message site for t (then
// the caller traces it).
bool first_time(const Type &t);

} // namespace ovrin

#endif
