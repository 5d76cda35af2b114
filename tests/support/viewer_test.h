// The viewer beside the small engine.
#pragma once

#include "support/small_engine.h"
#include "support/system_test.h"

class viewer_test : public system_test
{
protected:
    // The whole report, after a run in which nothing went wrong.
    static std::string report_of(const std::vector<std::string>& arguments)
    {
        const program_result result = run_viewer(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }
    // The whole output after a run that is refused.
    static std::string refusal_of(const std::vector<std::string>& arguments)
    {
        const program_result result = run_viewer(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    small_engine m_engine;
};
