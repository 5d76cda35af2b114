// Runs kavstat as operators and other programs do.
#pragma once

#include "support/http_client.h"
#include "support/small_engine.h"
#include "support/system_test.h"

#include <nlohmann/json.hpp>

#include <memory>

program_result run_kavstat(const std::vector<std::string>& arguments, const run_surroundings& surroundings = {});

// Returns a port that is not in use at the moment.
int free_port();

// `kavstat serve` as a child process of the test.
class kavstat_server
{
public:
    // options: beside the address.
    explicit kavstat_server(const run_surroundings& surroundings = {}, const std::vector<std::string>& options = {});
    int port() const { return m_port; }
    // Asks the server to stop and waits for its end.
    program_result stop();

private:
    child_program m_program;
    int m_port = 0;
};
