#include "RE_stat_writer.h"

#include "RE_bypass_table.h"
#include "RE_image_sections.h"
#include "RE_sequence.h"
#include "RE_stat_folder.h"
#include "RE_stat_image.h"
#include "RE_stat_segment.h"
#include "RE_syslog.h"
#include "RE_watched_mapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

bool is_within(int value, std::uint64_t max)
{
    return value >= 1 && static_cast<std::uint64_t>(value) <= max;
}

bool is_id(int id, int count)
{
    return id >= 0 && id < count;
}

// Adds in the engine's 64-bit arithmetic, which wraps.
void add_to(std::int64_t& counter, long long delta)
{
    __atomic_fetch_add(&counter, delta, __ATOMIC_RELAXED);
}

// What the writer knows of a connection slot beside what it has published.
struct conn_tenant
{
    // Slot and generation in one word, for whoever adds to counters does so without the lock.
    std::uint64_t peer = UINT64_MAX;
    bool b_open = false;

    void set_peer(int slot, std::uint32_t generation)
    {
        store_relaxed(&peer, std::uint64_t{generation} << 32U | static_cast<std::uint32_t>(slot));
    }
};

// What makes an application: everything of its header but the counts.
using app_key = std::string;

app_key key_of(const RE_stat_app_header& header)
{
    RE_stat_app_header identity{};
    identity.set(header.m_kav_peer_id, static_cast<std::uint16_t>(header.m_server_port), header.m_b_src_port != 0);
    identity.set_policy_engine_handler(header.m_policy_engine_handler);
    return {reinterpret_cast<const char*>(&identity), sizeof identity};
}

constexpr int log_id_published_again = 690467;
constexpr int log_id_not_published_again = 690468;

// An engine that is about to put a segment into its folder. Meanwhile it keeps all others of its user from doing so, by
// a lock on a file that nobody else can open.
class starting_engine
{
public:
    starting_engine() = default;
    ~starting_engine();
    starting_engine(const starting_engine&) = delete;
    starting_engine& operator=(const starting_engine&) = delete;

    // Returns 0, -EBUSY when an engine of this name runs, or -errno.
    // own_segment: what the engine has published so far, or -1.
    int begin(const std::string& name, int own_segment = -1);
    // Makes a new, locked segment that has no name yet that readers know. Returns its descriptor or -errno.
    int make_segment(unsigned int mode);
    // Gives it its name. Whoever still reads what had the name before keeps it.
    int put_into_place();
    // The segment's path, when it is in place.
    std::string path() const { return std::string(m_folder_path) + "/" + m_name; }

private:
    int take_lock();

    std::string m_name;
    RE_stat_path m_folder_path = {};
    int m_folder = -1;
    int m_lock = -1;
    bool m_b_unfinished = false;
};

// No segment's name begins with a dot.
constexpr const char* lock_name = ".start";
constexpr const char* unfinished_name = ".unfinished";

