// ovrin-sm demo: a client and a session manager, each a process with its own runtime handle,
// talking over a Unix socket pair with the library's messages.
//
// The client speaks ovrin_smd_in_event at its highest variant and tracks state; the session
// manager knows ovrin_smd_in_event (and its event-type enumeration) only up to variant 1 and does
// not track state. So every request crosses a variant boundary and carries state bytes that the
// receiver steps over, and every answer arrives without state bytes at a tracking receiver. The
// requests chosen use only members that variant 1 knows, so they must all arrive intact.
//
// Each frame is a 4-byte big-endian length followed by the encoded message. The receiver decodes
// into a fresh instance, rebuilds the message that the peer meant to send with the same builder,
// and compares the two by value and by hash, then once more through a clone of the decoded one.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"

namespace {

constexpr uint32_t kLuid = 1;
constexpr uint32_t kHashSeed = 0x5eed;
constexpr uint32_t kMaxFrame = 1u << 20;
// The variant of ovrin_smd_in_event that the session manager's domain knows.
constexpr int8_t kManagerInEventVariant = 1;

enum class Render { print, xml, hex, none };

struct Options {
    Render render = Render::print;
    long count = 1;
    // Frame of the first session (1-based, both directions in order) whose sender inverts the
    // second half of the encoding before sending it: the receiver must notice.
    int corrupt = 0;
    // Binary trace file both processes append their emissions to ("ovrin-sm trace FILE" reads it).
    const char *trace = nullptr;
    // Each process reports its resident memory and its handle's live allocations after every
    // this many sessions (0: never), so that a long run shows whether anything grows.
    long memory_every = 0;
};

// ------------------------------------------------------------------ the conversation

enum Request { REQ_REGISTER, REQ_START, REQ_ACCT, REQ_IDENTITY, REQ_QUERY, REQ_CAPWAP, REQ_STOP };
enum Answer { ANS_REG_RESULT, ANS_NEW_CLIENT, ANS_START_RESP, ANS_AUTHC_RESULT, ANS_QUERY_RESP, ANS_DISCONNECT };

struct Step {
    Request request;
    std::vector<Answer> answers;
};

// One session: each request of the client and what the session manager answers to it.
const std::vector<Step> &script() {
    static const std::vector<Step> steps = {
        {REQ_REGISTER, {ANS_REG_RESULT}},
        {REQ_START, {ANS_NEW_CLIENT, ANS_START_RESP}},
        {REQ_ACCT, {}},
        {REQ_IDENTITY, {ANS_AUTHC_RESULT}},
        {REQ_QUERY, {ANS_QUERY_RESP}},
        {REQ_CAPWAP, {}},
        {REQ_STOP, {ANS_DISCONNECT}},
    };
    return steps;
}

size_t messages_per_session() {
    size_t n = 0;
    for (const Step &s : script()) n += 1 + s.answers.size();
    return n;
}

const char *request_name(Request r) {
    static const char *const names[] = {"reg_client",  "start_client", "acct",       "id_event",
                                        "sess_query", "capwap_update_params", "stop_client"};
    return names[r];
}

const char *answer_name(Answer a) {
    static const char *const names[] = {"reg_result",   "new_client",      "start_resp",
                                        "authc_result", "sess_query_resp", "disconnect"};
    return names[a];
}

// ------------------------------------------------------------------ message builders
//
// Builders are deterministic in (kind, session number), so the receiver can rebuild exactly what
// the sender meant. Setters short-circuit once the error word is set; the caller checks it once.

void attr(mgx_handle_t *h, aaa_tlv *tlv, uint32_t type, const std::string &value, uint32_t *err) {
    if (*err) return;
    aaa_tlv_attr_add(h, kLuid, tlv, type, value.data(), static_cast<uint32_t>(value.size()), err);
}

void conn(mgx_handle_t *h, sess_mgr_conn_hdl *c, uint32_t v, uint32_t *err) {
    sess_mgr_conn_hdl_conn_hdl_set_value(h, kLuid, c, v, err);
}
void client_hdl(mgx_handle_t *h, sess_mgr_client_hdl *c, uint32_t v, uint32_t *err) {
    sess_mgr_client_hdl_client_hdl_set_value(h, kLuid, c, v, err);
}
void label(mgx_handle_t *h, sess_mgr_session_label *l, uint32_t v, uint32_t *err) {
    sess_mgr_session_label_session_label_set_value(h, kLuid, l, v, err);
}
void client_name(mgx_handle_t *h, sess_mgr_client_name *n, const std::string &s, uint32_t *err) {
    sess_mgr_client_name_client_name_set(h, kLuid, n, s.c_str(), static_cast<uint32_t>(s.size()), err);
}

mgx_mac_addr station_mac(long session) {
    return {{0x02, 0x00, 0x5e, uint8_t(session >> 16), uint8_t(session >> 8), uint8_t(session)}};
}

// Identifiers of one session, derived from its number.
struct Ids {
    uint32_t conn, core_conn, client, label, query;
    std::string user, mac_text;
};

Ids ids_of(long session) {
    Ids id;
    uint32_t s = static_cast<uint32_t>(session);
    id.conn = 0x1000 + s;
    id.core_conn = 0x7000 + s;
    id.client = 0x20000 + s;
    id.label = 0x40000000u + s;
    id.query = 0x900 + s;
    id.user = "user" + std::to_string(session) + "@corp.example";
    mgx_mac_addr m = station_mac(session);
    char text[32];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m.octet[0], m.octet[1], m.octet[2], m.octet[3],
                  m.octet[4], m.octet[5]);
    id.mac_text = text;
    return id;
}

