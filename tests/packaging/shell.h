// What the tests of everything that is shipped have in common: other people's programs, and a folder of their own.
#pragma once

#include <filesystem>
#include <string>

// Both outputs of a shell command, in the order in which they were written. exit_status: where the command's goes, or
// null when it is of no interest.
std::string output_of(const std::string& command, int* exit_status = nullptr);

// The whole of a file; fails the test when it cannot be read.
std::string contents_of(const std::filesystem::path& path);

// A new folder, which goes with its owner.
class temporary_folder
{
public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

// Runs the demo engine once over this project's documents and holds its statistics still. Its segment's name is in the
// environment as KAV_STAT_SEGMENT.
class demo_engine
{
public:
    // options: of kav_demo_engine, as the shell takes them.
    explicit demo_engine(const std::string& options = "");
    ~demo_engine();
    demo_engine(const demo_engine&) = delete;
    demo_engine& operator=(const demo_engine&) = delete;

private:
    temporary_folder m_folder;
};
