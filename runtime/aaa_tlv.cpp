// aaa_tlv: an AAA attribute list. The 32-byte instance sits inline in its record; its attributes
// (a 32-bit type code and value bytes) and the object references it holds live in one body block
// from the handle's instance allocator. An empty list has no body. Every change that needs a
// bigger body builds it first and swaps it in, so a failed allocation leaves the list as it was.
// Adding grows the body by a factor and keeps the room beside what is used, so that N adds copy
// O(N) bytes in all; every other change builds a body of exactly the size it needs.
#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "runtime/prim_fixed.h"

namespace {

struct AaaAttr {
    uint32_t type;
    uint32_t length;
    uint32_t offset; // of the value within the data area
};

} // namespace

struct aaa_tlv_body {
    uint32_t count;    // attributes
    uint32_t nrefs;    // object references
    uint32_t data_len; // value bytes
    // The room each area has; the used part is at its start, the rest is never read.
    uint32_t attr_room, ref_room, data_room;
    // followed by uint64_t refs[ref_room], AaaAttr attrs[attr_room], uint8_t data[data_room]

    uint64_t *refs() { return reinterpret_cast<uint64_t *>(this + 1); }
    AaaAttr *attrs() { return reinterpret_cast<AaaAttr *>(refs() + ref_room); }
    uint8_t *data() { return reinterpret_cast<uint8_t *>(attrs() + attr_room); }
};
static_assert(sizeof(aaa_tlv_body) % alignof(uint64_t) == 0, "the references follow the header");

namespace mgx {
namespace {

using Body = aaa_tlv_body;

// Wire form: u32 count, then per attribute u32 type, u32 length and the value bytes.
constexpr uint64_t kWireHeader = 4, kWireAttr = 8;

// Read access to a list; a null list or a list without body reads as empty.
class View {
public:
    explicit View(const aaa_tlv *t) : b_(t ? t->body : nullptr) {}
    uint32_t count() const { return b_ ? b_->count : 0; }
    uint32_t nrefs() const { return b_ ? b_->nrefs : 0; }
    uint32_t data_len() const { return b_ ? b_->data_len : 0; }
    uint64_t ref(uint32_t i) const { return body()->refs()[i]; }
    const AaaAttr &attr(uint32_t i) const { return body()->attrs()[i]; }
    const uint8_t *value(uint32_t i) const { return body()->data() + attr(i).offset; }
    uint64_t wire_length() const { return kWireHeader + kWireAttr * count() + data_len(); }

private:
    Body *body() const { return const_cast<Body *>(b_); }
    const Body *b_;
};

// The room an area gets when it must grow to hold need: twice what it had, at least need.
uint64_t grown(uint64_t room, uint64_t need) { return std::max(need, 2 * room); }

// Builds a new body of known shape (with room for more when asked); an empty list needs no block.
class Builder {
public:
    bool start(mgx_handle_t *h, uint32_t luid, uint64_t nrefs, uint64_t count, uint64_t data_len, uint32_t *err) {
        return start(h, luid, nrefs, count, data_len, nrefs, count, data_len, err);
    }
    bool start(mgx_handle_t *h, uint32_t luid, uint64_t nrefs, uint64_t count, uint64_t data_len, uint64_t ref_room,
               uint64_t attr_room, uint64_t data_room, uint32_t *err) {
        // Every list must stay expressible on the wire, whose lengths are signed 32-bit.
        if (nrefs > UINT32_MAX || kWireHeader + kWireAttr * count + data_len > INT32_MAX) {
            fail(h, err, MGX_EINVAL);
            return false;
        }
        if (nrefs == 0 && count == 0) return true;
        // Room is capped where the counts themselves end (the wire check above bounds them).
        ref_room = std::min<uint64_t>(ref_room, UINT32_MAX);
        attr_room = std::min<uint64_t>(attr_room, INT32_MAX / kWireAttr);
        data_room = std::min<uint64_t>(data_room, INT32_MAX);
        size_t bytes = sizeof(Body) + sizeof(uint64_t) * ref_room + sizeof(AaaAttr) * attr_room + data_room;
        b_ = static_cast<Body *>(handle_alloc(h, luid, bytes));
        if (!b_) {
            fail(h, err, MGX_ENOMEM);
            return false;
        }
        *b_ = Body{static_cast<uint32_t>(count),     static_cast<uint32_t>(nrefs),    static_cast<uint32_t>(data_len),
                   static_cast<uint32_t>(attr_room), static_cast<uint32_t>(ref_room), static_cast<uint32_t>(data_room)};
        return true;
    }
    void ref(uint64_t oid) { b_->refs()[refs_++] = oid; }
    void attr(uint32_t type, const void *value, uint32_t length) {
        b_->attrs()[attrs_++] = AaaAttr{type, length, data_};
        if (length) std::memcpy(b_->data() + data_, value, length);
        data_ += length;
    }
    void refs_of(const View &v) {
        for (uint32_t i = 0; i < v.nrefs(); ++i) ref(v.ref(i));
    }
    void attrs_of(const View &v, uint32_t skip = UINT32_MAX) {
        for (uint32_t i = 0; i < v.count(); ++i)
            if (i != skip) attr(v.attr(i).type, v.value(i), v.attr(i).length);
    }
    Body *take() { return b_; }

private:
    Body *b_ = nullptr;
    uint32_t refs_ = 0, attrs_ = 0, data_ = 0;
};

// Puts a new body in place and frees the old one (unless it is still someone else's: after a raw
// byte copy of a record, source and destination share a body until set gives the copy its own).
void replace(mgx_handle_t *h, uint32_t luid, aaa_tlv *t, Body *body, bool hooked, const Body *shared = nullptr) {
    if (hooked) write_notify(h, &t->body, sizeof t->body, luid, nullptr);
    Body *old = t->body;
    t->body = body;
    if (old != shared) handle_free(h, luid, old);
}

bool check_field(mgx_handle_t *h, const void *field, uint32_t *err) {
    if (err_set(err)) return false;
    if (!field) {
        fail(h, err, MGX_EINVAL);
        return false;
    }
    return true;
}

struct Tlv {
    static aaa_tlv *get(mgx_handle_t *, uint32_t, aaa_tlv *field, uint32_t *err) { return err_set(err) ? nullptr : field; }

