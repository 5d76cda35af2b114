// Reads statistics back from a saved file. open() loads the whole file into memory, so the file may change or be
// removed afterwards.
#pragma once

#include "RE_image_reader.h"

#include <string>

class RE_file_reader : public RE_image_reader
{
public:
    // path: is copied.
    explicit RE_file_reader(const char* path) : m_path(path) {}
    ~RE_file_reader() override;
    RE_file_reader(const RE_file_reader&) = delete;
    RE_file_reader& operator=(const RE_file_reader&) = delete;

    // Returns 0, or an RE_stat_error when the file does not exist, is not a regular file, or differs from what was
    // saved in any byte.
    int open() override;
    int close() override;

protected:
    // Returns the copy in memory; resets never change the file.
    std::unique_ptr<writable_image> open_writable() override;

private:
    int load(int descriptor);

    std::string m_path;
    unsigned char* m_bytes = nullptr;
};
