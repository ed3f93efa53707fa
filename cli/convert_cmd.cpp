// ovrin-sm decode / encode: captured wire bytes to the print form or XML, and XML to wire bytes,
// for any type of the catalogue, named as the catalogue spells it.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/input.h"
#include "mgx/runtime.h"
#include "ovrin_sm/optable.h"

namespace {

std::vector<std::string> type_names() {
    std::vector<std::string> names;
    for (uint32_t i = 0; i < ovrin_sm_optable_count; ++i) names.push_back(ovrin_sm_optable[i].name);
    return names;
}

size_t distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

// The type's operations, or null with a message listing the names that come close.
const ovrin_sm_type_ops *find_type(const std::string &name) {
    if (const ovrin_sm_type_ops *ops = ovrin_sm_optable_find(name.c_str())) return ops;
    std::fprintf(stderr, "ovrin-sm: no type '%s'", name.c_str());
    std::vector<std::pair<size_t, std::string>> close;
    for (const std::string &n : type_names()) {
        size_t d = distance(name, n);
        if (d <= std::max<size_t>(3, name.size() / 3) || n.find(name) != std::string::npos) close.emplace_back(d, n);
    }
    std::sort(close.begin(), close.end());
    if (!close.empty()) std::fprintf(stderr, "; close matches:");
    for (size_t i = 0; i < close.size() && i < 5; ++i) std::fprintf(stderr, " %s", close[i].second.c_str());
    std::fprintf(stderr, "\n");
    return nullptr;
}

// The message input: FILE, or standard input when it is absent or "-".
bool read_message(const char *file, std::vector<uint8_t> &out) {
    std::string error;
    if (ovrin::input::read(file ? file : "-", ovrin::input::message_limit, "the input limit", out, error)) return true;
    std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
    return false;
}

bool from_hex(const std::vector<uint8_t> &text, std::vector<uint8_t> &out) {
    int high = -1;
    for (uint8_t c : text) {
        if (std::isspace(c)) continue;
        if (!std::isxdigit(c)) return false;
        int v = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    return high < 0;
}

void write_hex(const uint8_t *bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) std::printf("%02x%s", bytes[i], (i + 1) % 16 == 0 || i + 1 == n ? "\n" : " ");
}

struct Options {
    bool hex = false, xml = false, tracked = false;
    const char *type = nullptr, *file = nullptr;
};

bool parse_options(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--hex")) o.hex = true;
        else if (!std::strcmp(argv[i], "--xml")) o.xml = true;
        else if (!std::strcmp(argv[i], "--tracked")) o.tracked = true;
        else if (argv[i][0] == '-' && argv[i][1]) return false;
        else if (!o.type) o.type = argv[i];
        else if (!o.file) o.file = argv[i];
        else return false;
    }
    return o.type != nullptr;
}

const char *error_text(uint32_t code) {
    switch (code) {
    case MGX_ENOENT: return "a member or element is missing";
    case MGX_ENOMEM: return "out of memory";
    case MGX_EINVAL: return "invalid value";
    case MGX_EVARIANT: return "a field or literal beyond the type's variant";
    case MGX_ESHORT: return "the bytes end too early";
    default: return std::strerror(static_cast<int>(code));
    }
}

// A handle for one conversion, checked for leaks at the end.
struct Session {
    mgx_handle_t *h = mgx_handle_create();
    explicit Session(bool tracked) {
        if (tracked) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
    }
    ~Session() { mgx_handle_destroy(h); }
};

} // namespace

int ovrin_cmd_decode(int argc, char **argv) {
    Options o;
    if (!parse_options(argc, argv, o)) {
        std::fprintf(stderr, "usage: ovrin-sm decode TYPE [FILE] [--hex] [--xml] [--tracked]\n");
        return 2;
    }
    const ovrin_sm_type_ops *ops = find_type(o.type);
    if (!ops) return 2;
    std::vector<uint8_t> bytes;
    if (!read_message(o.file, bytes)) return 1;
    if (o.hex && !from_hex(std::exchange(bytes, {}), bytes)) {
        std::fprintf(stderr, "ovrin-sm: the input is not hexadecimal bytes\n");
        return 1;
    }
    Session s(o.tracked);
    void *instance = ops->create(s.h, 1);
    uint32_t err = 0;
    ops->adjust_variant(s.h, 1, instance, &err);
    uint32_t used = ops->unmarshal(s.h, 1, bytes.data(), instance, static_cast<int32_t>(bytes.size()), 0, &err);
    int status = 0;
    if (err) {
        std::fprintf(stderr, "ovrin-sm: %zu bytes do not decode as %s: error %u (%s) after %u bytes\n", bytes.size(),
                     o.type, err, error_text(err), used);
        status = 1;
    } else {
        std::vector<char> text(1 << 20);
        const auto size = static_cast<uint32_t>(text.size());
        int32_t n = o.xml ? static_cast<int32_t>(ops->toxml_cr(s.h, instance, text.data(), size))
                          : ops->print_cr(s.h, instance, text.data(), size);
        if (n < 0) {
            std::fprintf(stderr, "ovrin-sm: %s could not be rendered: error %u\n", o.type, mgx_handle_last_error(s.h));
            status = 1;
        } else {
            std::fwrite(text.data(), 1, static_cast<size_t>(n), stdout);
            if (o.xml) std::fputc('\n', stdout);
        }
        if (used < bytes.size()) std::fprintf(stderr, "ovrin-sm: %zu trailing bytes left over\n", bytes.size() - used);
    }
    ops->destroy(s.h, 1, instance);
    return status;
}

int ovrin_cmd_encode(int argc, char **argv) {
    Options o;
    if (!parse_options(argc, argv, o) || o.xml) {
        std::fprintf(stderr, "usage: ovrin-sm encode TYPE [FILE] [--hex] [--tracked]\n");
        return 2;
    }
    const ovrin_sm_type_ops *ops = find_type(o.type);
    if (!ops) return 2;
    std::vector<uint8_t> text;
    if (!read_message(o.file, text)) return 1;
    void *doc = mgx_xml_document_parse(reinterpret_cast<const char *>(text.data()), text.size());
    if (!doc) {
        std::fprintf(stderr, "ovrin-sm: the input is not a well-formed XML document\n");
        return 1;
    }
    Session s(o.tracked);
    void *instance = ops->create(s.h, 1);
    uint32_t err = 0;
    ops->adjust_variant(s.h, 1, instance, &err);
    char message[256] = "";
    std::string path = std::string("/") + o.type;
    ops->from_xml(s.h, 1, path.c_str(), doc, instance, &err, message, sizeof message);
    mgx_xml_document_free(doc);
    int status = 0;
    if (err) {
        std::fprintf(stderr, "ovrin-sm: the document does not hold a %s: error %u (%s)%s%s\n", o.type, err,
                     error_text(err), *message ? ": " : "", message);
        status = 1;
    } else {
        uint32_t n = ops->len ? ops->len(s.h, 1, instance) : 5; // an enumeration's encoding is 5 bytes
        std::vector<uint8_t> out(n + 1);
        n = ops->marshal(s.h, 1, out.data(), instance, static_cast<int32_t>(n), &err);
        if (err) {
            std::fprintf(stderr, "ovrin-sm: %s does not encode: error %u (%s)\n", o.type, err, error_text(err));
            status = 1;
        } else if (o.hex) {
            write_hex(out.data(), n);
        } else {
            std::fwrite(out.data(), 1, n, stdout);
        }
    }
    ops->destroy(s.h, 1, instance);
    return status;
}
