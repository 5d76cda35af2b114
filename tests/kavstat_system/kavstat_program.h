// kavstat as operators and other programs run it.
#pragma once

#include "support/http_client.h"
#include "support/small_engine.h"
#include "support/system_test.h"

#include <nlohmann/json.hpp>

#include <memory>

program_result run_kavstat(const std::vector<std::string>& arguments, const run_surroundings& surroundings = {});

// A port of this machine that nobody listens on by now.
int free_port();

// `kavstat serve` beside the test.
class kavstat_server
{
public:
    explicit kavstat_server(const run_surroundings& surroundings = {});
    int port() const { return m_port; }
    // Asks it to stop and waits for its end.
    program_result stop();

private:
    child_program m_program;
    int m_port = 0;
};
