#include "health/prometheus_rules.h"

#include "model/metric_names.h"

#include <charconv>

namespace kavstat {

namespace {

// A series selector, and the labels in it that do not identify the subject of a rule, such as the cause of a bypass.
struct Selector
{
    std::string text;
    std::string extra_labels; // joined by commas
};

std::string number(double value)
{
    char text[64];
    const auto [end, error] = std::to_chars(text, text + sizeof text, value);
    return {text, end};
}

std::string seconds(int value)
{
    return std::to_string(value) + "s";
}

const char* operator_of(Comparison comparison)
{
    switch (comparison) {
    case Comparison::above:
        return " > ";
    case Comparison::at_least:
        return " >= ";
    case Comparison::below:
        return " < ";
    case Comparison::equal:
        return " == ";
    case Comparison::not_equal:
        break;
    }
    return " != ";
}

// The names of labels written as they are in a selector, joined by commas.
std::string label_names_of(const std::string& labels)
{
    std::string names;
    for (std::size_t begin = 0; begin < labels.size();) {
        const std::size_t equals = labels.find('=', begin);
        names += (names.empty() ? "" : ",") + labels.substr(begin, equals - begin);
        // After the closing quote and the comma. Values do not contain quotes.
        begin = labels.find('"', equals + 2) + 2;
    }
    return names;
}

Selector selector_of(const char* prefix, CounterScope scope, int id)
{
    const MetricSeries& series = metric_of(scope, id).series;
    return {prefix + series.name + (series.labels.empty() ? "" : "{" + series.labels + "}"),
            label_names_of(series.labels)};
}

// Returns the selector for a rule of this scope.
Selector selector_of(const Figure& figure, RuleScope scope)
{
    const bool b_peer = scope == RuleScope::peer;
    switch (figure.kind) {
    case Figure::Kind::engine:
        return selector_of(engine_prefix, CounterScope::engine, figure.id);
    case Figure::Kind::peer:
        return selector_of(peer_prefix, CounterScope::peer, figure.id);
    case Figure::Kind::connections:
        return selector_of(b_peer ? peer_connections_prefix : connections_prefix, CounterScope::connection, figure.id);
    case Figure::Kind::application:
        return selector_of(application_prefix, CounterScope::application, figure.id);
    case Figure::Kind::active_connections:
        return {b_peer ? "kav_peer_active_connections" : "kav_active_connections", ""};
    case Figure::Kind::outdated:
        return {"kav_peer_outdated", ""};
    case Figure::Kind::connected:
        return {"kav_peer_connected", ""};
    case Figure::Kind::engine_start_time:
        return {"kav_engine_start_timestamp_seconds", ""};
    case Figure::Kind::bypass_servers:
        return {"kav_bypass_servers", "reason"};
    case Figure::Kind::bypass_servers_with_nacks:
        break;
    }
    return {"kav_bypass_servers{reason=\"repeated_nacks\"}", "reason"};
}

class Expression
{
public:
    Expression(const RuleSetting& setting, int window)
        : m_rule(*setting.rule), m_threshold(setting.threshold), m_window(window)
    {}

    std::string text() const
    {
        std::string text = text_of(m_rule.term, m_threshold);
        for (const std::optional<Term>& term : m_rule.also) {
            if (term) {
                text += "\nand " + matching(*term) + text_of(*term, term->limit);
            }
        }
        if (m_rule.scope == RuleScope::peer) {
            text = "(" + text + ")\n* on(instance, peer) group_left(host_name) kav_peer_info";
        }
        return text;
    }

private:
    // A term of the engine in a rule of another scope has fewer labels.
    std::string matching(const Term& term) const
    {
        const Figure::Kind kind = term.part.figures().front().kind;
        const bool b_engine = kind == Figure::Kind::engine || kind == Figure::Kind::engine_start_time;
        return b_engine && m_rule.scope != RuleScope::engine ? "on(instance) " : "";
    }

    std::string text_of(const Term& term, double limit) const
    {
        const std::string compared = operator_of(term.comparison) + number(limit);
        switch (term.kind) {
        case Term::Kind::level:
            return level(term.part) + compared;
        case Term::Kind::ratio:
            return level(term.part) + " / (" + level(term.whole) + " > 0)" + compared;
        case Term::Kind::rate:
            return over("rate", term.part) + compared;
        case Term::Kind::share:
            return over("rate", term.part) + " / " + over("rate", term.whole) + compared +
                   enough(term.part, term.least_part) + enough(term.whole, term.least_whole);
        case Term::Kind::age:
            return "(time() - (" + level(term.part) + " > 0) >= 0)" + compared;
        case Term::Kind::savings:
            return savings(term) + compared + "\nand 1 - " + past_share(term) + " >= " + number(term.least_part) +
                   enough(term.whole, term.least_whole);
        case Term::Kind::engine_is_missing:
            return "kav_up == 0";
        case Term::Kind::silence:
            return "kav_connections_longest_silence_seconds" + compared;
        }
        return "";
    }

    std::string enough(const Sum& sum, double least) const
    {
        return least > 0 ? "\nand " + over("increase", sum) + " >= " + number(least) : "";
    }

    std::string savings(const Term& term) const
    {
        return "clamp_min(1 - " + over("rate", term.part) + " / " + over("rate", term.whole) + ", 0) / (1 - " +
               past_share(term) + ")";
    }

    // Returns the share that was not saved in the hour before.
    std::string past_share(const Term& term) const
    {
        const std::string past = "[1h] offset " + seconds(m_window);
        return joined(term.part, "rate(", past + ")") + " / " + joined(term.whole, "rate(", past + ")");
    }

    std::string level(const Sum& sum) const { return joined(sum, "", ""); }
    std::string over(const char* function, const Sum& sum) const
    {
        return joined(sum, std::string(function) + "(", "[" + seconds(m_window) + "])");
    }

