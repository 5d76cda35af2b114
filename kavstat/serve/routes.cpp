#include "serve/routes.h"

#include "RE_stat_error.h"
#include "documents/statistics_json.h"
#include "format/json_writer.h"
#include "format/text.h"
#include "serve/negotiation.h"
#include "serve/page_routes.h"
#include "serve/process_metrics.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace kavstat {

namespace {

constexpr const char* metrics_type = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* openmetrics_type = "application/openmetrics-text; version=1.0.0; charset=utf-8";

// write: writes the text to an Output.
template <typename Write>
std::string text_of(const Write& write)
{
    StringSink sink;
    Output output(sink);
    write(output);
    output.flush();
    return sink.text();
}

// The available collectors that the query selects. Returns nothing, with a reason, when it names others.
std::optional<CollectorSet> selected_collectors(const HttpTarget& target, const CollectorSet& available,
                                                std::string& reason)
{
    const auto named = [&](const char* parameter) -> std::optional<CollectorSet> {
        CollectorSet set;
        for (const HttpParameter& each : target.parameters) {
            if (each.name != parameter) {
                continue;
            }
            const auto* const found = std::find(collector_names.begin(), collector_names.end(), each.value);
            const auto at = static_cast<std::size_t>(found - collector_names.begin());
            if (at == collector_names.size() || !available.test(at)) {
                reason =
                    (at == collector_names.size() ? "no such collector: \"" : "this collector is switched off: \"") +
                    each.value + "\"";
                return std::nullopt;
            }
            set.set(at);
        }
        return set;
    };
    const std::optional<CollectorSet> wanted = named("collect[]");
    const std::optional<CollectorSet> unwanted = named("exclude[]");
    if (!wanted || !unwanted) {
        return std::nullopt;
    }
    if (wanted->any() && unwanted->any()) {
        reason = "collect[] and exclude[] in one query";
        return std::nullopt;
    }
    if (wanted->any()) {
        // collect[] selects parts of the engine. OpenMetrics has these times unless they are excluded.
        constexpr auto created = static_cast<std::size_t>(Collector::created);
        CollectorSet set = *wanted;
        set.set(created, available.test(created));
        return set;
    }
    return available & ~*unwanted;
}

HttpAnswer answer_metrics(const HttpRequest& request, RouteContext& context)
{
    const auto begin = std::chrono::steady_clock::now();
    MetricsChoice choice = context.metrics;
    std::string reason;
    const std::optional<CollectorSet> collectors = selected_collectors(request.target, choice.collectors, reason);
    if (!collectors) {
        return text_answer(400, clean_text(reason) + "\n");
    }
    choice.collectors = *collectors;
    choice.format = preferred_metrics_format(request.accept);
    const char* const type = choice.format == MetricsFormat::openmetrics ? openmetrics_type : metrics_type;
    choice.write_own = [begin, format = choice.format, start_time = context.start_time](Output& output) {
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
        write_metric(output, format, MetricType::gauge, "kavstat_scrape_duration_seconds",
                     "time since the request for these metrics came", std::to_string(seconds.count()));
        write_process_metrics(output, format, start_time);
    };
    std::shared_ptr<Moment> moment;
    const int error = find_statistics(request, context, moment);
    if (error == RE_STAT_ERR_READ || error == RE_STAT_ERR_NO_MEMORY) {
        // The engine may be running, so kav_up cannot be 0.
        return text_answer(503, Source::reason_of(error) + "\n");
    }
    if (error != 0) {
        return text_answer(200, text_of([&](Output& output) { write_metrics_without_engine(output, choice); }), type);
    }
    return document_answer(type, std::move(moment),
                           [choice](Moment& of, Output& output) { return of.exposition.document(output, choice); });
}

HttpAnswer answer_statistics(const HttpRequest& request, RouteContext& context)
{
    std::string unknown;
    const std::optional<std::string> words = request.target.first("scope");
    const std::optional<JsonScopes> scopes = words ? parse_json_scopes(*words, unknown) : JsonScopes();
    if (!scopes) {
        return json_error_answer(400, "no such scope: \"" + unknown + "\"");
    }
    std::shared_ptr<Moment> moment;
    const int error = find_statistics(request, context, moment);
    if (error != 0) {
        return json_error_answer(503, Source::reason_of(error));
    }
    return document_answer(json_type, std::move(moment), [scopes = *scopes](Moment& of, Output& output) {
        return statistics_json(*of.source, of.snapshot, scopes, output);
    });
}

HttpAnswer answer_alive(const HttpRequest&, RouteContext&)
{
    return text_answer(200, "ok\n");
}

HttpAnswer answer_ready(const HttpRequest&, RouteContext&)
{
    const int error = Source().open();
    return error == 0 ? text_answer(200, "ok\n") : text_answer(503, Source::reason_of(error) + "\n");
}

struct Route
{
    const char* path;
    // Names of the query parameters that the handler reads.
    std::vector<std::string_view> parameters;
    HttpAnswer (*handler)(const HttpRequest&, RouteContext&);
    bool b_ignores_others = false; // of the parameters; they are refused otherwise

