// ovrin-sm decode / encode: captured wire bytes to the print form, XML or JSON, and XML or JSON to
// wire bytes, for any type of the catalogue, named as the catalogue spells it.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/input.h"
#include "cli/json_place.h"
#include "cli/options.h"
#include "cli/render.h"
#include "cli/tables.h"
#include "cli/xml_check.h"
#include "mgx/runtime.h"
#include "ovrin/json.h"
#include "ovrin_sm/optable.h"

namespace {

using namespace ovrin::cli;

enum { opt_hex = 256, opt_xml, opt_json, opt_pretty, opt_tracked, opt_lenient, opt_allow_trailing };

const Command decode_command = {
    "decode",
    "TYPE [FILE] [--hex] [--xml | --json] [--pretty] [--tracked] [--allow-trailing]",
    "Decodes wire bytes of TYPE from FILE (standard input when FILE is absent or '-') and writes the\n"
    "instance in the print form. 'ovrin-sm types' lists the types.\n"
    "\n"
    "  --hex                 the input is hexadecimal text; blanks and line breaks between bytes are ignored\n"
    "  --xml                 write XML, which 'ovrin-sm encode' reads back to the same bytes\n"
    "  --json                write JSON, which 'ovrin-sm encode' reads back to the same bytes\n"
    "  --pretty              with --xml or --json: one element or member a line, indented by two\n"
    "                        spaces a level (JSON as 'jq .' prints it)\n"
    "  --tracked             decode on a handle that tracks state, as a tracking receiver does\n"
    "  --allow-trailing      bytes after the message are not an error (they are counted on standard error)\n",
    {flag("hex", opt_hex), flag("xml", opt_xml), flag("json", opt_json), flag("pretty", opt_pretty), flag("tracked", opt_tracked),
     flag("allow-trailing", opt_allow_trailing)},
};

const Command encode_command = {
    "encode",
    "TYPE [FILE] [--json] [--hex] [--tracked] [--lenient]",
    "Reads a document of TYPE from FILE (standard input when FILE is absent or '-') and writes the\n"
    "instance's wire bytes. The document is JSON when it starts as JSON does ('{', or '\"' for an\n"
    "enumeration), and otherwise XML whose root element is TYPE. It is read strictly: an unknown\n"
    "member or literal, a member given twice, a union member its discriminator does not select, a\n"
    "value out of range, and a length or count that disagrees with what it counts are errors naming\n"
    "the path (for JSON, a JSON pointer) and the line. 'ovrin-sm types TYPE --json-skeleton' (or\n"
    "'--xml-skeleton') prints a document to start from.\n"
    "\n"
    "  --json                the document is JSON, whatever it starts with\n"
    "  --hex                 write hexadecimal text, 16 bytes a line, instead of raw bytes\n"
    "  --tracked             encode on a handle that tracks state, so the state bytes are written\n"
    "  --lenient             read what can be read: XML as the library's reader does (unknown elements\n"
    "                        ignored, the first of duplicates kept, lengths recomputed), JSON skipping\n"
    "                        unknown members and values of the wrong kind or range (the last of\n"
    "                        duplicates kept, counts following their arrays)\n",
    {flag("json", opt_json), flag("hex", opt_hex), flag("tracked", opt_tracked), flag("lenient", opt_lenient)},
};

struct Options {
    bool hex = false, xml = false, json = false, pretty = false, tracked = false, lenient = false, allow_trailing = false;
    const char *type = nullptr, *file = nullptr;
};

// The command line of decode or encode; -1 to go on, else the exit status.
int parse_options(const Command &c, int argc, char **argv, Options &o) {
    Parser p(c, argc, argv);
    // The switch each option sets, by its val (opt_hex and on, in order).
    static constexpr bool Options::*switches[] = {&Options::hex,     &Options::xml,     &Options::json,          &Options::pretty,
                                                  &Options::tracked, &Options::lenient, &Options::allow_trailing};
    static_assert(std::size(switches) == opt_allow_trailing - opt_hex + 1, "a switch for every option");
    int status = p.run([&](int val, const char *) {
        o.*switches[val - opt_hex] = true;
        return -1;
    });
    if (status >= 0) return status;
    const auto &ops = p.operands();
    if (ops.empty()) return usage_error(c, "a TYPE is needed ('ovrin-sm types' lists them)");
    if (ops.size() > 2) return usage_error(c, std::string("unexpected operand '") + ops[2] + "'");
    if (o.xml && o.json) return usage_error(c, "--xml and --json cannot go together");
    if (o.pretty && !o.xml && !o.json) return usage_error(c, "--pretty indents XML or JSON: it needs --xml or --json");
    o.type = ops[0];
    o.file = ops.size() > 1 ? ops[1] : nullptr;
    return -1;
}

// The type's operations, or null with a message offering the closest name.
const ovrin_sm_type_ops *find_type(const std::string &name) {
    if (const ovrin_sm_type_ops *ops = ovrin_sm_optable_find(name.c_str())) return ops;
    std::vector<std::string> names;
    for (uint32_t i = 0; i < ovrin_sm_optable_count; ++i) names.push_back(ovrin_sm_optable[i].name);
    std::fprintf(stderr, "ovrin-sm: no type '%s'%s\n", name.c_str(), did_you_mean(name, names).c_str());
    return nullptr;
}

// The message input: FILE, or standard input when it is absent or "-".
bool read_message(const char *file, std::vector<uint8_t> &out) {
    std::string error;
    if (ovrin::input::read(file ? file : "-", ovrin::input::message_limit, "the input limit", out, error)) return true;
    std::fprintf(stderr, "ovrin-sm: %s\n", error.c_str());
    return false;
}

// Hexadecimal text to bytes; false with the place of the first character that is not a digit.
bool from_hex(const std::vector<uint8_t> &text, std::vector<uint8_t> &out, std::string &error) {
    int high = -1;
    size_t line = 1, column = 0;
    for (uint8_t c : text) {
        ++column;
        if (c == '\n') {
            ++line;
            column = 0;
        }
        if (std::isspace(c)) continue;
        if (!std::isxdigit(c)) {
            char shown[16];
            std::snprintf(shown, sizeof shown, std::isprint(c) ? "'%c'" : "byte 0x%02x", c);
            error = std::string(shown) + " at line " + std::to_string(line) + ", column " + std::to_string(column) +
                    " is not a hexadecimal digit";
            return false;
        }
        int v = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) error = "an odd number of hexadecimal digits: the last byte has one";
    return high < 0;
}

// Input that reads as hexadecimal text, as when --hex was meant.
bool looks_hex(const std::vector<uint8_t> &bytes) {
    size_t digits = 0;
    for (uint8_t c : bytes) {
        if (std::isxdigit(c)) ++digits;
        else if (!std::isspace(c)) return false;
    }
    return digits >= 2;
}

void write_hex(const uint8_t *bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) std::printf("%02x%s", bytes[i], (i + 1) % 16 == 0 || i + 1 == n ? "\n" : " ");
}

