// Shared fixture of the primitive, XML and hash tests: one handle per test, and every test ends
// by checking that nothing allocated through the handle is still alive.
#ifndef MGX_TESTS_PRIM_FIXTURE_H
#define MGX_TESTS_PRIM_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mgx/runtime.h"

class HandleTest : public ::testing::Test {
protected:
    void SetUp() override {
        h = mgx_handle_create();
        ASSERT_NE(h, nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
        mgx_handle_destroy(h);
    }
    // A parsed document that frees itself.
    std::unique_ptr<void, void (*)(void *)> parse(const std::string &text) {
        return {mgx_xml_document_parse(text.data(), text.size()), mgx_xml_document_free};
    }

    mgx_handle_t *h = nullptr;
    uint32_t err = 0;
};

// A heap block of exactly n bytes (a copy of p when given), so that AddressSanitizer reports any
// read or write past its end.
inline std::unique_ptr<uint8_t[]> exact_block(size_t n, const uint8_t *p = nullptr) {
    std::unique_ptr<uint8_t[]> b(new uint8_t[n]);
    if (n) std::memset(b.get(), 0xA5, n);
    if (p && n) std::memcpy(b.get(), p, n);
    return b;
}

#endif
