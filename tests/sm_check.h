// Small helpers that several of the bundle's tests share: an instance's bytes, a counted string's
// block as the string setters leave it, and a document read through a type's from_xml.
#ifndef OVRIN_TESTS_SM_CHECK_H
#define OVRIN_TESTS_SM_CHECK_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"

// n bytes of p, from offset on.
inline std::vector<uint8_t> bytes_at(const void *p, size_t offset, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p) + offset;
    return {b, b + n};
}

// A copy of text with its NUL in a block from the handle, as a string setter leaves it (so that
// the instance's destroy releases it); *length gets the text's length.
template <class L> char *handle_text(mgx_handle_t *h, const char *text, L *length) {
    const size_t n = std::strlen(text);
    auto *p = static_cast<char *>(h->inst_alloc(h->alloc_ctx, 1, n + 1));
    std::memcpy(p, text, n + 1);
    *length = static_cast<L>(n);
    return p;
}

template <class T>
using from_xml_fn = void (*)(mgx_handle_t *, uint32_t, const char *, void *, T *, uint32_t *, char *, uint32_t);

// text parsed, and read through from_xml at path into instance.
template <class T>
void read_xml(mgx_handle_t *h, from_xml_fn<T> from_xml, const std::string &path, const std::string &text, T *instance,
              uint32_t *err, char *msg = nullptr, uint32_t msg_size = 0) {
    void *doc = mgx_xml_document_parse(text.data(), text.size());
    ASSERT_NE(doc, nullptr) << text;
    from_xml(h, 1, path.c_str(), doc, instance, err, msg, msg_size);
    mgx_xml_document_free(doc);
}

#endif
