// A real Prometheus server that scrapes kavstat once a second.
#pragma once

#include "support/child_program.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

// Stored series. The key is "name{a=\"b\",c=\"d\"}", with the labels in alphabetical order, without job and instance.
using stored_series = std::map<std::string, double>;

class prometheus
{
public:
    // folder: contains the server's data. ports: the ports to scrape at /metrics. rules: a rule file that is evaluated
    // once a second, or empty. scrape_options: lines of the scrape configuration, indented by four.
    prometheus(const std::string& folder, const std::vector<int>& ports, const std::string& rules = {},
               const std::string& scrape_options = {});

    // Returns the current answer to an instant query.
    stored_series query(const std::string& expression) const;
    // Returns the first answer that `is_wanted` accepts, or the last answer when that takes too long.
    stored_series query_until(const std::string& expression,
                              const std::function<bool(const stored_series&)>& is_wanted) const;

private:
    int m_port;
    child_program m_program;
};
