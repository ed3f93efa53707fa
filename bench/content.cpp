// The benchmark messages' values: realistic for a wireless 802.1X session (see cli/demo_cmd.cpp).
#include "bench/content.h"

#include <cstdio>
#include <map>

#include "ovrin_sm/types.h"

namespace bench {

namespace {

Mac station(uint32_t n) { return {0x02, 0x00, 0x5e, uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)}; }

std::string mac_text(const Mac &m) {
    char text[32];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return text;
}

std::string word(uint32_t v) { return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

} // namespace

const Small &small() {
    static const Small s{0x1001};
    return s;
}

const Medium &medium() {
    static const Medium m = [] {
        Medium x{};
        x.event_type = SESS_MGR_RCL_IN_SESSION_START;
        x.conn_hdl = 0x1001;
        x.client_hdl = 0x20001;
        x.identity = {
            {1, "user1@corp.example"},           // user name
            {31, mac_text(station(1))},          // calling station
            {30, "00-1a-2b-3c-4d-5e:corp-ssid"}, // called station
            {61, word(19)},                      // port type: wireless
            {4, word(0x0a000002)},               // NAS address
            {5, word(13)},                       // NAS port
            {32, "wlc-building-7"},              // NAS identifier
            {87, "capwap-ap-0042"},              // NAS port id
        };
        x.trusted = 1;
        x.proximity = 0;
        x.encap_type = SM_WIRELESS_ACCESS;
        x.dot11 = Dot11{{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e},
                        {0x00, 0x1a, 0x2b, 0x00, 0x00, 0x01},
                        station(1),
                        1,
                        3,
                        17,
                        120,
                        121,
                        {0x00, 0x0f, 0xac},
                        0x888e,
                        0x40};
        x.client_name = "dot1x-wlan-client";
        return x;
    }();
    return m;
}

const Large &large() {
    static const Large l = [] {
        Large x{};
        x.conn_hdl = 0x1001;
        x.resp_type = SESS_MGR_RCL_AUTHC_RESULT_NOTIFY_CB;
        x.session_type = 2;
        x.label = 0x40000001;
        x.client_hdl = 0x20001;
        x.authc_result = 1;
        x.identity = {{1, "user1@corp.example"}};
        Policy &p = x.policy;
        p.mac = station(1);
        p.fail_type = OVRIN_BIND_POLICY_SUCCESS;
        p.if_num = 0x2001;
        p.template_name = "employee-template";
        p.vlan = 120;
        p.vlan_name = "vlan-employees";
        p.qos_name = "gold";
        p.qos_name_out = "gold-out";
        p.session_timeout = 3600;
        p.sgacl_name = "sgacl-staff";
        p.url_redirect_present = 0;
        p.term_action = 1;
        p.qos_level = 4;
        p.policy_src = {OVRIN_EPM_SOURCE_AAA, OVRIN_EPM_SOURCE_LOCAL, OVRIN_EPM_SOURCE_PMAP, OVRIN_EPM_SOURCE_LOCAL_WLAN};
        p.dn_mac = station(1);
        p.wlclient_num = 1;
        static const char *const hosts[] = {"intranet", "mail", "wiki", "git", "jira", "sso", "vpn", "files"};
        for (uint32_t i = 0; i < 16; ++i)
            p.domain_names.push_back(
                {uint8_t(i % 3 != 2), std::string(hosts[i % 8]) + (i < 8 ? ".corp.example" : ".eu.corp.example")});
        p.rates = {50000, 20000, 80000, 30000, 10000, 5000, 15000, 7000};
        return x;
    }();
    return l;
}

const Bulk &bulk(size_t entries) {
    static std::map<size_t, Bulk> made;
    auto it = made.find(entries);
    if (it != made.end()) return it->second;
    Bulk b{};
    b.query_hdl = 0x901;
    b.has_more_resp = 0;
    for (uint32_t i = 0; i < entries; ++i) {
        Entry e;
        e.label = 0x40000000u + i;
        e.attrs = {
            {1, "guest" + std::to_string(i) + "@corp.example"},
            {31, mac_text(station(1000 + i))},
            {8, word(0x0a140000u + i)}, // framed address
            {25, "class-visitor"},
        };
        b.entries.push_back(std::move(e));
    }
    b.session_list_hdl = 0x77;
    b.session_count = static_cast<uint32_t>(entries);
    return made.emplace(entries, std::move(b)).first->second;
}

} // namespace bench
