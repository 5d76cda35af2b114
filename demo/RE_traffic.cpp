#include "RE_traffic.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>

namespace fs = std::filesystem;

namespace {

struct traffic_list
{
    std::vector<std::string> files;
    std::uintmax_t bytes_left = std::numeric_limits<std::uintmax_t>::max();
    std::uintmax_t smallest_file = 0;
    std::uintmax_t largest_file = std::numeric_limits<std::uintmax_t>::max();
};

void note_skipped(const std::string& path, const std::string& why)
{
    std::fprintf(stderr, "kav_demo_engine: skipping %s: %s\n", path.c_str(), why.c_str());
}

void add_file(traffic_list& list, const fs::path& path)
{
    std::error_code error;
    const std::uintmax_t size = fs::file_size(path, error);
    if (error) {
        note_skipped(path.string(), error.message());
        return;
    }
    if (size < list.smallest_file || size > list.largest_file || size > list.bytes_left) {
        return;
    }
    list.bytes_left -= size;
    list.files.push_back(path.string());
}

void add_folder(traffic_list& list, const fs::path& folder)
{
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        entries.push_back(*entry);
    }
    if (error) {
        note_skipped(folder.string(), error.message());
    }
    std::sort(entries.begin(), entries.end());
    for (const fs::directory_entry& entry : entries) {
        std::error_code unknown_type;
        const fs::file_type type = entry.symlink_status(unknown_type).type();
        if (type == fs::file_type::directory) {
            add_folder(list, entry.path());
        } else if (type == fs::file_type::regular) {
            add_file(list, entry.path());
        }
    }
}

void add_path(traffic_list& list, const std::string& path)
{
    std::error_code error;
    const fs::file_type type = fs::status(path, error).type();
    if (type == fs::file_type::not_found) {
        throw std::runtime_error(path + ": no such file or folder");
    }
    if (type == fs::file_type::directory) {
        add_folder(list, path);
    } else if (type == fs::file_type::regular) {
        add_file(list, path);
    } else {
        note_skipped(path, error ? error.message() : "neither a file nor a folder");
    }
}

struct default_source
{
    const char* path;
    std::uintmax_t smallest_file;
    std::uintmax_t most_bytes;
    bool b_compressible = true;
};

// Text that deflates well, text that repeats itself, compressed pages, and programs.
constexpr std::array<default_source, 4> default_sources{{
    {"/usr/share/common-licenses", 0, 1U << 20U},
    {"/etc", 1024, 4U << 20U},
    {"/usr/share/man", 8 * 1024, 12U << 20U, false},
    {"/usr/bin", 16 * 1024, 12U << 20U},
}};
constexpr std::uintmax_t largest_default_file = 1U << 20U;

struct size_range
{
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t weight; // of 100 messages
};

// The ranges of the size histogram in the connection reports, so that none of them stays empty for long.
constexpr std::array<size_range, 6> usual_sizes{{
    {1, 1024, 25},
    {1025, 5 * 1024, 30},
    {5 * 1024 + 1, 15 * 1024, 20},
    {15 * 1024 + 1, 25 * 1024, 12},
    {25 * 1024 + 1, 40 * 1024, 8},
    {40 * 1024 + 1, 64 * 1024, 5},
}};

} // namespace

std::vector<std::string> find_traffic(const std::vector<std::string>& paths, bool b_variety)
{
    traffic_list list;
    for (const std::string& path : paths) {
        add_path(list, path);
    }
    if (paths.empty()) {
        list.largest_file = largest_default_file;
        for (const default_source& source : default_sources) {
            list.smallest_file = source.smallest_file;
            list.bytes_left = source.most_bytes;
            if ((source.b_compressible || b_variety) && fs::is_directory(source.path)) {
                add_folder(list, source.path);
            }
        }
    }
    return list.files;
}

RE_message_source::RE_message_source(const std::string& path, RE_message_sizes sizes, std::uint64_t seed)
    : m_path(path), m_application(&classify(path, {})), m_sizes(sizes), m_random(seed)
{
    // If the file has become a pipe or a device in the meantime, opening it must not block.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor >= 0) {
        m_file.reset(fdopen(descriptor, "rb"));
    }
    struct stat status = {};
    if (m_file == nullptr || fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        note_skipped(path, m_file == nullptr ? std::strerror(errno) : "no file any more");
        m_file.reset();
        return;
    }
    std::array<std::uint8_t, 512> beginning{};
    const std::size_t count = std::fread(beginning.data(), 1, beginning.size(), m_file.get());
    std::rewind(m_file.get());
    m_application = &classify(path, RE_byte_view(beginning).first(count));
}

bool RE_message_source::next(RE_byte_buffer& message, std::uint32_t size)
{
    message.clear();
    if (m_file == nullptr) {
        return false;
    }
    message.resize(size != 0 ? size : next_size());
    message.resize(std::fread(message.data(), 1, message.size(), m_file.get()));
    if (std::ferror(m_file.get()) != 0) {
        note_skipped("the rest of " + m_path, std::strerror(errno));
        m_file.reset();
    }
    return !message.empty();
}

std::uint32_t RE_message_source::next_size()
{
    if (m_sizes.fixed != 0) {
        return m_sizes.fixed;
    }
    std::uint64_t drawn = m_random.below(100);
    for (const size_range& range : usual_sizes) {
        if (drawn < range.weight) {
            return range.first + static_cast<std::uint32_t>(m_random.below(range.last - range.first + 1));
        }
        drawn -= range.weight;
    }
    return usual_sizes.back().last;
}
