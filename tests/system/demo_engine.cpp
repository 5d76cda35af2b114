#include "demo_engine.h"

#include <csignal>
#include <regex>

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

bool demo_engine::says(const std::string& line)
{
    return m_program.read_line() == line;
}

program_result demo_engine::stop()
{
    send_signal(SIGTERM);
    return finish();
}

std::string without_ages(const std::string& report)
{
    static const std::regex age(R"(([Aa]ge: |\(age\): )[0-9dhms]+)");
    static const std::regex closed(R"(  C\([0-9dhms]+\))");
    return std::regex_replace(std::regex_replace(report, age, "$1AGE"), closed, "  C(AGE)");
}