starting_engine::~starting_engine()
{
    if (m_b_unfinished) {
        unlinkat(m_folder, unfinished_name, 0);
    }
    for (const int descriptor : {m_lock, m_folder}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

int starting_engine::begin(const std::string& name, int own_segment)
{
    m_name = name;
    m_folder = open_own_stat_folder(m_folder_path);
    if (m_folder < 0) {
        return m_folder;
    }
    if (const int error = take_lock()) {
        return error;
    }
    const int existing = openat(m_folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (existing < 0) {
        return errno == ENOENT ? 0 : -errno;
    }
    const bool b_running = is_segment_lock_held(existing) && !is_name_of(path().c_str(), own_segment);
    ::close(existing);
    return b_running ? -EBUSY : 0;
}

// Starting takes no time worth mentioning, so that an engine that holds the lock for long has been stopped in it.
int starting_engine::take_lock()
{
    const std::string path = std::string(m_folder_path) + "/" + lock_name;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        m_lock = openat(m_folder, lock_name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
        if (m_lock < 0) {
            return -errno;
        }
        if (take_segment_lock(m_lock) && is_name_of(path.c_str(), m_lock)) {
            return fchmod(m_lock, S_IRUSR | S_IWUSR) == 0 ? 0 : -errno; // whatever the umask
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return -EBUSY;
        }
        ::close(m_lock);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int starting_engine::make_segment(unsigned int mode)
{
    unlinkat(m_folder, unfinished_name, 0); // of an engine that was killed here
    const int descriptor =
        openat(m_folder, unfinished_name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        return -errno;
    }
    m_b_unfinished = true;
    // Locked before anybody else may open it.
    if (!take_segment_lock(descriptor) || fchmod(descriptor, static_cast<mode_t>(mode)) != 0) {
        const int error = errno;
        ::close(descriptor);
        return -error;
    }
    return descriptor;
}

int starting_engine::put_into_place()
{
    if (renameat(m_folder, unfinished_name, m_folder, m_name.c_str()) != 0) {
        return -errno;
    }
    m_b_unfinished = false;
    return 0;
}

} // namespace

struct RE_stat_writer::implementation
{
    std::mutex mutex; // over slots and everything below; counters need no lock

    int descriptor = -1; // of the segment
    std::string name;    // of the segment
    std::string path;    // the same with its folder, empty until it is in place
    unsigned int mode = 0;
    int last_error = 0;         // of publishing again, which is logged when it changes
    RE_watched_mapping mapping; // whoever may write to the segment may cut it
    std::optional<RE_cut_silence> silence;
    RE_stat_image image;
    // Its rows of counters, which have the size that this build gives them.
    RE_image_global_row* global = nullptr;
    RE_image_peer_counters* peer_counters = nullptr;
    RE_image_conn_counters* conn_counters = nullptr;
    RE_image_app_row* apps = nullptr;

    // What cannot be had from a segment that was cut.
    std::vector<unsigned char> head; // header and section table
    RE_image_config_row config{};
    std::vector<RE_image_peer_row> peers;
    std::uint32_t peer_slots_used = 0;
    std::uint32_t conn_slots_used = 0;
    std::uint32_t app_slots_used = 0;

    std::vector<conn_tenant> conns;                         // by slot
    std::vector<int> free_conn_slots;                       // released, to be taken again from the back
    std::deque<std::pair<int, std::uint32_t>> closed_conns; // slot and generation, in the order of closing
    std::vector<int> free_peer_slots;
    std::map<app_key, int> app_slots;
    std::uint64_t backed_peers = 0; // rows whose memory is certain to be there
    std::uint64_t backed_conns = 0;
    std::uint64_t backed_apps = 0;
    std::uint64_t backed_nacks = 0;

    ~implementation() { withdraw(); }

    int make(const RE_stat_limits& limits, std::time_t start_time, starting_engine& start);
    int lay_out(const RE_stat_limits& limits, std::time_t start_time);
    bool is_made() const { return mapping.base() != nullptr; }
    bool has_name() const { return !path.empty() && is_name_of(path.c_str(), descriptor); }
    bool has_head() const;
    bool is_whole() const;
    bool is_in_place() const { return has_name() && is_whole(); }
    int make_again();
    int move_memory_to(int new_descriptor);
    void restore();
    void write_peer(std::uint32_t slot, const RE_image_peer_row& row);
    static void use_slot(std::uint32_t slot, std::uint32_t& used, std::uint32_t& published_used);
    std::vector<std::span<const unsigned char>> backed_memory() const;
    int back(const void* start, std::size_t bytes) const;
    bool back_rows(const RE_image_view& rows, std::uint64_t first, std::uint64_t count) const;
    bool ensure_peer(std::uint32_t slot);
    bool ensure_conn(std::uint32_t slot);
    bool ensure_app(std::uint32_t slot);
    bool ensure_nack(std::uint32_t row);
    void withdraw();

    bool has_peer(int slot) const
    {
        return is_made() && slot >= 0 && static_cast<std::uint32_t>(slot) < load_acquire(&peer_slots_used);
    }
    // Only under the lock.
    bool is_peer(int slot) const { return has_peer(slot) && peers[static_cast<std::uint32_t>(slot)].b_in_use != 0; }
    bool has_conn(int slot) const
    {
        return is_made() && slot >= 0 && static_cast<std::uint32_t>(slot) < load_acquire(&conn_slots_used);
    }
    bool has_app(int slot) const
    {
        return is_made() && slot >= 0 && static_cast<std::uint32_t>(slot) < load_acquire(&app_slots_used);
    }
    // The peer's counters of the connection in `conn_slot`, null when that peer has gone.
    RE_image_peer_counters* peer_counters_of(int conn_slot) const;
    int take_conn_slot();
    void count_active(int conn_slot, int delta) const;
    void close_locked(int conn_slot, std::time_t close_time);
    void remember_closed(int conn_slot);
    RE_bypass_table* bypass_table() const { return reinterpret_cast<RE_bypass_table*>(image.bypass.base); }
};

RE_stat_writer::RE_stat_writer() : m_impl(std::make_unique<implementation>())
{}

RE_stat_writer::~RE_stat_writer() = default;

int RE_stat_writer::create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode)
{
    constexpr unsigned int possible_mode = 0664;
    const char* const name = stat_segment_name();
    if (m_impl->is_made() || name == nullptr || (mode & ~possible_mode) != 0 ||
        !is_within(limits.peers, RE_image_max_peers) || !is_within(limits.connections, RE_image_max_conns) ||
        !is_within(limits.applications, RE_image_max_apps) || !is_within(limits.nacks, RE_image_max_nacks)) {
        return -EINVAL;
    }
    report_segment_of_earlier_layout(name);
    starting_engine start;
    if (const int error = start.begin(name)) {
        return error;
    }
    m_impl->name = name;
    m_impl->mode = mode | S_IRUSR | S_IWUSR;
    return m_impl->make(limits, start_time, start);
}

int RE_stat_writer::implementation::make(const RE_stat_limits& limits, std::time_t start_time, starting_engine& start)
{
    const int segment = start.make_segment(mode);
    if (segment < 0) {
        return segment;
    }
    descriptor = segment;
    int error = lay_out(limits, start_time);
    if (error == 0) {
        error = start.put_into_place();
    }
    if (error == 0) {
        path = start.path();
    } else {
        withdraw();
    }
    return error;
}

int RE_stat_writer::implementation::lay_out(const RE_stat_limits& limits, std::time_t start_time)
{
    constexpr std::uint64_t line = 64; // sections start on cache lines of their own
    RE_image_section sections[RE_image_section_count];
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        const std::uint64_t rows = rule.limit != nullptr ? static_cast<std::uint64_t>(limits.*rule.limit) : rule.rows;
        const auto row_size = static_cast<std::uint32_t>(RE_image_own_row_size(rule.id));
        sections[rule.id - 1] = {rule.id, row_size, 0, rows, rows};
    }
    const std::uint64_t end = place_image_sections(sections, line);
    if (ftruncate(descriptor, static_cast<off_t>(end)) != 0) {
        return -errno;
    }
    if (mapping.map(descriptor, end, PROT_READ | PROT_WRITE) != 0) {
        return -errno;
    }
    silence.emplace(&mapping);

    // Memory that shared memory cannot back would kill the engine at the first touch; so it is claimed beforehand, and
    // for slots when they are first used.
    if (const int error = back(mapping.base(), sections[RE_IMAGE_PEERS - 1].offset)) {
        return error;
    }
    if (const int error = back(mapping.base() + sections[RE_IMAGE_BYPASS - 1].offset, sizeof(RE_bypass_table))) {
        return error;
    }
    RE_image_header header{};
    std::memcpy(header.magic, RE_image_magic, sizeof header.magic);
    header.byte_order = RE_image_byte_order;
    header.layout_version = RE_image_layout_version;
    header.state = RE_IMAGE_BEING_MADE;
    header.section_count = RE_image_section_count;
    header.total_size = end;
    header.engine_start_time = start_time;
    header.global_counters = RE_image_counts_of_this_build.global;
    header.peer_counters = RE_image_counts_of_this_build.peer;
    header.conn_counters = RE_image_counts_of_this_build.conn;
    header.app_counters = RE_image_counts_of_this_build.app;
    std::memcpy(mapping.base(), &header, sizeof header);
    std::memcpy(mapping.base() + sizeof header, sections, sizeof sections);
    if (image.attach(mapping.base(), mapping.size(), RE_image_kind::live) != 0) {
        return -EINVAL;
    }
    global = reinterpret_cast<RE_image_global_row*>(image.global.base);
    peer_counters = reinterpret_cast<RE_image_peer_counters*>(image.peer_counters.base);
    conn_counters = reinterpret_cast<RE_image_conn_counters*>(image.conn_counters.base);
    apps = reinterpret_cast<RE_image_app_row*>(image.apps.base);
    head.assign(mapping.base(), mapping.base() + sizeof header + sizeof sections);
    bypass_table()->magic = RE_bypass_magic;
    bypass_table()->capacity = RE_bypass_capacity;
    conns.resize(static_cast<std::size_t>(limits.connections));
    return 0;
}

int RE_stat_writer::implementation::back(const void* start, std::size_t bytes) const
{
    const auto offset = static_cast<off_t>(static_cast<const unsigned char*>(start) - mapping.base());
    return -posix_fallocate(descriptor, offset, static_cast<off_t>(bytes));
}

// All memory that is certain to be there, which is all that has been written to.
std::vector<std::span<const unsigned char>> RE_stat_writer::implementation::backed_memory() const
{
    const auto bytes_of = [](const RE_image_view& rows, std::uint64_t count) {
        return std::span<const unsigned char>(rows.base, count * rows.stride);
    };
    return {
        std::span<const unsigned char>(mapping.base(), image.peers.base),
        bytes_of(image.peers, backed_peers),
        bytes_of(image.peer_counters, backed_peers),
        bytes_of(image.conns, backed_conns),
        bytes_of(image.conn_counters, backed_conns),
        bytes_of(image.apps, backed_apps),
        bytes_of(image.nacks, backed_nacks),
        bytes_of(image.bypass, image.bypass.rows),
    };
}

// Copies the segment to another file, whose memory takes the old one's place at the same addresses.
int RE_stat_writer::implementation::move_memory_to(int new_descriptor)
{
    RE_watched_mapping memory;
    if (ftruncate(new_descriptor, static_cast<off_t>(mapping.size())) != 0 ||
        memory.map(new_descriptor, mapping.size(), PROT_READ | PROT_WRITE) != 0) {
        return -errno;
    }
    for (const std::span<const unsigned char>& range : backed_memory()) {
        const std::ptrdiff_t offset = range.data() - mapping.base();
        if (range.empty()) {
            continue;
        }
        if (const int error = posix_fallocate(new_descriptor, offset, static_cast<off_t>(range.size()))) {
            return -error;
        }
        const RE_cut_silence while_copying(&memory);
        std::memcpy(memory.base() + offset, range.data(), range.size());
    }
    return memory.move_to(mapping) ? 0 : -errno;
}

bool RE_stat_writer::implementation::is_whole() const
{
    struct stat found
    {
    };
    return fstat(descriptor, &found) == 0 && static_cast<std::size_t>(found.st_size) >= mapping.size() && has_head() &&
           !mapping.is_cut();
}

// A segment that was cut and is as long as before again has zeros there.
bool RE_stat_writer::implementation::has_head() const
{
    constexpr std::size_t table = sizeof(RE_image_header);
    return std::memcmp(mapping.base(), head.data(), sizeof RE_image_magic) == 0 &&
           std::memcmp(mapping.base() + table, head.data() + table, head.size() - table) == 0;
}

// Puts right what a cut has taken and the writer knows. Counters that were cut start at 0, and connections that were
// cut are published no more.
void RE_stat_writer::implementation::restore()
{
    if (!has_head()) {
        std::memcpy(mapping.base(), head.data(), head.size());
    }
    image.header->peer_slots_used = peer_slots_used;
    image.header->conn_slots_used = conn_slots_used;
    image.header->app_slots_used = app_slots_used;
    write_row(&image.config[0], config);
    for (std::uint32_t slot = 0; slot < peer_slots_used; ++slot) {
        write_row(&image.peers[slot], peers[slot]);
        peer_counters[slot].active_conns = 0;
    }
    for (const auto& [key, slot] : app_slots) {
        if (key_of(apps[slot].header) != key) {
            std::memcpy(&apps[slot].header, key.data(), key.size());
        }
    }
    bypass_table()->magic = RE_bypass_magic;
    bypass_table()->capacity = RE_bypass_capacity;

    std::erase_if(closed_conns, [this](const auto& closed) { return image.conns[closed.first].b_in_use == 0; });
    free_conn_slots.clear();
    global->active_conns = 0;
    for (int slot = 0; has_conn(slot); ++slot) {
        if (conns[static_cast<std::size_t>(slot)].b_open) {
            count_active(slot, 1);
        } else if (image.conns[slot].b_in_use == 0) {
            free_conn_slots.push_back(slot);
        }
    }
}

int RE_stat_writer::implementation::make_again()
{
    starting_engine start;
    if (const int error = start.begin(name, descriptor)) {
        return error;
    }
    const int segment = start.make_segment(mode);
    if (segment < 0) {
        return segment;
    }
    if (const int error = move_memory_to(segment)) {
        ::close(segment);
        return error;
    }
    restore();
    ::close(descriptor);
    descriptor = segment;
    if (const int error = start.put_into_place()) {
        return error;
    }
    path = start.path();
    return 0;
}

bool RE_stat_writer::is_in_place() const
{
    return m_impl->is_in_place();
}

int RE_stat_writer::publish_again()
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_made()) {
        return -EINVAL;
    }
    if (me.is_in_place()) {
        return 0;
    }
    const std::string lost = me.path;
    const int error = me.make_again();
    if (error == 0) {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_published_again,
                    "the statistics in %s were removed, replaced or cut; published again in %s", lost.c_str(),
                    me.path.c_str());
    } else if (error != me.last_error) { // once, however often it is tried
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_not_published_again,
                    "the statistics in %s were removed, replaced or cut, and cannot be published again: %s",
                    lost.c_str(), std::strerror(-error));
    }
    me.last_error = error;
    return error;
}

