// Rendering an instance as text for the tool and the demo: whole, whatever its size, and indented
// XML for people to read.
#ifndef OVRIN_CLI_RENDER_H
#define OVRIN_CLI_RENDER_H

#include <cstddef>
#include <cstdlib>
#include <string>

#include "mgx/runtime.h"
#include "ovrin_sm/optable.h"

namespace ovrin::cli {

// A rendered text: a block from malloc that keeps its storage between renderings.
struct Text {
    char *data = nullptr;
    size_t size = 0;
    Text() = default;
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;
    ~Text() { std::free(data); }
};

// The forms an instance is written in.
enum class Form { print, xml, json };

// The instance in the form, whole, into text (JSON indented as jq prints it with pretty; XML is
// indented by indent_xml). The character count, or -1 when the library reports a failure (its
// code is then the handle's last error: 12 when the text cannot grow).
long render(const ovrin_sm_type_ops &ops, mgx_handle_t *h, const void *instance, Form form, bool pretty, Text &text);

// The library's one-line XML with one element a line, children indented by two spaces; a
// value's text stays on its element's line exactly as it was.
std::string indent_xml(const char *text, size_t n);

} // namespace ovrin::cli

#endif
