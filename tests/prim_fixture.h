// Shared fixture of the primitive, XML and hash tests: one handle per test, and every test ends
// by checking that nothing allocated through the handle is still alive.
#ifndef MGX_TESTS_PRIM_FIXTURE_H
#define MGX_TESTS_PRIM_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mgx/runtime.h"

inline std::unique_ptr<void, void (*)(void *)> parse_xml(const std::string &text) {
    return {mgx_xml_document_parse(text.data(), text.size()), mgx_xml_document_free};
}

// Exactly n heap bytes (a copy of p when given), so that AddressSanitizer reports any access past them.
inline std::unique_ptr<uint8_t[]> exact_block(size_t n, const uint8_t *p = nullptr) {
    std::unique_ptr<uint8_t[]> b(new uint8_t[n]);
    if (n) std::memset(b.get(), 0xA5, n);
    if (p && n) std::memcpy(b.get(), p, n);
    return b;
}

// The failed checks of the running test so far.
inline int failed_parts() {
    const testing::TestResult *r = testing::UnitTest::GetInstance()->current_test_info()->result();
    int n = 0;
    for (int i = 0; i < r->total_part_count(); ++i) n += r->GetTestPartResult(i).failed();
    return n;
}

// Runs body in a child process, so that a case that reads through a null pointer, or reaches one
// of the library's fatal checks, fails this test naming the case rather than ending the test
// program; the child's own failures are printed by it and fail this test too.
template <class F> inline void in_child(const std::string &what, F body) {
    std::fflush(nullptr);
    const int before = failed_parts();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(failed_parts() > before ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status)) ADD_FAILURE() << what << ": died of signal " << WTERMSIG(status);
    else EXPECT_EQ(WEXITSTATUS(status), 0) << what << ": its checks failed (above)";
}

// A handle with every recorder on, for the tests that read the journal, the hook records and the
// call-site tags (a new handle keeps none of them).
inline mgx_handle_t *recording_handle() {
    mgx_handle_t *h = mgx_handle_create();
    if (h) mgx_handle_set_recorders(h, MGX_RECORD_ALL);
    return h;
}

// One recording handle per test, its blocks guarded, the trace capture cleared before it; every
// test ends by checking that the handle holds no allocation and no bookkeeping, that no block was
// written past its end and that nothing it did not own was freed (a write a little past a block,
// or a free of a pointer read from the wrong place, is counted there and fails the test that made
// it, instead of corrupting the heap or ending the process).
class RuntimeFixture : public ::testing::Test {
protected:
    static constexpr uint32_t guard_bytes = 256;
    void SetUp() override {
        ASSERT_NE(h = recording_handle(), nullptr);
        ASSERT_EQ(mgx_handle_set_guard_bytes(h, guard_bytes), 0);
        mgx_trace_clear();
    }
    void TearDown() override {
        for (auto it = owned.rbegin(); it != owned.rend(); ++it) (*it)();
        EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
        EXPECT_EQ(mgx_handle_bookkeeping(h), 0u);
        EXPECT_EQ(mgx_handle_overruns(h), 0u) << "blocks written past their end";
        EXPECT_EQ(mgx_handle_foreign_frees(h), 0u) << "frees of blocks the handle did not own";
        mgx_handle_destroy(h);
    }
    void track(mgx_handle_t *x = nullptr, uint32_t marker = MGX_STTR_TRACKED) {
        mgx_handle_set_state_tracking(x ? x : h, 1, marker);
    }
    // How many captured trace emissions read text (at severity, when one is given).
    size_t traced(const std::string &text, int severity = -1) const {
        size_t n = 0;
        for (size_t i = 0; i < mgx_trace_count(); ++i)
            n += text == mgx_trace_text(i) && (severity < 0 || mgx_trace_severity(i) == severity);
        return n;
    }
    // p, destroyed through the fixture's handle when the test ends (before the leak check), in
    // the reverse order of ownership.
    template <class T> T *own(T *p, void (*destroy)(mgx_handle_t *, uint32_t, T *)) {
        owned.push_back([this, p, destroy] { destroy(h, 1, p); });
        return p;
    }
    // The error cell's code; the cell is cleared for the next call.
    uint32_t take_err() { return std::exchange(err, 0u); }
    mgx_handle_t *h = nullptr;
    uint32_t err = 0;
    std::vector<std::function<void()>> owned;
};

#endif
