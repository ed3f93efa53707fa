// The complexity channels' inputs (see complexity_inputs.h).
#include "bench/complexity_inputs.h"

#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "bench/content.h"
#include "bench/ours.h"
#include "formats/trace_format.h"
#include "ovrin_sm/ops.h"
#include "tests/elf_write.h"

namespace complexity {

namespace {

using bench::kLuid;
using Bytes = std::vector<uint8_t>;

using Records = sess_mgr_sess_attr_query_resp;       // n entries of a label and 4 attributes
using Attrs = sess_mgr_query_resp;                   // one label and n attributes
using Names = ovrin_svm_epm_notify_domain_name_bind; // n domain names

const auto kRecords = OVRIN_BENCH_OPS(sess_mgr_sess_attr_query_resp);
const auto kAttrs = OVRIN_BENCH_OPS(sess_mgr_query_resp);
const auto kNames = OVRIN_BENCH_OPS(ovrin_svm_epm_notify_domain_name_bind);

uint32_t u32(size_t n) { return static_cast<uint32_t>(n); }

// ------------------------------------------------------------------ instances of size n

Records *make(mgx_handle_t *h, size_t n, const Records *) { return bench::build(h, bench::bulk(n)); }

// Attribute i: a RADIUS-like type and an 8-byte value.
void add_attrs(mgx_handle_t *h, aaa_tlv *tlv, size_t n, uint32_t *err) {
    for (size_t i = 0; i < n && !*err; ++i) {
        char value[16];
        std::snprintf(value, sizeof value, "v%07zu", i % 10000000);
        aaa_tlv_attr_add(h, kLuid, tlv, u32(i % 255 + 1), value, 8, err);
    }
}

Attrs *make(mgx_handle_t *h, size_t n, const Attrs *) {
    uint32_t err = 0;
    Attrs *a = sess_mgr_query_resp_create(h, kLuid);
    if (!a) return nullptr;
    sess_mgr_session_label_session_label_set_value(h, kLuid, sess_mgr_query_resp_label_get(h, kLuid, a, &err), 7, &err);
    add_attrs(h, sess_mgr_query_resp_attr_list_get(h, kLuid, a, &err), n, &err);
    if (!err) return a;
    sess_mgr_query_resp_destroy(h, kLuid, a);
    return nullptr;
}

Names *make(mgx_handle_t *h, size_t n, const Names *) {
    uint32_t err = 0;
    Names *d = ovrin_svm_epm_notify_domain_name_bind_create(h, kLuid);
    if (!d) return nullptr;
    ovrin_svm_epm_notify_domain_name_bind_wlclient_num_set_value(h, kLuid, d, 1, &err);
    if (n > 0) { // full size at once (the last element from a blank record), then filled in place
        fqdn_domain_name_bind *blank = fqdn_domain_name_bind_create(h, kLuid);
        if (!blank) err = MGX_ENOMEM;
        ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, kLuid, d, u32(n - 1), blank, &err);
        if (blank) fqdn_domain_name_bind_destroy(h, kLuid, blank);
    }
    for (size_t i = 0; i < n && !err; ++i) {
        fqdn_domain_name_bind *b = ovrin_svm_epm_notify_domain_name_bind_domain_names_get(h, kLuid, d, u32(i), &err);
        std::string name = "host" + std::to_string(i) + ".corp.example";
        fqdn_domain_name_bind_fqdn_register_set_value(h, kLuid, b, uint8_t(i & 1), &err);
        fqdn_domain_name_bind_name_set(h, kLuid, b, name.c_str(), u32(name.size()), &err);
    }
    if (!err) return d;
    ovrin_svm_epm_notify_domain_name_bind_destroy(h, kLuid, d);
    return nullptr;
}

template <class T> Bytes encode(const bench::Ops<T> &ops, mgx_handle_t *h, const T *t, uint32_t *err) {
    Bytes wire(ops.len(h, kLuid, t));
    wire.resize(ops.marshal(h, kLuid, wire.data(), t, static_cast<int32_t>(wire.size()), err));
    return wire;
}

// A text writer's whole output: the writers stop at the buffer's end, so a text that fills the
// buffer is written again into twice the room (outside any measured part).
template <class Write> std::string whole_text(Write write) {
    std::vector<char> text(1u << 16);
    for (;;) {
        uint32_t err = 0;
        uint32_t n = write(text.data(), u32(text.size()), &err);
        if (err) return {};
        if (size_t(n) + 1 < text.size()) return std::string(text.data(), n);
        text.resize(text.size() * 2);
    }
}

template <class T> std::string xml_of(const bench::Ops<T> &ops, mgx_handle_t *h, const T *t) {
    return whole_text(
        [&](char *out, uint32_t size, uint32_t *err) { return ops.to_xml(h, kLuid, ops.name, out, t, size, 0, err); });
}

// ------------------------------------------------------------------ library channels

// A built instance of size n that the work owns.
template <class T> class WithMessage : public Work {
public:
    WithMessage(const bench::Ops<T> &ops, mgx_handle_t *h, size_t n)
        : ops(ops), h(h), msg(make(h, n, static_cast<const T *>(nullptr))) {
        if (!msg) fail("cannot build the message");
    }
    ~WithMessage() override {
        if (msg) ops.destroy(h, kLuid, msg);
    }
    T *fresh() {
        T *t = ops.create(h, kLuid);
        uint32_t err = 0;
        if (t) ops.adjust_variant(h, kLuid, t, &err);
        return t;
    }
    void check(uint32_t err, const char *op) {
        if (err) fail(std::string(op) + " failed: error " + std::to_string(err));
    }

    const bench::Ops<T> &ops;
    mgx_handle_t *h;
    T *msg;
};

template <class T> class Decode : public WithMessage<T> {
public:
    using WithMessage<T>::WithMessage;
    void run() override {
        T *t = this->fresh();
        uint32_t err = 0;
        this->ops.unmarshal(this->h, kLuid, wire.data(), t, static_cast<int32_t>(wire.size()), 0, &err);
        this->check(err, "decode");
        this->ops.destroy(this->h, kLuid, t);
    }
    Bytes wire;
};

// Decode measures the decoding alone: the encoding is made by a first, unmeasured run.
std::unique_ptr<Work> prepare_decode(mgx_handle_t *h, size_t n) {
    auto w = std::make_unique<Decode<Records>>(kRecords, h, n);
    uint32_t err = 0;
    if (w->msg) w->wire = encode(kRecords, h, w->msg, &err);
    return w;
}

// The simple operations on the records message, each given as a function of the work.
template <class T> class Simple : public WithMessage<T> {
public:
    using Op = void (*)(Simple &);
    Simple(const bench::Ops<T> &ops, mgx_handle_t *h, size_t n, Op op) : WithMessage<T>(ops, h, n), op(op) {}
    ~Simple() override {
        if (other) this->ops.destroy(this->h, kLuid, other);
    }
    void run() override {
        if (this->msg) op(*this);
    }
    Op op;
    Bytes wire;             // encode's output room
    std::vector<char> text; // print's and to_xml's room, large enough for the whole text
    T *other = nullptr;     // compare's second instance
};

using RecordsOp = Simple<Records>;

std::unique_ptr<Work> simple(mgx_handle_t *h, size_t n, RecordsOp::Op op) {
    auto w = std::make_unique<RecordsOp>(kRecords, h, n, op);
    if (!w->msg) return w;
    uint32_t err = 0;
    w->wire = encode(kRecords, h, w->msg, &err);
    size_t text = std::max(xml_of(kRecords, h, w->msg).size(), whole_text([&](char *out, uint32_t size, uint32_t *e) {
                                                                   return kRecords.print(h, kLuid, out, 0, kRecords.name, w->msg,
                                                                                         size, e);
                                                               }).size());
    w->text.resize(text + 4096);
    w->other = w->fresh();
    if (w->other) kRecords.unmarshal(h, kLuid, w->wire.data(), w->other, static_cast<int32_t>(w->wire.size()), 0, &err);
    w->check(err, "preparing");
    return w;
}

std::unique_ptr<Work> prepare_encode(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        uint32_t err = 0;
        w.ops.marshal(w.h, kLuid, w.wire.data(), w.msg, static_cast<int32_t>(w.wire.size()), &err);
        w.check(err, "encode");
    });
}