    // Deep copy; the copy holds its own reference to every object the source refers to.
    static void set(mgx_handle_t *h, uint32_t luid, aaa_tlv *dst, const aaa_tlv *src, uint32_t *err) {
        if (!check_field(h, dst, err)) return;
        if (!src) return fail(h, err, MGX_EINVAL);
        if (dst == src) return;
        View v(src);
        Builder b;
        if (!b.start(h, luid, v.nrefs(), v.count(), v.data_len(), err)) return;
        b.refs_of(v);
        b.attrs_of(v);
        for (uint32_t i = 0; i < v.nrefs(); ++i) mgx_oid_add_ref(h, v.ref(i));
        replace(h, luid, dst, b.take(), true, src->body);
    }

    static uint32_t marshal(mgx_handle_t *h, uint32_t, uint8_t *buf, const aaa_tlv *field, int32_t space, uint32_t *err) {
        if (err_set(err)) return 0;
        View v(field);
        uint64_t need = v.wire_length();
        if (!buf || space < 0 || static_cast<uint64_t>(space) < need) {
            fail(h, err, MGX_ESHORT);
            return 0;
        }
        put_be(buf, v.count(), 4);
        uint8_t *p = buf + kWireHeader;
        for (uint32_t i = 0; i < v.count(); ++i) {
            put_be(p, v.attr(i).type, 4);
            put_be(p + 4, v.attr(i).length, 4);
            if (v.attr(i).length) std::memcpy(p + kWireAttr, v.value(i), v.attr(i).length);
            p += kWireAttr + v.attr(i).length;
        }
        return static_cast<uint32_t>(need);
    }

