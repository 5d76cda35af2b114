// kavstat health and kavstat rules, as monitors and operators run them.
#include "health/prometheus_rules.h"
#include "kavstat_program.h"
#include "prometheus.h"
#include "support/contains.h"
#include "support/demo_engine.h"
#include "support/ill_engines.h"

#include <csignal>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

using namespace kavstat;

namespace {

class health_command : public system_test
{
protected:
    std::string save(const std::string& name) const
    {
        EXPECT_EQ(run_viewer({"save-file", path(name)}).status, 0);
        return path(name);
    }
    std::string settings(const std::string& text) const
    {
        write_file(path("rules.toml"), text);
        return path("rules.toml");
    }
    std::string validate(const std::string& document) const
    {
        write_file(path("document.json"), document);
        write_file(path("schema.json"), run_kavstat({"schema", "--of", "health"}).out);
        const program_result result = child_program("/usr/bin/python3", {KAV_TEST_FILES "/validate.py",
                                                                         path("schema.json"), path("document.json")})
                                          .finish();
        EXPECT_EQ(result.err, "");
        return result.status == 0 ? "valid" : result.out;
    }

    // An engine with nothing wrong: no peer, no traffic, an old start.
    static void start_healthy(RE_stat_writer& engine)
    {
        ASSERT_EQ(engine.create({8, 16, 8, 8}, 1700000000), 0);
        engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
        engine.publish();
    }
    static const std::vector<std::string> quick;
};

const std::vector<std::string> health_command::quick = {"health", "--interval", "0.2"};

std::string first_line(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

} // namespace

TEST_F(health_command, exits_as_monitoring_plugins_do)
{
    EXPECT_EQ(run_kavstat(quick).status, 3);
    EXPECT_EQ(first_line(run_kavstat(quick).out), "KAV UNKNOWN: no engine is running");
    RE_stat_writer engine;
    start_healthy(engine);
    const program_result healthy = run_kavstat(quick);
    EXPECT_EQ(healthy.status, 0);
    EXPECT_TRUE(std::regex_match(healthy.out, std::regex("KAV OK: healthy - 50 rules, 0 peers, 0 applications, 0 open "
                                                         "connections; rates over 2[0-9]{2}\\.[0-9] ms\n")))
        << healthy.out;
    engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_TEMP_FAILED);
    EXPECT_EQ(run_kavstat(quick).status, 1);
    EXPECT_EQ(first_line(run_kavstat(quick).out), "KAV WARNING: 1 problem - engine: cache_temporarily_failed");
    engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_FAILED);
    EXPECT_EQ(run_kavstat(quick).status, 2);
    EXPECT_EQ(first_line(run_kavstat(quick).out), "KAV CRITICAL: 1 problem - engine: cache_failed");
}

TEST_F(health_command, says_unknown_to_all_that_is_no_verdict)
{
    const auto expect_unknown = [](const std::vector<std::string>& arguments, const std::string& line) {
        const program_result result = run_kavstat(arguments);
        EXPECT_EQ(result.status, 3) << line;
        EXPECT_EQ(first_line(result.out), "KAV UNKNOWN: " + line);
    };
    RE_stat_writer engine;
    start_healthy(engine);
    expect_unknown({"health", "--intervall", "3"}, "The following arguments were not expected: 3 --intervall");
    expect_unknown({"health", "--interval", "0"}, "--interval: not between 0.1 and 3600 seconds: \"0\"");
    expect_unknown({"health", "--file", path("none")}, path("none") + ": there is no such file");
    expect_unknown({"health", "--since", path("none")}, path("none") + ": there is no such file");
    expect_unknown({"health", "--rules", settings("[nacks]\n")}, path("rules.toml") + ":1: there is no rule \"nacks\"");
    expect_unknown({"health", "--rules", path("none")}, path("none") + ": cannot be read");

    run_surroundings closed;
    closed.output = -1;
    EXPECT_EQ(run_kavstat(quick, closed).status, 3);
}

