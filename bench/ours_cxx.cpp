// The medium benchmark message built through the C++ interface, as a C++ application builds it:
// the same instance as bench/ours.cpp's builder makes through the C functions.
#include "bench/ours.h"
#include "ovrin_sm/ovrin_sm.hpp"

namespace bench {

ovrin_smd_in_event *build_cxx(mgx_handle_t *h, const Medium &c) {
    namespace sm = ovrin::sm; // (a using-directive would make the names clash with the C structs')
    auto mac = [](const Mac &m) { return mgx_mac_addr{{m[0], m[1], m[2], m[3], m[4], m[5]}}; };
    try {
        auto ev = sm::ovrin_smd_in_event::create(h, kLuid);
        auto start = ev.emplace_start_client();
        start.hdl().set_conn_hdl(c.conn_hdl);
        start.cl_hdl().set_client_hdl(c.client_hdl);
        auto identity = start.identity_attrs();
        for (const Attr &a : c.identity) identity.add(a.type, a.value);
        auto ext = start.ext_params();
        ext.set_trusted(c.trusted).set_proximity(c.proximity);
        const Dot11 &w = c.dot11;
        ext.emplace_dot11_param()
            .set_apfMsBssid(mac(w.bssid))
            .set_apfMsSrcAddr(mac(w.src_addr))
            .set_apfMsAddress(mac(w.address))
            .set_apfMsLradSlotId(w.lrad_slot_id)
            .set_wlan_id(w.wlan_id)
            .set_global_wlan_id(w.global_wlan_id)
            .set_vlan_id(w.vlan_id)
            .set_mcast_vlan_id(w.mcast_vlan_id)
            .set_oui(w.oui)
            .set_eType(w.etype)
            .set_control(w.control);
        start.cl_name().set_client_name(c.client_name);
        return ev.release();
    } catch (const mgx::error &) {
        return nullptr;
    }
}

} // namespace bench
