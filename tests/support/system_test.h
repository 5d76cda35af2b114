// The base of all tests of whole programs. Each test has its own statistics segment and folder, so that tests can run
// in parallel, and uses UTC.
#pragma once

#include "support/child_program.h"
#include "support/files.h"
#include "support/own_segment.h"

#include <gtest/gtest.h>

#include <string>

// A user that owns nothing, for tests of missing permissions.
constexpr uid_t nobody = 65534;
constexpr gid_t nogroup = 65534;

class system_test : public testing::Test
{
protected:
    system_test();
    ~system_test() override;

    // The name of the segment, which is also in KAV_STAT_SEGMENT.
    const std::string& segment() const { return m_segment; }
    std::string segment_path() const { return own_segment_path(m_segment); }
    const std::string& folder() const { return m_folder.path(); }
    // The path of a file in the test's folder.
    std::string path(const std::string& name) const { return m_folder.file(name); }
    // The name of another segment, which is also removed at the end.
    std::string other_segment() const { return m_segment + "_other"; }

    // Returns the whole report of a run that must succeed.
    static std::string report_of(const std::vector<std::string>& arguments)
    {
        const program_result result = run_viewer(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }
    // Returns the whole output of a run that must be refused.
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
