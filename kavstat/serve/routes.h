// The paths that the server answers, and the answer to a request for each of them.
#pragma once

#include "page/entity_tables.h"
#include "page/live_history.h"
#include "page/past_moment.h"
#include "serve/http_answer.h"
#include "serve/http_request.h"
#include "serve/moments.h"

#include <string_view>

namespace kavstat {

struct HttpRequest
{
    bool b_head = false; // only the head of the answer is sent
    const HttpTarget& target;
    std::string_view accept; // the field of that name; several are joined by commas
};

// The sources of answers. All requests are answered in one thread.
struct RouteContext
{
    Moments& moments;
    LiveHistory& live;
    ConnectionRates& connection_rates;
    PastMoments& past;
    const std::string& history; // the path of a recorded history; empty without one
    MetricsChoice metrics;      // the content of /metrics, unless the request selects collectors
    double start_time;          // of the process, seconds since the epoch
};

// Returns 0 and the moment for an answer, or an RE_stat_error. The head of an answer has no moment; for it, only the
// engine must be running.
int find_statistics(const HttpRequest& request, RouteContext& context, std::shared_ptr<Moment>& moment);

// The answer to a GET or HEAD request for any path.
HttpAnswer answer_to(const HttpRequest& request, RouteContext& context);

} // namespace kavstat
