// What a report may cost, in figures that are the same on every machine. script/bench measures times.
#include "support/viewer_test.h"

#if defined(KAV_STATIC_VIEWER) && defined(KAV_OPTIMIZED)

#include "support/program_cost.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

const std::vector<std::string> one_shot_words[] = {
    {"global-info"},    {"global-detail"}, {"peer"},       {"peer", "detail"}, {"conn"},
    {"conn", "detail"}, {"nack"},          {"config"},     {"brief-config"},   {"top-app"},
    {"kav-bypass"},     {"conn", "last"},  {"connection"}, {"tech-support"},   {"top-app", "detail"},
};

class budget : public viewer_test
{
protected:
    // Uses the machine's own time zone, as for an operator.
    budget() { unsetenv("TZ"); }

    static program_words viewer(const std::vector<std::string>& arguments)
    {
        program_words words = {built_program("exec_show_stats_kav")};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }

    static std::string text_of(const std::vector<std::string>& words)
    {
        std::string text;
        for (const std::string& word : words) {
            text += word + " ";
        }
        return text;
    }
};

} // namespace

// Five of the calls find the segment's folder in one of three places, check its owner, and guard against a truncated
// segment.
TEST_F(budget, of_a_report_is_37_system_calls_and_one_write)
{
    for (const auto& words : one_shot_words) {
        const program_cost cost = watched_run(viewer(words));
        EXPECT_LE(cost.system_calls, 37) << text_of(words);
        EXPECT_EQ(cost.write_calls, 1) << text_of(words);
    }
}

TEST_F(budget, of_a_report_is_48_page_faults_and_1200_KB)
{
    for (const auto& words : one_shot_words) {
        EXPECT_LE(timed_run(viewer(words)).page_faults, 48) << text_of(words);
        EXPECT_LE(watched_run(viewer(words)).resident, 1200) << text_of(words);
    }
}

// Counting takes seconds, so only the longest reports are tested.
TEST_F(budget, of_a_report_is_600000_instructions)
{
    for (const std::vector<std::string>& words : {std::vector<std::string>{"global-detail"}, {"tech-support"}}) {
        EXPECT_LE(count_instructions(viewer(words)), 600000) << text_of(words);
    }
}

#endif