std::unique_ptr<Work> prepare_len(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        if (w.ops.len(w.h, kLuid, w.msg) != w.wire.size()) w.check(1, "len");
    });
}

std::unique_ptr<Work> prepare_clone(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        Records *copy = nullptr;
        uint32_t err = 0;
        w.ops.clone(w.h, kLuid, w.msg, &copy, w.wire.data(), u32(w.wire.size()), &err);
        w.check(err, "clone");
        if (copy) w.ops.destroy(w.h, kLuid, copy);
    });
}

std::unique_ptr<Work> prepare_compare(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        if (!w.other || w.ops.compare(w.msg, w.other) != 0) w.check(1, "compare");
    });
}

std::unique_ptr<Work> prepare_hash(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        (void)w.ops.hash(w.msg, 0x5eed); // a call into the library through a pointer: never dropped
    });
}

std::unique_ptr<Work> prepare_print(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        uint32_t err = 0;
        w.ops.print(w.h, kLuid, w.text.data(), 0, w.ops.name, w.msg, u32(w.text.size()), &err);
        w.check(err, "print");
    });
}

std::unique_ptr<Work> prepare_to_xml(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        uint32_t err = 0;
        w.ops.to_xml(w.h, kLuid, w.ops.name, w.text.data(), w.msg, u32(w.text.size()), 0, &err);
        w.check(err, "to_xml");
    });
}

