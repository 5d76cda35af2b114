// The alerting rules, loaded and evaluated by promtool.
#include "health/prometheus_rules.h"

#include "RE_bypass_table.h"
#include "health_edges.h"
#include "kavstat_fixture.h"
#include "support/child_program.h"
#include "support/files.h"

#include <iomanip>
#include <sstream>

namespace {

std::string prometheus_rules(const RuleSet& rules = {})
{
    StringSink sink;
    Output output(sink);
    write_prometheus_rules(rules, output);
    output.flush();
    return sink.text();
}

std::string settings(const RuleSet& rules = {})
{
    StringSink sink;
    Output output(sink);
    write_rule_settings(rules, output);
    output.flush();
    return sink.text();
}

// Returns the text of one alert.
std::string alert(const std::string& rules, const std::string& name)
{
    const std::size_t begin = rules.find("      - alert: " + name + "\n");
    return begin == std::string::npos ? "" : rules.substr(begin, rules.find("      - alert: ", begin + 1) - begin);
}

class alerting_rules : public kavstat_test
{
protected:
    std::string promtool(const std::string& command, const std::string& file)
    {
        const program_result result = child_program("/usr/bin/promtool", {command, "rules", file}).finish();
        return result.status == 0 ? "" : result.out + result.err;
    }

    // Returns the value of each series in an exposition. The key contains the labels.
    std::map<std::string, double> series_of(const Snapshot& snapshot)
    {
        Source source;
        EXPECT_EQ(source.open(), 0);
        StringSink sink;
        Output output(sink);
        const Exposition exposition(source.reader(), snapshot);
        Document document = exposition.document(output);
        while (document.write_more()) {
        }
        output.flush();
        std::map<std::string, double> series;
        std::istringstream lines(sink.text());
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with('#')) {
                const std::size_t blank = line.rfind(' ');
                series[line.substr(0, blank)] = std::stod(line.substr(blank + 1));
            }
        }
        return series;
    }

    // Returns promtool's input for the metrics that rules use. For seventy minutes, totals grow by their value of
    // `before` per minute. For twelve more minutes, they grow by the change between the two moments.
    std::string input_series(const two_moments& moments, const std::string& instance)
    {
        std::ostringstream text;
        text << std::setprecision(17);
        const auto before = series_of(moments.before);
        for (const auto& [name, value] : series_of(moments.now)) {
            const std::size_t brace = std::min(name.find('{'), name.size());
            const std::string metric = name.substr(0, brace);
            if (!m_metrics.contains(metric)) {
                continue;
            }
            const std::string labels = brace == name.size() ? "}" : "," + name.substr(brace + 1);
            const auto earlier = before.find(name);
            const double old = earlier == before.end() ? value : earlier->second;
            text << "      - series: '" << metric << "{instance=\"" << instance << "\",job=\"kav\"" << labels << "'\n"
                 << "        values: '";
            if (metric.ends_with("_total") || metric.ends_with("_sum") || metric.ends_with("_count")) {
                text << "0+" << old << "x70 " << old * 70 + (value - old) << "+" << value - old << "x11'\n";
            } else if (metric.ends_with("_timestamp_seconds") || metric.ends_with("start_timestamp_seconds")) {
                // Time starts at 0 in promtool's tests.
                const double age = static_cast<double>(moments.now.capture_time) - value;
                text << (value == 0 ? 0 : end * 60 - age) << "x" << end << "'\n";
            } else {
                text << value << "x" << end << "'\n";
            }
        }
        return text.str();
    }

    // Returns a test for promtool. The expression must give these labels, each with the value 1.
    static std::string promql_test(const std::string& expression, const std::vector<std::string>& labels)
    {
        std::string text =
            "      - expr: " + expression + "\n        eval_time: " + std::to_string(end) + "m\n        exp_samples:\n";
        for (const std::string& one : labels) {
            text += "          - labels: '" + one + "'\n            value: 1\n";
        }
        return text;
    }

    // Puts this many servers into the auto-bypass table and removes the others.
    void set_bypass_servers(const HealthExtras& extras)
    {
        for (std::uint32_t server = 0; server < RE_bypass_capacity; ++server) {
            const int at = static_cast<int>(server);
            const bool b_nacks = at < extras.bypass_servers_with_nacks;
            if (b_nacks || at < extras.bypass_servers) {
                engine.set_bypass({server, 80,
                                   b_nacks ? RE_bypass_reason::repeated_nacks : RE_bypass_reason::low_compression, 1, 0,
                                   1, 1});
            } else {
                engine.clear_bypass(server, 80);
            }
        }
    }

    std::set<std::string> m_metrics;
    static constexpr int end = 82; // minutes

    scratch_folder m_folder;
};

} // namespace

TEST_F(alerting_rules, are_what_promtool_accepts)
{
    write_file(m_folder.file("rules.yml"), prometheus_rules());
    EXPECT_EQ(promtool("check", m_folder.file("rules.yml")), "");
}

