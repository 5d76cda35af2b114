#include "serve/page_routes.h"

#include "page/page_files.h"
#include "page/recorded_rows.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace kavstat {

namespace {

// A parameter that cannot be taken. The text says what it may be.
class BadParameter : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

long long whole_number(const HttpRequest& request, const char* name, long long otherwise, long long least,
                       long long most)
{
    const std::optional<std::string> text = request.target.first(name);
    if (!text) {
        return otherwise;
    }
    long long number = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (error != std::errc() || end != text->data() + text->size() || number < least || number > most) {
        throw BadParameter(std::string(name) + ": not a whole number from " + std::to_string(least) + " to " +
                           std::to_string(most));
    }
    return number;
}

// Calls answer(), which may find a parameter that cannot be taken.
template <typename Answer>
HttpAnswer answer_or_refuse(const Answer& answer)
{
    try {
        return answer();
    } catch (const BadParameter& bad) {
        return json_error_answer(400, bad.what());
    } catch (const std::runtime_error& error) {
        return json_error_answer(503, error.what());
    }
}

TableQuery query_of(const HttpRequest& request, TableOf table)
{
    TableQuery query;
    query.top = static_cast<std::size_t>(
        whole_number(request, "top", static_cast<long long>(query.top), 1, TableQuery::most_rows));
    query.search = request.target.first("search").value_or("");
    query.sort = request.target.first("sort").value_or(usual_sort(table));
    query.b_reverse = whole_number(request, "reverse", 0, 0, 1) != 0;
    if (!has_column(table, query.sort)) {
        throw BadParameter("sort: not a column of this table");
    }
    return query;
}

// write: writes the document.
template <typename Write>
HttpAnswer json_answer(const Write& write)
{
    StringSink sink;
    Output output(sink);
    write(output);
    output.flush();
    return text_answer(200, sink.text(), json_type);
}

constexpr long long last_second = 253402300799; // of the year 9999

// write: writes the table of two moments: of the engine's last ones, or of the recorded ones that the request names.
template <typename Write>
HttpAnswer answer_from_two_moments(const HttpRequest& request, RouteContext& context, TableOf table, const Write& write)
{
    return answer_or_refuse([&] {
        const TableQuery query = query_of(request, table);
        const auto answer = [&](const TwoMoments& moments, const HealthReport& health) {
            return json_answer([&](Output& output) { write(moments, health, query, output); });
        };
        if (request.target.first("at")) {
            const long long time = whole_number(request, "at", 0, 0, last_second);
            if (context.history.empty()) {
                throw BadParameter("at: the server has no recorded history");
            }
            std::string reason;
            const PastMoment* const past = context.past.find(context.history, time, context.live.rules(), reason);
            if (past == nullptr) {
                return reason.empty() ? json_error_answer(404, "nothing was recorded until then")
                                      : json_error_answer(503, "the history cannot be read: " + reason);
            }
            return answer(past->moments(), past->health);
        }
        context.live.follow_engine(LiveHistory::clock::now(), std::chrono::system_clock::now());
        const TwoMoments moments = context.live.moments();
        if (moments.now == nullptr) {
            const std::string& reason = context.live.health().unknown;
            return json_error_answer(503, reason.empty() ? "the statistics have not been read yet" : reason);
        }
        return answer(moments, context.live.health());
    });
}

// make: makes the table of a moment, for a query and an output.
template <typename Make>
HttpAnswer answer_from_moment(const HttpRequest& request, RouteContext& context, TableOf table, const Make& make)
{
    return answer_or_refuse([&] {
        const TableQuery query = query_of(request, table);
        std::shared_ptr<Moment> moment;
        if (const int error = find_statistics(request, context, moment)) {
            return json_error_answer(503, Source::reason_of(error));
        }
        return document_answer(json_type, std::move(moment),
                               [query, make](Moment& of, Output& output) { return make(of, query, output); });
    });
}

void keep_range(std::vector<ChartRow>& rows, std::int64_t from, std::int64_t to)
{
    std::erase_if(rows, [&](const ChartRow& row) { return row.time < from || row.time > to; });
}

// All clients wait while the history is read.
constexpr long long most_recorded_points = 1000;

constexpr std::int64_t milliseconds_of_second = 1000;
constexpr long long most_points = 5000;

// Of what is kept in memory.
ChartRows live_rows(const RouteContext& context, ChartScope scope, const std::string& key, long long from, long long to)
{
    ChartRows rows = context.live.rows(scope, key).value_or(ChartRows{scope, key, {}});
    keep_range(rows.rows, from * milliseconds_of_second, to * milliseconds_of_second);
    return rows;
}

// Of the recorded history. Throws when it cannot be read.
ChartRows recorded_rows(const RouteContext& context, ChartScope scope, const std::string& key, long long from,
                        long long to, long long points)
{
    RecordedRows recorded;
    recorded.set_patience(server_patience);
    std::string reason = recorded.open(context.history);
    std::optional<ChartRows> rows;
    if (reason.empty()) {
        rows = recorded.rows(scope, key, {from, to}, static_cast<std::size_t>(std::min(points, most_recorded_points)),
                             reason);
    }
    if (!rows) {
        throw std::runtime_error("the history cannot be read: " + reason);
    }
    return *rows;
}

ChartRows history_for(const HttpRequest& request, const RouteContext& context)
{
    const std::string word = request.target.first("scope").value_or(word_of(ChartScope::engine));
    const std::optional<ChartScope> scope = chart_scope_of(word);
    if (!scope) {
        throw BadParameter("scope: not engine, peer or application");
    }
    const std::string key = request.target.first("key").value_or("");
    if (key.empty() != (*scope == ChartScope::engine)) {
        throw BadParameter("key: needed for a peer and an application, and for nothing else");
    }
    const long long from = whole_number(request, "from", 0, 0, last_second);
    const long long to = whole_number(request, "to", last_second, from, last_second);
    const long long points = whole_number(request, "points", 1000, 2, most_points);
    // Without a range the last minutes are asked for.
    const bool b_range = request.target.first("from") || request.target.first("to");
    ChartRows rows = b_range && !context.history.empty() ? recorded_rows(context, *scope, key, from, to, points)
                                                         : live_rows(context, *scope, key, from, to);
    thin(rows.rows, static_cast<std::size_t>(points));
    return rows;
}

} // namespace

