#include "RE_live_segment.h"

#include "RE_image_sections.h"
#include "RE_sequence.h"
#include "RE_stat_folder.h"
#include "RE_stat_segment.h"
#include "RE_stat_writer.h"
#include "RE_syslog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <thread>

// An engine that is about to put a segment into its folder. It holds a lock on a file that no other user can open.
// While it holds the lock, no other engine of this user can put a segment there.
class RE_starting_engine
{
public:
    RE_starting_engine() = default;
    ~RE_starting_engine();
    RE_starting_engine(const RE_starting_engine&) = delete;
    RE_starting_engine& operator=(const RE_starting_engine&) = delete;

    // Takes the lock. own_segment: the descriptor of the segment that this engine has published, or -1. Returns 0,
    // -EBUSY when another engine of this name runs or the lock is not released, or -errno.
    int begin(const std::string& name, int own_segment = -1);
    // Creates a new, locked segment, under a name that readers do not use. Returns 0 or -errno.
    int make_segment(unsigned int mode, RE_descriptor& segment);
    // Renames the segment to its final name. Readers of a segment that had the name before keep that one. Returns 0 or
    // -errno.
    int put_into_place();
    // Returns the segment's final path.
    std::string path() const { return std::string(m_folder_path) + "/" + m_name; }

private:
    int take_lock();

    std::string m_name;
    RE_stat_path m_folder_path = {};
    RE_descriptor m_folder;
    RE_descriptor m_lock;
    bool m_b_unfinished = false;
};

// A segment's name never begins with a dot.
constexpr const char* lock_name = ".start";
constexpr const char* unfinished_name = ".unfinished";

RE_starting_engine::~RE_starting_engine()
{
    if (m_b_unfinished) {
        unlinkat(m_folder.number(), unfinished_name, 0);
    }
}

int RE_starting_engine::begin(const std::string& name, int own_segment)
{
    m_name = name;
    const int folder = open_own_stat_folder(m_folder_path);
    if (folder < 0) {
        return folder;
    }
    m_folder = RE_descriptor(folder);
    if (const int error = take_lock()) {
        return error;
    }
    const RE_descriptor existing(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!existing.is_open()) {
        return errno == ENOENT ? 0 : -errno;
    }
    return is_segment_lock_held(existing.number()) && !is_name_of(path().c_str(), own_segment) ? -EBUSY : 0;
}

