// Files and folders of tests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Where files are on a disk, and programs among them can be run.
std::string disk();

// A folder that goes with all that is in it; in memory, unless told otherwise.
class scratch_folder
{
public:
    explicit scratch_folder(const std::string& place = "/dev/shm");
    ~scratch_folder();
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The whole of a file, and a file made of this alone. They throw when that fails.
std::string bytes_of_file(const std::string& path);
void write_file(const std::string& path, std::string_view bytes);

// The names in a folder, hidden ones included, in ascending order.
std::vector<std::string> names_in(const std::string& folder);