const char *const kClientName = "dot1x-wlan-client";

void identity_attrs(mgx_handle_t *h, aaa_tlv *tlv, const Ids &id, uint32_t *err) {
    attr(h, tlv, 1, id.user, err);      // user name
    attr(h, tlv, 31, id.mac_text, err); // calling station
    attr(h, tlv, 30, "corp-ssid", err); // called station
    attr(h, tlv, 61, std::string("\x00\x00\x00\x13", 4), err); // port type: wireless
}

ovrin_smd_in_event *build_request(mgx_handle_t *h, Request kind, long session, uint32_t *err) {
    const Ids id = ids_of(session);
    ovrin_smd_in_event *ev = ovrin_smd_in_event_create(h, kLuid);
    if (!ev) {
        *err = MGX_ENOMEM;
        return nullptr;
    }
    switch (kind) {
    case REQ_REGISTER: {
        sess_mgr_register *r = sess_mgr_register_create(h, kLuid);
        conn(h, sess_mgr_register_rcl_conn_hdl_get(h, kLuid, r, err), id.conn, err);
        client_name(h, sess_mgr_register_cl_name_get(h, kLuid, r, err), kClientName, err);
        sess_mgr_method_name *m = sess_mgr_register_meth_name_get(h, kLuid, r, err);
        sess_mgr_method_name_method_name_set(h, kLuid, m, "dot1x", 5, err);
        sess_mgr_register_session_type_set_value(h, kLuid, r, 2, err);
        sess_mgr_register_cb_bitmap_set_value(h, kLuid, r, 0x1fff, err);
        ovrin_smd_in_event_reg_client_set(h, kLuid, ev, r, err);
        break;
    }
    case REQ_START: {
        sess_mgr_session_start *s = sess_mgr_session_start_create(h, kLuid);
        conn(h, sess_mgr_session_start_hdl_get(h, kLuid, s, err), id.conn, err);
        client_hdl(h, sess_mgr_session_start_cl_hdl_get(h, kLuid, s, err), id.client, err);
        identity_attrs(h, sess_mgr_session_start_identity_attrs_get(h, kLuid, s, err), id, err);
        sess_mgr_extended_params *x = sess_mgr_session_start_ext_params_get(h, kLuid, s, err);
        sess_mgr_extended_params_trusted_set_value(h, kLuid, x, 1, err);
        sess_mgr_extended_params_proximity_set_value(h, kLuid, x, 0, err);
        sm_dot11_params *d = sm_dot11_params_create(h, kLuid);
        const mgx_mac_addr bssid = {{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}};
        const mgx_mac_addr sta = station_mac(session);
        const mgx_mac_addr ap = {{0x00, 0x1a, 0x2b, 0x00, 0x00, 0x01}};
        sm_dot11_params_apfMsBssid_set(h, kLuid, d, &bssid, err);
        sm_dot11_params_apfMsSrcAddr_set(h, kLuid, d, &ap, err);
        sm_dot11_params_apfMsAddress_set(h, kLuid, d, &sta, err);
        sm_dot11_params_apfMsLradSlotId_set_value(h, kLuid, d, 1, err);
        sm_dot11_params_wlan_id_set_value(h, kLuid, d, 3, err);
        sm_dot11_params_global_wlan_id_set_value(h, kLuid, d, 17, err);
        sm_dot11_params_vlan_id_set_value(h, kLuid, d, 120, err);
        sm_dot11_params_mcast_vlan_id_set_value(h, kLuid, d, 121, err);
        const u_int8 oui[3] = {0x00, 0x0f, 0xac};
        sm_dot11_params_oui_set_mem(h, kLuid, d, oui, 3, err);
        sm_dot11_params_eType_set_value(h, kLuid, d, 0x888e, err);
        sm_dot11_params_control_set_value(h, kLuid, d, 0x40, err);
        // Choosing the member also sets the encapsulation to SM_WIRELESS_ACCESS.
        sess_mgr_extended_params_dot11_param_set(h, kLuid, x, d, err);
        client_name(h, sess_mgr_session_start_cl_name_get(h, kLuid, s, err), kClientName, err);
        ovrin_smd_in_event_start_client_set(h, kLuid, ev, s, err);
        break;
    }
    case REQ_ACCT: {
        sess_mgr_session_acct *a = sess_mgr_session_acct_create(h, kLuid);
        conn(h, sess_mgr_session_acct_conn_hdl_get(h, kLuid, a, err), id.conn, err);
        label(h, sess_mgr_session_acct_label_get(h, kLuid, a, err), id.label, err);
        client_hdl(h, sess_mgr_session_acct_cl_hdl_get(h, kLuid, a, err), id.client, err);
        sess_mgr_session_acct_acct_event_set_value(h, kLuid, a, 3, err); // interim update
        aaa_tlv *l = sess_mgr_session_acct_acct_list_get(h, kLuid, a, err);
        attr(h, l, 42, std::string("\x00\x01\xe2\x40", 4), err); // octets in
        attr(h, l, 43, std::string("\x00\x03\x0d\x40", 4), err); // octets out
        attr(h, l, 46, std::string("\x00\x00\x02\x58", 4), err); // session time
        ovrin_smd_in_event_acct_set(h, kLuid, ev, a, err);
        break;
    }
    case REQ_IDENTITY: {
        sess_mgr_identity_event *e = sess_mgr_identity_event_create(h, kLuid);
        conn(h, sess_mgr_identity_event_conn_hdl_get(h, kLuid, e, err), id.conn, err);
        label(h, sess_mgr_identity_event_label_get(h, kLuid, e, err), id.label, err);
        attr(h, sess_mgr_identity_event_session_identity_get(h, kLuid, e, err), 44, "acct-" + std::to_string(session),
             err);
        client_hdl(h, sess_mgr_identity_event_cl_hdl_get(h, kLuid, e, err), id.client, err);
        aaa_tlv *who = sess_mgr_identity_event_identity_get(h, kLuid, e, err);
        attr(h, who, 1, id.user, err);
        attr(h, who, 8, std::string("\x0a\x14\x00\x21", 4), err); // framed address
        sess_mgr_identity_action_type_action_set_value(h, kLuid, sess_mgr_identity_event_action_get(h, kLuid, e, err),
                                                       1, err);
        sess_mgr_ovrin_client_type_type_set_value(h, kLuid, sess_mgr_identity_event_client_type_get(h, kLuid, e, err),
                                                  2, err);
        sess_mgr_identity_event_attr_change_action_set_value(h, kLuid, e, 1, err);
        client_name(h, sess_mgr_identity_event_cl_name_get(h, kLuid, e, err), kClientName, err);
        ovrin_smd_in_event_id_event_set(h, kLuid, ev, e, err);
        break;
    }
    case REQ_QUERY: {
        sess_mgr_sess_attr_query *q = sess_mgr_sess_attr_query_create(h, kLuid);
        conn(h, sess_mgr_sess_attr_query_conn_hdl_get(h, kLuid, q, err), id.conn, err);
        sess_mgr_sess_attr_query_query_hdl_set_value(h, kLuid, q, id.query, err);
        sess_mgr_sess_attr_query_session_list_hdl_set_value(h, kLuid, q, 0, err);
        sess_mgr_sess_attr_query_num_of_entry_set_value(h, kLuid, q, 3, err);
        label(h, sess_mgr_sess_attr_query_sess_label_get(h, kLuid, q, err), 0, err);
        attr(h, sess_mgr_sess_attr_query_match_attrs_get(h, kLuid, q, err), 30, "corp-ssid", err);
        aaa_tlv *f = sess_mgr_sess_attr_query_filter_attrs_get(h, kLuid, q, err);
        attr(h, f, 1, "", err);
        attr(h, f, 31, "", err);
        sess_mgr_sess_attr_query_session_count_set_value(h, kLuid, q, 0, err);
        ovrin_smd_in_event_sess_query_set(h, kLuid, ev, q, err);
        break;
    }
    case REQ_CAPWAP: {
        sess_mgr_capwap_tunnel_params *t = sess_mgr_capwap_tunnel_params_create(h, kLuid);
        conn(h, sess_mgr_capwap_tunnel_params_hdl_get(h, kLuid, t, err), id.conn, err);
        sess_mgr_capwap_tunnel_params_int_num_set_value(h, kLuid, t, 0x2000 + uint32_t(session % 64), err);
        sess_mgr_capwap_tunnel_params_mtu_set_value(h, kLuid, t, 1485, err);
        sess_mgr_capwap_tunnel_params_dstIp_set_value(h, kLuid, t, 0x0a000001, err);
        sess_mgr_capwap_tunnel_params_srcIp_set_value(h, kLuid, t, 0x0a0000fe, err);
        sess_mgr_capwap_tunnel_params_dstPort_set_value(h, kLuid, t, 5247, err);
        sess_mgr_capwap_tunnel_params_srcPort_set_value(h, kLuid, t, 5246, err);
        sess_mgr_capwap_tunnel_params_dtls_flags_set_value(h, kLuid, t, 1, err);
        ovrin_smd_in_event_capwap_update_params_set(h, kLuid, ev, t, err);
        break;
    }
    case REQ_STOP: {
        sess_mgr_session_stop *s = sess_mgr_session_stop_create(h, kLuid);
        conn(h, sess_mgr_session_stop_hdl_get(h, kLuid, s, err), id.conn, err);
        label(h, sess_mgr_session_stop_label_get(h, kLuid, s, err), id.label, err);
        attr(h, sess_mgr_session_stop_identity_attrs_get(h, kLuid, s, err), 1, id.user, err);
        aaa_abort_cause_abort_cause_set_value(h, kLuid, sess_mgr_session_stop_abort_cause_get(h, kLuid, s, err), 0, err);
        aaa_terminate_cause_terminate_cause_set_value(h, kLuid,
                                                      sess_mgr_session_stop_terminate_cause_get(h, kLuid, s, err), 1,
                                                      err); // user request
        sess_mgr_disconnect_cause_disc_cause_set_value(h, kLuid,
                                                       sess_mgr_session_stop_disconnect_cause_get(h, kLuid, s, err), 1,
                                                       err);
        sess_mgr_session_stop_suppress_disc_notif_ack_set_value(h, kLuid, s, 0, err);
        client_name(h, sess_mgr_session_stop_cl_name_get(h, kLuid, s, err), kClientName, err);
        ovrin_smd_in_event_stop_client_set(h, kLuid, ev, s, err);
        break;
    }
    }
    return ev;
}