bool RE_stat_writer::implementation::back_rows(const RE_image_view& rows, std::uint64_t first,
                                               std::uint64_t count) const
{
    return back(rows.row(first), count * rows.stride) == 0;
}

namespace {

// Slots are backed this many at a time, so that the system is not asked for each.
constexpr std::uint64_t rows_backed_at_once = 64;

std::uint64_t rows_to_back(std::uint64_t backed, std::uint64_t rows)
{
    return std::min(rows_backed_at_once, rows - backed);
}

} // namespace

bool RE_stat_writer::implementation::ensure_peer(std::uint32_t slot)
{
    if (slot < backed_peers) {
        return true;
    }
    const std::uint64_t count = rows_to_back(backed_peers, image.peers.rows);
    if (!back_rows(image.peers, backed_peers, count) || !back_rows(image.peer_counters, backed_peers, count)) {
        return false;
    }
    backed_peers += count;
    return true;
}

bool RE_stat_writer::implementation::ensure_conn(std::uint32_t slot)
{
    if (slot < backed_conns) {
        return true;
    }
    const std::uint64_t count = rows_to_back(backed_conns, image.conns.rows);
    if (!back_rows(image.conns, backed_conns, count) || !back_rows(image.conn_counters, backed_conns, count)) {
        return false;
    }
    backed_conns += count;
    return true;
}

