// The file of settings: TOML, with one table for each rule whose settings change.
#include "health/rules.h"

#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <fstream>

namespace kavstat {

namespace {

constexpr std::size_t largest = 1U << 20U; // bytes of a file
constexpr int longest = 30 * 24 * 3600;    // seconds

// Shares are written as 0.05. A larger number such as 5 is probably meant as percent, so it is refused.
double largest_threshold(const Rule& rule)
{
    return rule.form == Form::percent ? std::max(1.0, 10 * std::floor(rule.term.limit)) : 1e15;
}

class FileReader
{
public:
    explicit FileReader(const std::string& path) : m_path(path) {}

    RuleFileResult read()
    {
        std::string content(largest + 1, '\0');
        std::ifstream file(m_path);
        file.read(content.data(), static_cast<std::streamsize>(content.size()));
        content.resize(static_cast<std::size_t>(file.gcount()));
        if (!file.is_open() || file.bad() || content.size() > largest) {
            m_result.error = m_path + (content.size() > largest ? ": is too large" : ": cannot be read");
            return std::move(m_result);
        }
        const toml::parse_result parsed = toml::parse(content);
        if (!parsed) {
            // Only the first line of the parser's text is used.
            const std::string text(parsed.error().description());
            fail(parsed.error().source(), text.substr(0, text.find('\n')));
            return std::move(m_result);
        }
        for (const auto& [key, value] : parsed.table()) {
            read_member(key.str(), value);
        }
        return std::move(m_result);
    }

private:
    // Reports the first mistake in the file. The parser returns members in the order of their names.
    void fail(const toml::source_region& where, const std::string& text)
    {
        if (m_result.error.empty() || where.begin.line < m_line) {
            m_line = where.begin.line;
            m_result.error = m_path + ":" + std::to_string(m_line) + ": " + text;
        }
    }

    void read_member(std::string_view name, const toml::node& node)
    {
        if (name == "window") {
            read_duration(name, node, 1, m_result.rules.window);
            return;
        }
        const Rule* const rule = find_rule(name);
        if (rule == nullptr) {
            fail(node.source(), "there is no rule \"" + std::string(name) + "\"");
            return;
        }
        const toml::table* const table = node.as_table();
        if (table == nullptr) {
            fail(node.source(), "\"" + std::string(name) + "\" is a rule, written as [" + std::string(name) + "]");
            return;
        }
        RuleSetting& setting = m_result.rules.settings[static_cast<std::size_t>(rule - all_rules().data())];
        for (const auto& [key, value] : *table) {
            read_setting(setting, key.str(), value);
        }
    }

    void read_setting(RuleSetting& setting, std::string_view key, const toml::node& node)
    {
        if (key == "threshold") {
            read_threshold(setting, node);
        } else if (key == "for") {
            read_duration(key, node, 0, setting.hold);
        } else if (key == "severity") {
            read_severity(setting, node);
        } else if (key == "enabled") {
            if (!node.is_boolean()) {
                fail(node.source(), "enabled is true or false");
                return;
            }
            setting.b_enabled = node.as_boolean()->get();
        } else {
            fail(node.source(), "a rule has no \"" + std::string(key) + "\", but threshold, for, severity, enabled");
        }
    }

    void read_threshold(RuleSetting& setting, const toml::node& node)
    {
        if (!setting.rule->has_threshold()) {
            fail(node.source(), std::string(setting.rule->name) + " has no threshold");
            return;
        }
        const std::optional<double> value = node.value<double>();
        if (!node.is_number() || !value) {
            fail(node.source(), "a threshold is a number");
        } else if (!(*value >= 0 && *value <= largest_threshold(*setting.rule))) {
            const bool b_share = setting.rule->form == Form::percent;
            fail(node.source(), b_share ? "a share is written as a number from 0 to 1" : "a threshold is 0 to 1e15");
        } else {
            setting.threshold = *value;
        }
    }

    void read_severity(RuleSetting& setting, const toml::node& node)
    {
        const std::optional<std::string> word = node.value<std::string>();
        for (const Severity severity : {Severity::warning, Severity::critical}) {
            if (word && *word == word_of(severity)) {
                setting.severity = severity;
                return;
            }
        }
        fail(node.source(), "severity is \"warning\" or \"critical\"");
    }

    // Whole seconds, or a text such as "90s", "5m", "1h".
    void read_duration(std::string_view key, const toml::node& node, int least, int& seconds)
    {
        std::optional<long long> value;
        if (node.is_integer()) {
            value = node.as_integer()->get();
        } else if (const auto text = node.value<std::string>()) {
            value = parse_duration(*text);
        }
        if (!value) {
            fail(node.source(),
                 std::string(key) + " is a number of seconds, or a text such as \"90s\", \"5m\", \"1h\"");
        } else if (*value < least || *value > longest) {
            fail(node.source(), std::string(key) + " is " + std::to_string(least) + " second" +
                                    (least == 1 ? "" : "s") + " to 30 days");
        } else {
            seconds = static_cast<int>(*value);
        }
    }

    static std::optional<long long> parse_duration(const std::string& text)
    {
        long long value = 0;
        const char* const end = text.data() + text.size();
        const auto [unit, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc() || unit + 1 != end || value > longest) {
            return std::nullopt;
        }
        switch (*unit) {
        case 's':
            return value;
        case 'm':
            return value * 60;
        case 'h':
            return value * 3600;
        case 'd':
            return value * 24 * 3600;
        default:
            return std::nullopt;
        }
    }

    const std::string& m_path;
    std::uint32_t m_line = 0; // of the error
    RuleFileResult m_result;
};

} // namespace

RuleFileResult read_rule_file(const std::string& path)
{
    return FileReader(path).read();
}

} // namespace kavstat