ovrin_smd_resp_event *build_answer(mgx_handle_t *h, Answer kind, long session, uint32_t *err) {
    const Ids id = ids_of(session);
    ovrin_smd_resp_event *ev = ovrin_smd_resp_event_create(h, kLuid);
    if (!ev) {
        *err = MGX_ENOMEM;
        return nullptr;
    }
    conn(h, ovrin_smd_resp_event_rcl_conn_hdl_get(h, kLuid, ev, err), id.conn, err);
    ovrin_smd_resp_event_session_type_set_value(h, kLuid, ev, 2, err);
    switch (kind) {
    case ANS_REG_RESULT: {
        session_mgr_reg_result *r = session_mgr_reg_result_create(h, kLuid);
        conn(h, session_mgr_reg_result_core_conn_hdl_get(h, kLuid, r, err), id.core_conn, err);
        session_mgr_reg_result_result_set_value(h, kLuid, r, 0, err);
        ovrin_smd_resp_event_reg_result_set(h, kLuid, ev, r, err);
        break;
    }
    case ANS_NEW_CLIENT: {
        sess_mgr_new_client_notif *n = sess_mgr_new_client_notif_create(h, kLuid);
        label(h, sess_mgr_new_client_notif_label_get(h, kLuid, n, err), id.label, err);
        client_hdl(h, sess_mgr_new_client_notif_cl_hdl_get(h, kLuid, n, err), id.client, err);
        aaa_tlv *l = sess_mgr_new_client_notif_attr_list_get(h, kLuid, n, err);
        attr(h, l, 1, id.user, err);
        attr(h, l, 44, "acct-" + std::to_string(session), err);
        ovrin_smd_resp_event_new_client_set(h, kLuid, ev, n, err);
        break;
    }
    case ANS_START_RESP: {
        sess_mgr_session_start_resp *s = sess_mgr_session_start_resp_create(h, kLuid);
        label(h, sess_mgr_session_start_resp_label_get(h, kLuid, s, err), id.label, err);
        client_hdl(h, sess_mgr_session_start_resp_cl_hdl_get(h, kLuid, s, err), id.client, err);
        sess_mgr_new_client_flag_new_client_flag_set_value(
            h, kLuid, sess_mgr_session_start_resp_new_cl_flag_get(h, kLuid, s, err), 1, err);
        sess_mgr_aaa_cerrno_aaa_cerrno_set_value(h, kLuid, sess_mgr_session_start_resp_result_get(h, kLuid, s, err), 0,
                                                 err);
        aaa_tlv *l = sess_mgr_session_start_resp_resp_attrs_get(h, kLuid, s, err);
        attr(h, l, 27, std::string("\x00\x00\x0e\x10", 4), err); // session timeout
        attr(h, l, 25, "class-employee", err);
        client_name(h, sess_mgr_session_start_resp_cl_name_get(h, kLuid, s, err), kClientName, err);
        ovrin_smd_resp_event_start_resp_set(h, kLuid, ev, s, err);
        break;
    }
    case ANS_AUTHC_RESULT: {
        sess_mgr_authc_result_notif *a = sess_mgr_authc_result_notif_create(h, kLuid);
        label(h, sess_mgr_authc_result_notif_label_get(h, kLuid, a, err), id.label, err);
        client_hdl(h, sess_mgr_authc_result_notif_cl_hdl_get(h, kLuid, a, err), id.client, err);
        sess_mgr_authc_result_notif_authc_result_set_value(h, kLuid, a, 1, err);
        attr(h, sess_mgr_authc_result_notif_identity_get(h, kLuid, a, err), 1, id.user, err);
        ovrin_epm_bind_policy_info *p = sess_mgr_authc_result_notif_policy_result_get(h, kLuid, a, err);
        const mgx_mac_addr sta = station_mac(session);
        ovrin_epm_bind_policy_info_mac_set(h, kLuid, p, &sta, err);
        ovrin_bind_policy_fail_type_set_value(h, kLuid, ovrin_epm_bind_policy_info_fail_type_get(h, kLuid, p, err),
                                              OVRIN_BIND_POLICY_SUCCESS, err);
        ovrin_epm_bind_policy_info_if_num_set_value(h, kLuid, p, 0x2000 + uint32_t(session % 64), err);
        ovrin_epm_bind_policy_info_template_name_set(h, kLuid, p, "employee-template", 17, err);
        ovrin_epm_bind_policy_info_vlan_set_value(h, kLuid, p, 120, err);
        ovrin_epm_bind_policy_info_vlan_name_set(h, kLuid, p, "vlan-employees", 14, err);
        ovrin_epm_bind_policy_info_qos_name_set(h, kLuid, p, "gold", 4, err);
        ovrin_epm_bind_policy_info_qos_name_out_set(h, kLuid, p, "gold-out", 8, err);
        ovrin_epm_bind_policy_info_session_timeout_set_value(h, kLuid, p, 3600, err);
        ovrin_epm_bind_policy_info_sgacl_name_set(h, kLuid, p, "sgacl-staff", 11, err);
        ovrin_epm_bind_policy_info_urlRedirectPresent_set_value(h, kLuid, p, 0, err);
        ovrin_epm_bind_policy_info_term_action_set_value(h, kLuid, p, 1, err);
        ovrin_epm_bind_policy_info_qos_level_set_value(h, kLuid, p, 4, err);
        const uint32_t sources[4] = {OVRIN_EPM_SOURCE_AAA, OVRIN_EPM_SOURCE_LOCAL, OVRIN_EPM_SOURCE_PMAP,
                                     OVRIN_EPM_SOURCE_LOCAL_WLAN};
        for (uint32_t i = 0; i < 4; ++i) ovrin_epm_bind_policy_info_policy_src_set_value(h, kLuid, p, i, sources[i], err);
        ovrin_svm_epm_notify_domain_name_bind *dn = ovrin_epm_bind_policy_info_domain_names_get(h, kLuid, p, err);
        ovrin_svm_epm_notify_domain_name_bind_mac_set(h, kLuid, dn, &sta, err);
        ovrin_svm_epm_notify_domain_name_bind_wlclient_num_set_value(h, kLuid, dn, 1, err);
        static const char *const domains[] = {"intranet.corp.example", "mail.corp.example", "*.cdn.example"};
        // The last element first: the array takes its full size at once instead of growing.
        for (int i = 2; i >= 0; --i) {
            fqdn_domain_name_bind *b = fqdn_domain_name_bind_create(h, kLuid);
            fqdn_domain_name_bind_fqdn_register_set_value(h, kLuid, b, i != 2, err);
            fqdn_domain_name_bind_name_set(h, kLuid, b, domains[i], static_cast<uint32_t>(std::strlen(domains[i])),
                                           err);
            ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, kLuid, dn, static_cast<uint32_t>(i), b, err);
            fqdn_domain_name_bind_destroy(h, kLuid, b);
        }
        // The rate limits exist from variant 1 of the policy record on.
        ovrin_epm_bind_policy_info_avg_data_dn_set_value(h, kLuid, p, 50000, err);
        ovrin_epm_bind_policy_info_avg_realtime_dn_set_value(h, kLuid, p, 20000, err);
        ovrin_epm_bind_policy_info_burst_data_dn_set_value(h, kLuid, p, 80000, err);
        ovrin_epm_bind_policy_info_burst_realtime_dn_set_value(h, kLuid, p, 30000, err);
        ovrin_epm_bind_policy_info_avg_data_up_set_value(h, kLuid, p, 10000, err);
        ovrin_epm_bind_policy_info_avg_realtime_up_set_value(h, kLuid, p, 5000, err);
        ovrin_epm_bind_policy_info_burst_data_up_set_value(h, kLuid, p, 15000, err);
        ovrin_epm_bind_policy_info_burst_realtime_up_set_value(h, kLuid, p, 7000, err);
        ovrin_smd_resp_event_authc_result_set(h, kLuid, ev, a, err);
        break;
    }
    case ANS_QUERY_RESP: {
        sess_mgr_sess_attr_query_resp *q = sess_mgr_sess_attr_query_resp_create(h, kLuid);
        sess_mgr_sess_attr_query_resp_query_hdl_set_value(h, kLuid, q, id.query, err);
        sess_mgr_sess_attr_query_resp_has_more_resp_set_value(h, kLuid, q, 0, err);
        for (int i = 2; i >= 0; --i) {
            sess_mgr_query_resp *r = sess_mgr_query_resp_create(h, kLuid);
            label(h, sess_mgr_query_resp_label_get(h, kLuid, r, err), id.label + uint32_t(i), err);
            aaa_tlv *l = sess_mgr_query_resp_attr_list_get(h, kLuid, r, err);
            attr(h, l, 1, i == 0 ? id.user : "guest" + std::to_string(i) + "@corp.example", err);
            attr(h, l, 31, ids_of(session + 1000 * i).mac_text, err);
            sess_mgr_sess_attr_query_resp_resp_array_set(h, kLuid, q, static_cast<uint32_t>(i), r, err);
            sess_mgr_query_resp_destroy(h, kLuid, r);
        }
        sess_mgr_sess_attr_query_resp_session_list_hdl_set_value(h, kLuid, q, 0x77, err);
        sess_mgr_sess_attr_query_resp_session_count_set_value(h, kLuid, q, 3, err);
        ovrin_smd_resp_event_sess_query_resp_set(h, kLuid, ev, q, err);
        break;
    }
    case ANS_DISCONNECT: {
        sess_mgr_disconnect_notif *d = sess_mgr_disconnect_notif_create(h, kLuid);
        label(h, sess_mgr_disconnect_notif_label_get(h, kLuid, d, err), id.label, err);
        client_hdl(h, sess_mgr_disconnect_notif_cl_hdl_get(h, kLuid, d, err), id.client, err);
        sess_mgr_api_options_options_set_value(h, kLuid, sess_mgr_disconnect_notif_api_options_get(h, kLuid, d, err),
                                               0x100000001ull, err);
        sess_mgr_disconnect_cause_disc_cause_set_value(h, kLuid,
                                                       sess_mgr_disconnect_notif_disconnect_cause_get(h, kLuid, d, err),
                                                       1, err);
        attr(h, sess_mgr_disconnect_notif_attr_list_get(h, kLuid, d, err), 49, std::string("\x00\x00\x00\x01", 4),
             err); // terminate cause: user request
        ovrin_smd_resp_event_disconnect_set(h, kLuid, ev, d, err);
        break;
    }
    }
    return ev;
}