// Parsing a document of size n and reading it into a new instance, as a receiver of XML does.
template <class T> class FromXml : public Work {
public:
    FromXml(const bench::Ops<T> &ops, mgx_handle_t *h, size_t n) : ops(ops), h(h) {
        T *msg = make(h, n, static_cast<const T *>(nullptr));
        if (!msg) {
            fail("cannot build the message");
            return;
        }
        xml = xml_of(ops, h, msg);
        ops.destroy(h, kLuid, msg);
        if (xml.empty()) fail("cannot write the message as XML");
    }
    void run() override {
        if (xml.empty()) return;
        void *doc = mgx_xml_document_parse(xml.data(), xml.size());
        T *t = ops.create(h, kLuid);
        uint32_t err = doc && t ? 0 : MGX_ENOMEM;
        if (t) ops.adjust_variant(h, kLuid, t, &err);
        if (!err) ops.from_xml(h, kLuid, ops.name, doc, t, &err, nullptr, 0);
        if (err) fail("from_xml failed: error " + std::to_string(err));
        if (t) ops.destroy(h, kLuid, t);
        if (doc) mgx_xml_document_free(doc);
    }

    const bench::Ops<T> &ops;
    mgx_handle_t *h;
    std::string xml;
};

// The JSON text of an instance, as the library writes it (compact); empty when it cannot.
template <class T> std::string json_of(const bench::Ops<T> &ops, mgx_handle_t *h, const T *t) {
    char *text = nullptr;
    size_t size = 0;
    int64_t n = ops.to_json(h, t, 0, &text, &size);
    std::string out = n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
    std::free(text);
    return out;
}

std::unique_ptr<Work> prepare_to_json(mgx_handle_t *h, size_t n) {
    return simple(h, n, [](RecordsOp &w) {
        char *text = nullptr;
        size_t size = 0;
        if (w.ops.to_json(w.h, w.msg, 0, &text, &size) < 0) w.check(mgx_handle_last_error(w.h), "to_json");
        std::free(text);
    });
}

