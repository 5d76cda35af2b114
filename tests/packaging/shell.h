// What the tests of everything that is shipped have in common: the shell, and an engine to report on.
#pragma once

#include "support/demo_engine.h"
#include "support/files.h"

#include <memory>
#include <string>
#include <vector>

// Both outputs of a shell command, in the order in which they were written. exit_status: where the command's goes, or
// null when it is of no interest.
std::string output_of(const std::string& command, int* exit_status = nullptr);

// The words of the viewer's commands, in the order in which it looks for them.
std::vector<std::string> viewer_commands();

// Runs the demo engine once over this project's documents and holds its statistics still. Its segment's name is in the
// environment as KAV_STAT_SEGMENT.
class idle_engine
{
public:
    explicit idle_engine(std::vector<std::string> options = {});
    ~idle_engine();
    idle_engine(const idle_engine&) = delete;
    idle_engine& operator=(const idle_engine&) = delete;

private:
    std::unique_ptr<demo_engine> m_engine;
};
