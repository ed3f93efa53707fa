// Shared helpers of the runtime's primitive field types, text writers and XML readers.
#ifndef MGX_RUNTIME_PRIM_H
#define MGX_RUNTIME_PRIM_H

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "runtime/internal.h"

namespace mgx {

// An operation that takes an error slot does nothing while the slot holds a code.
inline bool err_set(const uint32_t *err) { return err && *err; }

// Bounded text output into a caller's buffer: at most size-1 characters and a NUL (nothing at
// all when size is 0). Once a piece does not fit, everything after it is dropped, so a
// truncated text is always a prefix of the full one.
class TextOut {
public:
    TextOut(char *buf, uint32_t size) : buf_(buf), size_(buf ? size : 0) {
        if (size_) buf_[0] = '\0';
    }
    // Copies n bytes; a piece that does not fit is cut at the end of the buffer.
    void raw(const char *s, size_t n);
    void raw(std::string_view s) { raw(s.data(), s.size()); }
    void spaces(uint32_t count);
    void fmt(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void vfmt(const char *format, va_list ap) __attribute__((format(printf, 2, 0)));
    // Element content: the XML escapes, and the private-use escape for bytes that XML 1.0
    // cannot carry (see xml_escape). An escape is written whole or not at all.
    void xml_text(const char *s, size_t n);
    // Lower-case hexadecimal of n bytes, made a block at a time.
    void hex(const uint8_t *p, size_t n);
    uint32_t count() const { return n_; }
    // Nothing more can be written: a writer that walks many pieces stops here, so that a text cut
    // at its buffer costs the buffer and not the whole of what it would have said.
    bool full() const { return full_ || n_ + 1 >= size_; }
    // The characters that still fit (a longer piece is cut to this many).
    uint32_t room() const { return full() ? 0 : size_ - 1 - n_; }

    bool whole(const char *s, size_t n); // all of s, or nothing

private:
    char *buf_;
    uint32_t size_;
    uint32_t n_ = 0;
    bool full_ = false;
};

// Writes "<name>" or "<name state=\"N\">", the text escaped, and "</name>".
uint32_t xml_element(char *buf, uint32_t size, const char *name, uint8_t state_flag, const char *text, size_t length);

// XML escaping of element content. Besides < > & " ' (and CR, which a parser would fold into LF),
// every byte that XML 1.0 cannot carry is written as the private-use character U+E000 + byte:
// control characters other than tab and newline, bytes that are not part of valid UTF-8, and the
// bytes of a literal U+E000..U+E0FF. xml_unescape_private undoes it, so any byte string survives
// a write and a read exactly.
std::string xml_escape(const char *s, size_t n);
// The same, handed over piece by piece: a run of plain text, or one whole reference.
void xml_escape_pieces(const char *s, size_t n, void (*piece)(void *, const char *, size_t), void *sink);
void xml_unescape_private(std::string &text);

// The text of the first node at path (private-use escapes undone). Status 0, 2 (no document,
// bad path or no such node) or 12 (out of memory).
uint32_t xml_value(void *doc, const char *path, std::string &out);

// Strict decimal: digits only (surrounding blanks allowed), no sign, at most max.
bool parse_decimal(std::string_view text, uint64_t max, uint64_t &out);
std::string_view trim_blanks(std::string_view text);
// The strict inverse of TextOut::hex: even length, hexadecimal digits only.
bool hex_decode(std::string_view text, std::string &out);

// Reads the element at path with xml_value and hands its blank-trimmed text to parse. Absent: 2;
// rejected by parse or refused by xml_value: 22 and, when msg is given, "Invalid value at <path>". Returns true on success.
template <class Parse>
bool read_xml_field(mgx_handle_t *h, const char *path, void *doc, uint32_t *err, char *msg, uint32_t msg_size, Parse parse) {
    std::string text;
    uint32_t status = xml_value(doc, path, text);
    if (status && status != MGX_EINVAL) { // 22: a value that refers to an entity
        fail(h, err, status);
        return false;
    }
    if (status || !parse(trim_blanks(text))) {
        fail(h, err, MGX_EINVAL);
        if (msg && msg_size) {
            TextOut out(msg, msg_size);
            out.fmt("Invalid value at %s", path ? path : "");
        }
        return false;
    }
    return true;
}

} // namespace mgx

#endif
