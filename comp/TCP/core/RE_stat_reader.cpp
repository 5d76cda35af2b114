#include "RE_file_reader.h"
#include "RE_shm_reader.h"

#include <new>

RE_stat_reader* RE_stat_reader::create(RE_stat_reader_type type, const char* path)
{
    switch (type) {
    case RE_STAT_READER_SHM:
        return new (std::nothrow) RE_shm_reader;
    case RE_STAT_READER_FILE:
        return path != nullptr ? new (std::nothrow) RE_file_reader(path) : nullptr;
    }
    return nullptr;
}
