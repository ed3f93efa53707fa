// The trace facility: module registration, numbered emissions rendered with texts read from the
// bundle's library file (the texts are in a section that is not loaded), capture for tests,
// stderr output, and the binary trace file for the off-line decoder. Also the runtime's module
// list. (The dependent bundles' stand-ins are in bundle_calls.cpp.)
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <mutex>

#include "formats/elf_file.h"
#include "formats/trace_format.h"
#include "runtime/internal.h"

mgx_module_root_t mgx_module_tot_root = {0, nullptr, &mgx_module_tot_root.first};

namespace {

using mgx::tracefmt::Arg;

struct Emission {
    uint16_t module;
    uint32_t number;
    int severity;
    std::string text;
};

// Captured emissions are a ring: the newest capture_ring are kept, older ones fall out, so the
// capture does not grow with the life of the process.
constexpr size_t capture_ring = 4096;

// What the runtime knows of one message table: its texts (empty when they could not be read,
// with the reason) and the library file that holds them.
struct TableTexts {
    mgx::tracefmt::TextSet texts;
    std::string library;
    std::string problem;
    uint32_t count = 0, crc = 0; // of the table they were read for
    bool for_table(const mgx_trace_table_t *t) const { return count == t->count && crc == t->texts_crc; }
};

struct TraceState {
    std::mutex lock;
    // module id - 1 -> name; a deque never moves its elements, so a name handed out stays put for
    // the process's life
    std::deque<std::string> modules;
    std::unordered_map<const void *, TableTexts> tables; // by table address
    std::deque<Emission> captured;                       // the ring of captured emissions
    size_t dropped = 0;                                  // emissions that fell out of the ring
    int stderr_level = -2;                               // -2: not yet read from the environment
    // the trace file
    bool file_env_read = false;
    int file = -1;
    std::unordered_map<const void *, uint16_t> file_tables; // tables described in the file so far
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

// The absolute path of the file the table was loaded from (a shared library, or the program).
std::string file_of(const void *address) {
    Dl_info info{};
    std::string path;
    if (dladdr(address, &info) && info.dli_fname && *info.dli_fname) path = info.dli_fname;
    char resolved[PATH_MAX];
    if (path.empty()) {
        ssize_t n = readlink("/proc/self/exe", resolved, sizeof resolved - 1);
        if (n <= 0) return {};
        return std::string(resolved, static_cast<size_t>(n));
    }
    return realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

// Reads a table's texts once, from its section in the file the table lives in.
TableTexts &table_texts(TraceState &s, mgx_trace_table_t *t) {
    // A table at the address of one seen before (a library unloaded and another loaded there)
    // has its texts read afresh.
    auto found = s.tables.find(t);
    if (found != s.tables.end() && found->second.for_table(t)) return found->second;
    // Built aside and kept whole: running out of memory half-way leaves no entry behind.
    TableTexts tt;
    tt.count = t->count;
    tt.crc = t->texts_crc;
    tt.library = file_of(t);
    std::string error;
    auto file = tt.library.empty() ? std::nullopt : mgx::elf::read(tt.library, error);
    const mgx::elf::Section *section = file && t->section ? file->find(t->section) : nullptr;
    if (!file) tt.problem = tt.library.empty() ? "the file holding the table is unknown" : error;
    else if (!section) tt.problem = tt.library + " has no " + (t->section ? t->section : "(unnamed)") + " section";
    else if (std::span<const uint8_t> bytes = file->view(*section);
             !mgx::tracefmt::expand_texts(bytes.data(), bytes.size(), t->count, t->texts_crc, tt.texts, error))
        tt.problem = tt.library + ": " + error;
    TableTexts &kept = s.tables.insert_or_assign(t, std::move(tt)).first->second;
    t->cache = &kept;
    return kept;
}

void file_write(TraceState &s, const std::string &bytes) {
    if (s.file < 0) return;
    // One write per record: processes sharing the file (O_APPEND) never interleave inside one.
    if (write(s.file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        close(s.file); // a full disk or a closed descriptor: stop writing rather than leave damage
        s.file = -1;
    }
}

int file_open_locked(TraceState &s, const char *path) {
    if (s.file >= 0) close(s.file);
    s.file = -1;
    s.file_tables.clear();
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return errno;
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        int e = errno;
        close(fd);
        return e;
    }
    s.file = fd;
    if (st.st_size == 0) file_write(s, mgx::tracefmt::file_header());
    return 0;
}

void file_env_locked(TraceState &s) {
    if (s.file_env_read) return;
    s.file_env_read = true;
    const char *path = std::getenv("MGX_TRACE_FILE");
    if (path && *path) file_open_locked(s, path);
}

uint16_t file_table_locked(TraceState &s, mgx_trace_table_t *t, const TableTexts &tt) {
    auto found = s.file_tables.find(t);
    if (found != s.file_tables.end()) return found->second;
    uint16_t index = static_cast<uint16_t>(s.file_tables.size());
    s.file_tables[t] = index;
    mgx::tracefmt::TableRecord r;
    r.index = index;
    r.count = t->count;
    r.crc = t->texts_crc;
    r.module = t->module_name ? t->module_name : "";
    r.section = t->section ? t->section : "";
    r.library = tt.library;
    file_write(s, mgx::tracefmt::table_record(r));
    return index;
}

uint64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void emit_locked(TraceState &s, mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags,
                 const std::vector<Arg> &args);

// An emission that cannot be rendered or kept for want of memory is dropped: tracing never fails
// the operation that traces.
// The arguments are made inside too (a string argument is a copy).
template <class Args> void emit(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, Args args) noexcept {
    try {
        std::vector<Arg> made = args();
        TraceState &s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        emit_locked(s, t, msg, module, flags, made);
    } catch (...) {
    }
}

void emit_locked(TraceState &s, mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags,
                 const std::vector<Arg> &args) {
    int severity = static_cast<int>((flags >> 24) & 0x7);
    bool valid = t && t->magic == MGX_TRACE_TABLE_MAGIC;
    const TableTexts *tt = valid ? &table_texts(s, t) : nullptr;
    file_env_locked(s);
    if (s.file >= 0 && tt) {
        mgx::tracefmt::EmissionRecord r;
        r.time_ns = now_ns();
        r.pid = static_cast<uint32_t>(getpid());
        r.table = file_table_locked(s, t, *tt);
        r.module = module;
        r.number = msg;
        r.flags = flags;
        r.args = args;
        file_write(s, mgx::tracefmt::emission_record(r));
    }
    std::string text = tt && msg < tt->texts.size() ? mgx::tracefmt::render(tt->texts[msg], args)
                                                    : "message " + std::to_string(msg);
    if (severity <= stderr_level_locked(s)) {
        const char *mod = module >= 1 && module <= s.modules.size() ? s.modules[module - 1].c_str() : "?";
        std::fprintf(stderr, "%s %s #%u: %s\n", mgx::tracefmt::severity_name(severity), mod, msg, text.c_str());
    }
    if (s.captured.size() == capture_ring) {
        s.captured.pop_front();
        ++s.dropped;
    }
    s.captured.push_back(Emission{module, msg, severity, std::move(text)});
}

Arg u(uint32_t v) { return Arg{'u', v, {}}; }
Arg d(int32_t v) { return Arg{'d', static_cast<uint32_t>(v), {}}; }
Arg str(const char *s) { return Arg{'s', 0, s ? s : "(null)"}; }
Arg ptr(const void *p) { return Arg{'p', reinterpret_cast<uintptr_t>(p), {}}; }

} // namespace

extern "C" {

// Registers a trace module once: the state word says whether it is done, so the call is cheap
// and idempotent; the same name always gets the same id.
int qlog_module_init_fn(const char *module_name, uint16_t *module_id_out, uint32_t *state_word) {
    if (state_word && __atomic_load_n(state_word, __ATOMIC_ACQUIRE) != 0) return 0;
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    if (state_word && __atomic_load_n(state_word, __ATOMIC_RELAXED) != 0) return 0;
    if (!module_name) return EINVAL;
    size_t id = 0;
    while (id < s.modules.size() && s.modules[id] != module_name) ++id;
    if (id == s.modules.size()) {
        if (id == UINT16_MAX) return ENOSPC; // module ids are 16 bits
        try {
            s.modules.emplace_back(module_name);
        } catch (...) {
            return ENOMEM;
        }
    }
    if (module_id_out) __atomic_store_n(module_id_out, static_cast<uint16_t>(id + 1), __ATOMIC_RELAXED);
    if (state_word) __atomic_store_n(state_word, 1u, __ATOMIC_RELEASE);
    return 0;
}

void qlog_emit_0(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags) {
    emit(t, msg, module, flags, [] { return std::vector<Arg>{}; });
}
void qlog_emit_s(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const char *s) {
    emit(t, msg, module, flags, [&] { return std::vector<Arg>{str(s)}; });
}
void qlog_emit_u(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, uint32_t a) {
    emit(t, msg, module, flags, [&] { return std::vector<Arg>{u(a)}; });
}
void qlog_emit_uu(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, uint32_t a, uint32_t b) {
    emit(t, msg, module, flags, [&] { return std::vector<Arg>{u(a), u(b)}; });
}
void qlog_emit_ddd(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, int32_t a, int32_t b, int32_t c) {
    emit(t, msg, module, flags, [&] { return std::vector<Arg>{d(a), d(b), d(c)}; });
}
void qlog_emit_ps(mgx_trace_table_t *t, uint32_t msg, uint16_t module, uint32_t flags, const void *p, const char *s) {
    emit(t, msg, module, flags, [&] { return std::vector<Arg>{ptr(p), str(s)}; });
}

int mgx_trace_texts_attach(mgx_trace_table_t *t, const void *section, size_t length) {
    if (!t || t->magic != MGX_TRACE_TABLE_MAGIC || (!section && length)) return EINVAL;
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    const uint8_t *bytes = static_cast<const uint8_t *>(section);
    try {
        TableTexts tt;
        std::string error;
        if (!mgx::tracefmt::expand_texts(bytes, length, t->count, t->texts_crc, tt.texts, error)) return EINVAL;
        tt.library = file_of(t);
        tt.count = t->count;
        tt.crc = t->texts_crc;
        TableTexts &kept = s.tables[t];
        kept = std::move(tt);
        t->cache = &kept;
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

const char *mgx_trace_texts_problem(mgx_trace_table_t *t) {
    if (!t || t->magic != MGX_TRACE_TABLE_MAGIC) return "not a message table";
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    try {
        const TableTexts &tt = table_texts(s, t);
        return tt.problem.empty() ? nullptr : tt.problem.c_str();
    } catch (...) {
        return "out of memory reading the texts";
    }
}

int mgx_trace_file_open(const char *path) {
    if (!path || !*path) return EINVAL;
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.file_env_read = true; // an explicit file wins over MGX_TRACE_FILE
    try {
        return file_open_locked(s, path);
    } catch (...) {
        return ENOMEM;
    }
}

void mgx_trace_file_close(void) {
    TraceState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.file_env_read = true;
    if (s.file >= 0) close(s.file);
    s.file = -1;
    s.file_tables.clear();
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
    state().dropped = 0;
}

size_t mgx_trace_dropped(void) {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().dropped;
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

} // extern "C"
