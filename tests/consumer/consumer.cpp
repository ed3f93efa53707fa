// The same program in C++: one runtime handle, a registration request built member by member,
// encoded, decoded into a new message, compared and printed. Messages free themselves; the
// program exits 0 only when the decoded request equals the one sent and nothing is left allocated.
#include <cstdint>
#include <iostream>
#include <vector>

#include <ovrin_sm/ovrin_sm.hpp>

int main() {
    mgx::handle h;
    try {
        auto sent = ovrin::sm::sess_mgr_register::create(h);
        sent.cl_name().set_client_name("consumer"); // an embedded record, filled in place
        sent.set_session_type(2).set_cb_bitmap(0x1fff);

        std::vector<uint8_t> wire = sent.encode();
        // Raised to this side's variant, every byte used: anything else throws mgx::error.
        auto received = ovrin::sm::sess_mgr_register::decode(h, wire);
        if (received != sent) {
            std::cerr << "consumer: decoded a different request\n";
            return 1;
        }
        std::cout << wire.size() << " bytes on the wire, decoded intact for client '" << received.cl_name().client_name()
                  << "':\n"
                  << received;
    } catch (const mgx::error &e) {
        std::cerr << "consumer: " << e.what() << "\n";
        return 1;
    }
    if (h.live_allocations() != 0) {
        std::cerr << "consumer: " << h.live_allocations() << " allocations left behind\n";
        return 1;
    }
    return 0;
}
