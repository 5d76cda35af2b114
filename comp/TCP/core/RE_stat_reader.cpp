#include "RE_file_reader.h"
#include "RE_shm_reader.h"

#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

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

RE_stat_reader* RE_stat_reader::only(RE_stat_reader_type type, const char* path)
{
    static std::mutex mutex;
    static std::map<std::pair<int, std::string>, std::unique_ptr<RE_stat_reader>> readers;

    const std::lock_guard<std::mutex> lock(mutex);
    std::unique_ptr<RE_stat_reader>& reader = readers[{type, path != nullptr ? path : ""}];
    if (reader == nullptr) {
        reader.reset(create(type, path));
    }
    return reader.get();
}
