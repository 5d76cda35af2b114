// The table of rules for other programs: as alerting rules of Prometheus, and as a file of settings.
#pragma once

#include "format/output.h"
#include "health/rules.h"

#include <string>

namespace kavstat {

// A rule file of Prometheus with an alert for every enabled rule.
void write_prometheus_rules(const RuleSet& rules, Output& output);

// "KavNacksFrequent"
std::string alert_name_of(const Rule& rule);

// The settings as a file that read_rule_file() reads.
void write_rule_settings(const RuleSet& rules, Output& output);

} // namespace kavstat
