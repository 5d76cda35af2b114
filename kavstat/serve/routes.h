// The paths that the server knows, and what it answers to a request for each of them.
#pragma once

#include "serve/http_answer.h"
#include "serve/http_request.h"
#include "serve/moments.h"

#include <string_view>

namespace kavstat {

struct HttpRequest
{
    bool b_head = false; // only the head of the answer is sent
    const HttpTarget& target;
};

// What answers are made from. All requests are answered in one thread.
struct RouteContext
{
    Moments& moments;
};

// The answer to a GET or HEAD request for any path.
HttpAnswer answer_to(const HttpRequest& request, RouteContext& context);

} // namespace kavstat
