#include "RE_top_app_log.h"

#include "RE_descriptor_reader.h"
#include "RE_syslog.h"
#include "RE_top_app_names.h"
#include "RE_top_app_post_process.h"
#include "RE_top_app_tally.h"
#include "RE_viewer_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <span>
#include <vector>

namespace {

constexpr int message_id = 690452;

// Bytes per read(2). Long logs do not fit into any processor cache.
constexpr std::size_t read_size = 1 << 20;

// Reads one log from its descriptor into the tally.
class RE_top_app_log
{
public:
    // Borrows all of its arguments.
    RE_top_app_log(int fd, std::span<unsigned char> buffer, const char* path, char* peer, bool detail)
        : m_fd(fd), m_input(fd, buffer), m_path(path), m_peer(peer), m_b_detail(detail)
    {}

    // Reads the log to its end. Returns whether it may be reported; if not, the reason is in the system log.
    bool read_sections();

    // The records that were gathered so far.
    const RE_top_app_tally& tally() const { return m_tally; }

private:
    bool read_section();
    bool read_names();
    bool read_records();
    void read_array();
    std::uint32_t gather_read_ahead(std::uint32_t limit);
    void gather(RE_stat_app_struct& record);
    template <typename field_type>
    int read_rest(field_type& field, int count);
    bool is_being_appended_to();
    template <typename field_type>
    bool read_whole(field_type& field);
    void report_read_error(int count) const;

    int m_fd;
    RE_descriptor_reader m_input;
    const char* m_path;
    char* m_peer;
    bool m_b_detail;
    unsigned m_record_number = 0; // for the detail; counts all records, also those of other peers
    RE_section_names m_names;
    RE_top_app_tally m_tally;
    int m_patience = 1000; // milliseconds left to wait for the log's writer
};

bool RE_top_app_log::read_sections()
{
    for (;;) {
        std::uint32_t version = RE_STAT_TOP_APP_LOG_MAX;
        int count = m_input.read_field(version);
        if (count == 0) {
            return true;
        }
        count = read_rest(version, count);
        if (count != sizeof version) {
            report_read_error(count);
            return false;
        }
        if (version != RE_STAT_TOP_APP_LOG_BELVANO) {
            read_array();
            return false;
        }
        if (!read_section()) {
            return false;
        }
    }
}

bool RE_top_app_log::read_section()
{
    m_names.clear();
    return read_names() && read_records();
}

bool RE_top_app_log::read_names()
{
    std::uint32_t count = 0;
    if (!read_whole(count)) {
        return false;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        RE_stat_policy_engine_header names;
        std::uint32_t handle = 0;
        if (!read_whole(names) || !read_whole(handle)) {
            return false;
        }
        m_names.add(handle, names);
    }
    return true;
}

bool RE_top_app_log::read_records()
{
    std::uint32_t left = 0;
    if (!read_whole(left)) {
        return false;
    }
    for (left -= gather_read_ahead(left); left > 0; left -= gather_read_ahead(left)) {
        RE_stat_app_log_record logged;
        if (!read_whole(logged)) {
            return false;
        }
        auto record = app_record_as<RE_stat_app_struct>(logged);
        RE_stat_app_header& header = record.m_header;
        header.set_policy_engine_handler(m_names.run_handle(header.m_policy_engine_handler));
        gather(record);
        --left;
    }
    return true;
}

// Gathers at most `limit` of the records that have been read ahead, directly from the buffer. Returns how many: 0 when
// each record must be examined on its own.
std::uint32_t RE_top_app_log::gather_read_ahead(std::uint32_t limit)
{
    if (m_peer[0] != '\0' || m_b_detail) {
        return 0;
    }
    const std::span<const unsigned char> bytes = m_input.read_ahead();
    const std::size_t count = std::min<std::size_t>(limit, bytes.size() / sizeof(RE_stat_app_log_record));
    m_tally.add_section_records(bytes.data(), count, m_names);
    m_input.take(count * sizeof(RE_stat_app_log_record));
    return static_cast<std::uint32_t>(count);
}

// Reads the QUADA layout from the file's start. Only the file's end ends it, and that is an error like any other, so a
// log of this layout is never reported.
void RE_top_app_log::read_array()
{
    if (!g_stat_handler_policy_engine_map.empty()) {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, message_id,
                    "top_app_log compatibility error: %s: Top-App logs of v4.4.1 and v4.4.3 cannot be mingled\n",
                    m_path);
        return;
    }
    if (m_input.rewind() != 0) {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, message_id,
                    "top_app_log seek error: lseek(%s, 0, SEEK_SET): %s\n", m_path, std::strerror(errno));
        return;
    }
    m_input.fail_when_interrupted();
    RE_stat_app_log_record logged;
    while (read_whole(logged)) {
        auto record = app_record_as<RE_stat_app_struct>(logged);
        gather(record);
    }
}

