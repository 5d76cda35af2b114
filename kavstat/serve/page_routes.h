// What the server answers for the page and for its data. docs/kavstat.md describes the documents.
#pragma once

#include "serve/routes.h"

namespace kavstat {

// "/", "/page.css", "/page.js", "/dygraph.js" and "/icon.svg".
HttpAnswer answer_page_file(const HttpRequest& request, RouteContext& context);

HttpAnswer answer_charts(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_health(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_history(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_peers(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_applications(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_connections(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_nacks(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_bypass(const HttpRequest& request, RouteContext& context);
HttpAnswer answer_configuration(const HttpRequest& request, RouteContext& context);

} // namespace kavstat
