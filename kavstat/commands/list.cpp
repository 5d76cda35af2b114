// kavstat list: every counter with its names, unit, kind and meaning, and its series in Prometheus.
#include "commands/commands.h"
#include "commands/report_error.h"
#include "format/json_writer.h"
#include "format/text.h"
#include "model/metric_names.h"

#include <unistd.h>

#include <algorithm>

namespace kavstat {

namespace {

bool contains(const std::string& text, const std::string& part)
{
    return lower_case(text).find(part) != std::string::npos;
}

bool is_wanted(CounterScope scope, const NamedCounter& counter, const ListOptions& options)
{
    if (!options.unit.empty() && options.unit != get_stat_unit_word(counter.info.unit)) {
        return false;
    }
    if (!options.kind.empty() && options.kind != get_stat_kind_word(counter.info.kind)) {
        return false;
    }
    const std::string part = lower_case(options.search);
    const std::vector<std::string> selectors = selectors_of(scope, counter);
    return contains(counter.info.name, part) || contains(counter.key, part) || contains(counter.info.meaning, part) ||
           std::any_of(selectors.begin(), selectors.end(),
                       [&](const std::string& selector) { return contains(selector, part); });
}

void add_padded(Output& output, const std::string& text, std::size_t width)
{
    output.add(text);
    output.add(std::string(width > text.size() ? width - text.size() : 0, ' '));
    output.add("  ");
}

// The counter's key, followed by the length of a range.
std::string shown_key(const NamedCounter& counter)
{
    return counter.is_range() ? counter.key + "[" + std::to_string(counter.size()) + "]" : counter.key;
}

void print_rows(Output& output, CounterScope scope, const std::vector<NamedCounter>& counters)
{
    std::size_t key_width = 0;
    for (const NamedCounter& counter : counters) {
        key_width = std::max(key_width, shown_key(counter).size());
    }
    for (const NamedCounter& counter : counters) {
        add_padded(output, word_of(scope), 11);
        add_padded(output, shown_key(counter), key_width);
        add_padded(output, get_stat_unit_word(counter.info.unit), 19);
        add_padded(output, get_stat_kind_word(counter.info.kind), 7);
        output.add(counter.info.meaning);
        output.add('\n');
        for (const std::string& selector : selectors_of(scope, counter)) {
            output.add("    ");
            output.add(selector);
            output.add('\n');
        }
    }
}

void write_rows(JsonWriter& json, CounterScope scope, const std::vector<NamedCounter>& counters)
{
    for (const NamedCounter& counter : counters) {
        json.begin_object();
        json.member_text("scope", word_of(scope));
        json.member("id", counter.id());
        json.member("size", counter.size());
        json.member_text("name", counter.info.name);
        json.member_text("key", counter.key);
        json.member_text("unit", get_stat_unit_word(counter.info.unit));
        json.member_text("kind", get_stat_kind_word(counter.info.kind));
        json.member_text("meaning", counter.info.meaning);
        json.key("metrics");
        json.begin_array();
        for (const std::string& selector : selectors_of(scope, counter)) {
            json.text(selector);
        }
        json.end_array();
        json.end_object();
    }
}

} // namespace

int run_list(const ListOptions& options)
{
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    JsonWriter json(output);
    if (options.b_json) {
        json.begin_array();
    }
    for (const CounterScope scope : all_counter_scopes) {
        if (!options.scope.empty() && options.scope != word_of(scope)) {
            continue;
        }
        std::vector<NamedCounter> wanted;
        for (const NamedCounter& counter : counters_of(scope)) {
            if (is_wanted(scope, counter, options)) {
                wanted.push_back(counter);
            }
        }
        if (options.b_json) {
            write_rows(json, scope, wanted);
        } else {
            print_rows(output, scope, wanted);
        }
    }
    if (options.b_json) {
        json.end_array();
    }
    return finish_output(output, sink);
}

} // namespace kavstat
