#include "support/demo_engine.h"

#include <csignal>
#include <optional>

namespace {

run_surroundings with_segment(const std::string& segment)
{
    run_surroundings surroundings;
    if (!segment.empty()) {
        surroundings.environment = {{"KAV_STAT_SEGMENT", segment}};
    }
    return surroundings;
}

} // namespace

demo_engine::demo_engine(const std::vector<std::string>& arguments, const std::string& segment)
    : m_program(built_program("kav_demo_engine"), arguments, with_segment(segment))
{}

demo_engine::~demo_engine()
{
    if (m_program.pid() > 0) {
        stop();
    }
}

bool demo_engine::says(const std::string& line)
{
    return m_program.read_line() == line;
}

bool demo_engine::wait_for(const std::string& line)
{
    std::optional<std::string> next;
    do {
        next = m_program.read_line();
    } while (next && next != line);
    return next.has_value();
}

program_result demo_engine::stop()
{
    send_signal(SIGTERM);
    return finish();
}
