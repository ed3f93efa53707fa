// The dependent bundles' registration entry points. A bundle registers its handler with four
// bundles it depends on; the reference runtime stands in for them, logging each call (name and
// arguments) so that tests can see what a bundle registered and in which order. The log is a ring
// of the newest calls, and the distinct call texts it points into are kept up to a bound, so
// neither grows with the life of the process.
#include <cstdio>
#include <deque>
#include <mutex>
#include <set>
#include <string>

#include "runtime/internal.h"

namespace {

constexpr size_t bundle_call_ring = 256;
// Distinct texts of calls kept for the process's life (their pointers are handed out); calls
// beyond that are logged under one shared text.
constexpr size_t bundle_call_texts = 1024;

struct CallLog {
    std::mutex lock;
    std::set<std::string, std::less<>> texts; // interned texts of calls
    std::deque<const char *> calls;           // the ring of calls, by text
};

CallLog &call_log() {
    static CallLog *log = new CallLog; // outlives every static destructor that may still unregister
    return *log;
}

// The call's text is made inside: nothing it allocates can throw out of a C entry point.
// Arguments: the handler (when has_handler), then the pointer (when has_arg).
void log_bundle_call(const char *name, bool has_handler, uint64_t handler, bool has_arg, const void *arg) noexcept {
    try {
        char buf[64] = "";
        if (has_handler && has_arg) std::snprintf(buf, sizeof buf, "0x%llx, %p", static_cast<unsigned long long>(handler), arg);
        else if (has_handler) std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(handler));
        else if (has_arg) std::snprintf(buf, sizeof buf, "%p", arg);
        CallLog &s = call_log();
        std::string text = std::string(name) + "(" + buf + ")";
        std::lock_guard<std::mutex> guard(s.lock);
        auto found = s.texts.find(text);
        if (found == s.texts.end())
            found = s.texts.size() < bundle_call_texts ? s.texts.insert(std::move(text)).first
                                                       : s.texts.insert("(more distinct calls than kept)").first;
        if (s.calls.size() == bundle_call_ring) s.calls.pop_front();
        s.calls.push_back(found->c_str());
    } catch (...) {
    }
}

} // namespace

extern "C" {

uint64_t if_common_bundle_handler_register(uint64_t handler, void *arg) {
    log_bundle_call(__func__, true, handler, true, arg);
    return 0;
}
uint64_t if_common_bundle_handler_unregister(void *arg) {
    log_bundle_call(__func__, false, 0, true, arg);
    return 0;
}
// The other three bundles take the handler alone to register and nothing to unregister.
#define OVRIN_STAND_IN(B)                                                                                                        \
    uint64_t B##_bundle_handler_register(uint64_t handler) {                                                                     \
        log_bundle_call(__func__, true, handler, false, nullptr);                                                                \
        return 0;                                                                                                                \
    }                                                                                                                            \
    uint64_t B##_bundle_handler_unregister(void) {                                                                               \
        log_bundle_call(__func__, false, 0, false, nullptr);                                                                     \
        return 0;                                                                                                                \
    }
OVRIN_STAND_IN(platform_comm)
OVRIN_STAND_IN(aaa_common)
OVRIN_STAND_IN(aaa_proxy)
#undef OVRIN_STAND_IN

size_t mgx_bundle_call_count(void) {
    CallLog &s = call_log();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.calls.size();
}

const char *mgx_bundle_call(size_t i) {
    CallLog &s = call_log();
    std::lock_guard<std::mutex> guard(s.lock);
    return i < s.calls.size() ? s.calls[i] : nullptr;
}

void mgx_bundle_calls_clear(void) {
    CallLog &s = call_log();
    std::lock_guard<std::mutex> guard(s.lock);
    s.calls.clear();
}

} // extern "C"