    bool reads(const HttpParameter& parameter) const
    {
        return std::find(parameters.begin(), parameters.end(), parameter.name) != parameters.end();
    }
};

const std::vector<Route>& routes()
{
    static const std::vector<Route> all{
        {"/metrics", {"collect[]", "exclude[]"}, answer_metrics, true},
        {"/api/v1/statistics", {"scope"}, answer_statistics, true},
        {"/api/v1/health", {}, answer_health},
        {"/api/v1/charts", {}, answer_charts},
        {"/api/v1/history", {"scope", "key", "from", "to", "points"}, answer_history},
        {"/api/v1/peers", {"top", "search", "sort", "reverse", "at"}, answer_peers},
        {"/api/v1/applications", {"top", "search", "sort", "reverse", "at"}, answer_applications},
        {"/api/v1/connections", {"top", "search", "sort", "reverse"}, answer_connections},
        {"/api/v1/nacks", {"top", "search", "sort", "reverse"}, answer_nacks},
        {"/api/v1/bypass", {"top", "search", "sort", "reverse"}, answer_bypass},
        {"/api/v1/configuration", {"top", "search", "sort", "reverse"}, answer_configuration},
        {"/healthz", {}, answer_alive, true},
        {"/readyz", {}, answer_ready, true},
        {"/", {}, answer_page_file, true},
        {"/page.css", {}, answer_page_file, true},
        {"/page.js", {}, answer_page_file, true},
        {"/dygraph.js", {}, answer_page_file, true},
        {"/icon.svg", {}, answer_page_file, true},
    };
    return all;
}

// "/metrics, /api/v1/statistics and /healthz"
std::string list_of_paths()
{
    std::string list;
    for (std::size_t at = 0; at < routes().size(); ++at) {
        list += at == 0 ? "" : at + 1 == routes().size() ? " and " : ", ";
        list += routes()[at].path;
    }
    return list;
}

} // namespace

int find_statistics(const HttpRequest& request, RouteContext& context, std::shared_ptr<Moment>& moment)
{
    return request.b_head ? Source().open() : context.moments.take(moment);
}

HttpAnswer json_error_answer(unsigned int status, const std::string& reason)
{
    const std::string text = text_of([&](Output& output) {
        JsonWriter json(output);
        json.begin_object();
        json.member_text("error", reason);
        json.end_object();
    });
    return text_answer(status, text, json_type);
}

HttpAnswer answer_to(const HttpRequest& request, RouteContext& context)
{
    for (const Route& route : routes()) {
        if (request.target.path == route.path) {
            const std::vector<HttpParameter>& parameters = request.target.parameters;
            const auto unknown = std::find_if(parameters.begin(), parameters.end(),
                                              [&](const HttpParameter& each) { return !route.reads(each); });
            if (unknown != parameters.end() && !route.b_ignores_others) {
                return json_error_answer(400, "no such parameter: \"" + unknown->name + "\"");
            }
            return route.handler(request, context);
        }
    }
    return text_answer(404, "not found; there are " + list_of_paths() + "\n");
}

} // namespace kavstat
