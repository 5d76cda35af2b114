#include "torture.h"

#include <sched.h>

#include <cstdio>

void tally::add(bool b_kept, const std::string& what)
{
    ++m_tried;
    if (b_kept) {
        return;
    }
    constexpr unsigned long told_at_most = 20;
    if (++m_lost <= told_at_most) {
        std::fprintf(stderr, "lost: %s\n", what.c_str());
    }
}

const std::vector<std::vector<std::string>>& all_reports()
{
    static const std::vector<std::vector<std::string>> reports = {
        {"global-info"},  {"global-detail"},
        {"peer"},         {"peer", "detail"},
        {"peer", "nack"}, {"conn"},
        {"conn", "last"}, {"conn", "detail"},
        {"conn", "nack"}, {"conn", "active"},
        {"nack"},         {"top-app"},
        {"config"},       {"top-app", "detail"},
        {"brief-config"}, {"kav-bypass", "detail"},
        {"tech-support"},
    };
    return reports;
}

std::string words_of(const std::vector<std::string>& arguments)
{
    std::string words;
    for (const std::string& argument : arguments) {
        words += (words.empty() ? "" : " ") + argument;
    }
    return words;
}

std::string end_of(const program_result& result)
{
    if (result.b_timed_out) {
        return "no end";
    }
    return result.signal != 0 ? "signal " + std::to_string(result.signal) : "status " + std::to_string(result.status);
}

std::vector<unsigned char> read_bytes(const std::string& path)
{
    const std::string bytes = bytes_of_file(path);
    return {bytes.begin(), bytes.end()};
}

void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes)
{
    write_file(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

void stay_on_processor(int number)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned int>(number), &processors);
    sched_setaffinity(0, sizeof processors, &processors);
}
