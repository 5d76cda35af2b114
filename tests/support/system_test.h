// What every test of the whole programs stands on: a statistics segment and a folder of its own, so that tests can run
// side by side, and coordinated universal time.
#pragma once

#include "support/child_program.h"
#include "support/files.h"
#include "support/own_segment.h"

#include <gtest/gtest.h>

#include <string>

// The user that owns nothing, to lack permissions as.
constexpr uid_t nobody = 65534;
constexpr gid_t nogroup = 65534;

class system_test : public testing::Test
{
protected:
    system_test();
    ~system_test() override;

    // The segment's name, as KAV_STAT_SEGMENT has it by now.
    const std::string& segment() const { return m_segment; }
    std::string segment_path() const { return own_segment_path(m_segment); }
    const std::string& folder() const { return m_folder.path(); }
    // The path of a file in the test's folder.
    std::string path(const std::string& name) const { return m_folder.file(name); }
    // Another segment's name, removed at the end like the first.
    std::string other_segment() const { return m_segment + "_other"; }

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

private:
    std::string m_segment;
    scratch_folder m_folder;
};
