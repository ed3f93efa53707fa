// ovrin-sm demo: the conversation of one session, as the kinds of message each side sends.
#ifndef OVRIN_CLI_DEMO_SCRIPT_H
#define OVRIN_CLI_DEMO_SCRIPT_H

#include <cstddef>
#include <vector>

namespace ovrin::demo {

enum Request { REQ_REGISTER, REQ_START, REQ_ACCT, REQ_IDENTITY, REQ_QUERY, REQ_CAPWAP, REQ_STOP };
enum Answer { ANS_REG_RESULT, ANS_NEW_CLIENT, ANS_START_RESP, ANS_AUTHC_RESULT, ANS_QUERY_RESP, ANS_DISCONNECT };

struct Step {
    Request request;
    std::vector<Answer> answers;
};

// One session: each request of the client and what the session manager answers to it.
const std::vector<Step> &script();
size_t messages_per_session();
const char *request_name(Request r);
const char *answer_name(Answer a);

} // namespace ovrin::demo

#endif