// Starting takes very little time. An engine that holds the lock for long was stopped while it was starting.
int RE_starting_engine::take_lock()
{
    const std::string path = std::string(m_folder_path) + "/" + lock_name;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        m_lock = RE_descriptor(
            openat(m_folder.number(), lock_name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
        if (!m_lock.is_open()) {
            return -errno;
        }
        if (take_segment_lock(m_lock.number()) && is_name_of(path.c_str(), m_lock.number())) {
            return fchmod(m_lock.number(), S_IRUSR | S_IWUSR) == 0 ? 0 : -errno; // regardless of the umask
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return -EBUSY;
        }
        m_lock.close();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int RE_starting_engine::make_segment(unsigned int mode, RE_descriptor& segment)
{
    unlinkat(m_folder.number(), unfinished_name, 0); // left by an engine that was killed here
    segment = RE_descriptor(openat(m_folder.number(), unfinished_name,
                                   O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!segment.is_open()) {
        return -errno;
    }
    m_b_unfinished = true;
    // Locked before other users may open it.
    const bool b_ready =
        take_segment_lock(segment.number()) && fchmod(segment.number(), static_cast<mode_t>(mode)) == 0;
    return b_ready ? 0 : -errno;
}

int RE_starting_engine::put_into_place()
{
    if (renameat(m_folder.number(), unfinished_name, m_folder.number(), m_name.c_str()) != 0) {
        return -errno;
    }
    m_b_unfinished = false;
    return 0;
}

namespace {

constexpr int log_id_published_again = 690467;
constexpr int log_id_not_published_again = 690468;

// Returns the number of rows of a section in the segment of an engine with these limits.
std::uint64_t rows_for(const RE_image_section_rule& rule, const RE_stat_limits& limits)
{
    return rule.limit != nullptr ? static_cast<std::uint64_t>(limits.*rule.limit) : rule.rows;
}

bool are_possible(const RE_stat_limits& limits)
{
    return std::all_of(
        RE_image_section_rules.begin(), RE_image_section_rules.end(), [&](const RE_image_section_rule& rule) {
            return rule.limit == nullptr || (limits.*rule.limit >= 1 && rows_for(rule, limits) <= rule.max_rows);
        });
}

} // namespace

int RE_live_segment::create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode)
{
    constexpr unsigned int possible_mode = 0664;
    const char* const name = stat_segment_name();
    if (is_made() || name == nullptr || (mode & ~possible_mode) != 0 || !are_possible(limits)) {
        return -EINVAL;
    }
    report_segment_of_earlier_layout(name);
    RE_starting_engine start;
    if (const int error = start.begin(name)) {
        return error;
    }
    m_name = name;
    m_mode = mode | S_IRUSR | S_IWUSR;
    const int error = make(start, limits, start_time);
    if (error != 0) {
        withdraw();
    }
    return error;
}

int RE_live_segment::make(RE_starting_engine& start, const RE_stat_limits& limits, std::time_t start_time)
{
    if (const int error = start.make_segment(m_mode, m_descriptor)) {
        return error;
    }
    if (const int error = lay_out(limits, start_time)) {
        return error;
    }
    if (const int error = start.put_into_place()) {
        return error;
    }
    m_path = start.path();
    return 0;
}

int RE_live_segment::lay_out(const RE_stat_limits& limits, std::time_t start_time)
{
    constexpr std::uint64_t line = 64; // sections start on cache lines of their own
    RE_image_section sections[RE_image_section_count];
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        const std::uint64_t rows = rows_for(rule, limits);
        sections[rule.id - 1] = {rule.id, RE_image_own_row_size(rule.id), 0, rows, rows};
    }
    const std::uint64_t end = place_image_sections(sections, line);
    if (ftruncate(m_descriptor.number(), static_cast<off_t>(end)) != 0 ||
        m_mapping.map(m_descriptor.number(), end, PROT_READ | PROT_WRITE) != 0) {
        return -errno;
    }
    m_silence.emplace(&m_mapping);
    if (const int error = posix_fallocate(m_descriptor.number(), 0, static_cast<off_t>(RE_image_table_end))) {
        return -error;
    }

    RE_image_header header{};
    std::memcpy(header.magic, RE_image_magic, sizeof header.magic);
    header.byte_order = RE_image_byte_order;
    header.layout_version = RE_image_layout_version;
    header.state = RE_IMAGE_BEING_MADE;
    header.section_count = RE_image_section_count;
    header.total_size = end;
    header.engine_start_time = start_time;
    header.set_counts(RE_image_counts_of_this_build);
    std::memcpy(m_mapping.base(), &header, sizeof header);
    std::memcpy(m_mapping.base() + sizeof header, sections, sizeof sections);
    if (m_image.attach(m_mapping.base(), m_mapping.size(), RE_image_kind::live) != 0) {
        return -EINVAL;
    }
    m_head.assign(m_mapping.base(), m_mapping.base() + RE_image_table_end);
    // Rows of sections without a limit are all in use.
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        const RE_image_view& rows = m_image.view(rule.id);
        if (rule.limit == nullptr) {
            if (const int error = back(rows, 0, rows.rows)) {
                return error;
            }
            m_backed[rule.id - 1] = rows.rows;
        }
    }
    return 0;
}

int RE_live_segment::back(const RE_image_view& rows, std::uint64_t first, std::uint64_t count) const
{
    return -posix_fallocate(m_descriptor.number(), static_cast<off_t>(rows.row(first) - m_mapping.base()),
                            static_cast<off_t>(count * rows.stride));
}

bool RE_live_segment::ensure_row(RE_image_section_id section, std::uint32_t row)
{
    constexpr std::uint32_t rows_backed_at_once = 64; // to save system calls
    std::uint32_t& backed = m_backed[section - 1];
    if (row < backed) {
        return true;
    }
    const std::uint32_t count = std::min(rows_backed_at_once, m_image.view(section).rows - backed);
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        if (rule.pair == section && back(m_image.view(rule.id), backed, count) != 0) {
            return false;
        }
    }
    backed += count;
    return true;
}