// ------------------------------------------------------------------ the two message types

// The operations of one top-level message type that the exchange uses.
template <class T> struct MessageOps {
    const char *name;
    T *(*create)(mgx_handle_t *, uint32_t);
    void (*destroy)(mgx_handle_t *, uint32_t, T *);
    uint32_t (*len)(mgx_handle_t *, uint32_t, const T *);
    uint32_t (*marshal)(mgx_handle_t *, uint32_t, uint8_t *, const T *, int32_t, uint32_t *);
    uint32_t (*unmarshal)(mgx_handle_t *, uint32_t, const uint8_t *, T *, int32_t, uint32_t, uint32_t *);
    uint32_t (*adjust_variant)(mgx_handle_t *, uint32_t, T *, uint32_t *);
    void (*clone)(mgx_handle_t *, uint32_t, const T *, T **, uint8_t *, uint32_t, uint32_t *);
    int32_t (*compare)(const T *, const T *);
    uint32_t (*hash)(const T *, uint32_t);
    int32_t (*print)(mgx_handle_t *, const T *, char *, uint32_t);
    uint32_t (*toxml)(mgx_handle_t *, const T *, char *, uint32_t);
};

#define OVRIN_DEMO_OPS(t)                                                                            \
    MessageOps<t> {                                                                                  \
        #t, t##_create, t##_destroy, t##_len, t##_marshal, t##_unmarshal, t##_adjust_variant,        \
            t##_clone, t##_compare, t##_hash, t##_print_cr, t##_toxml_cr          \
    }