bool RE_stat_writer::implementation::ensure_app(std::uint32_t slot)
{
    if (slot < backed_apps) {
        return true;
    }
    const std::uint64_t count = rows_to_back(backed_apps, image.apps.rows);
    if (!back_rows(image.apps, backed_apps, count)) {
        return false;
    }
    backed_apps += count;
    return true;
}

bool RE_stat_writer::implementation::ensure_nack(std::uint32_t row)
{
    if (row < backed_nacks) {
        return true;
    }
    const std::uint64_t count = rows_to_back(backed_nacks, image.nacks.rows);
    if (!back_rows(image.nacks, backed_nacks, count)) {
        return false;
    }
    backed_nacks += count;
    return true;
}

void RE_stat_writer::implementation::withdraw()
{
    if (is_made()) {
        if (image.header != nullptr) {
            store_release(&image.header->state, std::uint32_t{RE_IMAGE_WITHDRAWN});
        }
        silence.reset();
        mapping.unmap();
        image = {};
    }
    // Somebody may have removed the segment, and another engine have made its own since.
    if (has_name()) {
        unlink(path.c_str());
    }
    path.clear();
    last_error = 0;
    if (descriptor >= 0) {
        ::close(descriptor); // lets go of the engine's lock
        descriptor = -1;
    }
    conns.clear();
    free_conn_slots.clear();
    closed_conns.clear();
    free_peer_slots.clear();
    app_slots.clear();
    head.clear();
    config = {};
    peers.clear();
    peer_slots_used = conn_slots_used = app_slots_used = 0;
    backed_peers = backed_conns = backed_apps = backed_nacks = 0;
}

