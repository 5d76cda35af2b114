// kavstat rules.
#include "commands/commands.h"
#include "commands/report_error.h"
#include "health/prometheus_rules.h"

#include <unistd.h>

namespace kavstat {

int run_rules(const RulesOptions& options)
{
    const std::optional<RuleSet> rules = read_rules_or_report(options.rules);
    if (!rules) {
        return EXIT_USAGE;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    if (options.b_settings) {
        write_rule_settings(*rules, output);
    } else {
        write_prometheus_rules(*rules, output);
    }
    return finish_output(output, sink);
}

} // namespace kavstat