    // Every count and length is checked against the bytes left before anything is allocated; the
    // decoded attributes replace the list's, its object references stay.
    static uint32_t unmarshal(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, aaa_tlv *field, int32_t length, uint32_t flags,
                              uint32_t *err) {
        if (err_set(err)) return 0;
        if (!buf || length < static_cast<int32_t>(kWireHeader)) {
            fail(h, err, MGX_ESHORT);
            return 0;
        }
        if (!field) {
            fail(h, err, MGX_EINVAL);
            return 0;
        }
        const auto total = static_cast<uint64_t>(length);
        uint64_t count = get_be(buf, 4), data = 0;
        auto fits = [&] {
            if (count > (total - kWireHeader) / kWireAttr) return false;
            uint64_t pos = kWireHeader;
            for (uint64_t i = 0; i < count; ++i) {
                if (total - pos < kWireAttr) return false;
                uint64_t value_len = get_be(buf + pos + 4, 4);
                pos += kWireAttr;
                if (value_len > total - pos) return false;
                pos += value_len;
                data += value_len;
            }
            return true;
        };
        if (!fits()) {
            fail(h, err, MGX_ESHORT);
            return 0;
        }
        View old(field);
        // Non-zero decode flags ask for storage to be kept when the sizes match: a body with as
        // many attributes and value bytes is rewritten in place (its references stay as they are).
        if (flags && field->body && old.count() == count && old.data_len() == data) {
            Body *body = field->body;
            uint32_t offset = 0;
            uint64_t pos = kWireHeader;
            for (uint64_t i = 0; i < count; ++i) {
                auto value_len = static_cast<uint32_t>(get_be(buf + pos + 4, 4));
                body->attrs()[i] = AaaAttr{static_cast<uint32_t>(get_be(buf + pos, 4)), value_len, offset};
                if (value_len) std::memcpy(body->data() + offset, buf + pos + kWireAttr, value_len);
                offset += value_len;
                pos += kWireAttr + value_len;
            }
            return static_cast<uint32_t>(pos);
        }
        Builder b;
        if (!b.start(h, luid, old.nrefs(), count, data, err)) return 0;
        b.refs_of(old);
        uint64_t pos = kWireHeader;
        for (uint64_t i = 0; i < count; ++i) {
            auto value_len = static_cast<uint32_t>(get_be(buf + pos + 4, 4));
            b.attr(static_cast<uint32_t>(get_be(buf + pos, 4)), buf + pos + kWireAttr, value_len);
            pos += kWireAttr + value_len;
        }
        replace(h, luid, field, b.take(), false);
        return static_cast<uint32_t>(pos);
    }

    static uint32_t len(mgx_handle_t *, uint32_t, const aaa_tlv *field) {
        return static_cast<uint32_t>(View(field).wire_length());
    }

    static uint32_t print(mgx_handle_t *, uint32_t, char *buf, uint32_t indent, const char *name, const aaa_tlv *field,
                          uint32_t size, uint32_t *err) {
        if (err_set(err)) return 0;
        View v(field);
        TextOut out(buf, size);
        out.spaces(indent);
        out.fmt("%s@aaa_tlv: {\n", name ? name : "");
        // Each line is written piece by piece, and the walk ends once the buffer is full.
        for (uint32_t i = 0; i < v.count() && !out.full(); ++i) {
            out.spaces(indent + 2);
            out.fmt("attr[%u]: type %u: ", i, v.attr(i).type);
            out.hex(v.value(i), v.attr(i).length);
            out.raw("\n", 1);
        }
        for (uint32_t i = 0; i < v.nrefs() && !out.full(); ++i) {
            out.spaces(indent + 2);
            out.fmt("ref[%u]: %llu\n", i, static_cast<unsigned long long>(v.ref(i)));
        }
        out.spaces(indent);
        out.raw("}\n");
        return out.count();
    }

    // <name><attr><type>1</type><value>68656c6c6f</value></attr>...</name>
    static uint32_t to_xml(mgx_handle_t *, uint32_t, const char *name, char *buf, const aaa_tlv *field, uint32_t size,
                           uint8_t state_flag, uint32_t *err) {
        if (err_set(err)) return 0;
        View v(field);
        uint32_t n = start_tag(buf, size, name, state_flag);
        // Written straight into the buffer, and no further than it holds.
        TextOut rest(buf + n, size - n);
        for (uint32_t i = 0; i < v.count() && !rest.full(); ++i) {
            rest.fmt("<attr><type>%u</type><value>", v.attr(i).type);
            rest.hex(v.value(i), v.attr(i).length);
            rest.raw("</value></attr>");
        }
        n += rest.count();
        return n + end_tag(buf + n, size - n, name);
    }

    // Replaces the attributes with those of the element at path (its object references stay).
    static void from_xml(mgx_handle_t *h, uint32_t luid, const char *path, void *doc, aaa_tlv *field, uint32_t *err, char *msg,
                         uint32_t msg_size) {
        if (!check_field(h, field, err)) return;
        uint32_t nodes = 0;
        uint32_t status = xml_get_element_nodecount(doc, path, &nodes);
        if (status || !nodes) return fail(h, err, status ? status : MGX_ENOENT);
        std::string base(path);
        xml_get_element_nodecount(doc, (base + "/attr").c_str(), &nodes);
        std::vector<std::pair<uint32_t, std::string>> items(nodes);
        uint64_t data = 0;
        for (uint32_t i = 0; i < nodes; ++i) {
            std::string item = base + "/attr[" + std::to_string(i + 1) + "]/";
            auto &entry = items[i];
            auto parse_type = [&](std::string_view s) {
                uint64_t v;
                return parse_decimal(s, UINT32_MAX, v) ? (entry.first = static_cast<uint32_t>(v), true) : false;
            };
            auto parse_value = [&](std::string_view s) { return hex_decode(s, entry.second); };
            if (!read_xml_field(h, (item + "type").c_str(), doc, err, msg, msg_size, parse_type) ||
                !read_xml_field(h, (item + "value").c_str(), doc, err, msg, msg_size, parse_value))
                return;
            data += entry.second.size();
        }
        View old(field);
        Builder b;
        if (!b.start(h, luid, old.nrefs(), nodes, data, err)) return;
        b.refs_of(old);
        for (auto &[type, value] : items) b.attr(type, value.data(), static_cast<uint32_t>(value.size()));
        replace(h, luid, field, b.take(), false);
    }