void RE_stat_writer::publish()
{
    if (m_impl->is_made()) {
        constexpr std::uint32_t published = RE_IMAGE_PUBLISHED;
        store_release(&m_impl->image.header->state, published);
        std::memcpy(m_impl->head.data() + offsetof(RE_image_header, state), &published, sizeof published);
    }
}

void RE_stat_writer::close()
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->withdraw();
}

void RE_stat_writer::set_config(const RE_stat_config_param& config)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_made()) {
        m_impl->config.b_present = 1;
        m_impl->config.config = config;
        write_row(&m_impl->image.config[0], m_impl->config);
    }
}

void RE_stat_writer::add_global(int id, long long delta)
{
    if (m_impl->is_made() && is_id(id, RE_STAT_GLOBAL_ID_MAX)) {
        add_to(m_impl->global->stats[id], delta);
    }
}

void RE_stat_writer::set_global(int id, long long value)
{
    if (m_impl->is_made() && is_id(id, RE_STAT_GLOBAL_ID_MAX)) {
        store_relaxed(&m_impl->global->stats[id], std::int64_t{value});
    }
}

long long RE_stat_writer::get_global(int id) const
{
    return m_impl->is_made() && is_id(id, RE_STAT_GLOBAL_ID_MAX) ? load_relaxed(&m_impl->global->stats[id]) : 0;
}

void RE_stat_writer::implementation::write_peer(std::uint32_t slot, const RE_image_peer_row& row)
{
    peers[slot] = row;
    write_row(&image.peers[slot], row);
}

// Lets readers look at a new slot, whose row is there by now.
void RE_stat_writer::implementation::use_slot(std::uint32_t slot, std::uint32_t& used, std::uint32_t& published_used)
{
    if (slot >= used) {
        store_release(&used, slot + 1);
        store_release(&published_used, slot + 1);
    }
}

