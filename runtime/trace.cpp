// The trace facility (module registration, numbered emissions rendered from a bundle's
// compressed message table, capture for tests, stderr output), the dependent bundles'
// registration entry points, and the runtime's module list.
#include <zlib.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>

#include "runtime/internal.h"

mgx_module_root_t mgx_module_tot_root = {0, nullptr, &mgx_module_tot_root.first};

namespace {

struct Emission {
    uint16_t module;
    uint32_t number;
    int severity;
    std::string text;
};

constexpr size_t capture_limit = 100000;

struct TraceState {
    std::mutex lock;
    std::vector<std::string> modules;                                  // module id - 1 -> name
    std::unordered_map<const void *, std::vector<std::string>> texts;  // expanded message tables
    std::deque<Emission> captured;                                     // stable addresses for mgx_trace_text
    int stderr_level = -2;                                             // -2: not yet read from the environment
    std::vector<std::string> bundle_calls;
};

TraceState &state() {
    static TraceState *s = new TraceState; // outlives every static destructor that may still trace
    return *s;
}

int stderr_level_locked(TraceState &s) {
    if (s.stderr_level == -2) {
        const char *env = std::getenv("MGX_TRACE_LEVEL");
        s.stderr_level = env ? std::atoi(env) : -1;
    }
    return s.stderr_level;
}

// Expands a table's zlib-compressed, NUL-separated texts once.
const std::vector<std::string> *table_texts(TraceState &s, mgx_trace_table_t *t) {
    if (!t || t->magic != MGX_TRACE_TABLE_MAGIC) return nullptr;
    auto it = s.texts.find(t);
    if (it != s.texts.end()) return &it->second;
    std::vector<std::string> &out = s.texts[t];
    std::string raw(t->raw_length, '\0');
    uLongf raw_len = t->raw_length;
    if (t->zdata && uncompress(reinterpret_cast<Bytef *>(raw.data()), &raw_len, t->zdata, t->zlength) == Z_OK) {
        raw.resize(raw_len);
        size_t pos = 0;
        while (pos < raw.size() && out.size() < t->count) {
            size_t end = raw.find('\0', pos);
            if (end == std::string::npos) end = raw.size();
            out.emplace_back(raw, pos, end - pos);
            pos = end + 1;
        }
    }
    t->cache = &out;
    return &out;
}

// The argument kinds a printf format asks for: 's' string, 'i' integer, 'p' pointer. Texts whose
// conversions do not match the emission's arguments are shown unformatted instead of misread.
std::string format_kinds(const std::string &fmt) {
    std::string kinds;
    for (size_t i = 0; i < fmt.size(); ++i) {
        if (fmt[i] != '%') continue;
        if (++i >= fmt.size()) break;
        if (fmt[i] == '%') continue;
        while (i < fmt.size() && std::strchr("-+ #0123456789.hlzjt", fmt[i])) ++i;
        if (i >= fmt.size()) break;
        char c = fmt[i];
        kinds += c == 's' ? 's' : c == 'p' ? 'p' : std::strchr("diuxXoc", c) ? 'i' : '?';
    }
    return kinds;
}

void emit(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const char *kinds, ...) {
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    int severity = static_cast<int>((flags >> 24) & 0x7);
    const std::vector<std::string> *texts = table_texts(s, t);
    std::string text;
    if (texts && msg < texts->size()) {
        const std::string &fmt = (*texts)[msg];
        if (format_kinds(fmt) == kinds) {
            va_list ap;
            va_start(ap, kinds);
            char buf[1024];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            std::vsnprintf(buf, sizeof buf, fmt.c_str(), ap);
#pragma GCC diagnostic pop
            va_end(ap);
            text = buf;
        } else {
            text = fmt;
        }
    } else {
        text = "message " + std::to_string(msg);
    }
    if (severity <= stderr_level_locked(s)) {
        const char *mod = module >= 1 && module <= s.modules.size() ? s.modules[module - 1].c_str() : "?";
        std::fprintf(stderr, "%s %s #%u: %s\n", mgx::severity_name(severity), mod, msg, text.c_str());
    }
    if (s.captured.size() < capture_limit) s.captured.push_back(Emission{module, msg, severity, std::move(text)});
}

void log_bundle_call(const char *name, const std::string &args) {
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.bundle_calls.push_back(std::string(name) + "(" + args + ")");
}

std::string hex(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

} // namespace

const char *mgx::severity_name(int severity) {
    static const char *const names[] = {"EMERG", "ALERT", "CRIT", "ERR", "WARNING", "NOTICE", "INFO", "DEBUG"};
    return severity >= 0 && severity < 8 ? names[severity] : "?";
}

extern "C" {

// Registers a trace module once: the state word says whether it is done, so the call is cheap
// and idempotent; the same name always gets the same id.
int qlog_module_init_fn(const char *module_name, uint16_t *module_id_out, uint32_t *state_word) {
    if (state_word && __atomic_load_n(state_word, __ATOMIC_ACQUIRE) != 0) return 0;
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    if (state_word && __atomic_load_n(state_word, __ATOMIC_RELAXED) != 0) return 0;
    size_t id = 0;
    while (id < s.modules.size() && s.modules[id] != module_name) ++id;
    if (id == s.modules.size()) s.modules.emplace_back(module_name);
    if (module_id_out) __atomic_store_n(module_id_out, static_cast<uint16_t>(id + 1), __ATOMIC_RELAXED);
    if (state_word) __atomic_store_n(state_word, 1u, __ATOMIC_RELEASE);
    return 0;
}

void qlog_emit_0(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags) {
    emit(t, msg, module, flags, "");
}
void qlog_emit_s(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const char *s) {
    emit(t, msg, module, flags, "s", s ? s : "(null)");
}
void qlog_emit_u(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, uint32_t a) {
    emit(t, msg, module, flags, "i", a);
}
void qlog_emit_uu(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, uint32_t a, uint32_t b) {
    emit(t, msg, module, flags, "ii", a, b);
}
void qlog_emit_ddd(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, int32_t a, int32_t b,
                   int32_t c) {
    emit(t, msg, module, flags, "iii", a, b, c);
}
void qlog_emit_ps(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const void *p, const char *s) {
    emit(t, msg, module, flags, "ps", p, s ? s : "(null)");
}

size_t mgx_trace_count(void) {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().captured.size();
}

static const Emission *captured_at(size_t i) {
    std::lock_guard<std::mutex> guard(state().lock);
    return i < state().captured.size() ? &state().captured[i] : nullptr;
}

const char *mgx_trace_text(size_t i) {
    const Emission *e = captured_at(i);
    return e ? e->text.c_str() : nullptr;
}
int mgx_trace_severity(size_t i) {
    const Emission *e = captured_at(i);
    return e ? e->severity : -1;
}
uint32_t mgx_trace_number(size_t i) {
    const Emission *e = captured_at(i);
    return e ? e->number : 0;
}
uint16_t mgx_trace_module(size_t i) {
    const Emission *e = captured_at(i);
    return e ? e->module : 0;
}

void mgx_trace_clear(void) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().captured.clear();
}

void mgx_trace_set_stderr_level(int level) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().stderr_level = level;
}

const char *mgx_trace_module_name(uint16_t module) {
    std::lock_guard<std::mutex> guard(state().lock);
    auto &m = state().modules;
    return module >= 1 && module <= m.size() ? m[module - 1].c_str() : nullptr;
}

// ------------------------------------------------------------------ dependent bundles

uint64_t if_common_bundle_handler_register(uint64_t handler, void *arg) {
    char p[32];
    std::snprintf(p, sizeof p, "%p", arg);
    log_bundle_call(__func__, hex(handler) + ", " + p);
    return 0;
}
uint64_t if_common_bundle_handler_unregister(void *arg) {
    char p[32];
    std::snprintf(p, sizeof p, "%p", arg);
    log_bundle_call(__func__, p);
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
    std::lock_guard<std::mutex> guard(state().lock);
    return state().bundle_calls.size();
}

const char *mgx_bundle_call(size_t i) {
    std::lock_guard<std::mutex> guard(state().lock);
    auto &calls = state().bundle_calls;
    return i < calls.size() ? calls[i].c_str() : nullptr;
}

void mgx_bundle_calls_clear(void) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().bundle_calls.clear();
}

} // extern "C"
