#include "RE_stat_writer.h"

#include "RE_bypass_table.h"
#include "RE_sequence.h"
#include "RE_stat_image.h"
#include "RE_stat_segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
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

} // namespace

struct RE_stat_writer::implementation
{
    std::mutex mutex; // over slots and everything below; counters need no lock

    int descriptor = -1;
    std::string path;
    unsigned char* mapping = nullptr;
    std::size_t size = 0;
    RE_stat_image image;

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

    int lay_out(const RE_stat_limits& limits, std::time_t start_time);
    int back(const void* start, std::size_t bytes) const;
    template <typename Row>
    bool back_rows(const Row* rows, std::uint64_t first, std::uint64_t count) const;
    bool ensure_peer(std::uint32_t slot);
    bool ensure_conn(std::uint32_t slot);
    bool ensure_app(std::uint32_t slot);
    bool ensure_nack(std::uint32_t row);
    void withdraw();

    bool has_peer(int slot) const
    {
        return mapping != nullptr && slot >= 0 &&
               static_cast<std::uint32_t>(slot) < load_acquire(&image.header->peer_slots_used);
    }
    bool has_conn(int slot) const
    {
        return mapping != nullptr && slot >= 0 &&
               static_cast<std::uint32_t>(slot) < load_acquire(&image.header->conn_slots_used);
    }
    bool has_app(int slot) const
    {
        return mapping != nullptr && slot >= 0 &&
               static_cast<std::uint32_t>(slot) < load_acquire(&image.header->app_slots_used);
    }
    // The peer's counters of the connection in `conn_slot`, null when that peer has gone.
    RE_image_peer_counters* peer_counters_of(int conn_slot) const;
    int take_conn_slot();
    void close_locked(int conn_slot, std::time_t close_time);
    void remember_closed(int conn_slot);
    RE_bypass_table* bypass_table() const { return reinterpret_cast<RE_bypass_table*>(image.bypass); }
};

RE_stat_writer::RE_stat_writer() : m_impl(std::make_unique<implementation>())
{}

RE_stat_writer::~RE_stat_writer() = default;

namespace {

// Whether `path` names what `descriptor` is open on.
bool is_named(int descriptor, const char* path)
{
    struct stat opened
    {
    };
    struct stat named
    {
    };
    return fstat(descriptor, &opened) == 0 && lstat(path, &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}

// Opens the segment that is there, or an empty one in its place, and holds the start lock on it: of several engines
// that start at once, one goes on. Returns the descriptor or -errno.
int win_start(const char* path)
{
    for (;;) {
        // Not in one call: where all may make files, the system refuses O_CREAT for what another user has left there.
        int descriptor = ::open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (descriptor < 0 && errno == ENOENT) {
            descriptor = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
            if (descriptor < 0 && errno == EEXIST) {
                continue; // another engine was quicker
            }
        }
        if (descriptor < 0) {
            return -errno;
        }
        if (!take_segment_lock(descriptor, RE_segment_lock_start) ||
            is_segment_lock_held(descriptor, RE_segment_lock_engine)) {
            ::close(descriptor);
            return -EBUSY;
        }
        if (is_named(descriptor, path)) {
            return descriptor;
        }
        ::close(descriptor); // another engine has just put a new segment there
    }
}

// Makes a new, locked segment in the same place under a name of its own. Returns the descriptor or -errno; `temporary`
// receives its path.
int make_segment(unsigned int mode, std::string& temporary)
{
    temporary = RE_stat_segment_folder + std::string(".kav_engine.XXXXXX");
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        return -errno;
    }
    if (fchmod(descriptor, static_cast<mode_t>(mode)) != 0 || !take_segment_lock(descriptor, RE_segment_lock_engine)) {
        const int error = errno;
        ::close(descriptor);
        unlink(temporary.c_str());
        return -error;
    }
    return descriptor;
}

} // namespace

