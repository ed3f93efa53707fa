// The XML and print forms of records and unions. Every field is written by its own kind's writer
// (the runtime's primitive writers, the enumeration form, or a nested record's own form) in
// declaration order; union members appear under the discriminator's name joined to theirs.
#include "ops/text/text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ops/enum/enum.h"
#include "ops/record/lifecycle.h"
#include "ops/walk.h"

namespace ovrin {

namespace {

constexpr unsigned path_size = 256; // one path buffer per level; longer paths are cut
constexpr unsigned label_size = 80; // element labels of arrays and union members

struct PrimText {
    uint32_t (*to_xml)(mgx_handle_t *, uint32_t, const char *, char *, const void *, uint32_t, uint8_t, uint32_t *);
    void (*from_xml)(mgx_handle_t *, uint32_t, const char *, void *, void *, uint32_t *, char *, uint32_t);
    uint32_t (*print)(mgx_handle_t *, uint32_t, char *, uint32_t, const char *, const void *, uint32_t, uint32_t *);
};

template <class T, auto ToXml, auto FromXml, auto Print> constexpr PrimText prim_text() {
    return PrimText{
        [](mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const void *f, uint32_t size, uint8_t state,
           uint32_t *err) { return ToXml(h, luid, name, buf, static_cast<const T *>(f), size, state, err); },
        [](mgx_handle_t *h, uint32_t luid, const char *path, void *doc, void *f, uint32_t *err, char *msg, uint32_t msg_size) {
            FromXml(h, luid, path, doc, static_cast<T *>(f), err, msg, msg_size);
        },
        [](mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const void *f, uint32_t size,
           uint32_t *err) { return Print(h, luid, buf, indent, name, static_cast<const T *>(f), size, err); },
    };
}

#define OVRIN_PRIM_TEXT(T) prim_text<T, T##_to_xml, T##_from_xml, T##_print>()

// By kind: the list is in the order of Kind, whose primitives come first.
const PrimText &prim_text_of(Kind k) {
    static const PrimText table[] = {
#define OVRIN_ENTRY(K, T, S, A) OVRIN_PRIM_TEXT(T),
        OVRIN_ALL_PRIMS(OVRIN_ENTRY)
#undef OVRIN_ENTRY
    };
    return table[static_cast<int>(k)];
}

// The member a union's discriminator selects (present in the variant), or null.
template <class V> const Field *selected_member(const Type &t, V *instance, int variant) {
    for (FieldAt<V> a : fields(t, instance, variant))
        if (a.selected()) return &a.field();
    return nullptr;
}

// Paths and labels go into fixed buffers, one per level; a longer one is cut, deliberately. The
// pieces are joined one after another, the buffer always terminated (a path is built for every
// field read, so this stays clear of the formatted printers).
template <size_t N> class Joined {
public:
    explicit Joined(char (&out)[N]) : out_(out) { out_[0] = '\0'; }
    Joined &operator<<(std::string_view s) {
        size_t k = s.size() < N - 1 - n_ ? s.size() : N - 1 - n_;
        std::memcpy(out_ + n_, s.data(), k);
        out_[n_ += k] = '\0';
        return *this;
    }
    Joined &operator<<(const char *s) { return *this << std::string_view(s); }
    Joined &operator<<(char c) { return *this << std::string_view(&c, 1); }
    Joined &operator<<(uint32_t v) {
        char digits[10];
        size_t k = sizeof digits;
        do digits[--k] = static_cast<char>('0' + v % 10);
        while (v /= 10);
        return *this << std::string_view(digits + k, sizeof digits - k);
    }

private:
    char (&out_)[N];
    size_t n_ = 0;
};

void member_label(char (&label)[label_size], const Type &t, const Field &member, char joiner) {
    Joined(label) << t.fields[t.discriminator].name << joiner << member.name;
}

// ------------------------------------------------------------------ XML writing

// A text being written: each writer is a piece that gets the rest of the buffer and adds what it
// wrote. A bounded text (the C writers) is cut at the end of its buffer; once the buffer is full
// no writer could add anything, so the walk stops there instead of visiting the rest of the
// instance for nothing. A growing text (a whole rendering) is never cut: a piece that may not have
// fitted is written again at the same place after the buffer has grown, so one walk makes the
// whole text and each growth costs at most the piece being written, never the text before it.
struct Growth {
    char **text;
    size_t *size;
};

// A piece that stops this far or further from the end of its room was written whole: a writer
// that runs out of room fills it but for the terminating NUL and at most the escape ("&#xE0HH;",
// eight characters) that it left out rather than split.
constexpr uint32_t piece_slack = 16;
constexpr uint32_t first_growth = 4096;

struct TextOut {
    mgx_handle_t *h;
    uint32_t luid;
    char *buf;
    uint32_t size;
    uint32_t *err;
    Growth *growth = nullptr;
    uint32_t n = 0;
    uint32_t left() const { return n < size ? size - n : 0; }
    char *at() const { return buf + (n < size ? n : size); }
    bool full() const { return !growth && n + 1 >= size; }