    // Chains over the count, then each attribute's type, length and value bytes.
    static uint32_t hash(const aaa_tlv *field, uint32_t seed) {
        if (!field) return seed;
        View v(field);
        auto word = [](uint32_t x, uint32_t s) { return SuperFastHash(reinterpret_cast<const char *>(&x), 4, s); };
        uint32_t hv = word(v.count(), seed);
        for (uint32_t i = 0; i < v.count(); ++i) {
            hv = word(v.attr(i).length, word(v.attr(i).type, hv));
            hv = SuperFastHash(reinterpret_cast<const char *>(v.value(i)), static_cast<int>(v.attr(i).length), hv);
        }
        return hv;
    }

    // The count first, then attribute by attribute: type, length, value bytes. References do not count.
    static int32_t compare(const aaa_tlv *a, const aaa_tlv *b) {
        if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
        View x(a), y(b);
        if (int32_t c = three_way(x.count(), y.count())) return c;
        for (uint32_t i = 0; i < x.count(); ++i) {
            const AaaAttr &p = x.attr(i), &q = y.attr(i);
            if (int32_t c = three_way(p.type, q.type)) return c;
            if (int32_t c = three_way(p.length, q.length)) return c;
            if (int c = p.length ? std::memcmp(x.value(i), y.value(i), p.length) : 0) return c < 0 ? -1 : 1;
        }
        return 0;
    }

    static void initialize(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, const void *, int use_write_hook, int,
                           uint32_t flags_to_set, uint8_t *, uint32_t *err) {
        if (!check_field(h, field, err)) return;
        auto hook = [&](const void *addr, size_t n, const void *base) {
            if (use_write_hook) write_notify(h, addr, n, luid, base);
        };
        mgx_instance_hdr_t &hdr = field->hdr;
        hook(&hdr.layout, 1, nullptr);
        hdr.layout = 0;
        hook(&hdr.variant, 1, nullptr);
        hdr.variant = 0;
        hook(&hdr.descriptor, sizeof hdr.descriptor, nullptr);
        hdr.descriptor = &_aaa_tlv_type_info_internal;
        auto flags = static_cast<uint8_t>(hdr.flags | flags_to_set);
        if (h && h->sttr && h->sttr->marker == MGX_STTR_TRACKED) flags |= MGX_IF_TRACKED;
        hook(&hdr.flags, 1, field);
        hdr.flags = flags;
    }

    // The instance is inline in its record: only the body is freed, whatever free_it says.
    static void destroy_internal(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, int) {
        if (field) replace(h, luid, field, nullptr, false);
    }

    static void set_instance_embedded(mgx_handle_t *h, uint32_t luid, aaa_tlv *field) {
        if (!field) return;
        write_notify(h, &field->hdr.flags, 1, luid, field);
        field->hdr.flags |= MGX_IF_EMBEDDED;
    }

    static uint32_t get_oid_count(mgx_handle_t *h, uint32_t, const aaa_tlv *field, uint32_t *err) {
        return check_field(h, field, err) ? View(field).nrefs() : 0;
    }

    static void get_object_references(mgx_handle_t *h, uint32_t, const aaa_tlv *field, uint64_t *array, uint32_t count,
                                      uint32_t *err) {
        if (!check_field(h, field, err)) return;
        View v(field);
        if (v.nrefs() == 0) return;
        if (!array || count < v.nrefs()) return fail(h, err, MGX_EINVAL);
        for (uint32_t i = 0; i < v.nrefs(); ++i) array[i] = v.ref(i);
    }

    static void set_sttr(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, uint8_t *area, uint32_t *err) {
        if (!check_field(h, field, err)) return;
        write_notify(h, &field->sttr, sizeof field->sttr, luid, nullptr);
        field->sttr = area;
    }
};

} // namespace
} // namespace mgx

using namespace mgx;