void RE_top_app_log::gather(RE_stat_app_struct& record)
{
    const auto number = static_cast<int>(m_record_number++);
    if (!is_kept(record, m_peer)) {
        return;
    }
    if (m_b_detail) {
        print_top_app_entry(stdout, number, record);
    }
    m_tally.add(record);
}

// Waits for the rest of a field that was read only in part, or not at all: its section may be in the middle of being
// written. count: the result of reading the field. Returns the final result.
template <typename field_type>
int RE_top_app_log::read_rest(field_type& field, int count)
{
    // Reads once more when there is no writer, because the writer may just have finished.
    for (bool b_again = true; count >= 0 && count != sizeof field && b_again; count = m_input.read_field(field)) {
        b_again = is_being_appended_to();
    }
    return count;
}

// Whether a writer is appending to the log; waits a short time if so. The writer holds a lock that needs write
// permission for the log.
bool RE_top_app_log::is_being_appended_to()
{
    struct flock writer = {};
    writer.l_type = F_RDLCK;
    writer.l_whence = SEEK_SET;
    if (m_patience == 0 || fcntl(m_fd, F_OFD_GETLK, &writer) != 0 || writer.l_type != F_WRLCK) {
        return false;
    }
    --m_patience;
    const timespec pause = {0, 1'000'000};
    nanosleep(&pause, nullptr);
    return true;
}

// Returns false, and writes to the system log, when the field is not complete.
template <typename field_type>
bool RE_top_app_log::read_whole(field_type& field)
{
    const int count = read_rest(field, m_input.read_field(field));
    if (count != sizeof field) {
        report_read_error(count);
        return false;
    }
    return true;
}

void RE_top_app_log::report_read_error(int count) const
{
    __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, message_id,
                "top_app_log read error: read(%s) returned %d - %s\n", m_path, count,
                count < 0 ? std::strerror(errno) : "short read");
}

void show_live(char* peer, bool detail, int top)
{
    std::vector<RE_stat_app_struct> records;
    const std::uint32_t slots = p_statReader->get_app_slot_shared_memory_header_size();
    for (std::uint32_t slot = 0; slot < slots; ++slot) {
        RE_stat_app_struct* live = nullptr;
        p_statReader->read_app_slot(static_cast<int>(slot), live);
        if (live == nullptr) {
            break;
        }
        // A copy, because the engine keeps counting: filter, entry block and table must see the same values.
        RE_stat_app_struct record = *live;
        check_kav_peer_id_string_match_and_push_back(records, record, peer, static_cast<int>(slot), detail);
    }
    process_top_app_vector(stdout, records, top, detail);
}

// Opens without blocking, because a lease of the log's owner could delay the call for a long time. Then waits for the
// writer at the other end of a pipe.
int open_log(const char* path)
{
    int fd = -1;
    do {
        fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) {
        pollfd readable = {fd, POLLIN, 0};
        while (poll(&readable, 1, -1) < 0 && errno == EINTR) {
        }
        fcntl(fd, F_SETFL, O_RDONLY);
    }
    return fd;
}

void show_log(const char* path, char* peer, bool detail, int top)
{
    const int fd = open_log(path);
    if (fd < 0) {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, message_id,
                    "top_app_log open error: open(%s, O_RDONLY): %s\n", path, std::strerror(errno));
        return;
    }
    g_stat_handler_policy_engine_map.clear();
    g_stat_policy_engine_handler_map.clear();

    // With static memory, a short log costs only the pages that it fills.
    constexpr std::size_t page = 4096;
    alignas(page) static unsigned char memory[page + read_size];
    const std::span<unsigned char> buffer = std::span(memory).subspan(page - RE_descriptor_reader::largest_field);
    // On the heap, because its tables would take a quarter of a megabyte of stack.
    const auto log = std::make_unique<RE_top_app_log>(fd, buffer, path, peer, detail);
    const bool b_complete = log->read_sections();
    close(fd);
    if (b_complete) {
        std::vector<RE_stat_app_struct> rows = log->tally().rows();
        print_top_app_rows(stdout, rows, log->tally().totals(), top, detail);
    }
}

} // namespace

void show_top_app(char* file, char* peer, bool detail, int top)
{
    if (file == nullptr || peer == nullptr) {
        return;
    }
    std::putchar('\n');
    if (file[0] == '\0') {
        show_live(peer, detail, top);
    } else {
        show_log(file, peer, detail, top);
    }
}