    // One piece: write(at, room) writes at most room - 1 characters and a NUL at `at`, and says
    // how many it wrote.
    template <class Write> void put(Write write) {
        for (;;) {
            uint32_t k = write(at(), left());
            if (!growth || *err || k + piece_slack < left()) {
                n += k;
                return;
            }
            if (!grow()) return;
        }
    }

    // Twice the room (a first block when there is none), from the C heap: the text is the
    // caller's. 12 when that is refused or the text would pass the largest size the writers take.
    bool grow() {
        size_t want = !buf ? first_growth : size < 16 ? 16 : size_t{size} * 2;
        if (size == UINT32_MAX) {
            fail(h, err, MGX_ENOMEM);
            return false;
        }
        if (want > UINT32_MAX) want = UINT32_MAX;
        auto *bigger = static_cast<char *>(std::realloc(*growth->text, want));
        if (!bigger) {
            fail(h, err, MGX_ENOMEM);
            return false;
        }
        *growth->text = buf = bigger;
        *growth->size = size = static_cast<uint32_t>(want);
        return true;
    }
};
using XmlOut = TextOut;
using PrintOut = TextOut;

void write_xml(const Type &t, XmlOut &o, const char *name, const void *instance, uint8_t state_flag);

void element_to_xml(const Field &f, XmlOut &o, const char *name, const void *element, uint8_t state) {
    switch (f.kind) {
    case Kind::record: write_xml(*f.type, o, name, element, state); return;
    case Kind::enumeration:
        o.put([&](char *at, uint32_t left) { return enum_to_xml(*f.type, o.h, o.luid, name, at, element, left, state, o.err); });
        return;
    default:
        o.put([&](char *at, uint32_t left) {
            return prim_text_of(f.kind).to_xml(o.h, o.luid, name, at, element, left, state, o.err);
        });
        return;
    }
}

void field_to_xml(const FieldAt<const void> &a, XmlOut &o, uint8_t state) {
    const Field &f = a.field();
    switch (f.shape) {
    case Shape::scalar:
    case Shape::fixed_array:
    case Shape::var_array:
        for (uint32_t k = 0, n = a.elements(); k < n && !*o.err && !o.full(); ++k)
            element_to_xml(f, o, f.name, a.element(k), state);
        return;
    case Shape::var_string: {
        const char *text = static_cast<const char *>(a.block());
        o.put([&](char *at, uint32_t left) {
            return var_string_to_xml(o.h, o.luid, f.name, at, text, left, text ? a.count() : 0, state, o.err);
        });
        return;
    }
    case Shape::member: return; // written once, after the fields, when selected
    }
}

void write_xml(const Type &t, XmlOut &o, const char *name, const void *instance, uint8_t state_flag) {
    if (!begin(o.h, o.luid, instance, o.err)) return;
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    bool tracked = tracking(t, o.h);
    const uint8_t *area = tracked && instance && (hdr(instance)->flags & MGX_IF_TRACKED)
                              ? state_area(t, o.h, o.luid, const_cast<void *>(instance))
                              : nullptr;
    o.put([&](char *at, uint32_t left) { return start_tag(at, left, name, state_flag); });
    if (variant >= 0) {
        for (FieldAt<const void> a : fields(t, instance, variant)) {
            if (*o.err || o.full()) break;
            field_to_xml(a, o, a.flag(area));
        }
        const Field *m = *o.err || o.full() ? nullptr : selected_member(t, instance, variant);
        if (m) {
            if (const void *member = *static_cast<const void *const *>(field_at(instance, *m))) {
                char label[label_size];
                member_label(label, t, *m, '-');
                write_xml(*m->type, o, label, member, area ? area[m->sttr_pos] : 0);
            }
        }
    }
    o.put([&](char *at, uint32_t left) { return end_tag(at, left, name); });
}

// ------------------------------------------------------------------ XML reading

struct XmlIn {
    mgx_handle_t *h;
    uint32_t luid;
    void *doc;
    uint32_t *err;
    char *msg;
    uint32_t msg_size;
};

// A value the document gives but the type cannot take: 22, and "Invalid value at <path>" in the
// caller's message buffer, as the primitive readers say it.
void invalid_at(XmlIn &in, const char *path) {
    fail(in.h, in.err, MGX_EINVAL);
    if (in.msg && in.msg_size) std::snprintf(in.msg, in.msg_size, "Invalid value at %s", path);
}

// An absent element is no error to the record that reads it: the field keeps its value.
bool absent_is_fine(uint32_t *err) {
    if (*err != MGX_ENOENT) return *err == 0;
    *err = 0;
    return true;
}

void element_from_xml(const Field &f, XmlIn &in, const char *path, void *element) {
    switch (f.kind) {
    case Kind::record: from_xml(*f.type, in.h, in.luid, path, in.doc, element, in.err, in.msg, in.msg_size); return;
    case Kind::enumeration: enum_from_xml(*f.type, in.h, in.luid, path, in.doc, element, in.err, in.msg, in.msg_size); return;
    default: prim_text_of(f.kind).from_xml(in.h, in.luid, path, in.doc, element, in.err, in.msg, in.msg_size); return;
    }
}

// The length field has been read already; the text decides it in the end. Without a text in the
// document the length goes back to what it was, so that it always describes the stored string.
void string_from_xml(const FieldAt<void> &a, XmlIn &in, const char *path, uint32_t old_len) {
    uint32_t len = 0;
    uint32_t status = xml_get_element_value(in.doc, path, nullptr, 0, &len);
    if (status != MGX_ERANGE) {
        set_count(in.h, in.luid, a, old_len);
        if (status == MGX_EINVAL) invalid_at(in, path);   // an entity reference in the text
        else if (status != 0) fail(in.h, in.err, status); // 0: nothing to read, the field stays as it is
        return;
    }
    auto *text = static_cast<char *>(new_text(in.h, in.luid, len));
    if (!text) {
        fail(in.h, in.err, MGX_ENOMEM);
        return;
    }
    var_string_from_xml(in.h, in.luid, path, in.doc, text, len + 1, in.err);
    if (*in.err) {
        drop_text(in.h, in.luid, text);
        return;
    }
    // The record owns the text from here: the old one goes, the length field follows.
    replace_text(in.h, in.luid, a.pointer(), text, a.instance());
    set_count(in.h, in.luid, a, len);
}

// Gives a variable array storage for `count` fresh elements, as many as the document holds.
bool resize_array(const FieldAt<void> &a, const Type &t, XmlIn &in, uint32_t count) {
    return replace_array(a, in.h, in.luid, count, tracking(t, in.h), in.err);
}

void array_from_xml(const FieldAt<void> &a, const Type &t, XmlIn &in, const char *path, bool count_read, uint32_t old_count) {
    const Field &f = a.field();
    char element_path[path_size];
    if (f.shape == Shape::var_array) {
        if (!count_read) return; // no count in the document: the array stays as it is
        uint32_t present = 0;
        xml_get_element_nodecount(in.doc, path, &present);
        uint32_t count = a.count();
        set_count(in.h, in.luid, a, old_count); // the storage's own count
        if (count > present) {                  // a count the document does not back is refused, not allocated
            const char *slash = std::strrchr(path, '/');
            char count_path[path_size];
            const std::string_view record(path, slash ? static_cast<size_t>(slash - path) : 0);
            Joined(count_path) << record << '/' << a.counter().name;
            invalid_at(in, count_path);
            return;
        }
        if (!resize_array(a, t, in, count)) return;
    }
    for (uint32_t k = 0, n = a.elements(); k < n; ++k) {
        Joined(element_path) << path << '[' << k + 1 << ']';
        element_from_xml(f, in, element_path, a.element(k));
        if (!absent_is_fine(in.err)) return;
    }
}

void member_from_xml(const Type &t, const FieldAt<void> &a, XmlIn &in, const char *parent) {
    const Field &f = a.field();
    char label[label_size], path[path_size];
    member_label(label, t, f, '-');
    Joined(path) << parent << '/' << label;
    void *&slot = a.pointer();
    if (!slot) {
        notify(in.h, &slot, sizeof slot, in.luid, a.instance());
        slot = create_internal(*f.type, in.h, in.luid);
        if (!slot) {
            fail(in.h, in.err, MGX_ENOMEM);
            return;
        }
    }
    from_xml(*f.type, in.h, in.luid, path, in.doc, slot, in.err, in.msg, in.msg_size);
}

// ------------------------------------------------------------------ print

void write_print(const Type &t, PrintOut &o, uint32_t indent, const char *name, const void *instance);

void element_print(const Field &f, PrintOut &o, uint32_t indent, const char *label, const void *element) {
    switch (f.kind) {
    case Kind::record: write_print(*f.type, o, indent, label, element); return;
    case Kind::enumeration:
        o.put([&](char *at, uint32_t left) { return enum_print(*f.type, o.h, o.luid, at, indent, label, element, left, o.err); });
        return;
    default:
        o.put([&](char *at, uint32_t left) {
            return prim_text_of(f.kind).print(o.h, o.luid, at, indent, label, element, left, o.err);
        });
        return;
    }
}

void field_print(const FieldAt<const void> &a, PrintOut &o, uint32_t indent) {
    const Field &f = a.field();
    char label[label_size];
    switch (f.shape) {
    case Shape::scalar: element_print(f, o, indent, f.name, a.address()); return;
    case Shape::fixed_array:
    case Shape::var_array:
        for (uint32_t k = 0, n = a.elements(); k < n && !o.full(); ++k) {
            Joined(label) << f.name << '[' << k << ']';
            element_print(f, o, indent, label, a.element(k));
        }
        return;
    case Shape::var_string: {
        const char *text = static_cast<const char *>(a.block());
        o.put([&](char *at, uint32_t left) {
            return var_string_print(o.h, o.luid, at, indent, f.name, text, left, text ? a.count() : 0, o.err);
        });
        return;
    }
    case Shape::member: return; // printed once, after the fields, when selected and filled
    }
}

void write_print(const Type &t, PrintOut &o, uint32_t indent, const char *name, const void *instance) {
    if (!begin(o.h, o.luid, instance, o.err)) return;
    int8_t variant = mgx_get_instance_variant(instance, 1, 0);
    o.put([&](char *at, uint32_t left) { return mgx_print_space(o.h, o.luid, at, indent, left, o.err); });
    o.put([&](char *at, uint32_t left) { return mgx_snprintf(o.h, o.luid, at, left, o.err, "%s@%s: {\n", name, t.name); });
    if (variant < 0) return; // deliberately left open: callers go on after it
    for (FieldAt<const void> a : fields(t, instance, variant)) {
        if (o.full()) return; // nothing more fits, and nothing written after this could
        field_print(a, o, indent + 2);
    }
    const Field *m = o.full() ? nullptr : selected_member(t, instance, variant);
    if (m) {
        if (const void *member = *static_cast<const void *const *>(field_at(instance, *m))) {
            char label[label_size];
            member_label(label, t, *m, '.');
            write_print(*m->type, o, indent + 2, label, member);
        }
    }
    o.put([&](char *at, uint32_t left) { return mgx_print_space(o.h, o.luid, at, indent, left, o.err); });
    o.put([&](char *at, uint32_t left) { return mgx_snprintf(o.h, o.luid, at, left, o.err, "}\n"); });
}

} // namespace

uint32_t to_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const void *instance, uint32_t size,
                uint8_t state_flag, uint32_t *err) {
    XmlOut o{h, luid, buf, size, err};
    write_xml(t, o, name, instance, state_flag);
    return o.n;
}

