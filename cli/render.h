// Rendering an instance as text for the tool and the demo: whole, whatever its size, and indented
// XML for people to read.
#ifndef OVRIN_CLI_RENDER_H
#define OVRIN_CLI_RENDER_H

#include <cstddef>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/optable.h"

namespace ovrin::cli {

// The instance in the print form, or as XML with xml, into text (which keeps its storage between
// calls), the buffer grown until the whole text fits. The character count, or -1 when the library
// reports a failure (its code is then the handle's last error, or ENOMEM when the text would not
// fit in the largest buffer the operations take).
long render(const ovrin_sm_type_ops &ops, mgx_handle_t *h, const void *instance, bool xml, std::vector<char> &text);

// The library's one-line XML with one element a line, children indented by two spaces; a
// value's text stays on its element's line exactly as it was.
std::string indent_xml(const char *text, size_t n);

} // namespace ovrin::cli

#endif
