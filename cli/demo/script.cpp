// ovrin-sm demo: the conversation of one session, request by request.
#include "cli/demo/script.h"

namespace ovrin::demo {

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
    static const char *const names[] = {"reg_client", "start_client",         "acct",       "id_event",
                                        "sess_query", "capwap_update_params", "stop_client"};
    return names[r];
}

const char *answer_name(Answer a) {
    static const char *const names[] = {"reg_result",   "new_client",      "start_resp",
                                        "authc_result", "sess_query_resp", "disconnect"};
    return names[a];
}

} // namespace ovrin::demo
