// kavstat health beside demo engines: every illness is named within ten seconds and cleared, and a healthy engine is
// never called ill.
#include "support/demo_engine.h"
#include "support/ill_engines.h"
#include "torture.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr seconds time_to_name{10};
constexpr seconds time_to_clear{60}; // addresses stay bypassed for some seconds, averages change slowly

// Waiting for these would take a quarter of an hour, or every engine would be ill at first.
constexpr const char* settings = "[cache_initializing_long]\nthreshold = 1\n[engine_restarted]\nenabled = false\n";

std::string joined(const std::set<std::string>& words)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// A demo engine and kavstat health beside it.
class judged_engine
{
public:
    judged_engine(const std::vector<std::string>& arguments, const std::string& segment, const std::string& rules)
        : m_engine(arguments, segment), m_rules(rules)
    {
        m_surroundings.environment = {{"KAV_STAT_SEGMENT", segment}};
        if (!m_engine.says("ready")) {
            throw std::runtime_error("the engine does not start");
        }
    }

    void fall_ill_or_heal() const { m_engine.send_signal(SIGUSR1); }

    // Returns the rules that a single call names. All findings must have a remedy.
    std::set<std::string> named() const
    {
        child_program health(built_program("kavstat"), {"health", "--json", "--interval", "2", "--rules", m_rules},
                             m_surroundings);
        const nlohmann::json document = nlohmann::json::parse(health.finish().out);
        std::set<std::string> rules;
        for (const nlohmann::json& finding : document.at("findings")) {
            const bool b_remedy = !finding.at("remedy").get<std::string>().empty();
            rules.insert(finding.at("rule").get<std::string>() + (b_remedy ? "" : " without a remedy"));
        }
        if (document.at("status") == "unknown") {
            rules.insert("unknown");
        }
        return rules;
    }

    // Adds the rules that are named until all wanted ones have been, or until the time is over. Returns the seconds.
    double name_all(const std::set<std::string>& wanted, std::set<std::string>& all_named) const
    {
        const auto start = clock_type::now();
        const auto elapsed = [&] { return std::chrono::duration<double>(clock_type::now() - start).count(); };
        while (!std::includes(all_named.begin(), all_named.end(), wanted.begin(), wanted.end()) &&
               elapsed() < 2 * time_to_name.count()) {
            all_named.merge(named());
        }
        return elapsed();
    }

    // Returns the rules of `wanted` that are still named after the time to clear.
    std::set<std::string> left_of(const std::set<std::string>& wanted) const
    {
        const auto start = clock_type::now();
        std::set<std::string> left;
        do {
            const std::set<std::string> now = named();
            left.clear();
            std::set_intersection(wanted.begin(), wanted.end(), now.begin(), now.end(),
                                  std::inserter(left, left.end()));
        } while (!left.empty() && clock_type::now() - start < time_to_clear);
        return left;
    }

private:
    demo_engine m_engine;
    std::string m_rules;
    run_surroundings m_surroundings;
};

double play(const ill_engine& illness, seconds healthy, const std::string& segment, const std::string& rules,
            tally& result)
{
    const judged_engine engine(arguments_of(illness), segment, rules);
    std::this_thread::sleep_for(healthy);
    std::set<std::string> named = engine.named();
    std::set<std::string> early;
    std::set_intersection(illness.rules.begin(), illness.rules.end(), named.begin(), named.end(),
                          std::inserter(early, early.end()));
    result.add(early.empty(), std::string(illness.illnesses) + ": named before: " + joined(early));

    named.clear();
    engine.fall_ill_or_heal();
    const double time = engine.name_all(illness.rules, named);
    std::set<std::string> missing;
    std::set_difference(illness.rules.begin(), illness.rules.end(), named.begin(), named.end(),
                        std::inserter(missing, missing.end()));
    result.add(missing.empty() && time <= static_cast<double>(time_to_name.count()),
               std::string(illness.illnesses) + ": not named in time: " + joined(missing) + ", " +
                   std::to_string(time) + " s");

    std::this_thread::sleep_for(seconds(10));
    engine.fall_ill_or_heal();
    const std::set<std::string> left = engine.left_of(illness.rules);
    result.add(left.empty(), std::string(illness.illnesses) + ": not cleared: " + joined(left));
    return time;
}

} // namespace

void judge_health(const torture_options& options, tally& result)
{
    const std::string rules = options.folder + "/rules.toml";
    write_file(rules, settings);
    const std::string segment = std::getenv("KAV_STAT_SEGMENT");

    // A healthy engine with the default mixture of traffic runs beside all others.
    std::vector<std::set<std::string>> alarms;
    std::thread healthy([&] {
        const judged_engine engine({"--rate", "5"}, segment + "_healthy", rules);
        const auto end = clock_type::now() + seconds(options.count);
        while (clock_type::now() < end) {
            alarms.push_back(engine.named());
        }
    });

    double longest = 0;
    unsigned long illnesses = 0;
    for (const ill_engine& illness : ill_engines()) {
        if (!illness.rules.empty()) {
            longest = std::max(longest, play(illness, seconds(8), segment + "_ill", rules, result));
            ++illnesses;
        }
    }
    // Several applications, and ten times the traffic of the interval before.
    const ill_engine dropped = {"incompressible", {"savings_dropped"}, {}, {}, {"--rate", "4", "--peers", "4"}};
    longest = std::max(longest, play(dropped, seconds(40), segment + "_ill", rules, result));
    healthy.join();
    for (const std::set<std::string>& alarm : alarms) {
        result.add(alarm.empty(), "a healthy engine: " + joined(alarm));
    }
    char note[160];
    std::snprintf(note, sizeof note, "%lu illnesses, the longest named after %.1f s; %zu calls beside a healthy engine",
                  illnesses + 1, longest, alarms.size());
    result.note(note);
}