extern "C" {

MGX_EXPORT_VALUE_OPS(aaa_tlv, Tlv)
MGX_EXPORT_INSTANCE_OPS(aaa_tlv, Tlv)

void aaa_tlv_offset_update(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, uint8_t *flag_base, uint32_t *err) {
    Tlv::set_sttr(h, luid, field, flag_base, err);
}

void aaa_tlv_offset_remove(mgx_handle_t *h, uint32_t luid, aaa_tlv *field, uint32_t *err) {
    Tlv::set_sttr(h, luid, field, nullptr, err);
}

// Appends in the body's spare room when there is enough; otherwise the body moves to one with
// room grown by a factor. Either way the body word is announced, as every change of the list is.
void aaa_tlv_attr_add(mgx_handle_t *h, uint32_t luid, aaa_tlv *tlv, uint32_t type, const void *value, uint32_t length,
                      uint32_t *err) {
    if (!check_field(h, tlv, err)) return;
    if (!value && length) return fail(h, err, MGX_EINVAL);
    View v(tlv);
    const uint64_t count = uint64_t{v.count()} + 1, data_len = uint64_t{v.data_len()} + length;
    Body *body = tlv->body;
    if (body && count <= body->attr_room && data_len <= body->data_room &&
        kWireHeader + kWireAttr * count + data_len <= INT32_MAX) {
        write_notify(h, &tlv->body, sizeof tlv->body, luid, nullptr);
        body->attrs()[body->count] = AaaAttr{type, length, body->data_len};
        if (length) std::memcpy(body->data() + body->data_len, value, length);
        body->count = static_cast<uint32_t>(count);
        body->data_len = static_cast<uint32_t>(data_len);
        return;
    }
    const uint64_t attr_room = body ? body->attr_room : 0, data_room = body ? body->data_room : 0;
    Builder b;
    if (!b.start(h, luid, v.nrefs(), count, data_len, v.nrefs(), count <= attr_room ? attr_room : grown(attr_room, count),
                 data_len <= data_room ? data_room : grown(data_room, data_len), err))
        return;
    b.refs_of(v);
    b.attrs_of(v);
    b.attr(type, value, length);
    replace(h, luid, tlv, b.take(), true);
}

uint32_t aaa_tlv_attr_count(const aaa_tlv *tlv) { return View(tlv).count(); }

uint32_t aaa_tlv_attr_at(const aaa_tlv *tlv, uint32_t i, const void **value, uint32_t *length) {
    View v(tlv);
    bool in = i < v.count();
    if (value) *value = in ? v.value(i) : nullptr;
    if (length) *length = in ? v.attr(i).length : 0;
    return in ? v.attr(i).type : 0;
}

int32_t aaa_tlv_attr_find(const aaa_tlv *tlv, uint32_t type) {
    View v(tlv);
    for (uint32_t i = 0; i < v.count() && i < INT32_MAX; ++i)
        if (v.attr(i).type == type) return static_cast<int32_t>(i);
    return -1;
}

void aaa_tlv_attr_remove(mgx_handle_t *h, uint32_t luid, aaa_tlv *tlv, uint32_t i, uint32_t *err) {
    if (!check_field(h, tlv, err)) return;
    View v(tlv);
    if (i >= v.count()) return fail(h, err, MGX_ENOENT);
    Builder b;
    if (!b.start(h, luid, v.nrefs(), v.count() - 1, v.data_len() - v.attr(i).length, err)) return;
    b.refs_of(v);
    b.attrs_of(v, i);
    replace(h, luid, tlv, b.take(), true);
}

// The list takes a reference of its own on the object; the containing record's destroy releases it.
void aaa_tlv_add_object_reference(mgx_handle_t *h, uint32_t luid, aaa_tlv *tlv, uint64_t oid, uint32_t *err) {
    if (!check_field(h, tlv, err)) return;
    if (!mgx_oid_exists(h, oid)) return fail(h, err, MGX_ENOENT);
    View v(tlv);
    Body *body = tlv->body;
    if (body && body->nrefs < body->ref_room) {
        write_notify(h, &tlv->body, sizeof tlv->body, luid, nullptr);
        body->refs()[body->nrefs++] = oid;
    } else {
        const uint64_t nrefs = uint64_t{v.nrefs()} + 1;
        Builder b;
        if (!b.start(h, luid, nrefs, v.count(), v.data_len(), grown(body ? body->ref_room : 0, nrefs), body ? body->attr_room : 0,
                     body ? body->data_room : 0, err))
            return;
        b.refs_of(v);
        b.ref(oid);
        b.attrs_of(v);
        replace(h, luid, tlv, b.take(), true);
    }
    mgx_oid_add_ref(h, oid);
}

} // extern "C"