int RE_stat_writer::add_peer(int peer_id, const RE_stat_peer_header& header)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_made()) {
        return -EINVAL;
    }
    const std::uint32_t used = me.peer_slots_used;
    const bool b_again = !me.free_peer_slots.empty();
    if (!b_again && (used >= me.image.peers.rows || !me.ensure_peer(used))) {
        return -ENOSPC;
    }
    const std::uint32_t slot = b_again ? static_cast<std::uint32_t>(me.free_peer_slots.back()) : used;
    if (b_again) {
        me.free_peer_slots.pop_back();
    } else {
        me.peers.emplace_back();
    }

    // The new tenant's number goes first, so that no reader takes the old one's figures for the new one's.
    RE_image_peer_row row{};
    row.generation = me.peers[slot].generation + 1;
    row.slot = slot;
    row.peer_id = peer_id;
    row.header = header;
    me.write_peer(slot, row);
    RE_image_peer_counters& counters = me.peer_counters[slot];
    for (std::int64_t& counter : counters.stats) {
        store_release(&counter, std::int64_t{0});
    }
    for (std::int64_t& counter : counters.conn_stats) {
        store_release(&counter, std::int64_t{0});
    }
    store_release(&counters.active_conns, std::int64_t{0});
    row.b_in_use = 1;
    me.write_peer(slot, row);
    me.use_slot(slot, me.peer_slots_used, me.image.header->peer_slots_used);
    return static_cast<int>(slot);
}

void RE_stat_writer::update_peer(int peer_slot, const RE_stat_peer_header& header)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_peer(peer_slot)) {
        const auto slot = static_cast<std::uint32_t>(peer_slot);
        RE_image_peer_row row = m_impl->peers[slot];
        row.header = header;
        m_impl->write_peer(slot, row);
    }
}

void RE_stat_writer::remove_peer(int peer_slot)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_peer(peer_slot)) {
        const auto slot = static_cast<std::uint32_t>(peer_slot);
        RE_image_peer_row row = m_impl->peers[slot];
        row.b_in_use = 0;
        // Connections of this peer no longer count for the slot, whoever gets it.
        ++row.generation;
        m_impl->write_peer(slot, row);
        m_impl->free_peer_slots.push_back(peer_slot);
    }
}

void RE_stat_writer::add_peer_stat(int peer_slot, int id, long long delta)
{
    if (m_impl->has_peer(peer_slot) && is_id(id, RE_STAT_PEER_ID_MAX)) {
        add_to(m_impl->peer_counters[peer_slot].stats[id], delta);
    }
}

void RE_stat_writer::set_peer_stat(int peer_slot, int id, long long value)
{
    if (m_impl->has_peer(peer_slot) && is_id(id, RE_STAT_PEER_ID_MAX)) {
        // Released, so that a reader which sees it also sees whose it is; additions carry that on by themselves.
        store_release(&m_impl->peer_counters[peer_slot].stats[id], std::int64_t{value});
    }
}

long long RE_stat_writer::get_peer_stat(int peer_slot, int id) const
{
    return m_impl->has_peer(peer_slot) && is_id(id, RE_STAT_PEER_ID_MAX)
               ? load_relaxed(&m_impl->peer_counters[peer_slot].stats[id])
               : 0;
}

RE_image_peer_counters* RE_stat_writer::implementation::peer_counters_of(int conn_slot) const
{
    const std::uint64_t peer = load_relaxed(&conns[static_cast<std::size_t>(conn_slot)].peer);
    const int slot = static_cast<int>(static_cast<std::uint32_t>(peer));
    const bool b_there = has_peer(slot) && load_relaxed(&image.peers[slot].generation) == peer >> 32U;
    return b_there ? &peer_counters[slot] : nullptr;
}

// A slot for a new connection: one that was released, one never used, or that of the connection closed first.
int RE_stat_writer::implementation::take_conn_slot()
{
    if (!free_conn_slots.empty()) {
        const int slot = free_conn_slots.back();
        free_conn_slots.pop_back();
        return slot;
    }
    const std::uint32_t used = conn_slots_used;
    if (used < image.conns.rows) {
        return ensure_conn(used) ? static_cast<int>(used) : -ENOSPC;
    }
    while (!closed_conns.empty()) {
        const auto [slot, generation] = closed_conns.front();
        closed_conns.pop_front();
        // It may have been released since, and even be somebody else's by now.
        if (image.conns[slot].generation == generation && image.conns[slot].b_in_use != 0) {
            return slot;
        }
    }
    return -ENOSPC;
}