const MessageOps<ovrin_smd_in_event> kInEvent = OVRIN_DEMO_OPS(ovrin_smd_in_event);
const MessageOps<ovrin_smd_resp_event> kRespEvent = OVRIN_DEMO_OPS(ovrin_smd_resp_event);

// ------------------------------------------------------------------ framing

bool write_all(int fd, const uint8_t *p, size_t n) {
    while (n) {
        ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL); // a vanished peer is an error, not a signal
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool read_all(int fd, uint8_t *p, size_t n) {
    while (n) {
        ssize_t r = ::read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool send_frame(int fd, const std::vector<uint8_t> &bytes) {
    const uint32_t n = static_cast<uint32_t>(bytes.size());
    const uint8_t head[4] = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    return write_all(fd, head, 4) && write_all(fd, bytes.data(), bytes.size());
}

// A frame, or false when the peer is gone or announces a length no message of this library has.
bool receive_frame(int fd, std::vector<uint8_t> &bytes) {
    uint8_t head[4];
    if (!read_all(fd, head, 4)) return false;
    const uint32_t n = uint32_t(head[0]) << 24 | uint32_t(head[1]) << 16 | uint32_t(head[2]) << 8 | head[3];
    if (n == 0 || n > kMaxFrame) return false;
    bytes.resize(n);
    return read_all(fd, bytes.data(), n);
}

// ------------------------------------------------------------------ one side of the exchange

struct Side {
    const char *name; // "client" or "session manager"
    const char *peer;
    const Options &opt;
    int fd;
    mgx_handle_t *h = mgx_handle_create();
    std::vector<char> text = std::vector<char>(1 << 20);
    long sent = 0, received = 0, intact = 0;
    int frame_no = 0; // frames of the first session so far, both directions, for --corrupt

    Side(const char *n, const char *p, const Options &o, int f) : name(n), peer(p), opt(o), fd(f) {}
    ~Side() { mgx_handle_destroy(h); }

    bool verbose(long session) const { return session == 1; }

    template <class T> bool send(const MessageOps<T> &ops, T *msg, uint32_t build_err, const char *what, long session) {
        if (!msg || build_err) {
            std::fprintf(stderr, "%s: cannot build %s: error %u\n", name, what, build_err);
            if (msg) ops.destroy(h, kLuid, msg);
            return false;
        }
        // Under state tracking the length is an upper bound (strings and arrays are counted with a
        // state byte per character or element); the encoder says how much it wrote.
        uint32_t err = 0;
        std::vector<uint8_t> bytes(ops.len(h, kLuid, msg));
        uint32_t n = ops.marshal(h, kLuid, bytes.data(), msg, static_cast<int32_t>(bytes.size()), &err);
        ops.destroy(h, kLuid, msg);
        if (err || n == 0 || n > bytes.size()) {
            std::fprintf(stderr, "%s: cannot encode %s: error %u\n", name, what, err);
            return false;
        }
        bytes.resize(n);
        if (session == 1 && ++frame_no == opt.corrupt)
            for (size_t i = bytes.size() / 2; i < bytes.size(); ++i) bytes[i] ^= 0xff;
        std::fflush(stdout); // the peer prints next; keep the two outputs in order
        if (!send_frame(fd, bytes)) {
            std::fprintf(stderr, "%s: the %s is gone\n", name, peer);
            return false;
        }
        ++sent;
        return true;
    }

    // Receives one message, checks it against the one rebuilt here, renders it. False only when
    // the exchange cannot go on (no frame); a damaged message is counted and reported.
    template <class T, class Build>
    bool receive(const MessageOps<T> &ops, Build rebuild, const char *what, long session) {
        std::vector<uint8_t> bytes;
        if (!receive_frame(fd, bytes)) {
            std::fprintf(stderr, "%s: no %s frame from the %s\n", name, what, peer);
            return false;
        }
        ++received;
        if (session == 1) ++frame_no;
        std::string problem;
        uint32_t err = 0;
        T *got = ops.create(h, kLuid);
        int8_t decoded_variant = 0;
        if (!got) {
            problem = "no memory for the message";
        } else {
            ops.adjust_variant(h, kLuid, got, &err);
            uint32_t used = ops.unmarshal(h, kLuid, bytes.data(), got, static_cast<int32_t>(bytes.size()), 0, &err);
            decoded_variant = got->variant;
            if (err)
                problem = "does not decode: error " + std::to_string(err) + " after " + std::to_string(used) + " bytes";
            else if (used != bytes.size())
                problem = "decodes from " + std::to_string(used) + " of " + std::to_string(bytes.size()) + " bytes";
        }
        uint32_t hash = 0;
        T *want = nullptr;
        if (problem.empty()) {
            uint32_t build_err = 0;
            want = rebuild(&build_err);
            T *copy = nullptr;
            if (!want || build_err) {
                problem = "the expected message cannot be rebuilt: error " + std::to_string(build_err);
            } else {
                hash = ops.hash(got, kHashSeed);
                if (ops.compare(got, want) != 0)
                    problem = "differs from what the " + std::string(peer) + " sent";
                else if (hash != ops.hash(want, kHashSeed))
                    problem = "compares equal but hashes differently";
                else {
                    std::vector<uint8_t> work(ops.len(h, kLuid, got) + 64);
                    ops.clone(h, kLuid, got, &copy, work.data(), static_cast<uint32_t>(work.size()), &err);
                    if (err || !copy)
                        problem = "cannot be cloned: error " + std::to_string(err);
                    else if (ops.compare(copy, want) != 0 || ops.hash(copy, kHashSeed) != hash)
                        problem = "its clone differs from it";
                }
            }
            if (copy) ops.destroy(h, kLuid, copy);
        }
        const bool ok = problem.empty();
        if (ok) ++intact;
        if (verbose(session) || !ok) {
            std::printf("%-15s <- %-15s %-20s %5zu bytes  wire v%d%s -> v%d  %s",
                        name, peer, what, bytes.size(), static_cast<int8_t>(bytes[0]),
                        bytes.size() > 1 && (bytes[1] & 0x08) ? " +state" : "", decoded_variant,
                        ok ? "intact" : "DAMAGED: ");
            if (ok)
                std::printf("  hash %08" PRIx32 "\n", hash);
            else
                std::printf("%s (session %ld)\n", problem.c_str(), session);
            render(ops, got, bytes);
            if (!ok && want && opt.render != Render::none && opt.render != Render::hex) {
                std::printf("%s: the %s meant:\n", name, peer);
                render(ops, want, bytes);
            }
        }
        if (want) ops.destroy(h, kLuid, want);
        if (got) ops.destroy(h, kLuid, got);
        return true;
    }

    template <class T> void render(const MessageOps<T> &ops, const T *msg, const std::vector<uint8_t> &bytes) {
        switch (opt.render) {
        case Render::none: return;
        case Render::hex:
            for (size_t i = 0; i < bytes.size(); ++i) {
                std::printf("%s%02x", i % 32 == 0 ? "    " : " ", bytes[i]);
                if (i % 32 == 31 || i + 1 == bytes.size()) std::putchar('\n');
            }
            return;
        case Render::print:
        case Render::xml: {
            if (!msg) return;
            int64_t n = opt.render == Render::xml
                            ? static_cast<int32_t>(ops.toxml(h, msg, text.data(), static_cast<uint32_t>(text.size())))
                            : ops.print(h, msg, text.data(), static_cast<uint32_t>(text.size()));
            if (n < 0) {
                std::printf("    (%s cannot be rendered: error %u)\n", ops.name, mgx_handle_last_error(h));
                return;
            }
            std::fwrite(text.data(), 1, static_cast<size_t>(n), stdout);
            if (n == 0 || text[static_cast<size_t>(n) - 1] != '\n') std::putchar('\n');
            return;
        }
        }
    }

    uint64_t live() const { return mgx_handle_live_allocations(h); }

    // One line with this process's resident set size now and at its peak, in KiB as the kernel
    // counts them, and the allocations its handle holds, after `session` when it is a multiple of
    // --memory-every. Written at once, as one line, between the peer's lines.
    void report_memory(long session) {
        if (opt.memory_every == 0 || session % opt.memory_every != 0) return;
        long rss = -1, peak = -1;
        if (FILE *f = std::fopen("/proc/self/status", "r")) {
            char line[256];
            while (std::fgets(line, sizeof line, f)) {
                std::sscanf(line, "VmRSS: %ld", &rss);
                std::sscanf(line, "VmHWM: %ld", &peak);
            }
            std::fclose(f);
        }
        if (rss < 0 || peak < 0) {
            std::fprintf(stderr, "%s: no resident set size in /proc/self/status\n", name);
            return;
        }
        std::fflush(stdout);
        std::printf("memory: %s after %ld sessions: rss %ld KiB, peak %ld KiB, live allocations %" PRIu64 "\n", name,
                    session, rss, peak, live());
        std::fflush(stdout);
    }
};

// The session manager: answers every request of the script, for as many sessions as asked.
int run_manager(const Options &opt, int fd) {
    Side sm("session manager", "client", opt, fd);
    mgx_handle_set_domain_variant(sm.h, "ovrin_smd_in_event", kManagerInEventVariant);
    mgx_handle_set_domain_variant(sm.h, "ovrin_sm_in_event_type", kManagerInEventVariant);
    bool going = true;
    for (long s = 1; going && s <= opt.count; ++s) {
        for (const Step &step : script()) {
            auto rebuild = [&](uint32_t *err) { return build_request(sm.h, step.request, s, err); };
            if (!(going = sm.receive(kInEvent, rebuild, request_name(step.request), s))) break;
            for (Answer a : step.answers) {
                uint32_t err = 0;
                ovrin_smd_resp_event *msg = build_answer(sm.h, a, s, &err);
                if (!(going = sm.send(kRespEvent, msg, err, answer_name(a), s))) break;
            }
            if (!going) break;
        }
        if (going) sm.report_memory(s);
    }
    // The client hangs up once it has everything; only then is the summary printed, after the
    // client's last line. Anything still arriving is a request the script does not have.
    uint8_t extra;
    if (going && read_all(fd, &extra, 1)) {
        std::fprintf(stderr, "session manager: the client sent more than the script holds\n");
        going = false;
    }
    std::fflush(stdout);
    const uint64_t live = sm.live();
    std::printf("session manager: %ld received, %ld intact, %ld sent; live allocations %" PRIu64 "\n", sm.received,
                sm.intact, sm.sent, live);
    std::fflush(stdout);
    return going && sm.intact == sm.received && live == 0 ? 0 : 1;
}

// The client: plays the script, checks every answer, and reports the verdict with the manager's.
int run_client(const Options &opt, int fd, pid_t manager) {
    Side cl("client", "session manager", opt, fd);
    mgx_handle_set_state_tracking(cl.h, 1, MGX_STTR_TRACKED);
    const auto start = std::chrono::steady_clock::now();
    auto last_progress = start;
    bool going = true;
    long sessions = 0;
    for (long s = 1; going && s <= opt.count; ++s) {
        for (const Step &step : script()) {
            uint32_t err = 0;
            ovrin_smd_in_event *msg = build_request(cl.h, step.request, s, &err);
            if (!(going = cl.send(kInEvent, msg, err, request_name(step.request), s))) break;
            for (Answer a : step.answers) {
                auto rebuild = [&](uint32_t *e) { return build_answer(cl.h, a, s, e); };
                if (!(going = cl.receive(kRespEvent, rebuild, answer_name(a), s))) break;
            }
            if (!going) break;
        }
        if (going) {
            sessions = s;
            cl.report_memory(s);
        }
        const auto now = std::chrono::steady_clock::now();
        if (opt.count > 1 && now - last_progress >= std::chrono::seconds(1)) {
            last_progress = now;
            std::fprintf(stderr, "progress: %ld of %ld sessions, %ld messages\n", s, opt.count, cl.sent + cl.received);
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::fflush(stdout);
    ::shutdown(fd, SHUT_WR); // the manager sees the end (and prints its summary after this output)
    int status = 0;
    while (::waitpid(manager, &status, 0) < 0 && errno == EINTR) {
    }
    const bool manager_ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    const uint64_t live = cl.live();
    std::printf("client: %ld sent, %ld received, %ld intact; live allocations %" PRIu64 "\n", cl.sent, cl.received,
                cl.intact, live);
    const long expected = opt.count * static_cast<long>(messages_per_session());
    const long messages = cl.sent + cl.received;
    if (opt.count > 1 || seconds > 1.0)
        std::printf("%ld sessions, %ld messages in %.3f s: %.0f messages per second\n", sessions, messages, seconds,
                    seconds > 0 ? messages / seconds : 0.0);
    const bool pass = going && manager_ok && cl.intact == cl.received && live == 0 && messages == expected;
    if (pass)
        std::printf("verdict: PASS, all %ld messages arrived intact and both handles hold no allocations\n", messages);
    else
        std::printf("verdict: FAIL, %s\n",
                    !manager_ok ? (WIFEXITED(status) ? "the session manager reported failures"
                                                     : "the session manager did not end normally")
                    : cl.intact != cl.received ? "the client received damaged messages"
                    : live != 0                ? "the client's handle still holds allocations"
                                               : "the exchange ended early");
    std::fflush(stdout);
    return pass ? 0 : 1;
}

bool parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (!std::strcmp(a, "--xml")) o.render = Render::xml;
        else if (!std::strcmp(a, "--hex")) o.render = Render::hex;
        else if (!std::strcmp(a, "--quiet")) o.render = Render::none;
        else if (!std::strcmp(a, "--trace") && i + 1 < argc) o.trace = argv[++i];
        else if ((!std::strcmp(a, "--count") || !std::strcmp(a, "--corrupt") || !std::strcmp(a, "--memory-every")) &&
                 i + 1 < argc) {
            char *end = nullptr;
            long v = std::strtol(argv[++i], &end, 10);
            if (!*argv[i] || *end || v < 1 || v > 1000000000L) return false;
            if (!std::strcmp(a, "--count")) o.count = v;
            else if (!std::strcmp(a, "--memory-every")) o.memory_every = v;
            else o.corrupt = static_cast<int>(v);
        } else
            return false;
    }
    return true;
}

} // namespace

int ovrin_cmd_demo(int argc, char **argv) {
    Options opt;
    if (!parse(argc, argv, opt)) {
        std::fprintf(stderr, "usage: ovrin-sm demo [--xml | --hex | --quiet] [--count N] [--corrupt FRAME] [--trace FILE]\n"
                             "                      [--memory-every N]\n");
        return 2;
    }
    if (opt.trace) {
        if (int e = mgx_trace_file_open(opt.trace)) {
            std::fprintf(stderr, "ovrin-sm demo: cannot write the trace file %s: %s\n", opt.trace, std::strerror(e));
            return 1;
        }
    }
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        std::perror("ovrin-sm demo: socketpair");
        return 1;
    }
    std::fflush(nullptr); // nothing buffered may be written twice after the fork
    pid_t pid = ::fork();
    if (pid < 0) {
        std::perror("ovrin-sm demo: fork");
        ::close(fds[0]);
        ::close(fds[1]);
        return 1;
    }
    if (pid == 0) {
        ::close(fds[0]);
        int status = run_manager(opt, fds[1]);
        ::close(fds[1]);
        std::fflush(nullptr);
        ::_exit(status);
    }
    ::close(fds[1]);
    int status = run_client(opt, fds[0], pid);
    ::close(fds[0]);
    return status;
}
