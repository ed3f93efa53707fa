// The MGX runtime for C++ programs: an owning handle, and the runtime's error codes as
// std::error_code values and as an exception. Inline code in the caller's program over the C
// interface of mgx/runtime.h, which it leaves as it is.
#ifndef MGX_HANDLE_HPP
#define MGX_HANDLE_HPP

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "mgx/runtime.h"

namespace mgx {

// The runtime's codes (2, 12, 22, 28, 43, 90 and the system's errno values) with the runtime's
// own texts.
class error_category_impl final : public std::error_category {
public:
    const char *name() const noexcept override { return "mgx"; }
    std::string message(int code) const override { return mgx_strerror(static_cast<uint32_t>(code)); }
};

inline const std::error_category &error_category() noexcept {
    static const error_category_impl category;
    return category;
}

inline std::error_code make_error_code(uint32_t code) noexcept { return {static_cast<int>(code), error_category()}; }

// A refused operation: the runtime's code, its text, and where it happened ("TYPE.member", or
// what the runtime said about a document) when that is known. what() reads
// "WHERE: TEXT (error CODE)".
class error : public std::system_error {
public:
    error(uint32_t code, std::string where)
        : std::system_error(make_error_code(code)), where_(std::move(where)),
          what_(where_ + (where_.empty() ? "" : ": ") + mgx_strerror(code) + " (error " + std::to_string(code) + ")") {}
    uint32_t value() const noexcept { return static_cast<uint32_t>(code().value()); }
    const std::string &where() const noexcept { return where_; }
    const char *what() const noexcept override { return what_.c_str(); }

private:
    std::string where_, what_;
};

// Throws mgx::error; in a program built without exceptions, prints the same text and aborts (as
// the standard library does for its own throws there). Use the non-throwing forms of decode and
// encode for untrusted bytes in such programs.
[[noreturn]] inline void raise(uint32_t code, std::string where) {
#if defined(__cpp_exceptions)
    throw error(code, std::move(where));
#else
    std::fprintf(stderr, "mgx: %s: %s (error %u)\n", where.c_str(), mgx_strerror(code), code);
    std::abort();
#endif
}

// One runtime handle, owned: created with the object, destroyed with it; movable, not copyable.
// Every message made through it keeps the runtime pointer, not this object, so the handle may be
// moved while they live; it must outlive them. `luid` is the owner id every operation is made for.
class handle {
public:
    explicit handle(uint32_t luid = 1) : h_(mgx_handle_create()), luid_(luid) {
        if (!h_) throw_bad_alloc();
    }
    // Takes over a handle made through the C interface.
    static handle adopt(mgx_handle_t *h, uint32_t luid = 1) noexcept { return handle(h, luid); }
    handle(handle &&other) noexcept : h_(std::exchange(other.h_, nullptr)), luid_(other.luid_) {}
    handle &operator=(handle &&other) noexcept {
        if (this != &other) {
            if (h_) mgx_handle_destroy(h_);
            h_ = std::exchange(other.h_, nullptr);
            luid_ = other.luid_;
        }
        return *this;
    }
    handle(const handle &) = delete;
    handle &operator=(const handle &) = delete;
    ~handle() {
        if (h_) mgx_handle_destroy(h_);
    }

    mgx_handle_t *get() const noexcept { return h_; }
    uint32_t luid() const noexcept { return luid_; }

    // Instances made from now on keep a state flag per field (marking what was set), and their
    // encodings carry them.
    handle &set_state_tracking(bool on) {
        mgx_handle_set_state_tracking(h_, on ? 1 : 0, on ? MGX_STTR_TRACKED : MGX_STTR_UNTRACKED);
        return *this;
    }
    // The highest variant of the named type that this side speaks: instances are made, encoded
    // and decoded at it. Every type starts at its highest.
    handle &set_domain_variant(const char *type_name, int8_t variant) {
        if (int code = mgx_handle_set_domain_variant(h_, type_name, variant))
            raise(static_cast<uint32_t>(code), std::string("set_domain_variant ") + type_name);
        return *this;
    }
    handle &set_domain_mode(uint32_t mode) {
        mgx_handle_set_domain_mode(h_, mode);
        return *this;
    }
    // Blocks and bytes held by the handle's instances: 0 once every message is gone.
    uint64_t live_allocations() const noexcept { return mgx_handle_live_allocations(h_); }
    uint64_t live_bytes() const noexcept { return mgx_handle_live_bytes(h_); }
    uint32_t last_error() const noexcept { return mgx_handle_last_error(h_); }

private:
    handle(mgx_handle_t *h, uint32_t luid) noexcept : h_(h), luid_(luid) {}
    [[noreturn]] static void throw_bad_alloc() {
#if defined(__cpp_exceptions)
        throw std::bad_alloc();
#else
        std::abort();
#endif
    }
    mgx_handle_t *h_;
    uint32_t luid_;
};

} // namespace mgx

#endif