// Reading a JSON document into a new instance, as a receiver of JSON does (the parser's work
// included). The document is the library's text of an instance of size n, or one made by hand.
template <class T> class FromJson : public Work {
public:
    FromJson(const bench::Ops<T> &ops, mgx_handle_t *h, std::string json, uint32_t flags)
        : ops(ops), h(h), json(std::move(json)), flags(flags) {
        if (this->json.empty()) fail("cannot make the JSON document");
    }
    FromJson(const bench::Ops<T> &ops, mgx_handle_t *h, size_t n) : ops(ops), h(h) {
        T *msg = make(h, n, static_cast<const T *>(nullptr));
        if (!msg) {
            fail("cannot build the message");
            return;
        }
        json = json_of(ops, h, msg);
        ops.destroy(h, kLuid, msg);
        if (json.empty()) fail("cannot write the message as JSON");
    }
    void run() override {
        if (json.empty()) return;
        T *t = ops.create(h, kLuid);
        uint32_t err = t ? 0 : MGX_ENOMEM;
        if (t) ops.adjust_variant(h, kLuid, t, &err);
        ovrin_json_error e{};
        if (!err) err = ops.from_json(h, kLuid, json.data(), json.size(), t, flags, &e);
        if (err)
            fail("from_json failed: error " + std::to_string(err) + " " + (e.text ? e.text : "") + " at " +
                 (e.pointer ? e.pointer : "?"));
        ovrin_json_error_free(&e);
        if (t) ops.destroy(h, kLuid, t);
    }

    const bench::Ops<T> &ops;
    mgx_handle_t *h;
    std::string json;
    uint32_t flags = 0;
};

const auto kConn = OVRIN_BENCH_OPS(sess_mgr_conn_hdl);
const auto kClientName = OVRIN_BENCH_OPS(sess_mgr_client_name);

// n domain names of about 210 bytes each: ASCII, two- and three-byte characters, and a private-use
// character that carries a byte. The count and the other members are left out.
std::string long_names(size_t n) {
    std::string name;
    while (name.size() < 190) name += "host-\u00e9t\u00e9.\u4e2d\u6587.\ue0ff.corp.example.";
    std::string doc = "{\"domain_names\":[";
    for (size_t i = 0; i < n; ++i) doc += (i ? ",{\"name\":\"" : "{\"name\":\"") + name + std::to_string(i % 10) + "\"}";
    return doc + "]}";
}

// One string of n escapes, of every kind the reader turns into bytes.
std::string escapes(size_t n) {
    static const char *const kinds[] = {"\\n", "\\\"", "\\\\", "\\/", "\\u00e9", "\\ue0ff", "\\ud83d\\ude00", "\\u0001"};
    std::string doc = "{\"client_name\":\"";
    for (size_t i = 0; i < n; ++i) doc += kinds[i % 8];
    return doc + "\"}";
}

// n members the type does not have, each a small object, read leniently.
std::string unknown_members(size_t n) {
    std::string doc = "{\"conn_hdl\":1";
    for (size_t i = 0; i < n; ++i) doc += ",\"unknown" + std::to_string(i) + "\":{\"a\":[1,\"x\"],\"b\":null}";
    return doc + "}";
}

// The one member given n times, read leniently (the last counts).
std::string repeated_member(size_t n) {
    std::string doc = "{";
    for (size_t i = 0; i < n; ++i) doc += (i ? ",\"conn_hdl\":" : "\"conn_hdl\":") + std::to_string(i);
    return doc + "}";
}

// A document n deep (the root and n - 1 arrays in an unknown member), read leniently; the reader
// takes at most OVRIN_JSON_MAX_DEPTH.
std::string nested(size_t n) {
    size_t arrays = n > 1 ? n - 1 : 0;
    return "{\"conn_hdl\":1,\"deep\":" + std::string(arrays, '[') + std::string(arrays, ']') + (arrays ? "}" : "0}");
}

template <class T>
std::unique_ptr<Work> from_json_text(const bench::Ops<T> &ops, mgx_handle_t *h, std::string json, uint32_t flags = 0) {
    return std::make_unique<FromJson<T>>(ops, h, std::move(json), flags);
}

// aaa_tlv_attr_add n times on an empty list.
class AttrAdd : public Work {
public:
    AttrAdd(mgx_handle_t *h, size_t n) : h(h), n(n) {}
    void run() override {
        Attrs *a = sess_mgr_query_resp_create(h, kLuid);
        uint32_t err = a ? 0 : MGX_ENOMEM;
        if (a) add_attrs(h, sess_mgr_query_resp_attr_list_get(h, kLuid, a, &err), n, &err);
        if (err) fail("aaa_tlv_attr_add failed: error " + std::to_string(err));
        if (a) sess_mgr_query_resp_destroy(h, kLuid, a);
    }
    mgx_handle_t *h;
    size_t n;
};