TEST_F(health_command, looks_at_saved_files)
{
    RE_stat_writer engine;
    start_healthy(engine);
    const std::string before = save("before");
    engine.add_global(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 500);
    engine.add_global(RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const std::string after = save("after");

    const program_result one = run_kavstat({"health", "--file", after});
    EXPECT_EQ(one.status, 0);
    EXPECT_TRUE(std::regex_search(one.out, std::regex("; levels only, as rates take two moments; figures of "
                                                      "20[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\n$")))
        << one.out;
    const program_result two = run_kavstat({"health", "--file", before, "--file", after});
    EXPECT_EQ(two.status, 2);
    EXPECT_TRUE(contains(two.out, "[low_memory_errors]")) << two.out;
    const program_result since = run_kavstat({"health", "--since", before});
    EXPECT_EQ(since.status, 2);
    EXPECT_TRUE(contains(since.out, "[low_memory_errors]")) << since.out;
    EXPECT_EQ(run_kavstat({"health", "--since", before, "--file", after}).out, two.out);
    EXPECT_EQ(first_line(run_kavstat({"health", "--file", after, "--file", before}).out),
              "KAV UNKNOWN: cannot be compared: " + before + " is older than " + after + "; give the older one first");
    EXPECT_EQ(run_kavstat({"health", "--file", after, "--file", before}).status, 3);
    EXPECT_EQ(run_kavstat({"health", "--since", before, "--file", before, "--file", after}).status, 3);
    EXPECT_EQ(run_kavstat({"health", "--since", before, "--interval", "1"}).status, 3);
    const program_result report = run_kavstat({"report", "--from", "-1h", after});
    EXPECT_EQ(report.status, 2);
    EXPECT_EQ(report.err, "kavstat: " + after + ": --from and --to need a database of \"kavstat record\"\n");
}

TEST_F(health_command, follows_an_engine_that_is_restarted_meanwhile)
{
    auto engine = std::make_unique<RE_stat_writer>();
    start_healthy(*engine);
    engine->add_global(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, 5000);
    child_program health(built_program("kavstat"), {"health", "--interval", "3"});
    std::this_thread::sleep_for(std::chrono::seconds(1));
    engine = std::make_unique<RE_stat_writer>();
    ASSERT_EQ(engine->create({8, 16, 8, 8}, std::time(nullptr)), 0);
    engine->set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    engine->publish();
    const program_result result = health.finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(first_line(result.out), "KAV WARNING: 1 problem - engine: engine_restarted");
    EXPECT_TRUE(contains(result.out, "The engine was started anew between the two moments")) << result.out;
}

TEST_F(health_command, gives_json_that_its_schema_describes)
{
    EXPECT_EQ(validate(run_kavstat({"health", "--json"}).out), "valid");
    const small_engine engine;
    const program_result result = run_kavstat({"health", "--json", "--interval", "0.1"});
    EXPECT_EQ(validate(result.out), "valid") << result.out;
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document.at("exit_status"), result.status);
    EXPECT_EQ(validate(run_kavstat({"health", "--json", "--file", save("saved")}).out), "valid");
    nlohmann::json wrong = document;
    wrong["looked_at"].erase("peers");
    EXPECT_NE(validate(wrong.dump()), "valid");
    wrong = document;
    wrong["status"] = "fine";
    EXPECT_NE(validate(wrong.dump()), "valid");
}

TEST_F(health_command, prints_rules_that_keep_to_a_file)
{
    const program_result rules = run_kavstat({"rules", "--rules", settings("[peer_slow]\nthreshold = 0.125\n")});
    EXPECT_EQ(rules.status, 0);
    EXPECT_TRUE(contains(rules.out, "(kav_peer_ack_round_trip_avg_seconds > 0.125\n"));
    write_file(path("settings.toml"), run_kavstat({"rules", "--settings"}).out);
    EXPECT_EQ(run_kavstat({"rules", "--rules", path("settings.toml")}).out, run_kavstat({"rules"}).out);
    const program_result wrong = run_kavstat({"rules", "--rules", settings("\n[peer_slow]\nthreshold = false\n")});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_EQ(wrong.err, "kavstat: " + path("rules.toml") + ":3: a threshold is a number\n");
}

// ---- Demo engines with illnesses, monitored by a real Prometheus.

namespace {

using rules_by_engine = std::map<std::size_t, std::set<std::string>>;

class ill : public health_command
{
protected:
    // The longest time to wait for a condition. A loaded machine may need it.
    static constexpr std::chrono::seconds patience{150};

