// The generic half of the C++ interface of a message bundle: owning messages, references into
// them, arrays, attribute lists and enumeration names, written once for every type over a
// per-type table of the bundle's C functions (`ovrin::c_ops<C>`, generated beside the typed
// accessors in <DOMAIN/DOMAIN.hpp>). Everything here is inline code in the caller's program over
// the unchanged C interface: no exception crosses it, and each call is the C call it stands for.
//
// Lifetimes. A message owns its instance and frees it when it goes. A reference (`..._ref`, an
// array, an attribute list) points into an instance that something else owns: it is valid while
// that instance lives and the place it refers to stays where it is: an element reference until
// its array is resized, grown by push_back/emplace_back or cleared; a union arm's reference until
// another arm is set; any reference until its message is decoded into again or destroyed.
#ifndef OVRIN_MESSAGE_HPP
#define OVRIN_MESSAGE_HPP

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "mgx/handle.hpp"

namespace ovrin {

// Per C type T: `name`, `index` (the type's entry in the bundle's operations table, `table()`),
// and the type's exported operations as constants (create, destroy, set, adjust_variant, len,
// marshal, unmarshal, clone, compare, hash). Generated.
template <class C> struct c_ops;
// Per enumeration E (an enum class): `literals`, an array of {E, name}. Generated.
template <class E> struct enum_names;

namespace detail {

[[noreturn]] inline void fail(uint32_t code, const char *type, const char *member) {
    mgx::raise(code, member ? std::string(type) + "." + member : std::string(type));
}

inline void check(uint32_t err, const char *type, const char *member) {
    if (err) [[unlikely]]
        fail(err, type, member);
}

// Bytes as the C interface takes them.
inline std::span<uint8_t> octets(std::span<std::byte> b) noexcept { return {reinterpret_cast<uint8_t *>(b.data()), b.size()}; }
inline std::span<const uint8_t> octets(std::span<const std::byte> b) noexcept {
    return {reinterpret_cast<const uint8_t *>(b.data()), b.size()};
}

// A C accessor `r f(h, luid, instance, args..., err)`, its refusal thrown with the member's name.
template <class F, class... A>
decltype(auto) invoke(const char *type, const char *member, F f, mgx_handle_t *h, uint32_t luid, A... args) {
    uint32_t err = 0;
    if constexpr (std::is_void_v<decltype(f(h, luid, args..., &err))>) {
        f(h, luid, args..., &err);
        check(err, type, member);
    } else {
        auto r = f(h, luid, args..., &err);
        check(err, type, member);
        return r;
    }
}

// A forward iterator over a range read by index (an array, an attribute list).
template <class Range, class Value> class index_iterator {
public:
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    index_iterator() = default;
    index_iterator(const Range *r, uint32_t i) : r_(r), i_(i) {}
    Value operator*() const { return (*r_)[i_]; }
    index_iterator &operator++() { return ++i_, *this; }
    index_iterator operator++(int) { return index_iterator(r_, i_++); }
    bool operator==(const index_iterator &o) const { return i_ == o.i_; }

private:
    const Range *r_ = nullptr;
    uint32_t i_ = 0;
};

} // namespace detail

// What every view of an instance of C can do. A default-made or moved-from view holds nothing
// (operator bool says so); every operation on it is refused with 22.
template <class C> class view_base {
public:
    using c_type = C;
    using ops = c_ops<C>;

    view_base() = default;
    view_base(mgx_handle_t *h, uint32_t luid, C *p) noexcept : h_(h), luid_(luid), p_(p) {}

    C *get() const noexcept { return p_; }
    mgx_handle_t *runtime() const noexcept { return h_; }
    uint32_t luid() const noexcept { return luid_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    static constexpr const char *type_name() noexcept { return ops::name; }

    // The print form and the XML form, whole whatever their size.
    std::string to_string() const { return whole(ops::table().print_whole); }
    std::string to_xml() const { return whole(ops::table().toxml_whole); }
    // The JSON form (docs/json.md): one line, or indented as jq prints it.
    std::string to_json(bool pretty = false) const {
        return whole([pretty](mgx_handle_t *h, const void *p, char **text, size_t *size) {
            return ops::to_json(h, static_cast<const C *>(p), pretty ? OVRIN_JSON_PRETTY : 0u, text, size);
        });
    }

    // The encoding's size as the library states it (without any retained data of handle-mapped
    // instances, which encode() makes room for itself).
    uint32_t encoded_size() const { return ops::len(h_, luid_, live()); }
    std::vector<uint8_t> encode() const {
        std::vector<uint8_t> out(encoded_size());
        for (;;) {
            std::error_code ec;
            size_t n = encode_to(out, ec);
            if (!ec) {
                out.resize(n);
                return out;
            }
            if (ec.value() != static_cast<int>(MGX_ESHORT) || out.size() > (size_t{1} << 30))
                detail::fail(static_cast<uint32_t>(ec.value()), type_name(), "encode");
            out.resize(out.size() * 2 + 64);
        }
    }
    // Into the caller's bytes, allocating nothing: the length written. Throws (or sets ec) 90
    // when they are too few.
    size_t encode_to(std::span<uint8_t> out) const {
        std::error_code ec;
        size_t n = encode_to(out, ec);
        if (ec) detail::fail(static_cast<uint32_t>(ec.value()), type_name(), "encode");
        return n;
    }
    size_t encode_to(std::span<std::byte> out) const { return encode_to(detail::octets(out)); }
    size_t encode_to(std::span<std::byte> out, std::error_code &ec) const noexcept { return encode_to(detail::octets(out), ec); }
    size_t encode_to(std::span<uint8_t> out, std::error_code &ec) const noexcept {
        uint32_t err = p_ ? 0 : MGX_EINVAL;
        int32_t space = out.size() > INT32_MAX ? INT32_MAX : static_cast<int32_t>(out.size());
        uint32_t n = err ? 0 : ops::marshal(h_, luid_, out.data(), p_, space, &err);
        ec = err ? mgx::make_error_code(err) : std::error_code();
        return err ? 0 : n;
    }

    // Decodes bytes into this instance, raised first (on its first decode through this object)
    // to the handle's variant of its type, so that no member the peer sent is dropped; a raised
    // instance keeps the room. Every byte must be used: trailing bytes are refused with 22. What
    // the instance held before is replaced; strings, arrays and lists of the same size keep their
    // storage.
    void decode_from(std::span<const uint8_t> bytes) {
        std::error_code ec;
        if (!decode_from(bytes, ec)) detail::fail(static_cast<uint32_t>(ec.value()), type_name(), "decode");
    }
    bool decode_from(std::span<const uint8_t> bytes, std::error_code &ec) noexcept {
        size_t used = decode_prefix(bytes, ec);
        if (!ec && used != bytes.size()) ec = mgx::make_error_code(MGX_EINVAL);
        return !ec;
    }
    // The same for an encoding at the start of bytes, more may follow: the bytes used, also when
    // the encoding stops short of a whole message (ec then says why).
    size_t decode_prefix(std::span<const uint8_t> bytes, std::error_code &ec) noexcept {
        uint32_t err = p_ ? 0 : MGX_EINVAL;
        if (!err && !raised_) ops::adjust_variant(h_, luid_, p_, &err);
        raised_ = !err;
        if (bytes.size() > INT32_MAX) err = MGX_EINVAL;
        uint32_t used = 0;
        if (!err) used = ops::unmarshal(h_, luid_, bytes.data(), p_, static_cast<int32_t>(bytes.size()), 1, &err);
        ec = err ? mgx::make_error_code(err) : std::error_code();
        return used;
    }

    uint32_t hash(uint32_t seed = 0) const noexcept { return p_ ? ops::hash(p_, seed) : seed; }
    // The library's order: the variant, then each field in turn.
    int32_t compare(const view_base &other) const noexcept {
        if (!p_ || !other.p_) return (p_ != nullptr) - (other.p_ != nullptr);
        return ops::compare(p_, other.p_);
    }
    friend bool operator==(const view_base &a, const view_base &b) noexcept { return a.compare(b) == 0; }
    friend std::ostream &operator<<(std::ostream &out, const view_base &v) { return out << v.to_string(); }

    // The instance, refused with 22 when the view holds none.
    C *live() const {
        if (!p_) [[unlikely]]
            detail::fail(MGX_EINVAL, type_name(), nullptr);
        return p_;
    }

protected:
    template <class Render> std::string whole(Render render) const {
        char *text = nullptr;
        size_t size = 0;
        int64_t n = render(h_, live(), &text, &size);
        std::string out = n < 0 ? std::string() : std::string(text, static_cast<size_t>(n));
        std::free(text);
        if (n < 0) {
            uint32_t code = mgx_handle_last_error(h_);
            detail::fail(code ? code : MGX_ENOMEM, type_name(), "render");
        }
        return out;
    }

    mgx_handle_t *h_ = nullptr;
    uint32_t luid_ = 0;
    C *p_ = nullptr;
    bool raised_ = false;
};

// The typed accessors of a generated type reach their instance through this base: Self is the
// reference or the message class that mixes them in.
template <class Self> struct fields {
protected:
    const Self &self_() const noexcept { return static_cast<const Self &>(*this); }
    Self &self_() noexcept { return static_cast<Self &>(*this); }

    template <class F, class... A> decltype(auto) call_(const char *member, F f, A... args) const {
        const Self &s = self_();
        return detail::invoke(Self::type_name(), member, f, s.runtime(), s.luid(), s.live(), args...);
    }
    // A nested record or union (or a union's arm, or an array element) as a reference.
    template <class Ref, class F, class... A> Ref nested_(const char *member, F f, A... args) const {
        return Ref(self_().runtime(), self_().luid(), call_(member, f, args...));
    }
    // A member that the instance's variant must have before its storage is read directly.
    void require_(const char *member, int from) const {
        const Self &s = self_();
        if (reinterpret_cast<const mgx_instance_hdr_t *>(s.live())->variant < from) [[unlikely]]
            detail::fail(MGX_EVARIANT, Self::type_name(), member);
    }
    // A counted string's text: up to its stored length, ending early at a NUL as the library's
    // own reading does.
    static std::string_view text_(const char *p, uint32_t length) noexcept {
        return p ? std::string_view(p, strnlen(p, length)) : std::string_view();
    }
    // An enumeration field written through its holder, so that its state flag is marked.
    template <class E, class CE, class F> void set_enum_(const char *member, F set, CE *field, E value) {
        CE copy = *field;
        copy.value = static_cast<uint32_t>(value);
        call_(member, set, &copy);
    }
    // A union's arm given an instance: the union takes it (also when it stores it and then
    // refuses, as a tracking check does); a member the arm's slot held before is freed.
    template <class M, class MC, class F> void put_member_(const char *member, F set, MC **slot, M &&m) {
        Self &s = self_();
        MC *held = *slot, *fresh = m.get();
        uint32_t err = fresh ? 0 : MGX_EINVAL;
        if (!err) set(s.runtime(), s.luid(), s.live(), fresh, &err);
        if (fresh && *slot == fresh) {
            m.release();
            if (held && held != fresh) c_ops<MC>::destroy(s.runtime(), s.luid(), held);
        }
        detail::check(err, Self::type_name(), member);
    }
};

// A reference to an instance owned elsewhere.
template <class C> class ref_base : public view_base<C> {
public:
    using view_base<C>::view_base;
};

// An owning message: made, decoded or read from XML through the handle, freed when it goes.
// Move-only; clone() copies.
template <class C, class Self> class message_base : public view_base<C> {
    using base = view_base<C>;
    using ops = c_ops<C>;

public:
    message_base() = default;
    message_base(message_base &&other) noexcept : base(other.h_, other.luid_, std::exchange(other.p_, nullptr)) {
        this->raised_ = other.raised_;
    }
    message_base &operator=(message_base &&other) noexcept {
        if (this != &other) {
            reset();
            this->h_ = other.h_;
            this->luid_ = other.luid_;
            this->p_ = std::exchange(other.p_, nullptr);
            this->raised_ = other.raised_;
        }
        return *this;
    }
    ~message_base() { reset(); }

    // A new instance at the handle's variant of the type.
    static Self create(mgx::handle &h) { return create(h.get(), h.luid()); }
    static Self create(mgx_handle_t *h, uint32_t luid) {
        C *p = ops::create(h, luid);
        if (!p) detail::fail(MGX_ENOMEM, ops::name, nullptr);
        return Self::adopt(h, luid, p);
    }
    // Takes over an instance made through the C interface.
    static Self adopt(mgx_handle_t *h, uint32_t luid, C *p) noexcept {
        Self s;
        s.h_ = h;
        s.luid_ = luid;
        s.p_ = p;
        return s;
    }
    // Gives the instance up to the caller (for the C interface), leaving this message empty.
    C *release() noexcept {
        this->raised_ = false;
        return std::exchange(this->p_, nullptr);
    }

    // A new instance from the bytes of one encoding, all of them used.
    static Self decode(mgx::handle &h, std::span<const uint8_t> bytes) {
        Self s = create(h);
        s.decode_from(bytes);
        return s;
    }
    static Self decode(mgx::handle &h, std::span<const std::byte> bytes) { return decode(h, detail::octets(bytes)); }
    static Self decode(mgx::handle &h, std::span<const std::byte> bytes, std::error_code &ec) noexcept {
        return decode(h, detail::octets(bytes), ec);
    }
    // The same without throwing: an empty message, with ec set, when the bytes do not decode.
    static Self decode(mgx::handle &h, std::span<const uint8_t> bytes, std::error_code &ec) noexcept {
        C *p = ops::create(h.get(), h.luid());
        Self s = Self::adopt(h.get(), h.luid(), p);
        if (!p) ec = mgx::make_error_code(MGX_ENOMEM);
        else if (!s.decode_from(bytes, ec)) s.reset();
        return s;
    }

    // A new instance from its XML form (the root element named as the type). A document that is
    // not well-formed, or one the type's reading refuses, is thrown with the runtime's words.
    static Self from_xml(mgx::handle &h, std::string_view xml) {
        char why[512] = "";
        void *doc = mgx_xml_document_read(xml.data(), xml.size(), why, sizeof why);
        if (!doc) mgx::raise(MGX_EINVAL, std::string(ops::name) + ": " + why);
        Self s;
        uint32_t err = 0;
        char message[512] = "";
        C *p = ops::create(h.get(), h.luid());
        if (p) {
            s = Self::adopt(h.get(), h.luid(), p);
            ops::adjust_variant(h.get(), h.luid(), p, &err);
            const std::string path = std::string("/") + ops::name;
            if (!err) ops::from_xml(h.get(), h.luid(), path.c_str(), doc, p, &err, message, sizeof message);
        } else {
            err = MGX_ENOMEM;
        }
        mgx_xml_document_free(doc);
        if (err) mgx::raise(err, std::string(ops::name) + (message[0] ? std::string(": ") + message : ""));
        return s;
    }

    // A new instance from its JSON form, strictly unless lenient. A refused document is thrown
    // with the pointer of the value at fault and the reader's words.
    static Self from_json(mgx::handle &h, std::string_view json, bool lenient = false) {
        Self s = create(h);
        uint32_t err = 0;
        ops::adjust_variant(h.get(), h.luid(), s.get(), &err);
        if (err) detail::fail(err, ops::name, "from_json");
        ovrin_json_error e{};
        const uint32_t flags = lenient ? OVRIN_JSON_LENIENT : 0u;
        if ((err = ops::from_json(h.get(), h.luid(), json.data(), json.size(), s.get(), flags, &e))) {
            std::string where = std::string(ops::name) + " " + (e.pointer ? e.pointer : "") + ": " + (e.text ? e.text : "");
            ovrin_json_error_free(&e);
            mgx::raise(err, where);
        }
        return s;
    }

    // A deep copy, through the type's encoding.
    Self clone() const {
        std::vector<uint8_t> work(size_t{this->encoded_size()} + 2);
        for (;;) {
            C *copy = nullptr;
            uint32_t err = 0;
            ops::clone(this->h_, this->luid_, this->live(), &copy, work.data(), static_cast<uint32_t>(work.size()), &err);
            if (!err) return Self::adopt(this->h_, this->luid_, copy);
            if (err != MGX_ESHORT || work.size() > (size_t{1} << 30)) detail::fail(err, ops::name, "clone");
            work.resize(work.size() * 2 + 64);
        }
    }

    void reset() noexcept {
        if (C *p = std::exchange(this->p_, nullptr)) ops::destroy(this->h_, this->luid_, p);
        this->raised_ = false;
    }
};

// A variable array of records in its holder: size, elements by index (references), growth.
// Get/Set/Count/Remove are the holder's C accessors for the array.
template <class Holder, class ElemRef, auto Get, auto Set, auto Count, auto Remove> class array_ref {
    using elem_c = typename ElemRef::c_type;
    using elem_ops = c_ops<elem_c>;

public:
    array_ref(mgx_handle_t *h, uint32_t luid, Holder *p, const char *type, const char *member) noexcept
        : h_(h), luid_(luid), p_(p), type_(type), member_(member) {}

    uint32_t size() const { return call(Count); }
    bool empty() const { return size() == 0; }
    ElemRef operator[](uint32_t i) const { return ElemRef(h_, luid_, call(Get, i)); }
    ElemRef at(uint32_t i) const { return (*this)[i]; }
    ElemRef front() const { return (*this)[0]; }
    ElemRef back() const { return (*this)[size() - 1]; }

    // A new element at the end, freshly made, as a reference to fill in place.
    ElemRef emplace_back() {
        uint32_t n = size();
        grow_to(n + 1);
        return (*this)[n];
    }
    // The element's contents move over (a union arm it holds becomes the array's).
    template <class M> void push_back(M &&element) {
        uint32_t n = size();
        call(Set, n, element.get());
    }
    // Down to n elements (their contents kept) or up to n (the new ones freshly made).
    void resize(uint32_t n) {
        uint32_t have = size();
        if (n > have) return grow_to(n);
        if (n == have) return;
        // The library has no way to drop the last elements alone: the first n move out, the
        // array is emptied, and they move back.
        std::vector<elem_c *> kept;
        kept.reserve(n);
        struct release_all {
            std::vector<elem_c *> &v;
            mgx_handle_t *h;
            uint32_t luid;
            ~release_all() {
                for (elem_c *e : v) elem_ops::destroy(h, luid, e);
            }
        } guard{kept, h_, luid_};
        for (uint32_t i = 0; i < n; ++i) {
            kept.push_back(fresh());
            detail::invoke(type_, member_, elem_ops::set, h_, luid_, kept.back(), call(Get, i));
        }
        clear();
        for (uint32_t i = 0; i < n; ++i) call(Set, i, kept[i]);
    }
    void clear() { Remove(h_, luid_, p_); }

    using iterator = detail::index_iterator<array_ref, ElemRef>;
    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, size()); }

private:
    template <class F, class... A> decltype(auto) call(F f, A... args) const {
        return detail::invoke(type_, member_, f, h_, luid_, p_, args...);
    }
    elem_c *fresh() const {
        elem_c *e = elem_ops::create(h_, luid_);
        if (!e) detail::fail(MGX_ENOMEM, type_, member_);
        return e;
    }
    // Setting element n-1 makes the array n long, the elements between freshly made.
    void grow_to(uint32_t n) {
        elem_c *e = fresh();
        uint32_t err = 0;
        Set(h_, luid_, p_, n - 1, e, &err);
        elem_ops::destroy(h_, luid_, e);
        detail::check(err, type_, member_);
    }