// A handle for one conversion, checked for leaks at the end.
struct Session {
    mgx_handle_t *h = mgx_handle_create();
    explicit Session(bool tracked) {
        if (tracked) mgx_handle_set_state_tracking(h, 1, MGX_STTR_TRACKED);
    }
    ~Session() { mgx_handle_destroy(h); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
};

// A document's first character that is not blank (after a UTF-8 byte order mark), or 0.
uint8_t first_character(const std::vector<uint8_t> &in) {
    size_t i = in.size() >= 3 && in[0] == 0xEF && in[1] == 0xBB && in[2] == 0xBF ? 3 : 0;
    while (i < in.size() && std::isspace(in[i])) ++i;
    return i < in.size() ? in[i] : 0;
}

// Whether a document is JSON rather than XML, by its first character: an XML document starts with
// '<'; a JSON value with '{' (a record or union), '"' or a digit (an enumeration), or '[', '-',
// 't', 'f', 'n' (of no type, but then the JSON reader's answer says what was expected). Anything
// else is left to the XML reader, as before JSON was read at all.
bool looks_json(const std::vector<uint8_t> &in) {
    uint8_t c = first_character(in);
    return c != 0 && std::strchr("{[\"-0123456789tfn", c);
}

// The names to offer for a member or literal the library's reader does not know: its texts are
// "TYPE has no member NAME" and "NAME is not a literal of TYPE" (NAME as the pointer's last token
// or the value given).
std::string json_hint(const std::string &pointer, const std::string &what) {
    std::vector<std::string> names;
    const std::string name = last_token(pointer), member = " has no member " + name;
    const std::string literal = " is not a literal of ";
    if (what.size() > member.size() && what.compare(what.size() - member.size(), member.size(), member) == 0) {
        if (const ovrin::Type *t = find_table(what.substr(0, what.size() - member.size())))
            for (const FieldView &f : fields_of(*t)) names.push_back(f->name);
        return did_you_mean(name, names);
    }
    if (size_t k = what.find(literal); k != std::string::npos) {
        if (const ovrin::Type *e = find_table(what.substr(k + literal.size())))
            for (uint16_t i = 0; i < e->n_literals; ++i) names.push_back(e->literals[i].name);
        return did_you_mean(what.substr(0, k), names);
    }
    return "";
}

// Reads the JSON document into instance (made on h): true, or false having said what is wrong,
// where (file:line:column and the JSON pointer) and whether --lenient would read it.
bool read_json(const Options &o, const ovrin_sm_type_ops &ops, const std::string &where, const std::vector<uint8_t> &input,
               mgx_handle_t *h, void *instance) {
    const std::string_view text(reinterpret_cast<const char *>(input.data()), input.size());
    const uint32_t flags = o.lenient ? OVRIN_JSON_LENIENT : 0u;
    ovrin_json_error e{};
    uint32_t err = ops.from_json(h, 1, text.data(), text.size(), instance, flags, &e);
    if (!err) return true;
    if (!e.text) {
        std::fprintf(stderr, "ovrin-sm: the document does not hold a %s: error %u (%s)\n", o.type, err, mgx_strerror(err));
        return false;
    }
    const std::string what = e.text, pointer = e.pointer ? e.pointer : "";
    ovrin_json_error_free(&e);
    // What the parser refuses comes with its line and column ("line L, column C: why"); anything
    // else is placed by its pointer.
    int line = 0, column = 0, used = 0;
    std::string place = where, why = what;
    if (std::sscanf(what.c_str(), "line %d, column %d: %n", &line, &column, &used) == 2 && used > 0) {
        // (appended piece by piece: GCC 12 at -O3 takes ":" + std::string for an overlapping copy)
        place.append(":").append(std::to_string(line)).append(":").append(std::to_string(column));
        why = what.substr(static_cast<size_t>(used));
    } else if (size_t at = json_value_at(text, pointer); at != no_place) {
        place.append(":").append(line_column(text, at));
    }
    std::fprintf(stderr, "%s: %s%s%s%s\n", place.c_str(), pointer.c_str(), pointer.empty() ? "" : ": ", why.c_str(),
                 json_hint(pointer, why).c_str());
    if (first_character(input) == '<')
        std::fprintf(stderr, "ovrin-sm: the input looks like XML: leave out --json to read it so\n");
    // Whether the lenient reading takes it, tried on an instance of its own.
    bool lenient_reads = false;
    if (!o.lenient) {
        void *scratch = ops.create(h, 1);
        ops.adjust_variant(h, 1, scratch, &err);
        lenient_reads = ops.from_json(h, 1, text.data(), text.size(), scratch, OVRIN_JSON_LENIENT, nullptr) == 0;
        ops.destroy(h, 1, scratch);
    }
    std::fprintf(stderr, "ovrin-sm: the document does not hold a %s as written%s\n", o.type,
                 lenient_reads ? " (--lenient reads it anyway)" : "");
    return false;
}

// Reads the XML document into instance (made on h): true, or false having said what is wrong and
// where. Strictly, the document is checked against the type first. The input is released once
// the document is parsed.
bool read_xml(const Options &o, const ovrin_sm_type_ops &ops, const std::string &where, std::vector<uint8_t> &input,
              mgx_handle_t *h, void *instance) {
    char why[512] = "";
    void *doc = mgx_xml_document_read(reinterpret_cast<const char *>(input.data()), input.size(), why, sizeof why);
    if (!doc) {
        // The reader says "line L, column C: what" for a document that is not well-formed.
        int line = 0, column = 0, at = 0;
        if (std::sscanf(why, "line %d, column %d: %n", &line, &column, &at) == 2 && at > 0)
            std::fprintf(stderr, "%s:%d:%d: not a well-formed XML document: %s\n", where.c_str(), line, column, why + at);
        else if (at = 0, std::sscanf(why, "line %d: %n", &line, &at) == 1 && at > 0) // past one of the limits
            std::fprintf(stderr, "%s:%d: cannot read it as an XML document: %s\n", where.c_str(), line, why + at);
        else std::fprintf(stderr, "ovrin-sm: cannot read %s as an XML document: %s\n", where.c_str(), why);
        return false;
    }
    // The input is not needed any more: the document is all that is read from here on.
    std::vector<uint8_t>().swap(input);
    // The root is checked in either reading: the library's answer to a wrong one is only "missing".
    std::string root = root_name(doc);
    if (root != o.type) {
        mgx_xml_document_free(doc);
        std::fprintf(stderr, "ovrin-sm: the root element is <%s>; a %s document has <%s>\n", root.c_str(), o.type, o.type);
        return false;
    }
    if (!o.lenient) {
        const ovrin::Type *t = find_table(o.type);
        constexpr size_t shown = 20;
        Findings found = t ? check_document(*t, doc, shown) : Findings{};
        for (size_t i = 0; i < found.problems.size(); ++i) {
            long line = i < found.lines.size() ? found.lines[i] : 0;
            if (line > 0) std::fprintf(stderr, "%s:%ld: %s\n", where.c_str(), line, found.problems[i].c_str());
            else std::fprintf(stderr, "%s: %s\n", where.c_str(), found.problems[i].c_str());
        }
        if (found.count > shown) std::fprintf(stderr, "ovrin-sm: and %zu more\n", found.count - shown);
        if (found.count) {
            mgx_xml_document_free(doc);
            std::fprintf(stderr, "ovrin-sm: the document does not hold a %s as written (--lenient reads it anyway)\n", o.type);
            return false;
        }
    }
    uint32_t err = 0;
    std::vector<char> message(1024);
    std::string path = std::string("/") + o.type;
    ops.from_xml(h, 1, path.c_str(), doc, instance, &err, message.data(), static_cast<uint32_t>(message.size()));
    mgx_xml_document_free(doc);
    if (err)
        std::fprintf(stderr, "ovrin-sm: the document does not hold a %s: error %u (%s)%s%s\n", o.type, err, mgx_strerror(err),
                     message[0] ? ": " : "", message.data());
    return !err;
}

// The frame of decode and encode: the command line, the type, the input read whole, and an
// instance of the type on a handle of its own (tracking with --tracked) that body works with;
// then the instance is destroyed and the output flushed. body returns the exit status.
template <class Body> int convert(const Command &c, int argc, char **argv, Body body) {
    Options o;
    if (int status = parse_options(c, argc, argv, o); status >= 0) return status;
    const ovrin_sm_type_ops *ops = find_type(o.type);
    if (!ops) return exit_usage;
    std::vector<uint8_t> input;
    if (!read_message(o.file, input)) return exit_failure;
    Session s(o.tracked);
    void *instance = ops->create(s.h, 1);
    uint32_t err = 0;
    ops->adjust_variant(s.h, 1, instance, &err);
    int status = body(o, *ops, input, s.h, instance, err);
    ops->destroy(s.h, 1, instance);
    if (std::fflush(stdout) != 0) {
        std::fprintf(stderr, "ovrin-sm: cannot write the output: %s\n", std::strerror(errno));
        status = exit_failure;
    }
    return status;
}

// decode: the bytes (hexadecimal text with --hex) into the instance, rendered as text, XML or JSON.
int decode_into(const Options &o, const ovrin_sm_type_ops &ops, std::vector<uint8_t> &bytes, mgx_handle_t *h, void *instance,
                uint32_t &err) {
    std::string error;
    if (o.hex && !from_hex(std::exchange(bytes, {}), bytes, error)) {
        std::fprintf(stderr, "ovrin-sm: the input is not hexadecimal bytes: %s\n", error.c_str());
        return exit_failure;
    }
    uint32_t used = ops.unmarshal(h, 1, bytes.data(), instance, static_cast<int32_t>(bytes.size()), 0, &err);
    int status = exit_ok;
    if (err) {
        std::fprintf(stderr, "ovrin-sm: %zu bytes do not decode as %s: error %u (%s) after %u bytes\n", bytes.size(), o.type, err,
                     mgx_strerror(err), used);
        if (!o.hex && looks_hex(bytes))
            std::fprintf(stderr, "ovrin-sm: the input looks like hexadecimal text: add --hex to read it so\n");
        status = exit_failure;
    } else if (used < bytes.size() && !o.allow_trailing) {
        std::fprintf(stderr,
                     "ovrin-sm: %zu bytes hold a %s in the first %u and %zu trailing bytes after it "
                     "(--allow-trailing reads it anyway)\n",
                     bytes.size(), o.type, used, bytes.size() - used);
        status = exit_failure;
    } else {
        Text text;
        Form form = o.json ? Form::json : o.xml ? Form::xml : Form::print;
        long n = render(ops, h, instance, form, o.pretty, text);
        if (n < 0) {
            uint32_t code = mgx_handle_last_error(h) ? mgx_handle_last_error(h) : MGX_ENOMEM;
            std::fprintf(stderr, "ovrin-sm: %s could not be rendered: error %u (%s)\n", o.type, code, mgx_strerror(code));
            status = exit_failure;
        } else if (o.pretty && o.xml) {
            std::string pretty = indent_xml(text.data, static_cast<size_t>(n));
            std::fwrite(pretty.data(), 1, pretty.size(), stdout);
        } else {
            std::fwrite(text.data, 1, static_cast<size_t>(n), stdout);
            if (o.xml || (o.json && (n == 0 || text.data[n - 1] != '\n'))) std::fputc('\n', stdout);
        }
        if (used < bytes.size()) std::fprintf(stderr, "ovrin-sm: %zu trailing bytes left over\n", bytes.size() - used);
    }
    return status;
}

// encode: the document (JSON or XML) into the instance, written as wire bytes (hexadecimal with --hex).
int encode_from(const Options &o, const ovrin_sm_type_ops &ops, std::vector<uint8_t> &input, mgx_handle_t *h, void *instance,
                uint32_t &err) {
    // Where the document is, as the places in messages name it (compilers' FILE:LINE:COL).
    const std::string where = !o.file || !std::strcmp(o.file, "-") ? "<stdin>" : o.file;
    int status = exit_failure;
    const bool json = o.json || looks_json(input);
    if (json ? read_json(o, ops, where, input, h, instance) : read_xml(o, ops, where, input, h, instance)) {
        uint32_t n = ops.len ? ops.len(h, 1, instance) : 5; // an enumeration's encoding is 5 bytes
        std::vector<uint8_t> out(n + 1);
        n = ops.marshal(h, 1, out.data(), instance, static_cast<int32_t>(n), &err);
        if (err) {
            std::fprintf(stderr, "ovrin-sm: %s does not encode: error %u (%s)%s\n", o.type, err, mgx_strerror(err),
                         o.lenient && !json ? "; without --lenient the document check says where" : "");
        } else {
            status = exit_ok;
            if (o.hex) write_hex(out.data(), n);
            else std::fwrite(out.data(), 1, n, stdout);
        }
    }
    return status;
}

} // namespace

int ovrin_cmd_decode(int argc, char **argv) { return convert(decode_command, argc, argv, decode_into); }

int ovrin_cmd_encode(int argc, char **argv) { return convert(encode_command, argc, argv, encode_from); }