    std::string segment_of(std::size_t engine) const { return segment() + "_" + std::to_string(engine); }
    run_surroundings surroundings_of(std::size_t engine) const
    {
        run_surroundings surroundings;
        surroundings.environment = {{"KAV_STAT_SEGMENT", segment_of(engine)}};
        return surroundings;
    }
    // Other programs, more than forty of this test alone, may slow down an engine.
    static bool is_of_load(const std::string& rule)
    {
        return rule == "peer_slow" || rule == "encoding_slow" || rule == "decoding_slow";
    }
    static bool is_expected(const ill_engine& engine, const std::string& rule)
    {
        return engine.rules.contains(rule) || engine.alerts.contains(rule) || engine.side_effects.contains(rule) ||
               is_of_load(rule);
    }

    // Returns the rules with a firing alert by number of the engine: now, or at some time in the range.
    rules_by_engine firing(const prometheus& store, const std::string& range = {}) const
    {
        const std::string alerts = "ALERTS{alertstate=\"firing\"}" + range;
        rules_by_engine result;
        for (const auto& [series, value] : store.query("count by (alertname, engine) (label_replace(" +
                                                       (range.empty() ? alerts : "max_over_time(" + alerts + ")") +
                                                       ", \"engine\", \"$1\", \"instance\", \".*:(.*)\"))")) {
            std::smatch found;
            if (std::regex_match(series, found, std::regex("\\{alertname=\"(.*)\",engine=\"(.*)\"\\}"))) {
                const auto port = std::find(m_ports.begin(), m_ports.end(), std::stoi(found[2].str()));
                result[static_cast<std::size_t>(port - m_ports.begin())].insert(m_rule_of.at(found[1].str()));
            }
        }
        return result;
    }
    template <typename Condition>
    static bool wait_until(const Condition& condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        return true;
    }

    // Runs kavstat health for these engines at the same time. Adds the rules that it names for each.
    void add_named(rules_by_engine& named, const std::vector<std::size_t>& engines, const std::string& rules) const
    {
        std::vector<std::unique_ptr<child_program>> healths;
        for (const std::size_t at : engines) {
            healths.push_back(std::make_unique<child_program>(
                built_program("kavstat"),
                std::vector<std::string>{"health", "--json", "--interval", "4", "--rules", rules},
                surroundings_of(at)));
        }
        for (std::size_t each = 0; each < engines.size(); ++each) {
            const nlohmann::json document = nlohmann::json::parse(healths[each]->finish().out);
            for (const nlohmann::json& finding : document.at("findings")) {
                const auto rule = finding.at("rule").get<std::string>();
                EXPECT_EQ(finding.at("remedy"), find_rule(rule)->remedy);
                named[engines[each]].insert(rule);
            }
        }
    }

    std::vector<int> m_ports;
    std::map<std::string, std::string> m_rule_of; // by the alert's name
};

} // namespace

TEST(illnesses, trigger_every_rule)
{
    // These need an engine that is stopped or started.
    std::set<std::string> triggered = {"no_engine", "engine_restarted"};
    for (const ill_engine& engine : ill_engines()) {
        triggered.insert(engine.rules.begin(), engine.rules.end());
        triggered.insert(engine.alerts.begin(), engine.alerts.end());
    }
    for (const Rule& rule : all_rules()) {
        EXPECT_TRUE(triggered.contains(rule.name)) << rule.name << " needs an illness of the demo engine";
    }
}

