// ovrin_sm builders of the benchmark messages (see ours.h).
#include "bench/ours.h"

namespace bench {

namespace {

void attrs(mgx_handle_t *h, aaa_tlv *tlv, const std::vector<Attr> &list, uint32_t *err) {
    for (const Attr &a : list)
        if (!*err) aaa_tlv_attr_add(h, kLuid, tlv, a.type, a.value.data(), static_cast<uint32_t>(a.value.size()), err);
}

mgx_mac_addr mac(const Mac &m) { return {{m[0], m[1], m[2], m[3], m[4], m[5]}}; }

uint32_t size(const std::string &s) { return static_cast<uint32_t>(s.size()); }

// A builder's result: the instance when every step succeeded, otherwise nothing.
template <class T> T *result(mgx_handle_t *h, T *instance, uint32_t err, void (*destroy)(mgx_handle_t *, uint32_t, T *)) {
    if (!err) return instance;
    if (instance) destroy(h, kLuid, instance);
    return nullptr;
}

} // namespace

sess_mgr_conn_hdl *build(mgx_handle_t *h, const Small &c) {
    uint32_t err = 0;
    sess_mgr_conn_hdl *m = sess_mgr_conn_hdl_create(h, kLuid);
    if (!m) return nullptr;
    sess_mgr_conn_hdl_conn_hdl_set_value(h, kLuid, m, c.conn_hdl, &err);
    return result(h, m, err, sess_mgr_conn_hdl_destroy);
}

ovrin_smd_in_event *build(mgx_handle_t *h, const Medium &c) {
    uint32_t err = 0;
    ovrin_smd_in_event *ev = ovrin_smd_in_event_create(h, kLuid);
    sess_mgr_session_start *s = sess_mgr_session_start_create(h, kLuid);
    sm_dot11_params *d = sm_dot11_params_create(h, kLuid);
    if (!ev || !s || !d) err = MGX_ENOMEM;
    uint32_t *e = &err;
    if (!err) {
        sess_mgr_conn_hdl_conn_hdl_set_value(h, kLuid, sess_mgr_session_start_hdl_get(h, kLuid, s, e), c.conn_hdl, e);
        sess_mgr_client_hdl_client_hdl_set_value(h, kLuid, sess_mgr_session_start_cl_hdl_get(h, kLuid, s, e), c.client_hdl, e);
        attrs(h, sess_mgr_session_start_identity_attrs_get(h, kLuid, s, e), c.identity, e);
        sess_mgr_extended_params *x = sess_mgr_session_start_ext_params_get(h, kLuid, s, e);
        sess_mgr_extended_params_trusted_set_value(h, kLuid, x, c.trusted, e);
        sess_mgr_extended_params_proximity_set_value(h, kLuid, x, c.proximity, e);
        const Dot11 &w = c.dot11;
        const mgx_mac_addr bssid = mac(w.bssid), src = mac(w.src_addr), addr = mac(w.address);
        sm_dot11_params_apfMsBssid_set(h, kLuid, d, &bssid, e);
        sm_dot11_params_apfMsSrcAddr_set(h, kLuid, d, &src, e);
        sm_dot11_params_apfMsAddress_set(h, kLuid, d, &addr, e);
        sm_dot11_params_apfMsLradSlotId_set_value(h, kLuid, d, w.lrad_slot_id, e);
        sm_dot11_params_wlan_id_set_value(h, kLuid, d, w.wlan_id, e);
        sm_dot11_params_global_wlan_id_set_value(h, kLuid, d, w.global_wlan_id, e);
        sm_dot11_params_vlan_id_set_value(h, kLuid, d, w.vlan_id, e);
        sm_dot11_params_mcast_vlan_id_set_value(h, kLuid, d, w.mcast_vlan_id, e);
        sm_dot11_params_oui_set_mem(h, kLuid, d, w.oui.data(), 3, e);
        sm_dot11_params_eType_set_value(h, kLuid, d, w.etype, e);
        sm_dot11_params_control_set_value(h, kLuid, d, w.control, e);
        // Choosing the member sets the encapsulation (SM_WIRELESS_ACCESS) along with it; the
        // union takes the member instance over.
        sess_mgr_extended_params_dot11_param_set(h, kLuid, x, d, e);
        if (!err) d = nullptr;
        sess_mgr_client_name_client_name_set(h, kLuid, sess_mgr_session_start_cl_name_get(h, kLuid, s, e), c.client_name.c_str(),
                                             size(c.client_name), e);
        ovrin_smd_in_event_start_client_set(h, kLuid, ev, s, e);
        if (!err) s = nullptr;
    }
    if (d) sm_dot11_params_destroy(h, kLuid, d);
    if (s) sess_mgr_session_start_destroy(h, kLuid, s);
    return result(h, ev, err, ovrin_smd_in_event_destroy);
}

ovrin_smd_resp_event *build(mgx_handle_t *h, const Large &c) {
    uint32_t err = 0, *e = &err;
    ovrin_smd_resp_event *ev = ovrin_smd_resp_event_create(h, kLuid);
    sess_mgr_authc_result_notif *a = sess_mgr_authc_result_notif_create(h, kLuid);
    if (!ev || !a) err = MGX_ENOMEM;
    if (!err) {
        sess_mgr_conn_hdl_conn_hdl_set_value(h, kLuid, ovrin_smd_resp_event_rcl_conn_hdl_get(h, kLuid, ev, e), c.conn_hdl, e);
        ovrin_smd_resp_event_session_type_set_value(h, kLuid, ev, c.session_type, e);
        sess_mgr_session_label_session_label_set_value(h, kLuid, sess_mgr_authc_result_notif_label_get(h, kLuid, a, e), c.label,
                                                       e);
        sess_mgr_client_hdl_client_hdl_set_value(h, kLuid, sess_mgr_authc_result_notif_cl_hdl_get(h, kLuid, a, e), c.client_hdl,
                                                 e);
        sess_mgr_authc_result_notif_authc_result_set_value(h, kLuid, a, c.authc_result, e);
        attrs(h, sess_mgr_authc_result_notif_identity_get(h, kLuid, a, e), c.identity, e);
        const Policy &q = c.policy;
        ovrin_epm_bind_policy_info *p = sess_mgr_authc_result_notif_policy_result_get(h, kLuid, a, e);
        const mgx_mac_addr pmac = mac(q.mac), dmac = mac(q.dn_mac);
        ovrin_epm_bind_policy_info_mac_set(h, kLuid, p, &pmac, e);
        ovrin_bind_policy_fail_type_set_value(h, kLuid, ovrin_epm_bind_policy_info_fail_type_get(h, kLuid, p, e), q.fail_type, e);
        ovrin_epm_bind_policy_info_if_num_set_value(h, kLuid, p, q.if_num, e);
        ovrin_epm_bind_policy_info_template_name_set(h, kLuid, p, q.template_name.c_str(), size(q.template_name), e);
        ovrin_epm_bind_policy_info_vlan_set_value(h, kLuid, p, q.vlan, e);
        ovrin_epm_bind_policy_info_vlan_name_set(h, kLuid, p, q.vlan_name.c_str(), size(q.vlan_name), e);
        ovrin_epm_bind_policy_info_qos_name_set(h, kLuid, p, q.qos_name.c_str(), size(q.qos_name), e);
        ovrin_epm_bind_policy_info_qos_name_out_set(h, kLuid, p, q.qos_name_out.c_str(), size(q.qos_name_out), e);
        ovrin_epm_bind_policy_info_session_timeout_set_value(h, kLuid, p, q.session_timeout, e);
        ovrin_epm_bind_policy_info_sgacl_name_set(h, kLuid, p, q.sgacl_name.c_str(), size(q.sgacl_name), e);
        ovrin_epm_bind_policy_info_urlRedirectPresent_set_value(h, kLuid, p, q.url_redirect_present, e);
        ovrin_epm_bind_policy_info_term_action_set_value(h, kLuid, p, q.term_action, e);
        ovrin_epm_bind_policy_info_qos_level_set_value(h, kLuid, p, q.qos_level, e);
        for (uint32_t i = 0; i < 4; ++i) ovrin_epm_bind_policy_info_policy_src_set_value(h, kLuid, p, i, q.policy_src[i], e);
        ovrin_svm_epm_notify_domain_name_bind *dn = ovrin_epm_bind_policy_info_domain_names_get(h, kLuid, p, e);
        ovrin_svm_epm_notify_domain_name_bind_mac_set(h, kLuid, dn, &dmac, e);
        ovrin_svm_epm_notify_domain_name_bind_wlclient_num_set_value(h, kLuid, dn, q.wlclient_num, e);
        // The array takes its full size at once (its last element set from a blank record), then
        // every element is filled where it lies, as an application fills any nested record.
        const uint32_t n = static_cast<uint32_t>(q.domain_names.size());
        if (n > 0 && !err) {
            fqdn_domain_name_bind *blank = fqdn_domain_name_bind_create(h, kLuid);
            if (!blank) err = MGX_ENOMEM;
            ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, kLuid, dn, n - 1, blank, e);
            if (blank) fqdn_domain_name_bind_destroy(h, kLuid, blank);
        }
        for (uint32_t i = 0; i < n && !err; ++i) {
            const DomainName &name = q.domain_names[i];
            fqdn_domain_name_bind *b = ovrin_svm_epm_notify_domain_name_bind_domain_names_get(h, kLuid, dn, i, e);
            fqdn_domain_name_bind_fqdn_register_set_value(h, kLuid, b, name.fqdn_register, e);
            fqdn_domain_name_bind_name_set(h, kLuid, b, name.name.c_str(), size(name.name), e);
        }
        ovrin_epm_bind_policy_info_avg_data_dn_set_value(h, kLuid, p, q.rates[0], e);
        ovrin_epm_bind_policy_info_avg_realtime_dn_set_value(h, kLuid, p, q.rates[1], e);
        ovrin_epm_bind_policy_info_burst_data_dn_set_value(h, kLuid, p, q.rates[2], e);
        ovrin_epm_bind_policy_info_burst_realtime_dn_set_value(h, kLuid, p, q.rates[3], e);
        ovrin_epm_bind_policy_info_avg_data_up_set_value(h, kLuid, p, q.rates[4], e);
        ovrin_epm_bind_policy_info_avg_realtime_up_set_value(h, kLuid, p, q.rates[5], e);
        ovrin_epm_bind_policy_info_burst_data_up_set_value(h, kLuid, p, q.rates[6], e);
        ovrin_epm_bind_policy_info_burst_realtime_up_set_value(h, kLuid, p, q.rates[7], e);
        // Choosing the member sets the answer type (SESS_MGR_RCL_AUTHC_RESULT_NOTIFY_CB) along with it;
        // the union takes the member instance over.
        ovrin_smd_resp_event_authc_result_set(h, kLuid, ev, a, e);
        if (!err) a = nullptr;
    }
    if (a) sess_mgr_authc_result_notif_destroy(h, kLuid, a);
    return result(h, ev, err, ovrin_smd_resp_event_destroy);
}

