// The runtime's own API keeps its C interface when the C++ library runs out of memory: each call
// below is run with each of its C++ allocations failing in turn, and must answer its documented
// failure (or succeed, where the allocation belonged to a recorder) without an exception.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include "mgx/runtime.h"
#include "tests/sm_heap.h"

namespace {

TEST(RuntimeExceptions, EveryCallAnswersItsDocumentedFailure) {
    alignas(8) static uint8_t instance[64];
    static uint32_t state_word;
    // Each call runs on a fresh handle and answers whether its result is one the call documents for
    // the failure that was injected (or its success).
    const std::pair<const char *, std::function<bool(mgx_handle_t *)>> calls[] = {
        {"mgx_oid_map",
         [](mgx_handle_t *h) {
             uint64_t oid = mgx_oid_map(h, instance);
             return oid == 0 ? mgx_handle_last_error(h) == MGX_ENOMEM : mgx_oid_exists(h, oid) == 1;
         }},
        {"mgx_handle_set_domain_variant",
         [](mgx_handle_t *h) {
             int rc = mgx_handle_set_domain_variant(h, "a_type_name_longer_than_any_small_string", 1);
             return rc == 0 || rc == static_cast<int>(MGX_ENOMEM);
         }},
        {"mgx_sttr_offset_set",
         [](mgx_handle_t *h) {
             int rc = mgx_sttr_offset_set(h, instance, 40);
             int64_t offset = 0;
             return rc == 0 ? mgx_sttr_offset_lookup(h, instance, &offset) == 1 && offset == 40
                            : rc == static_cast<int>(MGX_ENOMEM) && !mgx_sttr_offset_lookup(h, instance, &offset);
         }},
        {"mgx_retained_data_set",
         [](mgx_handle_t *h) {
             int kept = mgx_retained_data_set(h, instance, "abc", 3);
             return kept == 1 || mgx_handle_last_error(h) == MGX_ENOMEM;
         }},
        {"qlog_module_init_fn",
         [](mgx_handle_t *) {
             uint16_t id = 0;
             state_word = 0;
             int rc = qlog_module_init_fn("runtime_exception_test_module", &id, &state_word);
             return rc == 0 ? id != 0 && mgx_trace_module_name(id) != nullptr : rc == ENOMEM && state_word == 0;
         }},
        {"trace emission and bundle log",
         [](mgx_handle_t *) {
             qlog_emit_s(nullptr, 3, 1, MGX_SEV_ERROR, "a text longer than any small string optimisation");
             aaa_common_bundle_handler_register(0x1234);
             return true;
         }},
        {"mgx_trace_file_open",
         [](mgx_handle_t *) {
             int rc = mgx_trace_file_open("/dev/null");
             mgx_trace_file_close();
             return rc == 0 || rc == ENOMEM;
         }},
    };
    for (const auto &[what, run] : calls) {
        SCOPED_TRACE(what);
        uint64_t needed = 0;
        for (uint64_t nth = 0; nth == 0 || nth <= needed; ++nth) {
            mgx_handle_t *h = mgx_handle_create();
            ASSERT_NE(h, nullptr);
            const uint64_t before = heap::allocations();
            heap::fail_at(nth);
            bool ok = false, escaped = false;
            try {
                ok = run(h);
            } catch (...) {
                escaped = true;
            }
            heap::fail_at(0);
            if (nth == 0) needed = heap::allocations() - before;
            EXPECT_FALSE(escaped) << "allocation " << nth;
            EXPECT_TRUE(ok) << "allocation " << nth;
            EXPECT_EQ(mgx_handle_live_allocations(h), 0u);
            mgx_handle_destroy(h);
        }
    }
    mgx_trace_clear();
}

} // namespace
