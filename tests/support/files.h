// Files and folders for tests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Returns a folder on a disk, in which programs can be run.
std::string disk();

// A folder that is removed with all its content. It is in memory unless another parent folder is given.
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

// Read a whole file, and write a file with exactly these bytes. They throw on errors.
std::string bytes_of_file(const std::string& path);
void write_file(const std::string& path, std::string_view bytes);

// Returns the names in a folder, including hidden ones, in ascending order.
std::vector<std::string> names_in(const std::string& folder);
