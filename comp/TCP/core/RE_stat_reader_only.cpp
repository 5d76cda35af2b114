#include "RE_statistics.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

// In a file of its own, so that programs that never share a reader do not contain the code for sharing.
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