// The array setter at index 0, 1, ..., n-1, as an application appends records one by one.
class ArraySet : public Work {
public:
    ArraySet(mgx_handle_t *h, size_t n) : h(h), n(n) {}
    void run() override {
        Records *q = sess_mgr_sess_attr_query_resp_create(h, kLuid);
        Attrs *blank = sess_mgr_query_resp_create(h, kLuid);
        uint32_t err = q && blank ? 0 : MGX_ENOMEM;
        for (size_t i = 0; i < n && !err; ++i) sess_mgr_sess_attr_query_resp_resp_array_set(h, kLuid, q, u32(i), blank, &err);
        if (err) fail("resp_array_set failed: error " + std::to_string(err));
        if (blank) sess_mgr_query_resp_destroy(h, kLuid, blank);
        if (q) sess_mgr_sess_attr_query_resp_destroy(h, kLuid, q);
    }
    mgx_handle_t *h;
    size_t n;
};

// ------------------------------------------------------------------ tool channels

bool write_file(const std::string &path, const void *data, size_t n, std::string &error) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char *>(data), static_cast<std::streamsize>(n));
    if (out.flush()) return true;
    error = "cannot write " + path;
    return false;
}

bool write_file(const std::string &path, const std::string &s, std::string &error) {
    return write_file(path, s.data(), s.size(), error);
}

// Builds an instance on a handle of its own, hands it to use, and checks that nothing leaked.
template <class T, class Use> bool with_instance(const bench::Ops<T> &ops, size_t n, std::string &error, Use use) {
    mgx_handle_t *h = mgx_handle_create();
    T *t = h ? make(h, n, static_cast<const T *>(nullptr)) : nullptr;
    bool ok = t && use(h, t);
    if (!t) error = std::string("cannot build a ") + ops.name;
    if (t) ops.destroy(h, kLuid, t);
    if (h && mgx_handle_live_allocations(h) != 0) {
        error = "making the input leaked";
        ok = false;
    }
    if (h) mgx_handle_destroy(h);
    return ok;
}

// The strict document check of `encode`: a document with n distinct element names the type
// does not know, each reported with the closest member name.
bool write_check(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    std::string doc = "<sess_mgr_register>";
    for (size_t i = 0; i < n; ++i) doc += "<unknown" + std::to_string(i) + "/>";
    doc += "</sess_mgr_register>";
    run = {{"encode", "sess_mgr_register", dir + "/doc.xml"}, 1};
    return write_file(dir + "/doc.xml", doc, error);
}

// `encode` (checked, then read by the library) of a document with n resp_array records.
bool write_encode(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    return with_instance(kRecords, n, error, [&](mgx_handle_t *h, Records *t) {
        run = {{"encode", kRecords.name, dir + "/doc.xml", "--hex"}, 0};
        return write_file(dir + "/doc.xml", xml_of(kRecords, h, t), error);
    });
}

// `decode` to the print form, or to XML, of a message with n attributes.
bool write_decode(const std::string &dir, size_t n, ToolRun &run, std::string &error, bool xml) {
    return with_instance(kAttrs, n, error, [&](mgx_handle_t *h, Attrs *t) {
        uint32_t err = 0;
        Bytes wire = encode(kAttrs, h, t, &err);
        run = {{"decode", kAttrs.name, dir + "/msg.bin"}, 0};
        if (xml) run.args.push_back("--xml");
        return !err && write_file(dir + "/msg.bin", wire.data(), wire.size(), error);
    });
}

bool write_decode_print(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    return write_decode(dir, n, run, error, false);
}

bool write_decode_xml(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    return write_decode(dir, n, run, error, true);
}

using ovrin::testing::elf_file;

// `manifest` of a library whose manifest section holds n type records.
bool write_manifest(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    Bytes section;
    auto put = [&section](uint32_t v) {
        for (int i = 0; i < 4; ++i) section.push_back(uint8_t(v >> (8 * i)));
    };
    for (size_t i = 0; i < n; ++i) {
        std::string text = "type_" + std::to_string(i) + " 0123456789abcdef0123456789abcdef type 0 24";
        put(u32(text.size() + 1));
        put(2);
        section.insert(section.end(), text.c_str(), text.c_str() + text.size() + 1);
        while (section.size() % 4) section.push_back(0);
    }
    Bytes file = elf_file({{".ovrin_sm_manifest", SHT_PROGBITS, section}});
    run = {{"manifest", dir + "/lib.so"}, 0};
    return write_file(dir + "/lib.so", file.data(), file.size(), error);
}