int RE_stat_writer::create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode)
{
    const RE_stat_segment_path path;
    if (m_impl->mapping != nullptr || !path.is_valid() || !is_within(limits.peers, RE_image_max_peers) ||
        !is_within(limits.connections, RE_image_max_conns) || !is_within(limits.applications, RE_image_max_apps) ||
        !is_within(limits.nacks, RE_image_max_nacks)) {
        return -EINVAL;
    }
    const int start_descriptor = win_start(path.c_str());
    if (start_descriptor < 0) {
        return start_descriptor;
    }
    std::string temporary;
    const int descriptor = make_segment(mode, temporary);
    int error = descriptor < 0 ? descriptor : 0;
    if (error == 0) {
        m_impl->descriptor = descriptor;
        error = m_impl->lay_out(limits, start_time);
        // Viewers that still read the segment of a killed engine keep it; the name is the new one's from here on.
        if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) {
            error = -errno;
        }
        if (error == 0) {
            m_impl->path = path.c_str();
        } else {
            unlink(temporary.c_str());
            m_impl->withdraw();
        }
    }
    struct stat found
    {
    };
    if (error != 0 && fstat(start_descriptor, &found) == 0 && found.st_size == 0) {
        unlink(path.c_str()); // the place holder that win_start made
    }
    ::close(start_descriptor);
    return error;
}

