#include "engine_process.h"

#include "support/own_segment.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace {

// Sets the segment in which the next engine publishes and this process reads.
std::string next_segment_name()
{
    static int number = 0;
    const std::string name = "kav_demo_test_" + std::to_string(getpid()) + "_" + std::to_string(++number);
    setenv("KAV_STAT_SEGMENT", name.c_str(), 1);
    return name;
}

} // namespace

engine_process::engine_process(const std::vector<std::string>& arguments)
    : m_segment(next_segment_name()), m_engine(arguments)
{}

engine_process::~engine_process()
{
    std::filesystem::remove(segment_path()); // a killed engine leaves it behind
}

int engine_process::wait()
{
    m_result = m_engine.finish();
    return m_result.signal != 0 ? -m_result.signal : m_result.status;
}

bool engine_process::has_segment() const
{
    return std::filesystem::exists(segment_path());
}

std::string engine_process::segment_path() const
{
    return own_segment_path(m_segment);
}
