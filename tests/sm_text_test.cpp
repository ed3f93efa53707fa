// The XML and print forms of records and unions: golden texts, union members, arrays, strings,
// bounded output, partial documents, and a round trip of every type through XML.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ovrin_sm/ops.h"
#include "tests/prim_fixture.h"
#include "tests/sm_check.h"
#include "tests/sm_fill.h"

namespace {

struct Text : RuntimeFixture {
    char buf[8192] = {};
    std::string xml_of(const ovrin::Type &t, const void *instance) {
        auto toxml = testfill::op<uint32_t (*)(mgx_handle_t *, const void *, char *, uint32_t)>(t, "toxml_cr");
        uint32_t n = toxml(h, instance, buf, sizeof buf);
        EXPECT_LT(n, sizeof buf - 1) << t.name; // the buffer is large enough for every filled type
        return std::string(buf, n);
    }
};

TEST_F(Text, OneFieldRecordGoldenForms) {
    auto *c = own(sess_mgr_conn_hdl_create(h, 1), sess_mgr_conn_hdl_destroy);
    c->conn_hdl = 7;
    const char *golden = "sess_mgr_conn_hdl@sess_mgr_conn_hdl: {\n  conn_hdl: 7\n}\n";
    EXPECT_EQ(sess_mgr_conn_hdl_print_cr(h, c, buf, sizeof buf), static_cast<int32_t>(std::strlen(golden)));
    EXPECT_STREQ(buf, golden);
    EXPECT_EQ(xml_of(testfill::type("sess_mgr_conn_hdl"), c), "<sess_mgr_conn_hdl><conn_hdl>7</conn_hdl></sess_mgr_conn_hdl>");

    // A negative variant: the header line alone, left open.
    c->variant = -1;
    EXPECT_EQ(sess_mgr_conn_hdl_print(h, 1, buf, 2, "hdl", c, sizeof buf, &err), 27u);
    EXPECT_STREQ(buf, "  hdl@sess_mgr_conn_hdl: {\n");
}

TEST_F(Text, UnionsShowOnlyTheSelectedFilledMember) {
    auto *e = own(ovrin_smd_resp_event_create(h, 1), ovrin_smd_resp_event_destroy);
    e->resp_type.value = SESS_MGR_RCL_NEW_CLIENT_NOTIFY_CB;
    e->reg_result = session_mgr_reg_result_create(h, 1); // not selected
    // (An empty selected slot shows no member line: the unfilled-instance sweep.)
    e->new_client = sess_mgr_new_client_notif_create(h, 1);
    ovrin_smd_resp_event_print_cr(h, e, buf, sizeof buf);
    std::string printed = buf;
    EXPECT_NE(printed.find("  resp_type.new_client@sess_mgr_new_client_notif: {\n"), std::string::npos);
    EXPECT_NE(printed.find("  resp_type@ovrin_sm_resp_type:SESS_MGR_RCL_NEW_CLIENT_NOTIFY_CB\n"), std::string::npos);
    EXPECT_EQ(printed.find("reg_result"), std::string::npos);
    std::string xml = xml_of(testfill::type("ovrin_smd_resp_event"), e);
    EXPECT_NE(xml.find("<resp_type><SESS_MGR_RCL_NEW_CLIENT_NOTIFY_CB/></resp_type>"), std::string::npos);
    EXPECT_NE(xml.find("<resp_type-new_client>"), std::string::npos);
    EXPECT_EQ(xml.rfind("</ovrin_smd_resp_event>"), xml.size() - 23);
}

TEST_F(Text, ArrayElementsAndStringsPrintAsTheyAre) {
    auto *d = own(sm_dot11_params_create(h, 1), sm_dot11_params_destroy);
    d->oui[1] = 0x1a;
    sm_dot11_params_print(h, 1, buf, 0, "dot11_param", d, sizeof buf, &err);
    EXPECT_NE(std::string(buf).find("  oui[0]: 0\n  oui[1]: 26\n  oui[2]: 0\n"), std::string::npos);
    EXPECT_NE(xml_of(testfill::type("sm_dot11_params"), d).find("<oui>0</oui><oui>26</oui><oui>0</oui>"), std::string::npos);

    // A string prints as it is, special characters and all (XML escapes them: every type's filled
    // strings hold them, and the operations-table sweep reads its XML back).
    auto *n = own(sess_mgr_client_name_create(h, 1), sess_mgr_client_name_destroy);
    n->client_name = handle_text(h, "a<b&c\"d'e>", &n->cl_name_len);
    sess_mgr_client_name_print_cr(h, n, buf, sizeof buf);
    EXPECT_NE(std::string(buf).find("  client_name: a<b&c\"d'e>\n"), std::string::npos);
}

// Read into an instance that already owns a string and an array, a document replaces them: the
// old blocks (and the elements' own strings) go, as the fixture's leak check sees.
TEST_F(Text, ReadingIntoAHeldInstanceReplacesWhatItOwned) {
    auto *r = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    auto *value = own(fqdn_domain_name_bind_create(h, 1), fqdn_domain_name_bind_destroy);
    fqdn_domain_name_bind_name_set(h, 1, value, "old.example", 11, &err);
    for (uint32_t k = 0; k < 3; ++k) ovrin_svm_epm_notify_domain_name_bind_domain_names_set(h, 1, r, k, value, &err);
    ASSERT_EQ(err, 0u);
    read_xml(h, ovrin_svm_epm_notify_domain_name_bind_from_xml, "r",
             "<r><domain_names_length>1</domain_names_length><domain_names><name_len>5</name_len><name>a.new</name>"
             "</domain_names></r>",
             r, &err);
    EXPECT_EQ(err, 0u);
    ASSERT_EQ(r->domain_names_length, 1u);
    EXPECT_STREQ(r->domain_names[0].name, "a.new");
    read_xml(h, fqdn_domain_name_bind_from_xml, "f", "<f><name_len>2</name_len><name>xy</name></f>", value, &err);
    EXPECT_STREQ(value->name, "xy");
}

TEST_F(Text, PartialDocumentsKeepWhatTheyDoNotMention) {
    auto *r = own(sess_mgr_register_create(h, 1), sess_mgr_register_destroy);
    r->session_type = 5;
    r->cb_bitmap = 6;
    read_xml(h, sess_mgr_register_from_xml, "r",
             "<r><cb_bitmap>99</cb_bitmap><rcl_conn_hdl><conn_hdl>4</conn_hdl></rcl_conn_hdl></r>", r, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(r->session_type, 5u);
    EXPECT_EQ(r->cb_bitmap, 99u);
    EXPECT_EQ(r->rcl_conn_hdl.conn_hdl, 4u);
    // The element itself missing: 2. A count the document does not back: 22 naming the count,
    // nothing allocated.
    read_xml(h, sess_mgr_register_from_xml, "r", "<other/>", r, &err);
    EXPECT_EQ(take_err(), 2u);
    auto *b = own(ovrin_svm_epm_notify_domain_name_bind_create(h, 1), ovrin_svm_epm_notify_domain_name_bind_destroy);
    uint64_t before = mgx_handle_total_allocations(h);
    // One more than the elements given is refused as well.
    for (const char *count : {"4000000000", "1"}) {
        char msg[64];
        const std::string xml = std::string("<x><domain_names_length>") + count + "</domain_names_length></x>";
        read_xml(h, ovrin_svm_epm_notify_domain_name_bind_from_xml, "x", xml, b, &err, msg, sizeof msg);
        EXPECT_EQ(take_err(), 22u) << count;
        EXPECT_STREQ(msg, "Invalid value at x/domain_names_length"); // the place, as for any other bad value
        EXPECT_EQ(b->domain_names_length, 0u);
        EXPECT_EQ(mgx_handle_total_allocations(h), before);
    }
}

// A field's path is its record's path and one step more, in a buffer of 256: one that does not
// fit is cut there, deliberately, and reads as a field the document does not give.
TEST_F(Text, FieldPathsLongerThanTheirBufferAreCut) {
    auto *c = own(sess_mgr_conn_hdl_create(h, 1), sess_mgr_conn_hdl_destroy);
    for (size_t outer : {244u, 245u}) { // "/c/conn_hdl" makes 255 characters, then 256
        const std::string name(outer, 'a'), xml = "<" + name + "><c><conn_hdl>5</conn_hdl></c></" + name + ">";
        c->conn_hdl = 1;
        read_xml(h, sess_mgr_conn_hdl_from_xml, name + "/c", xml, c, &err);
        EXPECT_EQ(take_err(), 0u);
        EXPECT_EQ(c->conn_hdl, outer == 244 ? 5u : 1u) << outer;
    }
}

TEST_F(Text, OutputIsBoundedAtEverySize) {
    const ovrin::Type &t = testfill::type("ovrin_smd_in_event");
    auto *e = own(ovrin_smd_in_event_create(h, 1), ovrin_smd_in_event_destroy);
    testfill::fill(t, h, e, 1, 2); // the session start member
    std::string full_xml = xml_of(t, e);
    auto toxml = ovrin_smd_in_event_toxml_cr;
    auto print = ovrin_smd_in_event_print_cr;
    int32_t full_print = print(h, e, buf, sizeof buf);
    for (uint32_t size : {0u, 1u, 2u, 17u, 100u, 333u, static_cast<uint32_t>(full_xml.size())}) {
        std::vector<char> out(size + 16, '#');
        uint32_t n = toxml(h, e, out.data(), size);
        EXPECT_TRUE(size == 0 ? n == 0 : n < size) << size;
        EXPECT_EQ(std::string(out.data(), n), full_xml.substr(0, n));
        for (size_t k = size; k < out.size(); ++k) ASSERT_EQ(out[k], '#') << "written past " << size;
        std::fill(out.begin(), out.end(), '#');
        int32_t p = print(h, e, out.data(), size);
        EXPECT_LE(p, full_print);
        for (size_t k = size; k < out.size(); ++k) ASSERT_EQ(out[k], '#') << "printed past " << size;
    }
    // An error already in the handle's store: nothing, and the all-ones answers.
    mgx_store_err(h, 22);
    EXPECT_EQ(toxml(h, e, buf, sizeof buf), 0xFFFFFFFFu);
    mgx_store_err(h, 22);
    EXPECT_EQ(print(h, e, buf, sizeof buf), -1);
}

} // namespace
