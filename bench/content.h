// The logical content of the benchmark messages, in plain C++: both builders (ovrin_sm and the
// protocol-buffer comparator) take their values from here, so the two sides carry the same
// strings, numbers and counts.
#ifndef OVRIN_BENCH_CONTENT_H
#define OVRIN_BENCH_CONTENT_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Mac = std::array<uint8_t, 6>;

struct Attr {
    uint32_t type;
    std::string value;
};

// small: sess_mgr_conn_hdl
struct Small {
    uint32_t conn_hdl;
};

// medium: ovrin_smd_in_event carrying sess_mgr_session_start (variant 1) with wireless parameters
struct Dot11 {
    Mac bssid, src_addr, address;
    uint8_t lrad_slot_id, wlan_id;
    uint16_t global_wlan_id, vlan_id, mcast_vlan_id;
    std::array<uint8_t, 3> oui;
    uint16_t etype;
    uint8_t control;
};
struct Medium {
    uint32_t event_type;
    uint32_t conn_hdl, client_hdl;
    std::vector<Attr> identity;
    uint32_t trusted, proximity, encap_type;
    Dot11 dot11;
    std::string client_name;
};

// large: ovrin_smd_resp_event carrying sess_mgr_authc_result_notif with a variant-1 policy binding
struct DomainName {
    uint8_t fqdn_register;
    std::string name;
};
struct Policy {
    Mac mac;
    uint32_t fail_type, if_num;
    std::string template_name;
    uint32_t vlan;
    std::string vlan_name, qos_name, qos_name_out;
    uint32_t session_timeout;
    std::string sgacl_name;
    uint8_t url_redirect_present, term_action;
    uint32_t qos_level;
    std::array<uint32_t, 4> policy_src;
    Mac dn_mac;
    uint32_t wlclient_num;
    std::vector<DomainName> domain_names;
    std::array<uint32_t, 8> rates; // avg/burst data/realtime, down then up (variant 1)
};
struct Large {
    uint32_t conn_hdl, resp_type, session_type;
    uint32_t label, client_hdl;
    uint8_t authc_result;
    std::vector<Attr> identity;
    Policy policy;
};

// bulk: sess_mgr_sess_attr_query_resp
struct Entry {
    uint32_t label;
    std::vector<Attr> attrs;
};
struct Bulk {
    uint32_t query_hdl, has_more_resp;
    std::vector<Entry> entries;
    uint32_t session_list_hdl, session_count;
};

const Small &small();
const Medium &medium();           // 8 identity attributes
const Large &large();             // 16 domain names
const Bulk &bulk(size_t entries); // entries of 4 attributes each; kept per count

} // namespace bench

#endif