int RE_stat_writer::open_conn(int peer_slot, const RE_stat_conn_header& header, const SO_stat_conn_header& so_header,
                              std::time_t open_time)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_peer(peer_slot)) {
        return -EINVAL;
    }
    const RE_image_peer_row& peer = me.peers[static_cast<std::uint32_t>(peer_slot)];
    const int slot = me.take_conn_slot();
    if (slot < 0) {
        return slot;
    }

    // As with peers: the new tenant's number first, then its counters at 0, then the connection.
    RE_image_conn_row* const place = &me.image.conns[slot];
    RE_image_conn_row row{};
    row.generation = place->generation + 1;
    row.slot = static_cast<std::uint32_t>(slot);
    row.peer_id = peer.peer_id;
    row.header = header;
    row.so_header = so_header;
    row.open_time = open_time;
    write_row(place, row);
    for (std::int64_t& counter : me.conn_counters[slot].stats) {
        store_release(&counter, std::int64_t{0});
    }
    row.b_in_use = 1;
    write_row(place, row);
    me.use_slot(static_cast<std::uint32_t>(slot), me.conn_slots_used, me.image.header->conn_slots_used);

    conn_tenant& tenant = me.conns[static_cast<std::size_t>(slot)];
    tenant.set_peer(peer_slot, peer.generation);
    tenant.b_open = true;
    add_to(me.global->stats[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS], 1);
    add_to(me.peer_counters[peer_slot].stats[RE_STAT_PEER_ID_NUM_TOTAL_CONNS], 1);
    me.count_active(slot, 1);
    return slot;
}

void RE_stat_writer::update_conn_so_header(int conn_slot, const SO_stat_conn_header& so_header)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->has_conn(conn_slot) && m_impl->image.conns[conn_slot].b_in_use != 0) {
        RE_image_conn_row row = m_impl->image.conns[conn_slot];
        row.so_header = so_header;
        write_row(&m_impl->image.conns[conn_slot], row);
    }
}

void RE_stat_writer::implementation::close_locked(int conn_slot, std::time_t close_time)
{
    conn_tenant& tenant = conns[static_cast<std::size_t>(conn_slot)];
    if (!tenant.b_open) {
        return;
    }
    tenant.b_open = false;
    RE_image_conn_row row = image.conns[conn_slot];
    row.close_time = std::max<std::time_t>(close_time, 1); // 0 or less would say that it is open
    write_row(&image.conns[conn_slot], row);
    count_active(conn_slot, -1);
}

void RE_stat_writer::implementation::count_active(int conn_slot, int delta) const
{
    add_to(global->active_conns, delta);
    if (RE_image_peer_counters* const peer = peer_counters_of(conn_slot)) {
        add_to(peer->active_conns, delta);
    }
}

void RE_stat_writer::implementation::remember_closed(int conn_slot)
{
    if (image.conns[conn_slot].b_in_use == 0) { // it was cut
        free_conn_slots.push_back(conn_slot);
        return;
    }
    // Connections that were released after closing stay in the queue; it is tidied before they are the larger part.
    if (closed_conns.size() > 2 * conns.size()) {
        std::erase_if(closed_conns,
                      [this](const auto& closed) { return image.conns[closed.first].generation != closed.second; });
    }
    closed_conns.emplace_back(conn_slot, image.conns[conn_slot].generation);
}

void RE_stat_writer::close_conn(int conn_slot, std::time_t close_time)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->has_conn(conn_slot) && m_impl->conns[static_cast<std::size_t>(conn_slot)].b_open) {
        m_impl->close_locked(conn_slot, close_time);
        m_impl->remember_closed(conn_slot);
    }
}

void RE_stat_writer::release_conn(int conn_slot)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->has_conn(conn_slot) ||
        (m_impl->image.conns[conn_slot].b_in_use == 0 && !m_impl->conns[static_cast<std::size_t>(conn_slot)].b_open)) {
        return;
    }
    m_impl->close_locked(conn_slot, std::time(nullptr));
    RE_image_conn_row row = m_impl->image.conns[conn_slot];
    row.b_in_use = 0;
    ++row.generation;
    write_row(&m_impl->image.conns[conn_slot], row);
    m_impl->free_conn_slots.push_back(conn_slot);
}

void RE_stat_writer::add_conn_stat(int conn_slot, int id, long long delta)
{
    if (!m_impl->has_conn(conn_slot) || !is_id(id, RE_STAT_CONN_ID_MAX)) {
        return;
    }
    add_to(m_impl->conn_counters[conn_slot].stats[id], delta);
    if (RE_image_peer_counters* const peer = m_impl->peer_counters_of(conn_slot)) {
        add_to(peer->conn_stats[id], delta);
    }
    add_to(m_impl->global->conn_stats[id], delta);
}

void RE_stat_writer::set_conn_stat(int conn_slot, int id, long long value)
{
    if (!m_impl->has_conn(conn_slot) || !is_id(id, RE_STAT_CONN_ID_MAX)) {
        return;
    }
    const std::int64_t before =
        __atomic_exchange_n(&m_impl->conn_counters[conn_slot].stats[id], std::int64_t{value}, __ATOMIC_RELAXED);
    const auto delta =
        static_cast<long long>(static_cast<unsigned long long>(value) - static_cast<unsigned long long>(before));
    if (RE_image_peer_counters* const peer = m_impl->peer_counters_of(conn_slot)) {
        add_to(peer->conn_stats[id], delta);
    }
    add_to(m_impl->global->conn_stats[id], delta);
}

