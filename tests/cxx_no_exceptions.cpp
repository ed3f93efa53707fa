// The C++ interface in a program built without exceptions, as daemons often are: the header
// compiles, and the non-throwing encode and decode report through std::error_code.
#include <cstdio>
#include <vector>

#include "ovrin_sm/ovrin_sm.hpp"

int main() {
    int failures = 0;
    auto expect = [&failures](bool ok, const char *what) {
        if (!ok) std::fprintf(stderr, "FAIL: %s\n", what), ++failures;
    };
    mgx::handle h;
    {
        auto reg = ovrin::sm::sess_mgr_register::create(h);
        reg.cl_name().set_client_name("bob");
        std::vector<std::byte> out(reg.encoded_size());
        std::error_code ec;
        size_t n = reg.encode_to(out, ec);
        expect(!ec && n == out.size(), "encode_to into exactly encoded_size() bytes");
        auto back = ovrin::sm::sess_mgr_register::decode(h, std::span<const std::byte>(out), ec);
        expect(!ec && back == reg && back.cl_name().client_name() == "bob", "decode gives the message back");
        expect(reg.encode_to(std::span<std::byte>(out).first(n - 1), ec) == 0 && ec.value() == MGX_ESHORT,
               "too few bytes are refused with 90");
        auto bad = ovrin::sm::sess_mgr_register::decode(h, std::span<const std::byte>(out).first(3), ec);
        expect(ec && !bad, "a short encoding is refused and gives an empty message");
    }
    expect(h.live_allocations() == 0, "nothing left allocated");
    return failures ? 1 : 0;
}