uint32_t toxml_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size) {
    uint32_t n = to_xml(t, h, h->desc_call_luid, t.name, buf, instance, size, 0, &h->last_error);
    return h->last_error ? 0xFFFFFFFFu : n;
}

void from_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *path, void *doc, void *instance, uint32_t *err,
              char *msg, uint32_t msg_size) {
    if (!begin(h, luid, instance, err)) return;
    uint32_t nodes = 0;
    if (xml_get_element_nodecount(doc, path, &nodes) != 0 || nodes == 0) {
        fail(h, err, MGX_ENOENT);
        return;
    }
    XmlIn in{h, luid, doc, err, msg, msg_size};
    char child[path_size];
    OldCounts old_counts;  // counts and lengths as they describe the storage before the read
    OldCounts counts_read; // the counters the document gave
    // Every field is read, whatever the instance's variant: the document says what it holds.
    for (FieldAt<void> a : fields(t, instance, t.last_variant())) {
        const Field &f = a.field();
        if (f.shape == Shape::member) continue;
        Joined(child) << path << '/' << f.name;
        switch (f.shape) {
        case Shape::scalar: {
            if (a.is_counter()) old_counts.keep(a.index(), a.counted());
            element_from_xml(f, in, child, a.address());
            bool was_absent = *err == MGX_ENOENT;
            if (!absent_is_fine(err)) return;
            if (a.is_counter() && !was_absent) counts_read.keep(a.index(), 1);
            break;
        }
        case Shape::fixed_array:
        case Shape::var_array:
            array_from_xml(a, t, in, child, f.shape == Shape::var_array && counts_read.has(f.companion),
                           old_counts.of(f.companion));
            break;
        case Shape::var_string: string_from_xml(a, in, child, old_counts.of(f.companion)); break;
        case Shape::member: break;
        }
        if (!absent_is_fine(err)) return;
    }
    for (FieldAt<void> a : fields(t, instance, t.last_variant())) {
        if (!a.selected()) continue;
        member_from_xml(t, a, in, path);
        absent_is_fine(err);
        break;
    }
}

