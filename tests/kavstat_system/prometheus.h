// A real Prometheus server that scrapes kavstat once a second.
#pragma once

#include "support/child_program.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

// A stored series: its labels but for job and instance, as "name{a=\"b\",c=\"d\"}" in alphabetical order.
using stored_series = std::map<std::string, double>;

class prometheus
{
public:
    // folder: for its data. ports: of what it scrapes, at /metrics.
    prometheus(const std::string& folder, const std::vector<int>& ports);

    // What an instant query answers by now.
    stored_series query(const std::string& expression) const;
    // The first answer that is wanted; the last one when that takes too long.
    stored_series query_until(const std::string& expression,
                              const std::function<bool(const stored_series&)>& is_wanted) const;

private:
    int m_port;
    child_program m_program;
};
