// ovrin-sm demo: the messages of each step, deterministic in (kind, session number), so that
// the receiver can rebuild exactly what the sender meant.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/demo/demo.h"

namespace ovrin::demo {

namespace {

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

} // namespace

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

void *rebuild_request(mgx_handle_t *h, int kind, long session, uint32_t *err) {
    return build_request(h, static_cast<Request>(kind), session, err);
}

void *rebuild_answer(mgx_handle_t *h, int kind, long session, uint32_t *err) {
    return build_answer(h, static_cast<Answer>(kind), session, err);
}

} // namespace ovrin::demo