uint32_t print(const Type &t, mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const void *instance,
               uint32_t size, uint32_t *err) {
    PrintOut o{h, luid, buf, size, err};
    write_print(t, o, indent, name, instance);
    return o.n;
}

int32_t print_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size) {
    uint32_t n = print(t, h, h->desc_call_luid, buf, 0, t.name, instance, size, &h->last_error);
    return h->last_error ? -1 : static_cast<int32_t>(n);
}

int64_t text_whole(const Type &t, mgx_handle_t *h, const void *instance, bool xml, char **text, size_t *size) {
    if (!h || !text || !size) return -1;
    Growth growth{text, size};
    const size_t usable = !*text ? 0 : *size < UINT32_MAX ? *size : UINT32_MAX; // the most the writers take
    TextOut o{h, h->desc_call_luid, *text, static_cast<uint32_t>(usable), &h->last_error, &growth};
    if (!*text && !o.grow()) return -1;
    if (t.kind == TypeKind::enumeration)
        o.put([&](char *at, uint32_t left) {
            return xml ? enum_to_xml(t, h, o.luid, t.name, at, instance, left, 0, o.err)
                       : enum_print(t, h, o.luid, at, 0, t.name, instance, left, o.err);
        });
    else if (xml) write_xml(t, o, t.name, instance, 0);
    else write_print(t, o, 0, t.name, instance);
    return h->last_error ? -1 : int64_t{o.n};
}

} // namespace ovrin