HttpAnswer answer_page_file(const HttpRequest& request, RouteContext&)
{
    const PageFile& file = *find_page_file(request.target.path);
    HttpAnswer answer;
    answer.type = file.type;
    answer.lasting_text = file.text;
    answer.policy = page_policy;
    return answer;
}

HttpAnswer answer_charts(const HttpRequest&, RouteContext& context)
{
    ChartPast past{context.live.span().count(), std::nullopt, std::nullopt};
    RecordedRows recorded;
    recorded.set_patience(server_patience);
    if (!context.history.empty() && recorded.open(context.history).empty()) {
        const HistorySpan span = recorded.span().value_or(HistorySpan());
        past.recorded_from = span.from;
        past.recorded_to = span.to;
    }
    return json_answer([&](Output& output) { write_charts(past, output); });
}

HttpAnswer answer_health(const HttpRequest&, RouteContext& context)
{
    context.live.follow_engine(LiveHistory::clock::now(), std::chrono::system_clock::now());
    return json_answer([&](Output& output) { write_health_json(context.live.health(), output); });
}

HttpAnswer answer_history(const HttpRequest& request, RouteContext& context)
{
    return answer_or_refuse([&] {
        const ChartRows rows = history_for(request, context);
        return json_answer([&](Output& output) { write_chart_rows(rows, output); });
    });
}

HttpAnswer answer_peers(const HttpRequest& request, RouteContext& context)
{
    return answer_from_two_moments(request, context, TableOf::peers,
                                   [](const TwoMoments& moments, const HealthReport& health, const TableQuery& query,
                                      Output& output) { write_peers(moments, health.findings, query, output); });
}

HttpAnswer answer_applications(const HttpRequest& request, RouteContext& context)
{
    return answer_from_two_moments(request, context, TableOf::applications,
                                   [](const TwoMoments& moments, const HealthReport&, const TableQuery& query,
                                      Output& output) { write_applications(moments, query, output); });
}

HttpAnswer answer_connections(const HttpRequest& request, RouteContext& context)
{
    return answer_from_moment(request, context, TableOf::connections,
                              [&rates = context.connection_rates](Moment& of, const TableQuery& query, Output& output) {
                                  return connections_document(of.source->reader(), of.snapshot, rates, query, output);
                              });
}

HttpAnswer answer_nacks(const HttpRequest& request, RouteContext& context)
{
    return answer_from_moment(request, context, TableOf::nacks,
                              [](Moment& of, const TableQuery& query, Output& output) {
                                  return nacks_document(of.source->reader(), of.snapshot, query, output);
                              });
}

HttpAnswer answer_bypass(const HttpRequest& request, RouteContext& context)
{
    return answer_from_moment(
        request, context, TableOf::bypass, [](Moment& of, const TableQuery& query, Output& output) {
            Document document;
            document.add_once([&of, query, &output] { write_bypass(of.source->reader(), of.snapshot, query, output); });
            return document;
        });
}

HttpAnswer answer_configuration(const HttpRequest& request, RouteContext& context)
{
    return answer_from_moment(request, context, TableOf::configuration,
                              [](Moment& of, const TableQuery& query, Output& output) {
                                  Document document;
                                  document.add_once([&of, query, &output] {
                                      write_configuration(of.source->reader(), of.snapshot, query, output);
                                  });
                                  return document;
                              });
}

} // namespace kavstat