    mgx_handle_t *h_;
    uint32_t luid_;
    Holder *p_;
    const char *type_, *member_;
};

// An attribute list (aaa_tlv) in its holder: typed attributes with byte values.
class attr_list {
public:
    struct attribute {
        uint32_t type;
        std::span<const uint8_t> value;
    };

    attr_list(mgx_handle_t *h, uint32_t luid, aaa_tlv *t, const char *type, const char *member) noexcept
        : h_(h), luid_(luid), t_(t), type_(type), member_(member) {}

    uint32_t size() const noexcept { return aaa_tlv_attr_count(t_); }
    bool empty() const noexcept { return size() == 0; }
    attribute operator[](uint32_t i) const {
        if (i >= size()) detail::fail(MGX_ENOENT, type_, member_);
        const void *value = nullptr;
        uint32_t length = 0;
        uint32_t type = aaa_tlv_attr_at(t_, i, &value, &length);
        return {type, {static_cast<const uint8_t *>(value), length}};
    }
    // The index of the first attribute of this type.
    std::optional<uint32_t> find(uint32_t type) const noexcept {
        int32_t i = aaa_tlv_attr_find(t_, type);
        return i < 0 ? std::nullopt : std::optional<uint32_t>(static_cast<uint32_t>(i));
    }
    void add(uint32_t type, std::span<const uint8_t> value) {
        uint32_t err = 0;
        aaa_tlv_attr_add(h_, luid_, t_, type, value.data(), static_cast<uint32_t>(value.size()), &err);
        detail::check(err, type_, member_);
    }
    void add(uint32_t type, std::string_view value) {
        add(type, {reinterpret_cast<const uint8_t *>(value.data()), value.size()});
    }
    void remove(uint32_t i) {
        uint32_t err = 0;
        aaa_tlv_attr_remove(h_, luid_, t_, i, &err);
        detail::check(err, type_, member_);
    }

    using iterator = detail::index_iterator<attr_list, attribute>;
    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, size()); }

private:
    mgx_handle_t *h_;
    uint32_t luid_;
    aaa_tlv *t_;
    const char *type_, *member_;
};

// Enumeration literals by name and back.
template <class E> constexpr std::string_view to_string(E value) noexcept requires requires { enum_names<E>::literals; }
{
    for (const auto &[v, name] : enum_names<E>::literals)
        if (v == value) return name;
    return {};
}
template <class E> constexpr std::optional<E> from_string(std::string_view name) noexcept {
    for (const auto &[v, n] : enum_names<E>::literals)
        if (n == name) return v;
    return std::nullopt;
}

} // namespace ovrin

// Messages and references hash as the library hashes their instances.
template <class T>
requires std::is_base_of_v<ovrin::view_base<typename T::c_type>, T>
struct std::hash<T> {
    size_t operator()(const T &v) const noexcept { return v.hash(); }
};

#endif