// A library whose message texts section grows with n (texts that do not compress away), so
// that reading it again for every record costs records x n.
bool write_trace_library(const std::string &dir, size_t n, uint32_t &crc, std::string &error) {
    std::vector<std::string> texts;
    uint32_t x = 0x9e3779b9u;
    for (size_t i = 0; i < n; ++i) {
        char text[64];
        x = x * 1664525u + 1013904223u;
        uint32_t y = x * 2654435761u;
        std::snprintf(text, sizeof text, "message %zu %08x%08x: %%u", i, x, y);
        texts.emplace_back(text);
    }
    std::string raw;
    for (const std::string &t : texts) raw += t + '\0';
    crc = mgx::tracefmt::texts_crc(raw);
    Bytes file = elf_file({{".cx_texts", SHT_PROGBITS, mgx::tracefmt::texts_section(texts)}});
    return write_file(dir + "/lib.so", file.data(), file.size(), error);
}

// A trace of n table records, each followed by one emission through it. spelling(i) names the
// library path of record i, crc(i) its texts checksum.
template <class Spelling, class Crc> std::string trace_file(size_t n, Spelling spelling, Crc crc) {
    namespace fmt = mgx::tracefmt;
    std::string out = fmt::file_header();
    for (size_t i = 0; i < n; ++i) {
        fmt::TableRecord t;
        t.index = 1;
        t.module = "mgx_cx";
        t.section = ".cx_texts";
        t.library = spelling(i);
        t.crc = crc(i);
        out += fmt::table_record(t);
        fmt::EmissionRecord e;
        e.time_ns = 1764000000000000000ull + i;
        e.pid = 4242;
        e.table = 1;
        e.number = u32(i % (n ? n : 1));
        e.flags = 6u << 24;
        e.args.push_back({'u', i, {}});
        out += fmt::emission_record(e);
    }
    return out;
}

// `trace` of n records naming one library (of size n) by n spellings of its path: symbolic
// links beside it.
bool write_trace_spellings(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    uint32_t crc = 0;
    if (!write_trace_library(dir, n, crc, error)) return false;
    for (size_t i = 0; i < n; ++i) {
        std::string link = dir + "/l" + std::to_string(i) + ".so";
        ::unlink(link.c_str());
        if (::symlink("lib.so", link.c_str()) != 0) {
            error = "cannot make the link " + link;
            return false;
        }
    }
    std::string trace = trace_file(
        n, [&](size_t i) { return dir + "/l" + std::to_string(i) + ".so"; }, [&](size_t) { return crc; });
    run = {{"trace", dir + "/run.trc"}, 0};
    return write_file(dir + "/run.trc", trace, error);
}

// `trace` of n records naming one library (of size n) with n distinct checksums, none of them its
// own: every record's texts are refused.
bool write_trace_checksums(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    uint32_t crc = 0;
    if (!write_trace_library(dir, n, crc, error)) return false;
    std::string trace = trace_file(
        n, [&](size_t) { return dir + "/lib.so"; }, [&](size_t i) { return crc + 1 + u32(i); });
    run = {{"trace", dir + "/run.trc"}, 0};
    return write_file(dir + "/run.trc", trace, error);
}

} // namespace