sess_mgr_sess_attr_query_resp *build(mgx_handle_t *h, const Bulk &c) {
    uint32_t err = 0, *e = &err;
    sess_mgr_sess_attr_query_resp *q = sess_mgr_sess_attr_query_resp_create(h, kLuid);
    if (!q) return nullptr;
    sess_mgr_sess_attr_query_resp_query_hdl_set_value(h, kLuid, q, c.query_hdl, e);
    sess_mgr_sess_attr_query_resp_has_more_resp_set_value(h, kLuid, q, c.has_more_resp, e);
    const uint32_t n = static_cast<uint32_t>(c.entries.size());
    if (n > 0) { // full size at once, then filled in place (as the large message's domain names)
        sess_mgr_query_resp *blank = sess_mgr_query_resp_create(h, kLuid);
        if (!blank) err = MGX_ENOMEM;
        sess_mgr_sess_attr_query_resp_resp_array_set(h, kLuid, q, n - 1, blank, e);
        if (blank) sess_mgr_query_resp_destroy(h, kLuid, blank);
    }
    for (uint32_t i = 0; i < n && !err; ++i) {
        sess_mgr_query_resp *r = sess_mgr_sess_attr_query_resp_resp_array_get(h, kLuid, q, i, e);
        sess_mgr_session_label_session_label_set_value(h, kLuid, sess_mgr_query_resp_label_get(h, kLuid, r, e),
                                                       c.entries[i].label, e);
        attrs(h, sess_mgr_query_resp_attr_list_get(h, kLuid, r, e), c.entries[i].attrs, e);
    }
    sess_mgr_sess_attr_query_resp_session_list_hdl_set_value(h, kLuid, q, c.session_list_hdl, e);
    sess_mgr_sess_attr_query_resp_session_count_set_value(h, kLuid, q, c.session_count, e);
    return result(h, q, err, sess_mgr_sess_attr_query_resp_destroy);
}

} // namespace bench