int RE_stat_writer::implementation::lay_out(const RE_stat_limits& limits, std::time_t start_time)
{
    struct
    {
        RE_image_section_id id;
        std::uint64_t row_size;
        std::uint64_t rows;
    } const wanted[RE_image_section_count] = {
        {RE_IMAGE_CONFIG, sizeof(RE_image_config_row), 1},
        {RE_IMAGE_GLOBAL, sizeof(RE_image_global_row), 1},
        {RE_IMAGE_PEERS, sizeof(RE_image_peer_row), static_cast<std::uint64_t>(limits.peers)},
        {RE_IMAGE_PEER_COUNTERS, sizeof(RE_image_peer_counters), static_cast<std::uint64_t>(limits.peers)},
        {RE_IMAGE_CONNS, sizeof(RE_image_conn_row), static_cast<std::uint64_t>(limits.connections)},
        {RE_IMAGE_CONN_COUNTERS, sizeof(RE_image_conn_counters), static_cast<std::uint64_t>(limits.connections)},
        {RE_IMAGE_APPS, sizeof(RE_image_app_row), static_cast<std::uint64_t>(limits.applications)},
        {RE_IMAGE_NACKS, sizeof(RE_image_nack_row), static_cast<std::uint64_t>(limits.nacks)},
        {RE_IMAGE_BYPASS, 1, sizeof(RE_bypass_table)},
    };
    constexpr std::uint64_t line = 64; // sections start on cache lines of their own
    RE_image_section sections[RE_image_section_count];
    std::uint64_t end = sizeof(RE_image_header) + sizeof sections;
    for (std::size_t at = 0; at < RE_image_section_count; ++at) {
        const std::uint64_t start = (end + line - 1) / line * line;
        sections[at] = {wanted[at].id, static_cast<std::uint32_t>(wanted[at].row_size), start, wanted[at].rows,
                        wanted[at].rows};
        end = start + wanted[at].rows * wanted[at].row_size;
    }
    if (ftruncate(descriptor, static_cast<off_t>(end)) != 0) {
        return -errno;
    }
    void* const memory = mmap(nullptr, end, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
        return -errno;
    }
    mapping = static_cast<unsigned char*>(memory);
    size = end;

    // Memory that shared memory cannot back would kill the engine at the first touch; so it is claimed beforehand, and
    // for slots when they are first used.
    if (const int error = back(mapping, sections[RE_IMAGE_PEERS - 1].offset)) {
        return error;
    }
    if (const int error = back(mapping + sections[RE_IMAGE_BYPASS - 1].offset, sizeof(RE_bypass_table))) {
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
    header.global_counters = RE_STAT_GLOBAL_ID_MAX;
    header.peer_counters = RE_STAT_PEER_ID_MAX;
    header.conn_counters = RE_STAT_CONN_ID_MAX;
    header.app_counters = RE_STAT_APP_ID_MAX;
    std::memcpy(mapping, &header, sizeof header);
    std::memcpy(mapping + sizeof header, sections, sizeof sections);
    if (image.attach(mapping, size, RE_image_kind::live) != 0) {
        return -EINVAL;
    }
    bypass_table()->magic = RE_bypass_magic;
    bypass_table()->capacity = RE_bypass_capacity;
    conns.resize(static_cast<std::size_t>(limits.connections));
    return 0;
}

int RE_stat_writer::implementation::back(const void* start, std::size_t bytes) const
{
    const auto offset = static_cast<off_t>(static_cast<const unsigned char*>(start) - mapping);
    return -posix_fallocate(descriptor, offset, static_cast<off_t>(bytes));
}

template <typename Row>
bool RE_stat_writer::implementation::back_rows(const Row* rows, std::uint64_t first, std::uint64_t count) const
{
    return back(rows + first, count * sizeof(Row)) == 0;
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
    const std::uint64_t count = rows_to_back(backed_peers, image.peer_rows);
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
    const std::uint64_t count = rows_to_back(backed_conns, image.conn_rows);
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
    const std::uint64_t count = rows_to_back(backed_apps, image.app_rows);
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
    const std::uint64_t count = rows_to_back(backed_nacks, image.nack_rows);
    if (!back_rows(image.nacks, backed_nacks, count)) {
        return false;
    }
    backed_nacks += count;
    return true;
}

void RE_stat_writer::implementation::withdraw()
{
    if (mapping != nullptr) {
        if (image.header != nullptr) {
            store_release(&image.header->state, std::uint32_t{RE_IMAGE_WITHDRAWN});
        }
        munmap(mapping, size);
        mapping = nullptr;
        image = {};
    }
    // Somebody may have removed the segment, and another engine have made its own since.
    if (!path.empty() && is_named(descriptor, path.c_str())) {
        unlink(path.c_str());
    }
    path.clear();
    if (descriptor >= 0) {
        ::close(descriptor); // lets go of the engine's lock
        descriptor = -1;
    }
    conns.clear();
    free_conn_slots.clear();
    closed_conns.clear();
    free_peer_slots.clear();
    app_slots.clear();
    backed_peers = backed_conns = backed_apps = backed_nacks = 0;
}

void RE_stat_writer::publish()
{
    if (m_impl->mapping != nullptr) {
        store_release(&m_impl->image.header->state, std::uint32_t{RE_IMAGE_PUBLISHED});
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
    if (m_impl->mapping != nullptr) {
        RE_image_config_row row{};
        row.b_present = 1;
        row.config = config;
        write_row(m_impl->image.config, row);
    }
}

void RE_stat_writer::add_global(int id, long long delta)
{
    if (m_impl->mapping != nullptr && is_id(id, RE_STAT_GLOBAL_ID_MAX)) {
        add_to(m_impl->image.global->stats[id], delta);
    }
}

void RE_stat_writer::set_global(int id, long long value)
{
    if (m_impl->mapping != nullptr && is_id(id, RE_STAT_GLOBAL_ID_MAX)) {
        store_relaxed(&m_impl->image.global->stats[id], std::int64_t{value});
    }
}

long long RE_stat_writer::get_global(int id) const
{
    return m_impl->mapping != nullptr && is_id(id, RE_STAT_GLOBAL_ID_MAX)
               ? load_relaxed(&m_impl->image.global->stats[id])
               : 0;
}

int RE_stat_writer::add_peer(int peer_id, const RE_stat_peer_header& header)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (me.mapping == nullptr) {
        return -EINVAL;
    }
    const std::uint32_t used = me.image.header->peer_slots_used;
    const bool b_again = !me.free_peer_slots.empty();
    if (!b_again && (used >= me.image.peer_rows || !me.ensure_peer(used))) {
        return -ENOSPC;
    }
    const std::uint32_t slot = b_again ? static_cast<std::uint32_t>(me.free_peer_slots.back()) : used;
    if (b_again) {
        me.free_peer_slots.pop_back();
    }

    // The new tenant's number goes first, so that no reader takes the old one's figures for the new one's.
    RE_image_peer_row* const place = &me.image.peers[slot];
    RE_image_peer_row row{};
    row.generation = place->generation + 1;
    row.slot = slot;
    row.peer_id = peer_id;
    row.header = header;
    write_row(place, row);
    RE_image_peer_counters& counters = me.image.peer_counters[slot];
    for (std::int64_t& counter : counters.stats) {
        store_release(&counter, std::int64_t{0});
    }
    for (std::int64_t& counter : counters.conn_stats) {
        store_release(&counter, std::int64_t{0});
    }
    store_release(&counters.active_conns, std::int64_t{0});
    row.b_in_use = 1;
    write_row(place, row);
    if (!b_again) {
        store_release(&me.image.header->peer_slots_used, used + 1);
    }
    return static_cast<int>(slot);
}

void RE_stat_writer::update_peer(int peer_slot, const RE_stat_peer_header& header)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->has_peer(peer_slot) && m_impl->image.peers[peer_slot].b_in_use != 0) {
        RE_image_peer_row row = m_impl->image.peers[peer_slot];
        row.header = header;
        write_row(&m_impl->image.peers[peer_slot], row);
    }
}

