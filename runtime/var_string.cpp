// Counted strings held by records: print, XML writer and reader. The text is NUL-terminated in
// memory and len is its stored length.
#include "runtime/prim.h"

using namespace mgx;

extern "C" {

// "name: text\n"; the text ends at len or at its first NUL, and a null text prints as empty.
uint32_t var_string_print(mgx_handle_t *, uint32_t, char *buf, uint32_t indent, const char *name, const char *text, uint32_t size,
                          uint32_t len, uint32_t *err) {
    if (err_set(err)) return 0;
    TextOut out(buf, size);
    out.spaces(indent);
    out.fmt("%s: ", name ? name : "");
    // The text's end is looked for no further than the buffer holds: what lies beyond is cut.
    if (text) out.raw(text, strnlen(text, len < out.room() ? len : size_t{out.room()} + 1));
    out.raw("\n", 1);
    return out.count();
}

// All len bytes are written, escaped, so that any byte string reads back exactly.
uint32_t var_string_to_xml(mgx_handle_t *, uint32_t, const char *name, char *buf, const char *text, uint32_t size, uint32_t len,
                           uint8_t state_flag, uint32_t *err) {
    if (err_set(err)) return 0;
    return xml_element(buf, size, name, state_flag, text, text ? len : 0);
}

// Reads the element's text into out (out_size bytes with the NUL): 2 absent, 28 too long.
void var_string_from_xml(mgx_handle_t *h, uint32_t, const char *path, void *doc, char *out, uint32_t out_size, uint32_t *err) {
    if (err_set(err)) return;
    if (!out || !out_size) return fail(h, err, MGX_EINVAL);
    guarded(h, err, [&] {
        std::string text;
        uint32_t status = xml_value(doc, path, text);
        if (!status && text.size() >= out_size) status = MGX_ERANGE; // out is left as it was
        if (status) return fail(h, err, status);
        std::memcpy(out, text.data(), text.size());
        out[text.size()] = '\0';
    });
}

} // extern "C"
