#include "page/report.h"

#include "documents/statistics_json.h"
#include "page/entity_tables.h"
#include "page/page_files.h"

#include <algorithm>
#include <cstdio>
#include <random>

namespace kavstat {

namespace {

constexpr std::size_t peers_in_report = 1000;
constexpr std::size_t applications_in_report = 500;
constexpr std::size_t connections_in_report = 100;
constexpr std::size_t nacks_in_report = 500;

// Nobody who named a peer can have known it, so that no text of theirs could pass for the page's own.
std::string random_nonce()
{
    std::random_device device;
    std::string nonce;
    for (int word = 0; word < 4; ++word) {
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08x", device());
        nonce += digits;
    }
    return nonce;
}

// JSON that does not end the element that it stands in.
class ScriptDataSink : public Sink
{
public:
    explicit ScriptDataSink(Output& output) : m_output(output) {}
    bool take(std::string_view bytes) override
    {
        for (std::size_t at = bytes.find('<'); at != std::string_view::npos; at = bytes.find('<')) {
            m_output.add(bytes.substr(0, at));
            m_output.add("\\u003c");
            bytes.remove_prefix(at + 1);
        }
        m_output.add(bytes);
        return true;
    }

private:
    Output& m_output;
};

TableQuery query_for(TableOf table, std::size_t top)
{
    TableQuery query;
    query.top = top;
    query.sort = usual_sort(table);
    return query;
}

void write_all_of(Document document)
{
    while (document.write_more()) {
    }
}

void write_documents(const PageData& data, Output& output)
{
    const Snapshot& now = *data.moments.now;
    const auto name = [&](const char* key) { output.add(std::string(",\"") + key + "\":"); };
    output.add("{\"charts\":");
    write_charts({}, output);
    name("health");
    write_health_json(data.health, output);
    name("statistics");
    write_global_json(data.health.source, now, output);
    name(word_of(TableOf::peers));
    write_peers(data.moments, data.health.findings, query_for(TableOf::peers, peers_in_report), output);
    name(word_of(TableOf::applications));
    write_applications(data.moments, query_for(TableOf::applications, applications_in_report), output);
    name(word_of(TableOf::connections));
    ConnectionRates rates;
    write_all_of(
        connections_document(data.reader, now, rates, query_for(TableOf::connections, connections_in_report), output));
    name(word_of(TableOf::nacks));
    write_all_of(nacks_document(data.reader, now, query_for(TableOf::nacks, nacks_in_report), output));
    name(word_of(TableOf::bypass));
    write_bypass(data.reader, now, query_for(TableOf::bypass, TableQuery::most_rows), output);
    name(word_of(TableOf::configuration));
    write_configuration(data.reader, now, query_for(TableOf::configuration, TableQuery::most_rows), output);
    name("histories");
    output.add('{');
    bool b_first = true;
    for (const ChartRows& rows : data.histories) {
        // Keys are made of digits, letters and a few marks: there is nothing to escape.
        output.add((b_first ? "\"" : ",\"") + std::string(word_of(rows.scope)) + "/" + rows.key + "\":");
        write_chart_rows(rows, output);
        b_first = false;
    }
    output.add("}}");
}

std::string element_of(const char* tag, const std::string& nonce, std::string_view text)
{
    return std::string("<") + tag + " nonce=\"" + nonce + "\">\n" + std::string(text) + "</" + tag + ">\n";
}

// Writes the page up to a line of it and takes both off. The line is one of index.html.
void write_up_to(std::string_view& page, std::string_view line, Output& output)
{
    const std::size_t at = page.find(line);
    output.add(page.substr(0, at));
    page.remove_prefix(std::min(at + line.size(), page.size()));
}

} // namespace

std::size_t points_in_report(std::size_t histories)
{
    constexpr std::size_t points_of_all = 4000;
    return std::clamp<std::size_t>(points_of_all / std::max<std::size_t>(histories, 1), 60, 720);
}

std::size_t points_of_app_in_report(std::size_t histories)
{
    constexpr std::size_t points_of_all = 8000;
    return std::clamp<std::size_t>(points_of_all / std::max<std::size_t>(histories, 1), 60, 360);
}

void write_page_report(const PageData& data, Output& output)
{
    const std::string nonce = random_nonce();
    std::string_view page = find_page_file("/")->text;
    write_up_to(page, "<link rel=\"icon\" href=\"/icon.svg\" type=\"image/svg+xml\">\n", output);
    output.add("<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src 'nonce-" + nonce +
               "'; style-src 'nonce-" + nonce + "'; base-uri 'none'; form-action 'none'\">\n");
    write_up_to(page, "<link rel=\"stylesheet\" href=\"/page.css\">\n", output);
    output.add(element_of("style", nonce, find_page_file("/page.css")->text));
    write_up_to(page, "<script src=\"/dygraph.js\"></script>\n", output);
    output.add("<script type=\"application/json\" id=\"kavstat-report\" nonce=\"" + nonce + "\">\n");
    ScriptDataSink sink(output);
    Output json(sink);
    write_documents(data, json);
    json.flush();
    output.add("</script>\n");
    output.add(element_of("script", nonce, find_page_file("/dygraph.js")->text));
    write_up_to(page, "<script src=\"/page.js\"></script>\n", output);
    output.add(element_of("script", nonce, find_page_file("/page.js")->text));
    output.add(page);
}

} // namespace kavstat