void RE_stat_writer::remove_peer(int peer_slot)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->has_peer(peer_slot) && m_impl->image.peers[peer_slot].b_in_use != 0) {
        RE_image_peer_row row = m_impl->image.peers[peer_slot];
        row.b_in_use = 0;
        // Connections of this peer no longer count for the slot, whoever gets it.
        ++row.generation;
        write_row(&m_impl->image.peers[peer_slot], row);
        m_impl->free_peer_slots.push_back(peer_slot);
    }
}

void RE_stat_writer::add_peer_stat(int peer_slot, int id, long long delta)
{
    if (m_impl->has_peer(peer_slot) && is_id(id, RE_STAT_PEER_ID_MAX)) {
        add_to(m_impl->image.peer_counters[peer_slot].stats[id], delta);
    }
}

void RE_stat_writer::set_peer_stat(int peer_slot, int id, long long value)
{
    if (m_impl->has_peer(peer_slot) && is_id(id, RE_STAT_PEER_ID_MAX)) {
        // Released, so that a reader which sees it also sees whose it is; additions carry that on by themselves.
        store_release(&m_impl->image.peer_counters[peer_slot].stats[id], std::int64_t{value});
    }
}

long long RE_stat_writer::get_peer_stat(int peer_slot, int id) const
{
    return m_impl->has_peer(peer_slot) && is_id(id, RE_STAT_PEER_ID_MAX)
               ? load_relaxed(&m_impl->image.peer_counters[peer_slot].stats[id])
               : 0;
}

RE_image_peer_counters* RE_stat_writer::implementation::peer_counters_of(int conn_slot) const
{
    const std::uint64_t peer = load_relaxed(&conns[static_cast<std::size_t>(conn_slot)].peer);
    const int slot = static_cast<int>(static_cast<std::uint32_t>(peer));
    const bool b_there = has_peer(slot) && load_relaxed(&image.peers[slot].generation) == peer >> 32U;
    return b_there ? &image.peer_counters[slot] : nullptr;
}

