// Protocol-buffer builders of the benchmark messages (see comparator.h).
#include "bench/comparator.h"

namespace bench {

namespace {

std::string bytes(const Mac &m) { return std::string(m.begin(), m.end()); }

void attrs(ovrin_bench::AttrList &list, const std::vector<Attr> &from) {
    list.mutable_attr()->Reserve(static_cast<int>(from.size()));
    for (const Attr &a : from) {
        ovrin_bench::Attr *x = list.add_attr();
        x->set_type(a.type);
        x->set_value(a.value);
    }
}

} // namespace

void fill(ovrin_bench::ConnHdl &m, const Small &c) { m.set_conn_hdl(c.conn_hdl); }

void fill(ovrin_bench::InEvent &m, const Medium &c) {
    m.set_event_type(c.event_type);
    ovrin_bench::SessionStart *s = m.mutable_start_client();
    s->mutable_hdl()->set_conn_hdl(c.conn_hdl);
    s->mutable_cl_hdl()->set_client_hdl(c.client_hdl);
    attrs(*s->mutable_identity_attrs(), c.identity);
    ovrin_bench::ExtendedParams *x = s->mutable_ext_params();
    x->set_trusted(c.trusted);
    x->set_proximity(c.proximity);
    x->set_encap_type(c.encap_type);
    ovrin_bench::Dot11Params *d = x->mutable_dot11_param();
    const Dot11 &w = c.dot11;
    d->set_bssid(bytes(w.bssid));
    d->set_src_addr(bytes(w.src_addr));
    d->set_address(bytes(w.address));
    d->set_lrad_slot_id(w.lrad_slot_id);
    d->set_wlan_id(w.wlan_id);
    d->set_global_wlan_id(w.global_wlan_id);
    d->set_vlan_id(w.vlan_id);
    d->set_mcast_vlan_id(w.mcast_vlan_id);
    d->set_oui(std::string(w.oui.begin(), w.oui.end()));
    d->set_etype(w.etype);
    d->set_control(w.control);
    s->mutable_cl_name()->set_client_name(c.client_name);
}

void fill(ovrin_bench::RespEvent &m, const Large &c) {
    m.mutable_rcl_conn_hdl()->set_conn_hdl(c.conn_hdl);
    m.set_resp_type(c.resp_type);
    m.set_session_type(c.session_type);
    ovrin_bench::AuthcResultNotif *a = m.mutable_authc_result();
    a->mutable_label()->set_session_label(c.label);
    a->mutable_cl_hdl()->set_client_hdl(c.client_hdl);
    a->set_authc_result(c.authc_result);
    attrs(*a->mutable_identity(), c.identity);
    const Policy &q = c.policy;
    ovrin_bench::BindPolicyInfo *p = a->mutable_policy_result();
    p->set_mac(bytes(q.mac));
    p->set_fail_type(q.fail_type);
    p->set_if_num(q.if_num);
    p->set_template_name(q.template_name);
    p->set_vlan(q.vlan);
    p->set_vlan_name(q.vlan_name);
    p->set_qos_name(q.qos_name);
    p->set_qos_name_out(q.qos_name_out);
    p->set_session_timeout(q.session_timeout);
    p->set_sgacl_name(q.sgacl_name);
    p->set_url_redirect_present(q.url_redirect_present);
    p->set_term_action(q.term_action);
    p->set_qos_level(q.qos_level);
    for (uint32_t s : q.policy_src) p->add_policy_src(s);
    ovrin_bench::DomainNames *dn = p->mutable_domain_names();
    dn->set_mac(bytes(q.dn_mac));
    dn->set_wlclient_num(q.wlclient_num);
    dn->mutable_domain_names()->Reserve(static_cast<int>(q.domain_names.size()));
    for (const DomainName &n : q.domain_names) {
        ovrin_bench::DomainNameBind *b = dn->add_domain_names();
        b->set_fqdn_register(n.fqdn_register);
        b->set_name(n.name);
    }
    p->set_avg_data_dn(q.rates[0]);
    p->set_avg_realtime_dn(q.rates[1]);
    p->set_burst_data_dn(q.rates[2]);
    p->set_burst_realtime_dn(q.rates[3]);
    p->set_avg_data_up(q.rates[4]);
    p->set_avg_realtime_up(q.rates[5]);
    p->set_burst_data_up(q.rates[6]);
    p->set_burst_realtime_up(q.rates[7]);
}

void fill(ovrin_bench::SessAttrQueryResp &m, const Bulk &c) {
    m.set_query_hdl(c.query_hdl);
    m.set_has_more_resp(c.has_more_resp);
    m.mutable_resp_array()->Reserve(static_cast<int>(c.entries.size()));
    for (const Entry &e : c.entries) {
        ovrin_bench::QueryResp *r = m.add_resp_array();
        r->mutable_label()->set_session_label(e.label);
        attrs(*r->mutable_attr_list(), e.attrs);
    }
    m.set_session_list_hdl(c.session_list_hdl);
    m.set_session_count(c.session_count);
}

} // namespace bench