TEST_F(ill, alone_engines_break_their_rules_and_heal)
{
    // Shorter times for the test, and tolerance for a loaded machine.
    const std::map<std::string, std::string> changes = {
        {"cache_initializing_long", "threshold = 1\n"}, {"encoding_slow", "threshold = 0.03\n"},
        {"decoding_slow", "threshold = 0.03\n"},        {"peer_slow", "threshold = 0.4\n"},
        {"engine_restarted", "threshold = 40\n"},
    };
    std::string text = "window = 6\n";
    for (const Rule& rule : all_rules()) {
        // The past is short, so Prometheus can compare savings only for a moment.
        const bool b_at_once = rule.term.kind == Term::Kind::savings;
        text += std::string("[") + rule.name + "]\nfor = " + (b_at_once ? "0" : "2") + "\n";
        text += changes.contains(rule.name) ? changes.at(rule.name) : "";
        m_rule_of[alert_name_of(rule)] = rule.name;
    }
    const std::string rules = settings(text);
    write_file(path("rules.yml"), run_kavstat({"rules", "--rules", rules}).out);

    std::vector<std::size_t> all;
    std::vector<std::unique_ptr<kavstat_server>> servers;
    for (std::size_t at = 0; at < ill_engines().size(); ++at) {
        all.push_back(at);
        servers.push_back(std::make_unique<kavstat_server>(surroundings_of(at)));
        m_ports.push_back(servers.back()->port());
    }
    const prometheus store(folder(), m_ports, path("rules.yml"));
    const auto fires_everywhere = [&](const std::string& rule) {
        const rules_by_engine now = firing(store);
        return std::all_of(all.begin(), all.end(),
                           [&](std::size_t at) { return now.contains(at) && now.at(at).contains(rule); });
    };
    const auto expect_in_each = [&](const rules_by_engine& found, const std::string& rule) {
        for (const std::size_t at : all) {
            EXPECT_TRUE(found.contains(at) && found.at(at).contains(rule))
                << ill_engines()[at].illnesses << ": " << rule;
        }
    };

    // Before the engines start.
    EXPECT_TRUE(wait_until([&] { return fires_everywhere("no_engine"); }));
    rules_by_engine named;
    add_named(named, {0}, rules);
    EXPECT_EQ(named[0], std::set<std::string>{"no_engine"});

    // After their start, and some time later.
    std::vector<std::unique_ptr<demo_engine>> engines;
    for (const std::size_t at : all) {
        engines.push_back(std::make_unique<demo_engine>(arguments_of(ill_engines()[at]), segment_of(at)));
    }
    for (const auto& engine : engines) {
        ASSERT_TRUE(engine->says("ready"));
    }
    named.clear();
    add_named(named, {0}, rules);
    EXPECT_TRUE(named[0].contains("engine_restarted"));
    // Load can raise alerts, too.
    const auto is_well = [&] {
        const rules_by_engine now = firing(store);
        return std::all_of(now.begin(), now.end(), [](const auto& engine) {
            return std::all_of(engine.second.begin(), engine.second.end(), is_of_load);
        });
    };
    EXPECT_TRUE(wait_until([&] { return firing(store, "[10m]")[0].contains("engine_restarted") && is_well(); }));

    // All fall ill.
    for (const auto& engine : engines) {
        engine->send_signal(SIGUSR1);
    }
    named.clear();
    rules_by_engine fired;
    EXPECT_TRUE(wait_until([&] {
        const auto lacks = [](const rules_by_engine& found, std::size_t at, const std::set<std::string>& wanted) {
            return !std::all_of(wanted.begin(), wanted.end(), [&](const std::string& rule) {
                return found.contains(at) && found.at(at).contains(rule);
            });
        };
        std::vector<std::size_t> not_named;
        std::copy_if(all.begin(), all.end(), std::back_inserter(not_named),
                     [&](std::size_t at) { return !named.contains(at) || lacks(named, at, ill_engines()[at].rules); });
        add_named(named, not_named, rules);
        for (const std::size_t at : all) {
            named.try_emplace(at);
        }
        fired = firing(store, "[30m]");
        return std::none_of(all.begin(), all.end(), [&](std::size_t at) {
            const ill_engine& engine = ill_engines()[at];
            return lacks(named, at, engine.rules) || lacks(fired, at, engine.rules) || lacks(fired, at, engine.alerts);
        });
    }));

    // All are well again.
    for (const auto& engine : engines) {
        engine->send_signal(SIGUSR1);
    }
    EXPECT_TRUE(wait_until(is_well));
    fired = firing(store, "[30m]");
    expect_in_each(fired, "no_engine");
    expect_in_each(fired, "engine_restarted");
    for (const std::size_t at : all) {
        const ill_engine& engine = ill_engines()[at];
        for (const std::string& rule : engine.rules) {
            EXPECT_TRUE(named[at].contains(rule)) << engine.illnesses << ": health does not name " << rule;
            EXPECT_TRUE(fired[at].contains(rule)) << engine.illnesses << ": no alert " << rule;
        }
        for (const std::string& rule : engine.alerts) {
            EXPECT_TRUE(fired[at].contains(rule)) << engine.illnesses << ": no alert " << rule;
        }
        fired[at].erase("no_engine");
        fired[at].erase("engine_restarted");
        for (const auto* const found : {&named, &fired}) {
            for (const std::string& rule : found->at(at)) {
                EXPECT_TRUE(is_expected(engine, rule)) << engine.illnesses << ": " << rule;
            }
        }
    }
}
