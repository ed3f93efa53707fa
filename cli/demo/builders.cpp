// ovrin-sm demo: the messages of each step, deterministic in (kind, session number), so that
// the receiver can rebuild exactly what the sender meant. Built through the C++ interface: each
// request or answer is a union whose arm is made in place and filled member by member.
#include <cstdio>
#include <string>

#include "cli/demo/messages.h"

namespace ovrin::demo {

namespace {

using namespace std::string_literals;

mgx_mac_addr station_mac(long session) {
    return {{0x02, 0x00, 0x5e, uint8_t(session >> 16), uint8_t(session >> 8), uint8_t(session)}};
}

constexpr uint32_t kConnBase = 0x1000;

// Identifiers of one session, derived from its number.
struct Ids {
    uint32_t conn, core_conn, client, label, query;
    std::string user, mac_text;
};

Ids ids_of(long session) {
    Ids id;
    uint32_t s = static_cast<uint32_t>(session);
    id.conn = conn_of(session);
    id.core_conn = 0x7000 + s;
    id.client = 0x20000 + s;
    id.label = 0x40000000u + s;
    id.query = 0x900 + s;
    id.user = "user" + std::to_string(session) + "@corp.example";
    mgx_mac_addr m = station_mac(session);
    char text[32];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m.octet[0], m.octet[1], m.octet[2], m.octet[3], m.octet[4],
                  m.octet[5]);
    id.mac_text = text;
    return id;
}

const char *const kClientName = "dot1x-wlan-client";

// The session's label and client handle, which the messages after registration carry.
template <class View> void name_session(View m, const Ids &id) {
    m.label().set_session_label(id.label);
    m.cl_hdl().set_client_hdl(id.client);
}

void request(sm::ovrin_smd_in_event &ev, Request kind, long session) {
    const Ids id = ids_of(session);
    switch (kind) {
    case REQ_REGISTER: {
        auto r = ev.emplace_reg_client();
        r.rcl_conn_hdl().set_conn_hdl(id.conn);
        r.cl_name().set_client_name(kClientName);
        r.meth_name().set_method_name("dot1x");
        r.set_session_type(2).set_cb_bitmap(0x1fff);
        break;
    }
    case REQ_START: {
        auto s = ev.emplace_start_client();
        s.hdl().set_conn_hdl(id.conn);
        s.cl_hdl().set_client_hdl(id.client);
        auto identity = s.identity_attrs();
        identity.add(1, id.user);        // user name
        identity.add(31, id.mac_text);   // calling station
        identity.add(30, "corp-ssid");   // called station
        identity.add(61, "\0\0\0\x13"s); // port type: wireless
        auto x = s.ext_params();
        x.set_trusted(1).set_proximity(0);
        const u_int8 oui[3] = {0x00, 0x0f, 0xac};
        // Choosing the member also sets the encapsulation to SM_WIRELESS_ACCESS.
        x.emplace_dot11_param()
            .set_apfMsBssid({{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}})
            .set_apfMsSrcAddr({{0x00, 0x1a, 0x2b, 0x00, 0x00, 0x01}})
            .set_apfMsAddress(station_mac(session))
            .set_apfMsLradSlotId(1)
            .set_wlan_id(3)
            .set_global_wlan_id(17)
            .set_vlan_id(120)
            .set_mcast_vlan_id(121)
            .set_oui(oui)
            .set_eType(0x888e)
            .set_control(0x40);
        s.cl_name().set_client_name(kClientName);
        break;
    }
    case REQ_ACCT: {
        auto a = ev.emplace_acct();
        a.conn_hdl().set_conn_hdl(id.conn);
        name_session(a, id);
        a.set_acct_event(3); // interim update
        auto counters = a.acct_list();
        counters.add(42, "\x00\x01\xe2\x40"s); // octets in
        counters.add(43, "\x00\x03\x0d\x40"s); // octets out
        counters.add(46, "\x00\x00\x02\x58"s); // session time
        break;
    }
    case REQ_IDENTITY: {
        auto e = ev.emplace_id_event();
        e.conn_hdl().set_conn_hdl(id.conn);
        name_session(e, id);
        e.session_identity().add(44, "acct-" + std::to_string(session));
        e.identity().add(1, id.user);
        e.identity().add(8, "\x0a\x14\x00\x21"s); // framed address
        e.action().set_action(1);
        e.client_type().set_type(2);
        e.set_attr_change_action(1);
        e.cl_name().set_client_name(kClientName);
        break;
    }
    case REQ_QUERY: {
        auto q = ev.emplace_sess_query();
        q.conn_hdl().set_conn_hdl(id.conn);
        q.set_query_hdl(id.query).set_session_list_hdl(0).set_num_of_entry(3);
        q.sess_label().set_session_label(0);
        q.match_attrs().add(30, "corp-ssid");
        q.filter_attrs().add(1, "");
        q.filter_attrs().add(31, "");
        q.set_session_count(0);
        break;
    }
    case REQ_CAPWAP: {
        auto t = ev.emplace_capwap_update_params();
        t.hdl().set_conn_hdl(id.conn);
        t.set_int_num(0x2000 + uint32_t(session % 64)).set_mtu(1485);
        t.set_dstIp(0x0a000001).set_srcIp(0x0a0000fe).set_dstPort(5247).set_srcPort(5246).set_dtls_flags(1);
        break;
    }
    case REQ_STOP: {
        auto s = ev.emplace_stop_client();
        s.hdl().set_conn_hdl(id.conn);
        s.label().set_session_label(id.label);
        s.identity_attrs().add(1, id.user);
        s.abort_cause().set_abort_cause(0);
        s.terminate_cause().set_terminate_cause(1); // user request
        s.disconnect_cause().set_disc_cause(1);
        s.set_suppress_disc_notif_ack(0);
        s.cl_name().set_client_name(kClientName);
        break;
    }
    }
}

void answer(sm::ovrin_smd_resp_event &ev, Answer kind, long session) {
    const Ids id = ids_of(session);
    ev.rcl_conn_hdl().set_conn_hdl(id.conn);
    ev.set_session_type(2);
    switch (kind) {
    case ANS_REG_RESULT: {
        auto r = ev.emplace_reg_result();
        r.core_conn_hdl().set_conn_hdl(id.core_conn);
        r.set_result(0);
        break;
    }
    case ANS_NEW_CLIENT: {
        auto n = ev.emplace_new_client();
        name_session(n, id);
        n.attr_list().add(1, id.user);
        n.attr_list().add(44, "acct-" + std::to_string(session));
        break;
    }
    case ANS_START_RESP: {
        auto s = ev.emplace_start_resp();
        name_session(s, id);
        s.new_cl_flag().set_new_client_flag(1);
        s.result().set_aaa_cerrno(0);
        s.resp_attrs().add(27, "\x00\x00\x0e\x10"s); // session timeout
        s.resp_attrs().add(25, "class-employee");
        s.cl_name().set_client_name(kClientName);
        break;
    }
    case ANS_AUTHC_RESULT: {
        auto a = ev.emplace_authc_result();
        name_session(a, id);
        a.set_authc_result(1);
        a.identity().add(1, id.user);
        auto p = a.policy_result();
        p.set_mac(station_mac(session)).set_fail_type(sm::ovrin_bind_policy_fail_type::OVRIN_BIND_POLICY_SUCCESS);
        p.set_if_num(0x2000 + uint32_t(session % 64)).set_template_name("employee-template").set_vlan(120);
        p.set_vlan_name("vlan-employees").set_qos_name("gold").set_qos_name_out("gold-out");
        p.set_session_timeout(3600).set_sgacl_name("sgacl-staff");
        p.set_urlRedirectPresent(0).set_term_action(1).set_qos_level(4);
        using src = sm::ovrin_epm_policy_source;
        const src sources[4] = {src::OVRIN_EPM_SOURCE_AAA, src::OVRIN_EPM_SOURCE_LOCAL, src::OVRIN_EPM_SOURCE_PMAP,
                                src::OVRIN_EPM_SOURCE_LOCAL_WLAN};
        for (uint32_t i = 0; i < 4; ++i) p.set_policy_src(i, sources[i]);
        auto dn = p.domain_names();
        dn.set_mac(station_mac(session)).set_wlclient_num(1);
        static const char *const domains[] = {"intranet.corp.example", "mail.corp.example", "*.cdn.example"};
        auto names = dn.domain_names();
        names.resize(3);
        for (uint32_t i = 0; i < 3; ++i) names[i].set_fqdn_register(i != 2).set_name(domains[i]);
        // The rate limits exist from variant 1 of the policy record on.
        p.set_avg_data_dn(50000).set_avg_realtime_dn(20000).set_burst_data_dn(80000).set_burst_realtime_dn(30000);
        p.set_avg_data_up(10000).set_avg_realtime_up(5000).set_burst_data_up(15000).set_burst_realtime_up(7000);
        break;
    }
    case ANS_QUERY_RESP: {
        auto q = ev.emplace_sess_query_resp();
        q.set_query_hdl(id.query).set_has_more_resp(0);
        auto entries = q.resp_array();
        entries.resize(3);
        for (uint32_t i = 0; i < 3; ++i) {
            auto r = entries[i];
            r.label().set_session_label(id.label + i);
            r.attr_list().add(1, i == 0 ? id.user : "guest" + std::to_string(i) + "@corp.example");
            r.attr_list().add(31, ids_of(session + 1000 * long(i)).mac_text);
        }
        q.set_session_list_hdl(0x77).set_session_count(3);
        break;
    }
    case ANS_DISCONNECT: {
        auto d = ev.emplace_disconnect();
        name_session(d, id);
        d.api_options().set_options(0x100000001ull);
        d.disconnect_cause().set_disc_cause(1);
        d.attr_list().add(49, "\x00\x00\x00\x01"s); // terminate cause: user request
        break;
    }
    }
}

} // namespace

uint32_t conn_of(long session) { return kConnBase + static_cast<uint32_t>(session); }
long session_of_conn(uint32_t conn) { return conn > kConnBase ? static_cast<long>(conn - kConnBase) : -1; }

sm::ovrin_smd_in_event build_request(mgx_handle_t *h, Request kind, long session) {
    auto ev = sm::ovrin_smd_in_event::create(h, kLuid);
    request(ev, kind, session);
    return ev;
}

sm::ovrin_smd_resp_event build_answer(mgx_handle_t *h, Answer kind, long session) {
    auto ev = sm::ovrin_smd_resp_event::create(h, kLuid);
    answer(ev, kind, session);
    return ev;
}

} // namespace ovrin::demo