TEST_F(alerting_rules, fire_beyond_the_threshold_of_each_rule_and_not_before)
{
    start();
    const std::string rules = prometheus_rules();
    write_file(m_folder.file("rules.yml"), rules);
    const std::regex name("\\bkav_[a-z_0-9]+");
    for (std::sregex_iterator at(rules.begin(), rules.end(), name), none; at != none; ++at) {
        m_metrics.insert(at->str());
    }
    // Each edge uses separate engines.
    std::string series = "      - series: 'kav_up{instance=\"gone\",job=\"kav\"}'\n        values: '0x200'\n";
    std::string tests =
        promql_test("count(ALERTS{instance=\"gone\",alertname=\"KavNoEngine\",alertstate=\"firing\"})", {"{}"});
    for (const edge& each : edges()) {
        for (const bool b_ill : {false, true}) {
            two_moments moments;
            (b_ill ? each.ill : each.healthy)(moments);
            set_bypass_servers(moments.extras);
            const std::string instance =
                std::string(each.rule) + (b_ill ? " ill" : " healthy") + std::to_string(&each - edges().data());
            series += input_series(moments, instance);
            if (b_ill) {
                tests += promql_test("count(ALERTS{instance=\"" + instance + "\",alertname=\"" +
                                         alert_name_of(*find_rule(each.rule)) + "\",alertstate=\"firing\"})",
                                     {"{}"});
            }
        }
    }
    // A connection that is silent for the threshold's 2 s, and one that is silent for less.
    for (const auto& [instance, seconds] : {std::pair("silent ill", "2"), std::pair("silent healthy", "1.999")}) {
        series += std::string("      - series: 'kav_connections_longest_silence_seconds{instance=\"") + instance +
                  "\",job=\"kav\"}'\n        values: '" + seconds + "x" + std::to_string(end) + "'\n";
    }
    tests += promql_test(
        "count(ALERTS{instance=\"silent ill\",alertname=\"KavConnectionStuck\",alertstate=\"firing\"})", {"{}"});
    tests += promql_test("ALERTS{instance=~\".* healthy.*\"}", {});
    write_file(m_folder.file("tests.yml"), "rule_files: [rules.yml]\n"
                                           "evaluation_interval: 1m\n"
                                           "tests:\n"
                                           "  - interval: 1m\n"
                                           "    input_series:\n" +
                                               series + "    promql_expr_test:\n" + tests);
    EXPECT_EQ(promtool("test", m_folder.file("tests.yml")), "");
}

TEST_F(alerting_rules, contain_an_alert_for_every_rule)
{
    const std::string text = prometheus_rules();
    for (const Rule& rule : all_rules()) {
        EXPECT_NE(alert(text, alert_name_of(rule)), "") << rule.name;
    }
}

TEST_F(alerting_rules, keep_to_the_settings)
{
    RuleSet rules;
    rules.window = 30;
    for (RuleSetting& setting : rules.settings) {
        setting.b_enabled = std::string(setting.rule->name) == "peer_slow";
        setting.threshold = 0.25;
        setting.hold = 7;
        setting.severity = Severity::critical;
    }
    EXPECT_EQ(
        prometheus_rules(rules),
        "# Alerting rules for the metrics of kavstat, printed by kavstat " KAV_VERSION ".\n"
        "groups:\n"
        "  - name: kav\n"
        "    rules:\n"
        "      - alert: KavPeerSlow\n"
        "        expr: |-\n"
        "          (kav_peer_ack_round_trip_avg_seconds > 0.25\n"
        "          and kav_peer_active_connections > 0)\n"
        "          * on(instance, peer) group_left(host_name) kav_peer_info\n"
        "        for: 7s\n"
        "        labels:\n"
        "          severity: critical\n"
        "          scope: peer\n"
        "        annotations:\n"
        "          summary: \"Peer {{ $labels.peer }} {{ $labels.host_name }} of {{ $labels.instance }}: average "
        "time until an acknowledgement {{ $value | humanizeDuration }} (should be at most 250.0 ms)\"\n"
        "          description: \"It should be the WAN's round trip and some milliseconds: the peer is busy or "
        "the line is full.\"\n"
        "          remedy: \"Compare with a ping. Much more than that: look at the peer's load and disk. On a line "
        "that is slow by nature, such as a satellite's, raise the threshold.\"\n");
}

// Constant rates, as of promtool's tests, are the same in every hour.
TEST_F(alerting_rules, compare_savings_with_the_hour_before_the_window)
{
    RuleSet rules;
    rules.window = 30;
    const std::string text = alert(prometheus_rules(rules), "KavSavingsDropped");
    const auto count = [&](const std::string& part) {
        int times = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++times;
        }
        return times;
    };
    // Encoding and decoding, before and after, for the value and for its least.
    EXPECT_EQ(count("[1h] offset 30s)"), 8) << text;
    EXPECT_EQ(count("offset"), 8) << text;
}

TEST_F(alerting_rules, have_settings_that_can_be_read_back)
{
    RuleSet rules;
    rules.window = 61;
    rules.settings[3].b_enabled = false;
    for (RuleSetting& setting : rules.settings) {
        setting.hold += 1;
        setting.threshold *= setting.rule->has_threshold() ? 0.9 : 1;
        setting.severity = Severity::critical;
    }
    write_file(m_folder.file("rules.toml"), settings(rules));
    const RuleFileResult read = read_rule_file(m_folder.file("rules.toml"));
    ASSERT_EQ(read.error, "");
    EXPECT_EQ(settings(read.rules), settings(rules));
    EXPECT_NE(settings(rules), settings());
}
