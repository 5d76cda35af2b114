// Answers and the heads of requests, as libmicrohttpd has them.
#pragma once

#include "serve/http_answer.h"
#include "serve/negotiation.h"

#include <microhttpd.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavstat {

// Queues a response and gives it up. made: provides the head of the answer; its text is ignored.
MHD_Result send_response(MHD_Connection* connection, MHD_Response* response, const HttpAnswer& made,
                         ContentCoding coding = ContentCoding::identity);
// made: an answer with a text.
MHD_Result send_text(MHD_Connection* connection, const HttpAnswer& made);
MHD_Result refuse(MHD_Connection* connection, unsigned int status, std::string reason);

// The fields of a request's head that the server uses. Fields may be repeated.
struct HeadFields
{
    explicit HeadFields(MHD_Connection* connection);
    void add(const char* key, std::string_view value);

    std::optional<std::string> authorization;
    std::string accept;
    std::string accept_encoding;
    std::vector<std::string> hosts;
    bool b_body = false;
};

} // namespace kavstat
