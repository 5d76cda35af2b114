// kavstat rules.
#include "commands/commands.h"
#include "commands/report_error.h"
#include "health/prometheus_rules.h"

#include <unistd.h>

namespace kavstat {

int run_rules(const RulesOptions& options)
{
    RuleFileResult file;
    if (options.rules) {
        file = read_rule_file(*options.rules);
    }
    if (!file.error.empty()) {
        report_error(file.error);
        return EXIT_USAGE;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    if (options.b_settings) {
        write_rule_settings(file.rules, output);
    } else {
        write_prometheus_rules(file.rules, output);
    }
    return finish_output(output, sink);
}

} // namespace kavstat
