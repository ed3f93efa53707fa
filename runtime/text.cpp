// Bounded text output, the print helpers, and the strict parsers of the primitive readers.
#include <cstdio>

#include "runtime/prim.h"

namespace mgx {

void TextOut::raw(const char *s, size_t n) {
    if (full_ || !size_) return;
    size_t room = size_ - 1 - n_;
    if (n > room) {
        n = room;
        full_ = true;
    }
    if (n) std::memcpy(buf_ + n_, s, n);
    n_ += static_cast<uint32_t>(n);
    buf_[n_] = '\0';
}

bool TextOut::whole(const char *s, size_t n) {
    if (full_ || !size_ || n > size_ - 1 - n_) {
        full_ = true;
        return false;
    }
    raw(s, n);
    return true;
}

void TextOut::spaces(uint32_t count) {
    static const char blanks[] = "                                ";
    while (count && !full_ && size_) {
        uint32_t step = count < sizeof blanks - 1 ? count : sizeof blanks - 1;
        raw(blanks, step);
        count -= step;
    }
}

void TextOut::vfmt(const char *format, va_list ap) {
    if (full_ || !size_) return;
    uint32_t room = size_ - n_;
    int need = std::vsnprintf(buf_ + n_, room, format, ap);
    if (need < 0) {
        buf_[n_] = '\0';
        full_ = true;
        return;
    }
    if (static_cast<uint32_t>(need) >= room) {
        n_ = size_ - 1;
        full_ = true;
    } else {
        n_ += static_cast<uint32_t>(need);
    }
}

void TextOut::fmt(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vfmt(format, ap);
    va_end(ap);
}

void TextOut::xml_text(const char *s, size_t n) {
    // Escaped straight into the buffer, nothing built aside. A reference ("&...;") is written
    // whole or not at all; plain text may be cut anywhere. The text is escaped a block at a time
    // and no further than the buffer holds. A block ends where no character can straddle it:
    // before a byte that does not continue a UTF-8 sequence, or after three continuation bytes
    // (no sequence that began before them reaches past them).
    constexpr size_t block = 4096;
    const auto *u = reinterpret_cast<const unsigned char *>(s);
    auto continues = [u](size_t i) { return (u[i] & 0xC0) == 0x80; };
    for (size_t from = 0; from < n && !full();) {
        size_t end = n - from > block ? from + block : n;
        while (end < n && continues(end) && !(continues(end - 1) && continues(end - 2) && continues(end - 3))) ++end;
        xml_escape_pieces(
            s + from, end - from,
            [](void *sink, const char *p, size_t k) {
                auto *out = static_cast<TextOut *>(sink);
                if (*p == '&') out->whole(p, k);
                else out->raw(p, k);
            },
            this);
        from = end;
    }
}

void TextOut::hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    char block[512];
    for (size_t from = 0; from < n && !full(); from += sizeof block / 2) {
        size_t k = n - from < sizeof block / 2 ? n - from : sizeof block / 2;
        for (size_t i = 0; i < k; ++i) {
            block[2 * i] = digits[p[from + i] >> 4];
            block[2 * i + 1] = digits[p[from + i] & 15];
        }
        raw(block, 2 * k);
    }
}

std::string_view trim_blanks(std::string_view text) {
    const char *blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool parse_decimal(std::string_view text, uint64_t max, uint64_t &out) {
    text = trim_blanks(text);
    if (text.empty()) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        unsigned digit = static_cast<unsigned>(c - '0');
        if (digit > max || v > (max - digit) / 10) return false;
        v = v * 10 + digit;
    }
    out = v;
    return true;
}

static int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool hex_decode(std::string_view text, std::string &out) {
    if (text.size() % 2) return false;
    out.resize(text.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        int hi = hex_digit(text[2 * i]), lo = hex_digit(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = static_cast<char>(hi << 4 | lo);
    }
    return true;
}

} // namespace mgx

using namespace mgx;

extern "C" {

uint32_t mgx_print_space(mgx_handle_t *, uint32_t, char *buf, uint32_t indent, uint32_t size, uint32_t *err) {
    if (err_set(err)) return 0;
    TextOut out(buf, size);
    out.spaces(indent);
    return out.count();
}

uint32_t mgx_snprintf(mgx_handle_t *, uint32_t, char *buf, uint32_t size, uint32_t *err, const char *format, ...) {
    if (err_set(err) || !format) return 0;
    TextOut out(buf, size);
    va_list ap;
    va_start(ap, format);
    out.vfmt(format, ap);
    va_end(ap);
    return out.count();
}

uint32_t char_len(void) { return 1; }
uint32_t char_sizeof(void) { return 1; }

} // extern "C"