// Copies the segment to another file and maps that at the same addresses.
int RE_live_segment::move_memory_to(int new_descriptor)
{
    RE_watched_mapping memory;
    if (ftruncate(new_descriptor, static_cast<off_t>(m_mapping.size())) != 0 ||
        memory.map(new_descriptor, m_mapping.size(), PROT_READ | PROT_WRITE) != 0) {
        return -errno;
    }
    const auto copy = [&](const unsigned char* start, std::uint64_t size) {
        const std::ptrdiff_t offset = start - m_mapping.base();
        const int error = size != 0 ? posix_fallocate(new_descriptor, offset, static_cast<off_t>(size)) : 0;
        if (error == 0) {
            const RE_cut_silence while_copying(&memory);
            std::memcpy(memory.base() + offset, start, size);
        }
        return -error;
    };
    int error = copy(m_mapping.base(), RE_image_table_end);
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        const RE_image_view& rows = m_image.view(rule.id);
        error = error != 0 ? error : copy(rows.base, std::uint64_t{m_backed[rule.pair - 1]} * rows.stride);
    }
    if (error != 0) {
        return error;
    }
    return memory.move_to(m_mapping) ? 0 : -errno;
}

bool RE_live_segment::has_name() const
{
    return !m_path.empty() && is_name_of(m_path.c_str(), m_descriptor.number());
}

// Detects a segment that was truncated and then extended to its old size: its header is zeros.
bool RE_live_segment::has_head() const
{
    constexpr std::size_t table = sizeof(RE_image_header);
    return std::memcmp(m_mapping.base(), m_head.data(), sizeof RE_image_magic) == 0 &&
           std::memcmp(m_mapping.base() + table, m_head.data() + table, m_head.size() - table) == 0;
}

bool RE_live_segment::is_whole() const
{
    struct stat found = {};
    return fstat(m_descriptor.number(), &found) == 0 && static_cast<std::size_t>(found.st_size) >= m_mapping.size() &&
           has_head() && !m_mapping.is_cut();
}

void RE_live_segment::publish()
{
    constexpr std::uint32_t published = RE_IMAGE_PUBLISHED;
    store_release(&m_image.header->state, published);
    std::memcpy(m_head.data() + offsetof(RE_image_header, state), &published, sizeof published);
}

int RE_live_segment::make_again(const std::function<void()>& restore)
{
    RE_starting_engine start;
    RE_descriptor segment;
    if (const int error = start.begin(m_name, m_descriptor.number())) {
        return error;
    }
    if (const int error = start.make_segment(m_mode, segment)) {
        return error;
    }
    if (const int error = move_memory_to(segment.number())) {
        return error;
    }
    if (!has_head()) {
        std::memcpy(m_mapping.base(), m_head.data(), m_head.size());
    }
    restore();
    m_descriptor = std::move(segment);
    if (const int error = start.put_into_place()) {
        return error;
    }
    m_path = start.path();
    return 0;
}

int RE_live_segment::publish_again(const std::function<void()>& restore)
{
    if (is_in_place()) {
        return 0;
    }
    const std::string lost = m_path;
    const int error = make_again(restore);
    if (error == 0) {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_published_again,
                    "the statistics in %s were removed, replaced or cut; published again in %s", lost.c_str(),
                    m_path.c_str());
    } else if (error != m_last_error) { // logged once, however often it is tried
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_not_published_again,
                    "the statistics in %s were removed, replaced or cut, and cannot be published again: %s",
                    lost.c_str(), std::strerror(-error));
    }
    m_last_error = error;
    return error;
}

void RE_live_segment::withdraw()
{
    if (is_made()) {
        if (m_image.header != nullptr) {
            store_release(&m_image.header->state, std::uint32_t{RE_IMAGE_WITHDRAWN});
        }
        m_silence.reset();
        m_mapping.unmap();
        m_image = {};
    }
    // The segment may have been removed, and another engine may have created its own since.
    if (has_name()) {
        unlink(m_path.c_str());
    }
    m_path.clear();
    m_last_error = 0;
    m_descriptor.close(); // releases the engine's lock
    m_head.clear();
    std::fill(std::begin(m_backed), std::end(m_backed), 0U);
}
