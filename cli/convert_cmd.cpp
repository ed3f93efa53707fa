// ovrin-sm decode / encode: captured wire bytes to the print form or XML, and XML to wire bytes,
// for any type of the catalogue, named as the catalogue spells it.
#include <dlfcn.h>

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
#include "ovrin_sm/ops.h"

namespace {

using len_fn = uint32_t (*)(mgx_handle_t *, uint32_t, const void *);
using marshal_fn = uint32_t (*)(mgx_handle_t *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
using unmarshal_fn = uint32_t (*)(mgx_handle_t *, uint32_t, const uint8_t *, void *, int32_t, uint32_t, uint32_t *);
using render_fn = int32_t (*)(mgx_handle_t *, const void *, char *, uint32_t);
using from_xml_fn = void (*)(mgx_handle_t *, uint32_t, const char *, void *, void *, uint32_t *, char *, uint32_t);

std::vector<std::string> type_names() {
    std::vector<std::string> names;
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next)
        if (n->domain_name && !std::strcmp(n->domain_name, "ovrin_sm"))
            for (const void *const *d = n->descriptor_table; *d; ++d)
                names.push_back(static_cast<const mgx_type_info_t *>(*d)->type_name);
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

// The type's operations, or a message listing the names that come close.
struct TypeOps {
    std::string name;
    bool is_enum = false;
    void *(*create)(mgx_handle_t *, uint32_t) = nullptr;
    void (*destroy)(mgx_handle_t *, uint32_t, void *) = nullptr;
    uint32_t (*adjust)(mgx_handle_t *, uint32_t, void *, uint32_t *) = nullptr;
    void *len = nullptr, *marshal = nullptr, *unmarshal = nullptr, *print = nullptr, *xml = nullptr, *from_xml = nullptr;

    template <class Fn> Fn get(const char *op) const {
        return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, (name + "_" + op).c_str()));
    }
};

bool find_type(const std::string &name, TypeOps &ops) {
    std::vector<std::string> names = type_names();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        std::fprintf(stderr, "ovrin-sm: no type '%s'", name.c_str());
        std::vector<std::pair<size_t, std::string>> close;
        for (const std::string &n : names) {
            size_t d = distance(name, n);
            if (d <= std::max<size_t>(3, name.size() / 3) || n.find(name) != std::string::npos) close.emplace_back(d, n);
        }
        std::sort(close.begin(), close.end());
        if (!close.empty()) std::fprintf(stderr, "; close matches:");
        for (size_t i = 0; i < close.size() && i < 5; ++i) std::fprintf(stderr, " %s", close[i].second.c_str());
        std::fprintf(stderr, "\n");
        return false;
    }
    ops.name = name;
    ops.create = ops.get<void *(*)(mgx_handle_t *, uint32_t)>("create");
    ops.destroy = ops.get<void (*)(mgx_handle_t *, uint32_t, void *)>("destroy");
    ops.adjust = ops.get<uint32_t (*)(mgx_handle_t *, uint32_t, void *, uint32_t *)>("adjust_variant");
    ops.is_enum = ops.get<void *>("map_to_internal_value") != nullptr;
    ops.len = ops.get<void *>("len");
    ops.marshal = ops.get<void *>("marshal");
    ops.unmarshal = ops.get<void *>("unmarshal");
    ops.print = ops.get<void *>("print_cr");
    ops.xml = ops.get<void *>("toxml_cr");
    ops.from_xml = ops.get<void *>("from_xml");
    return ops.create && ops.destroy && ops.marshal && ops.unmarshal;
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
    TypeOps ops;
    if (!find_type(o.type, ops)) return 2;
    std::vector<uint8_t> bytes;
    if (!read_message(o.file, bytes)) return 1;
    if (o.hex && !from_hex(std::exchange(bytes, {}), bytes)) {
        std::fprintf(stderr, "ovrin-sm: the input is not hexadecimal bytes\n");
        return 1;
    }
    Session s(o.tracked);
    void *instance = ops.create(s.h, 1);
    uint32_t err = 0;
    if (ops.adjust) ops.adjust(s.h, 1, instance, &err);
    uint32_t used = reinterpret_cast<unmarshal_fn>(ops.unmarshal)(s.h, 1, bytes.data(), instance,
                                                                  static_cast<int32_t>(bytes.size()), 0, &err);
    int status = 0;
    if (err) {
        std::fprintf(stderr, "ovrin-sm: %zu bytes do not decode as %s: error %u (%s) after %u bytes\n", bytes.size(),
                     o.type, err, error_text(err), used);
        status = 1;
    } else {
        std::vector<char> text(1 << 20);
        auto render = reinterpret_cast<render_fn>(o.xml ? ops.xml : ops.print);
        int32_t n = render(s.h, instance, text.data(), static_cast<uint32_t>(text.size()));
        if (n < 0) {
            std::fprintf(stderr, "ovrin-sm: %s could not be rendered: error %u\n", o.type, mgx_handle_last_error(s.h));
            status = 1;
        } else {
            std::fwrite(text.data(), 1, static_cast<size_t>(n), stdout);
            if (o.xml) std::fputc('\n', stdout);
        }
        if (used < bytes.size()) std::fprintf(stderr, "ovrin-sm: %zu trailing bytes left over\n", bytes.size() - used);
    }
    ops.destroy(s.h, 1, instance);
    return status;
}

int ovrin_cmd_encode(int argc, char **argv) {
    Options o;
    if (!parse_options(argc, argv, o) || o.xml) {
        std::fprintf(stderr, "usage: ovrin-sm encode TYPE [FILE] [--hex] [--tracked]\n");
        return 2;
    }
    TypeOps ops;
    if (!find_type(o.type, ops)) return 2;
    std::vector<uint8_t> text;
    if (!read_message(o.file, text)) return 1;
    void *doc = mgx_xml_document_parse(reinterpret_cast<const char *>(text.data()), text.size());
    if (!doc) {
        std::fprintf(stderr, "ovrin-sm: the input is not a well-formed XML document\n");
        return 1;
    }
    Session s(o.tracked);
    void *instance = ops.create(s.h, 1);
    uint32_t err = 0;
    if (ops.adjust) ops.adjust(s.h, 1, instance, &err);
    char message[256] = "";
    std::string path = std::string("/") + o.type;
    reinterpret_cast<from_xml_fn>(ops.from_xml)(s.h, 1, path.c_str(), doc, instance, &err, message, sizeof message);
    mgx_xml_document_free(doc);
    int status = 0;
    if (err) {
        std::fprintf(stderr, "ovrin-sm: the document does not hold a %s: error %u (%s)%s%s\n", o.type, err,
                     error_text(err), *message ? ": " : "", message);
        status = 1;
    } else {
        uint32_t n = ops.is_enum ? 5 : reinterpret_cast<len_fn>(ops.len)(s.h, 1, instance);
        std::vector<uint8_t> out(n + 1);
        n = reinterpret_cast<marshal_fn>(ops.marshal)(s.h, 1, out.data(), instance, static_cast<int32_t>(n), &err);
        if (err) {
            std::fprintf(stderr, "ovrin-sm: %s does not encode: error %u (%s)\n", o.type, err, error_text(err));
            status = 1;
        } else if (o.hex) {
            write_hex(out.data(), n);
        } else {
            std::fwrite(out.data(), 1, n, stdout);
        }
    }
    ops.destroy(s.h, 1, instance);
    return status;
}