const std::vector<LibraryChannel> &library_channels() {
    static const std::vector<LibraryChannel> channels = {
        {"decode", "decode of a sess_mgr_sess_attr_query_resp of n records (4 attributes each)", prepare_decode},
        {"encode", "encode of the same", prepare_encode},
        {"len", "_len of the same", prepare_len},
        {"clone", "clone of the same", prepare_clone},
        {"compare", "compare of the same with its decoded copy", prepare_compare},
        {"hash", "hash of the same", prepare_hash},
        {"print", "print of the same", prepare_print},
        {"to_xml", "to_xml of the same", prepare_to_xml},
        {"from_xml", "parse and from_xml of the same as XML (n <resp_array> elements)",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<FromXml<Records>>(kRecords, h, n); }},
        {"from_xml.attrs", "parse and from_xml of a sess_mgr_query_resp of n <attr> elements",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<FromXml<Attrs>>(kAttrs, h, n); }},
        {"from_xml.domain_names", "parse and from_xml of n <domain_names> elements",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<FromXml<Names>>(kNames, h, n); }},
        {"to_json", "to_json of the records message (compact)", prepare_to_json},
        {"from_json", "from_json of the same as JSON (n resp_array elements)",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<FromJson<Records>>(kRecords, h, n); }},
        {"from_json.attrs", "from_json of a sess_mgr_query_resp of n attributes",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<FromJson<Attrs>>(kAttrs, h, n); }},
        {"from_json.names", "from_json of n domain names of 200 bytes (multi-byte and private-use characters)",
         [](mgx_handle_t *h, size_t n) { return from_json_text(kNames, h, long_names(n)); }},
        {"from_json.escapes", "from_json of a client name of n escapes",
         [](mgx_handle_t *h, size_t n) { return from_json_text(kClientName, h, escapes(n)); }},
        {"from_json.unknown", "from_json, lenient, of n unknown members (small objects)",
         [](mgx_handle_t *h, size_t n) { return from_json_text(kConn, h, unknown_members(n), OVRIN_JSON_LENIENT); }},
        {"from_json.repeats", "from_json, lenient, of one member given n times",
         [](mgx_handle_t *h, size_t n) { return from_json_text(kConn, h, repeated_member(n), OVRIN_JSON_LENIENT); }},
        {"from_json.depth", "from_json, lenient, of a document nested n deep (at most 128) in an unknown member",
         [](mgx_handle_t *h, size_t n) { return from_json_text(kConn, h, nested(n), OVRIN_JSON_LENIENT); }},
        {"attr_add", "aaa_tlv_attr_add n times on an empty list",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<AttrAdd>(h, n); }},
        {"array_set", "resp_array_set at index 0, 1, ..., n-1",
         [](mgx_handle_t *h, size_t n) -> std::unique_ptr<Work> { return std::make_unique<ArraySet>(h, n); }},
    };
    return channels;
}

// `compat` of two catalogues whose n literals are all renumbered and whose type's n members are
// all renamed: every member and literal looked up by name in the other catalogue.
bool write_compat(const std::string &dir, size_t n, ToolRun &run, std::string &error) {
    std::string a = "enum e\n", b = "enum e\n", ra = "\nrecord r\n", rb = "\nrecord r\n";
    for (size_t i = 0; i < n; ++i) {
        const std::string k = std::to_string(i);
        a += "  L" + k + " " + k + "\n";
        b += "  L" + k + " " + std::to_string(i + 1) + " wire " + k + "\n";
        ra += "  f" + k + " u_int32\n";
        rb += "  g" + k + " u_int32\n";
    }
    run = {{"compat", dir + "/a.types", dir + "/b.types"}, 1};
    return write_file(dir + "/a.types", a + ra, error) && write_file(dir + "/b.types", b + rb, error);
}

const std::vector<ToolChannel> &tool_channels() {
    static const std::vector<ToolChannel> channels = {
        {"tool.check",
         "encode (strict check) of a document with n distinct unknown element names (a document may hold 10,000 names)",
         write_check},
        {"tool.encode", "encode (strict check, then the library's reading) of n <resp_array> records", write_encode},
        {"tool.decode_print", "decode to the print form of a message of n attributes", write_decode_print},
        {"tool.decode_xml", "decode --xml of a message of n attributes", write_decode_xml},
        {"tool.trace_spellings", "trace of n records naming one library (texts growing with n) by n paths",
         write_trace_spellings},
        {"tool.trace_checksums", "trace of n records naming one library (texts growing with n) by n checksums",
         write_trace_checksums},
        {"tool.manifest", "manifest of a library with n manifest records", write_manifest},
        {"tool.compat", "compat of two catalogues with n literals renumbered and n members renamed", write_compat},
    };
    return channels;
}

} // namespace complexity
