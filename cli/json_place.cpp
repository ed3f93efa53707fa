// Finding values and faults in a JSON text: one small scanner over the grammar, without a tree.
// Arrays and objects are tracked on a stack, never by recursion, so a text of any nesting costs
// memory in proportion to its depth only.
#include "cli/json_place.h"

#include <cstdint>
#include <vector>

namespace ovrin::cli {

namespace {

class Scanner {
public:
    explicit Scanner(std::string_view s) : s_(s) {}
    size_t at = 0;

    void blank() {
        while (at < s_.size() && (s_[at] == ' ' || s_[at] == '\t' || s_[at] == '\n' || s_[at] == '\r')) ++at;
    }
    bool peek(char c) const { return at < s_.size() && s_[at] == c; }
    bool take(char c) {
        if (!peek(c)) return false;
        ++at;
        return true;
    }

    // A string at `at`, its text decoded into out when given; false where it breaks the grammar.
    bool string(std::string *out) {
        if (!take('"')) return false;
        while (at < s_.size()) {
            auto c = static_cast<unsigned char>(s_[at]);
            if (c == '"') {
                ++at;
                return true;
            }
            if (c < 0x20) return false;
            if (c != '\\') {
                if (out) out->push_back(static_cast<char>(c));
                ++at;
                continue;
            }
            if (++at >= s_.size()) return false;
            char e = s_[at++];
            static constexpr std::string_view plain = "\"\\/bfnrt", meant = "\"\\/\b\f\n\r\t";
            if (size_t k = plain.find(e); k != std::string_view::npos) {
                if (out) out->push_back(meant[k]);
                continue;
            }
            if (e != 'u') {
                --at;
                return false;
            }
            const size_t escape = at - 2;
            uint32_t u = 0;
            if (!hex4(u)) return false;
            if (u >= 0xD800 && u < 0xE000) { // half of a surrogate pair: the other half must follow
                uint32_t low = 0;
                if (u >= 0xDC00 || s_.substr(at, 2) != "\\u" || (at += 2, !hex4(low)) || low < 0xDC00 || low >= 0xE000) {
                    at = escape;
                    return false;
                }
                u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
            }
            if (out) utf8(u, *out);
        }
        return false;
    }

    // Any value at `at`, checked against the grammar and skipped; false where it breaks it.
    bool value() {
        std::vector<char> open; // the closing bracket of each array and object we are in
        for (;;) {
            blank();
            if (peek('{') || peek('[')) {
                char close = s_[at] == '{' ? '}' : ']';
                ++at;
                blank();
                if (!take(close)) {
                    open.push_back(close);
                    if (close == '}' && !key()) return false;
                    continue; // to the first element's value
                }
            } else if (!scalar()) {
                return false;
            }
            // After a value: the end of the containers it closes, then a comma or the end.
            for (;;) {
                if (open.empty()) return true;
                blank();
                if (take(open.back())) {
                    open.pop_back();
                    continue;
                }
                if (!take(',')) return false;
                if (open.back() == '}' && !key()) return false;
                break;
            }
        }
    }

    // A member's name and its colon; the name decoded into out when given.
    bool key(std::string *out = nullptr) {
        blank();
        if (!string(out)) return false;
        blank();
        return take(':');
    }

private:
    std::string_view s_;

    bool hex4(uint32_t &u) {
        for (int i = 0; i < 4; ++i, ++at) {
            if (at >= s_.size()) return false;
            char c = s_[at];
            int d = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
            if (d < 0) return false;
            u = u << 4 | static_cast<uint32_t>(d);
        }
        return true;
    }

    static void utf8(uint32_t u, std::string &out) {
        if (u < 0x80) {
            out.push_back(static_cast<char>(u));
        } else if (u < 0x800) {
            out.push_back(static_cast<char>(0xC0 | u >> 6));
            out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
        } else if (u < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | u >> 12));
            out.push_back(static_cast<char>(0x80 | (u >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | u >> 18));
            out.push_back(static_cast<char>(0x80 | (u >> 12 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (u >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
        }
    }

    bool digits() {
        size_t from = at;
        while (at < s_.size() && s_[at] >= '0' && s_[at] <= '9') ++at;
        return at > from;
    }

    bool number() {
        take('-');
        if (!take('0')) {
            if (at >= s_.size() || s_[at] < '1' || s_[at] > '9') return false;
            digits();
        }
        if (take('.') && !digits()) return false;
        if (take('e') || take('E')) {
            if (!take('+')) take('-');
            if (!digits()) return false;
        }
        return true;
    }

    bool scalar() {
        if (peek('"')) return string(nullptr);
        for (std::string_view word : {"true", "false", "null"})
            if (s_.substr(at, word.size()) == word) {
                at += word.size();
                return true;
            }
        return number();
    }
};

} // namespace

size_t json_value_at(std::string_view text, std::string_view pointer) {
    Scanner s(text);
    s.blank();
    while (!pointer.empty()) {
        // The next token, unescaped: "~1" is '/', "~0" is '~'.
        size_t end = pointer.find('/', 1);
        std::string token = last_token(pointer.substr(0, end));
        pointer = end == std::string_view::npos ? std::string_view() : pointer.substr(end);
        if (s.take('{')) {
            s.blank();
            if (s.peek('}')) return no_place;
            for (;;) {
                std::string name;
                if (!s.key(&name)) return no_place;
                s.blank();
                if (name == token) break;
                if (!s.value()) return no_place;
                s.blank();
                if (!s.take(',')) return no_place;
            }
        } else if (s.take('[')) {
            size_t index = 0;
            for (char c : token) {
                if (c < '0' || c > '9' || index > (SIZE_MAX - 9) / 10) return no_place;
                index = index * 10 + static_cast<size_t>(c - '0');
            }
            if (token.empty()) return no_place;
            s.blank();
            if (s.peek(']')) return no_place;
            for (size_t k = 0; k < index; ++k) {
                if (!s.value()) return no_place;
                s.blank();
                if (!s.take(',')) return no_place;
                s.blank();
            }
        } else {
            return no_place;
        }
        s.blank();
    }
    return s.at < text.size() ? s.at : no_place;
}

std::string line_column(std::string_view text, size_t offset) {
    size_t line = 1, column = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) { // not a continuation byte
            ++column;
        }
    }
    return std::to_string(line) + ":" + std::to_string(column);
}

std::string last_token(std::string_view pointer) {
    size_t slash = pointer.rfind('/');
    std::string_view raw = slash == std::string_view::npos ? pointer : pointer.substr(slash + 1);
    std::string out;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '~' && i + 1 < raw.size() && (raw[i + 1] == '0' || raw[i + 1] == '1')) {
            out.push_back(raw[++i] == '0' ? '~' : '/');
        } else {
            out.push_back(raw[i]);
        }
    }
    return out;
}

} // namespace ovrin::cli
