// Prints the table of rules as alerting rules of Prometheus and as a file of settings.
#pragma once

#include "format/output.h"
#include "health/rules.h"

#include <string>

namespace kavstat {

// Writes a rule file of Prometheus with an alert for every enabled rule.
void write_prometheus_rules(const RuleSet& rules, Output& output);

// Returns "KavNacksFrequent" for nacks_frequent.
std::string alert_name_of(const Rule& rule);

// Writes the settings as a file for read_rule_file().
void write_rule_settings(const RuleSet& rules, Output& output);

} // namespace kavstat