// A slot for a new connection: one that was released, one never used, or that of the connection closed first.
int RE_stat_writer::implementation::take_conn_slot()
{
    if (!free_conn_slots.empty()) {
        const int slot = free_conn_slots.back();
        free_conn_slots.pop_back();
        return slot;
    }
    const std::uint32_t used = image.header->conn_slots_used;
    if (used < image.conn_rows) {
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
    if (!me.has_peer(peer_slot) || me.image.peers[peer_slot].b_in_use == 0) {
        return -EINVAL;
    }
    const int slot = me.take_conn_slot();
    if (slot < 0) {
        return slot;
    }

    // As with peers: the new tenant's number first, then its counters at 0, then the connection.
    RE_image_conn_row* const place = &me.image.conns[slot];
    RE_image_conn_row row{};
    row.generation = place->generation + 1;
    row.slot = static_cast<std::uint32_t>(slot);
    row.peer_id = me.image.peers[peer_slot].peer_id;
    row.header = header;
    row.so_header = so_header;
    row.open_time = open_time;
    write_row(place, row);
    for (std::int64_t& counter : me.image.conn_counters[slot].stats) {
        store_release(&counter, std::int64_t{0});
    }
    row.b_in_use = 1;
    write_row(place, row);
    if (static_cast<std::uint32_t>(slot) >= me.image.header->conn_slots_used) {
        store_release(&me.image.header->conn_slots_used, static_cast<std::uint32_t>(slot) + 1);
    }

    conn_tenant& tenant = me.conns[static_cast<std::size_t>(slot)];
    tenant.set_peer(peer_slot, me.image.peers[peer_slot].generation);
    tenant.b_open = true;
    RE_image_peer_counters& peer = me.image.peer_counters[peer_slot];
    add_to(me.image.global->stats[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS], 1);
    add_to(me.image.global->active_conns, 1);
    add_to(peer.stats[RE_STAT_PEER_ID_NUM_TOTAL_CONNS], 1);
    add_to(peer.active_conns, 1);
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
    add_to(image.global->active_conns, -1);
    if (RE_image_peer_counters* const peer = peer_counters_of(conn_slot)) {
        add_to(peer->active_conns, -1);
    }
}

void RE_stat_writer::implementation::remember_closed(int conn_slot)
{
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
    if (!m_impl->has_conn(conn_slot) || m_impl->image.conns[conn_slot].b_in_use == 0) {
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
    add_to(m_impl->image.conn_counters[conn_slot].stats[id], delta);
    if (RE_image_peer_counters* const peer = m_impl->peer_counters_of(conn_slot)) {
        add_to(peer->conn_stats[id], delta);
    }
    add_to(m_impl->image.global->conn_stats[id], delta);
}

void RE_stat_writer::set_conn_stat(int conn_slot, int id, long long value)
{
    if (!m_impl->has_conn(conn_slot) || !is_id(id, RE_STAT_CONN_ID_MAX)) {
        return;
    }
    const std::int64_t before =
        __atomic_exchange_n(&m_impl->image.conn_counters[conn_slot].stats[id], std::int64_t{value}, __ATOMIC_RELAXED);
    const auto delta =
        static_cast<long long>(static_cast<unsigned long long>(value) - static_cast<unsigned long long>(before));
    if (RE_image_peer_counters* const peer = m_impl->peer_counters_of(conn_slot)) {
        add_to(peer->conn_stats[id], delta);
    }
    add_to(m_impl->image.global->conn_stats[id], delta);
}

long long RE_stat_writer::get_conn_stat(int conn_slot, int id) const
{
    return m_impl->has_conn(conn_slot) && is_id(id, RE_STAT_CONN_ID_MAX)
               ? load_relaxed(&m_impl->image.conn_counters[conn_slot].stats[id])
               : 0;
}

int RE_stat_writer::find_or_add_app(const RE_stat_app_header& key)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (me.mapping == nullptr) {
        return -EINVAL;
    }
    const app_key identity = key_of(key);
    if (const auto found = me.app_slots.find(identity); found != me.app_slots.end()) {
        return found->second;
    }
    const std::uint32_t slot = me.image.header->app_slots_used;
    if (slot >= me.image.app_rows || !me.ensure_app(slot)) {
        return -ENOSPC;
    }
    std::memcpy(&me.image.apps[slot].app.m_header, identity.data(), identity.size());
    me.app_slots.emplace(identity, static_cast<int>(slot));
    // Readers look only at what stands below this number, and so never at half an identity.
    store_release(&me.image.header->app_slots_used, slot + 1);
    return static_cast<int>(slot);
}

void RE_stat_writer::add_app_stat(int app_slot, int id, std::uint32_t delta)
{
    if (m_impl->has_app(app_slot) && is_id(id, RE_STAT_APP_ID_MAX)) {
        __atomic_fetch_add(&m_impl->image.apps[app_slot].app.m_id_array[id], delta, __ATOMIC_RELAXED);
    }
}

void RE_stat_writer::add_app_conns(int app_slot, std::uint32_t opened, std::uint32_t closed)
{
    if (!m_impl->has_app(app_slot)) {
        return;
    }
    // Both counts share a 64-bit word with port and flag: bits 17 to 39 and 40 to 63. Each wraps by itself.
    auto* const header = reinterpret_cast<unsigned char*>(&m_impl->image.apps[app_slot].app.m_header);
    auto* const word = reinterpret_cast<std::uint64_t*>(header + 4);
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
    if (me.mapping == nullptr) {
        return;
    }
    const std::uint64_t number = me.image.header->nacks_logged;
    const auto at = static_cast<std::uint32_t>(number % me.image.nack_rows);
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
    if (me.mapping == nullptr) {
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
    if (m_impl->mapping == nullptr) {
        return -EINVAL;
    }
    RE_bypass_table* const table = m_impl->bypass_table();
    for (std::uint32_t at = 0; at < table->rows_used; ++at) {
        RE_bypass_row& row = table->rows[at];
        if (row.b_in_use != 0 && row.entry.server_ip == server_ip && row.entry.server_port == server_port) {
            write_row(&row, RE_bypass_row{});
            return 0;
        }
    }
    return -ENOENT;
}
