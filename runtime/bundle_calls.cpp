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

void log_bundle_call(const char *name, const std::string &args) noexcept {
    try {
        CallLog &s = call_log();
        std::string text = std::string(name) + "(" + args + ")";
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

std::string hex(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string pointer(const void *p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

} // namespace

extern "C" {

uint64_t if_common_bundle_handler_register(uint64_t handler, void *arg) {
    log_bundle_call(__func__, hex(handler) + ", " + pointer(arg));
    return 0;
}
uint64_t if_common_bundle_handler_unregister(void *arg) {
    log_bundle_call(__func__, pointer(arg));
    return 0;
}
uint64_t platform_comm_bundle_handler_register(uint64_t handler) {
    log_bundle_call(__func__, hex(handler));
    return 0;
}
uint64_t platform_comm_bundle_handler_unregister(void) {
    log_bundle_call(__func__, "");
    return 0;
}
uint64_t aaa_common_bundle_handler_register(uint64_t handler) {
    log_bundle_call(__func__, hex(handler));
    return 0;
}
uint64_t aaa_common_bundle_handler_unregister(void) {
    log_bundle_call(__func__, "");
    return 0;
}
uint64_t aaa_proxy_bundle_handler_register(uint64_t handler) {
    log_bundle_call(__func__, hex(handler));
    return 0;
}
uint64_t aaa_proxy_bundle_handler_unregister(void) {
    log_bundle_call(__func__, "");
    return 0;
}

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