    // Returns the sum of the figures, each with a text before and after it.
    std::string joined(const Sum& sum, const std::string& before, const std::string& after) const
    {
        std::string text;
        for (const Figure& figure : sum.figures()) {
            const Selector selector = selector_of(figure, m_rule.scope);
            const bool b_extra = !selector.extra_labels.empty();
            text += text.empty() ? "" : " + ";
            text += b_extra ? "sum without(" + selector.extra_labels + ") (" : "";
            text.append(before).append(selector.text).append(after);
            text += b_extra ? ")" : "";
        }
        return sum.figures().size() > 1 ? "(" + text + ")" : text;
    }

    const Rule& m_rule;
    double m_threshold;
    int m_window;
};

std::string quoted(const std::string& text)
{
    std::string result = "\"";
    for (const char letter : text) {
        if (letter == '"' || letter == '\\') {
            result += '\\';
        }
        result += letter;
    }
    return result + "\"";
}

std::string indented(const std::string& text, const std::string& indent)
{
    std::string result = indent;
    for (const char letter : text) {
        result += letter;
        if (letter == '\n') {
            result += indent;
        }
    }
    return result;
}

std::string subject_template(RuleScope scope)
{
    const std::string engine = "{{ $labels.instance }}";
    switch (scope) {
    case RuleScope::peer:
        return "Peer {{ $labels.peer }} {{ $labels.host_name }} of " + engine;
    case RuleScope::application:
        return "Application {{ $labels.port }}{{ if ne $labels.handle \"0\" }} (handle {{ $labels.handle }}){{ end }} "
               "with "
               "peer {{ $labels.peer }} of " +
               engine;
    case RuleScope::connection:
        return "A connection of " + engine; // the metric is the worst of all connections
    case RuleScope::engine:
        break;
    }
    return "Engine " + engine;
}

std::string value_template(const Rule& rule)
{
    switch (rule.form) {
    case Form::state:
        return rule.term.comparison == Comparison::equal ? shown_value(rule.form, rule.term.limit)
                                                         : "{{ if eq $value 0.0 }}inactive{{ else }}unknown{{ end }}";
    case Form::flag:
        return "";
    case Form::count:
        return "{{ $value }}";
    case Form::percent:
        return "{{ $value | humanizePercentage }}";
    case Form::seconds:
        return "{{ $value | humanizeDuration }}";
    case Form::bytes:
        return "{{ $value | humanize1024 }}B";
    case Form::per_second:
        return "{{ $value | humanize }}/s";
    }
    return "";
}

void write_alert(const RuleSetting& setting, int window, Output& output)
{
    const Rule& rule = *setting.rule;
    const std::string limit = limit_text(rule, setting.threshold);
    const std::string value = value_template(rule);
    output.add("      - alert: " + alert_name_of(rule) + "\n");
    output.add("        expr: |-\n" + indented(Expression(setting, window).text(), "          ") + "\n");
    if (setting.hold > 0) {
        output.add("        for: " + seconds(setting.hold) + "\n");
    }
    output.add("        labels:\n");
    output.add(std::string("          severity: ") + word_of(setting.severity) + "\n");
    output.add(std::string("          scope: ") + word_of(rule.scope) + "\n");
    output.add("        annotations:\n");
    output.add("          summary: " +
               quoted(subject_template(rule.scope) + ": " + rule.figure + (value.empty() ? "" : " " + value) + limit) +
               "\n");
    output.add("          description: " + quoted(rule.meaning) + "\n");
    output.add("          remedy: " + quoted(rule.remedy) + "\n");
}

const char* unit_word(Form form)
{
    switch (form) {
    case Form::percent:
        return "a share, 1 is all";
    case Form::seconds:
        return "seconds";
    case Form::bytes:
        return "bytes";
    case Form::per_second:
        return "a second";
    default:
        return "a number";
    }
}

} // namespace

std::string alert_name_of(const Rule& rule)
{
    std::string name = "Kav";
    bool b_begin = true;
    for (const char* letter = rule.name; *letter != '\0'; ++letter) {
        if (*letter == '_') {
            b_begin = true;
            continue;
        }
        name += b_begin ? static_cast<char>(*letter - 'a' + 'A') : *letter;
        b_begin = false;
    }
    return name;
}

void write_prometheus_rules(const RuleSet& rules, Output& output)
{
    output.add("# Alerting rules for the metrics of kavstat, printed by kavstat " KAV_VERSION ".\n"
               "groups:\n"
               "  - name: kav\n"
               "    rules:\n");
    for (const RuleSetting& setting : rules.settings) {
        if (setting.b_enabled) {
            write_alert(setting, rules.window, output);
        }
    }
}

void write_rule_settings(const RuleSet& rules, Output& output)
{
    output.add(
        "# Settings of the health rules, for --rules of kavstat health and kavstat rules. What is left out stays "
        "as it is.\n\n"
        "# Over how long alerting rules of Prometheus take rates.\n"
        "window = \"" +
        seconds(rules.window) + "\"\n");
    for (const RuleSetting& setting : rules.settings) {
        const Rule& rule = *setting.rule;
        output.add(std::string("\n# ") + rule.meaning + "\n[" + rule.name + "]\n");
        if (rule.has_threshold()) {
            output.add("threshold = " + number(setting.threshold) + " # " + rule.figure + "; " + unit_word(rule.form) +
                       "\n");
        }
        output.add("for = \"" + seconds(setting.hold) + "\"\n");
        output.add(std::string("severity = \"") + word_of(setting.severity) + "\"\n");
        output.add(std::string("enabled = ") + (setting.b_enabled ? "true" : "false") + "\n");
    }
}

} // namespace kavstat
