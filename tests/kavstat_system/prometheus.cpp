#include "prometheus.h"

#include "kavstat_program.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

std::string configuration(const std::string& folder, const std::vector<int>& ports, const std::string& rules,
                          const std::string& scrape_options)
{
    const std::string path = folder + "/prometheus.yml";
    std::string targets;
    for (const int port : ports) {
        targets += (targets.empty() ? "" : ", ") + ("'127.0.0.1:" + std::to_string(port) + "'");
    }
    write_file(path, "global:\n"
                     "  scrape_interval: 1s\n"
                     "  scrape_timeout: 1s\n"
                     "  evaluation_interval: 1s\n" +
                         (rules.empty() ? "" : "rule_files: ['" + rules + "']\n") +
                         "scrape_configs:\n"
                         "  - job_name: kav\n" +
                         scrape_options +
                         "    static_configs:\n"
                         "      - targets: [" +
                         targets + "]\n");
    return path;
}

std::string escaped_for_query(const std::string& text)
{
    std::string result;
    for (const char letter : text) {
        char code[8];
        std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned int>(static_cast<unsigned char>(letter)));
        result += code;
    }
    return result;
}

} // namespace

prometheus::prometheus(const std::string& folder, const std::vector<int>& ports, const std::string& rules,
                       const std::string& scrape_options)
    : m_port(free_port()), m_program("/usr/bin/prometheus",
                                     {"--config.file=" + configuration(folder, ports, rules, scrape_options),
                                      "--storage.tsdb.path=" + folder + "/prometheus",
                                      "--web.listen-address=127.0.0.1:" + std::to_string(m_port), "--log.level=error"})
{}

stored_series prometheus::query(const std::string& expression) const
{
    stored_series series;
    http_answer answer;
    try {
        answer = get(m_port, "/api/v1/query?query=" + escaped_for_query(expression));
    } catch (const std::runtime_error&) {
        return series; // not yet listening
    }
    const nlohmann::json document = nlohmann::json::parse(answer.body, nullptr, false);
    if (answer.status != 200 || document.is_discarded()) {
        return series;
    }
    for (const nlohmann::json& result : document.at("data").at("result")) {
        const nlohmann::json& metric = result.at("metric");
        std::string labels;
        for (const auto& label : metric.items()) {
            if (label.key() != "__name__" && label.key() != "job" && label.key() != "instance") {
                labels += (labels.empty() ? "" : ",") + label.key() + "=\"" + label.value().get<std::string>() + "\"";
            }
        }
        series[metric.value("__name__", "") + (labels.empty() ? "" : "{" + labels + "}")] =
            std::stod(result.at("value").at(1).get<std::string>());
    }
    return series;
}

stored_series prometheus::query_until(const std::string& expression,
                                      const std::function<bool(const stored_series&)>& is_wanted) const
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(60);
    stored_series series = query(expression);
    while (!is_wanted(series) && clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        series = query(expression);
    }
    return series;
}
