// Reads statistics back from a saved file, which it holds in memory as a whole: the file may change or go meanwhile.
#pragma once

#include "RE_image_reader.h"

#include <string>

class RE_file_reader : public RE_image_reader
{
public:
    // path: copied.
    explicit RE_file_reader(const char* path) : m_path(path) {}
    ~RE_file_reader() override;
    RE_file_reader(const RE_file_reader&) = delete;
    RE_file_reader& operator=(const RE_file_reader&) = delete;

    // 0, or an RE_stat_error when there is no such file, it is no regular file, or any byte of it is not as written.
    int open() override;
    int close() override;

protected:
    // The copy in memory; resets never touch the file.
    std::unique_ptr<writable_image> open_writable() override;

private:
    int load(int descriptor);

    std::string m_path;
    unsigned char* m_bytes = nullptr;
};