long long RE_stat_writer::get_conn_stat(int conn_slot, int id) const
{
    return m_impl->has_conn(conn_slot) && is_id(id, RE_STAT_CONN_ID_MAX)
               ? load_relaxed(&m_impl->conn_counters[conn_slot].stats[id])
               : 0;
}

int RE_stat_writer::find_or_add_app(const RE_stat_app_header& key)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_made()) {
        return -EINVAL;
    }
    const app_key identity = key_of(key);
    if (const auto found = me.app_slots.find(identity); found != me.app_slots.end()) {
        return found->second;
    }
    const std::uint32_t slot = me.app_slots_used;
    if (slot >= me.image.apps.rows || !me.ensure_app(slot)) {
        return -ENOSPC;
    }
    std::memcpy(&me.apps[slot].header, identity.data(), identity.size());
    me.app_slots.emplace(identity, static_cast<int>(slot));
    // Readers look only at what stands below this number, and so never at half an identity.
    me.use_slot(slot, me.app_slots_used, me.image.header->app_slots_used);
    return static_cast<int>(slot);
}

void RE_stat_writer::add_app_stat(int app_slot, int id, std::uint32_t delta)
{
    if (m_impl->has_app(app_slot) && is_id(id, RE_STAT_APP_ID_MAX)) {
        __atomic_fetch_add(&m_impl->apps[app_slot].stats[id], delta, __ATOMIC_RELAXED);
    }
}

void RE_stat_writer::add_app_conns(int app_slot, std::uint32_t opened, std::uint32_t closed)
{
    if (!m_impl->has_app(app_slot)) {
        return;
    }
    // Each count wraps by itself.
    std::uint64_t* const word = RE_image_app_word(&m_impl->apps[app_slot].header);
    constexpr std::uint64_t open_bits = 0x7fffff;
    std::uint64_t before = load_relaxed(word);
    std::uint64_t after = 0;
    do {
        const std::uint64_t open_count = ((before >> 17U) + opened) & open_bits;
        const std::uint64_t close_count = (before >> 40U) + closed;
        after = (before & 0x1ffffU) | (open_count << 17U) | (close_count << 40U);
    } while (!__atomic_compare_exchange_n(word, &before, after, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
}

void RE_stat_writer::add_nack(const RE_stat_nack_header& entry)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_made()) {
        return;
    }
    const std::uint64_t number = me.image.header->nacks_logged;
    const auto at = static_cast<std::uint32_t>(number % me.image.nacks.rows);
    if (!me.ensure_nack(at)) {
        return;
    }
    RE_image_nack_row row{};
    row.nack = entry;
    RE_image_nack_row* const place = &me.image.nacks[at];
    store_relaxed(&place->sequence, RE_nack_sequence(number) - 1);
    store_words(place, row);
    store_release(&place->sequence, RE_nack_sequence(number));
    store_release(&me.image.header->nacks_logged, number + 1);
}

int RE_stat_writer::set_bypass(const RE_bypass_entry& entry)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_made()) {
        return -EINVAL;
    }
    RE_bypass_table* const table = me.bypass_table();
    std::uint32_t place = RE_bypass_capacity;
    for (std::uint32_t at = 0; at < RE_bypass_capacity; ++at) {
        const RE_bypass_row& row = table->rows[at];
        if (row.b_in_use != 0 && row.entry.server_ip == entry.server_ip && row.entry.server_port == entry.server_port) {
            place = at;
            break;
        }
        if (row.b_in_use == 0) {
            place = std::min(place, at);
            if (at >= table->rows_used) {
                break;
            }
        }
    }
    if (place == RE_bypass_capacity) {
        return -ENOSPC;
    }
    write_row(&table->rows[place], RE_bypass_row{0, 1, entry});
    if (place >= table->rows_used) {
        store_release(&table->rows_used, place + 1);
    }
    return 0;
}

int RE_stat_writer::clear_bypass(std::uint32_t server_ip, std::uint16_t server_port)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->is_made()) {
        return -EINVAL;
    }
    RE_bypass_table* const table = m_impl->bypass_table();
    const std::uint32_t rows_used = std::min(table->rows_used, RE_bypass_capacity); // whoever has written to it
    for (std::uint32_t at = 0; at < rows_used; ++at) {
        RE_bypass_row& row = table->rows[at];
        if (row.b_in_use != 0 && row.entry.server_ip == server_ip && row.entry.server_port == server_port) {
            write_row(&row, RE_bypass_row{});
            return 0;
        }
    }
    return -ENOENT;
}
