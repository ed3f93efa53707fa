// Whole renderings, and indented XML.
#include "cli/render.h"

#include "ovrin/json.h"

namespace ovrin::cli {

long render(const ovrin_sm_type_ops &ops, mgx_handle_t *h, const void *instance, Form form, bool pretty, Text &text) {
    // One walk: the library grows the block as the text is written.
    int64_t n = form == Form::json  ? ops.to_json(h, instance, pretty ? OVRIN_JSON_PRETTY : 0u, &text.data, &text.size)
                : form == Form::xml ? ops.toxml_whole(h, instance, &text.data, &text.size)
                                    : ops.print_whole(h, instance, &text.data, &text.size);
    return n < 0 ? -1 : static_cast<long>(n);
}

std::string indent_xml(const char *text, size_t n) {
    std::string out;
    out.reserve(n + n / 2);
    size_t depth = 0, i = 0;
    auto tag_end = [&](size_t from) {
        while (from < n && text[from] != '>') ++from;
        return from < n ? from + 1 : n;
    };
    auto pad = [&] { out.append(2 * depth, ' '); };
    while (i < n) {
        if (text[i] != '<') { // text outside a value: kept as it is
            size_t next = i;
            while (next < n && text[next] != '<') ++next;
            out.append(text + i, next - i);
            i = next;
            continue;
        }
        size_t end = tag_end(i);
        bool closing = i + 1 < n && text[i + 1] == '/';
        bool empty = end >= 2 && text[end - 2] == '/';
        if (closing) {
            depth -= depth > 0;
            pad();
            out.append(text + i, end - i).push_back('\n');
        } else if (empty) {
            pad();
            out.append(text + i, end - i).push_back('\n');
        } else {
            // A value (text, or nothing, then the closing tag) stays on one line with its element,
            // and so does an enumeration's literal (one empty element, then the closing tag).
            size_t value = end;
            while (value < n && text[value] != '<') ++value;
            if (value == end && value + 1 < n && text[value + 1] != '/') {
                size_t literal = tag_end(value);
                if (literal >= 2 && text[literal - 2] == '/' && literal + 1 < n && text[literal] == '<' &&
                    text[literal + 1] == '/')
                    value = literal;
            }
            if (value + 1 < n && text[value + 1] == '/') {
                size_t close = tag_end(value);
                pad();
                out.append(text + i, close - i).push_back('\n');
                end = close;
            } else {
                pad();
                out.append(text + i, end - i).push_back('\n');
                ++depth;
            }
        }
        i = end;
    }
    return out;
}

} // namespace ovrin::cli
