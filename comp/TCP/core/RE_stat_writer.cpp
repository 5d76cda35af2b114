#include "RE_stat_writer.h"

#include "RE_live_segment.h"
#include "RE_sequence.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

// Whether `id` belongs to its family. Debug builds abort when it does not.
template <typename Id>
bool is_own_id(Id id, Id count)
{
    const bool b_known = is_id(id, count);
    assert(b_known);
    return b_known;
}

// Adds in 64-bit arithmetic, which wraps.
void add_to(std::int64_t& counter, long long delta)
{
    __atomic_fetch_add(&counter, delta, __ATOMIC_RELAXED);
}

// Stored with release order, so that a reader that sees the zeros also sees the new tenant's generation.
template <std::size_t Count>
void clear_counters(std::int64_t (&counters)[Count])
{
    for (std::int64_t& counter : counters) {
        store_release(&counter, std::int64_t{0});
    }
}

// The writer's own data about a peer slot. `row` is a copy of the published row, which truncation may remove.
struct peer_tenant
{
    RE_image_peer_row row{};
    int open_conns = 0;
};

// The writer's own data about a connection slot.
struct conn_tenant
{
    // Slot and generation, packed into one word because counters are updated without the lock.
    std::uint64_t peer = UINT64_MAX;
    bool b_open = false;

    std::uint32_t peer_slot() const { return static_cast<std::uint32_t>(peer); }
    std::uint32_t peer_generation() const { return static_cast<std::uint32_t>(peer >> 32U); }
    void set_peer(int slot, std::uint32_t generation)
    {
        store_relaxed(&peer, std::uint64_t{generation} << 32U | static_cast<std::uint32_t>(slot));
    }
};

// The identity of an application: all of its header except the counts.
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
    std::mutex mutex; // protects slots and everything below; counters need no lock

    RE_live_segment segment;
    // The segment's rows of counters, which have the size of this build.
    RE_image_global_row* global = nullptr;
    RE_image_peer_counters* peer_counters = nullptr;
    RE_image_conn_counters* conn_counters = nullptr;
    RE_image_app_row* apps = nullptr;

    RE_image_config_row config{};
    std::vector<peer_tenant> peers; // by slot
    int connected_peers = 0;        // those with open connections
    std::vector<conn_tenant> conns; // by slot
    std::uint32_t peer_slots_used = 0;
    std::uint32_t conn_slots_used = 0;
    std::uint32_t app_slots_used = 0;
    std::vector<int> free_conn_slots;                       // released; reused from the back
    std::deque<std::pair<int, std::uint32_t>> closed_conns; // slot and generation, in the order of closing
    std::vector<int> free_peer_slots;
    std::map<app_key, int> app_slots;

    const RE_stat_image& image() const { return segment.image(); }
    bool is_made() const { return segment.is_made(); }
    void begin(const RE_stat_limits& limits);
    void prepare_bypass_table() const;
    void restore();
    void close();
    void write_peer(std::uint32_t slot);
    static void use_slot(std::uint32_t slot, std::uint32_t& used, std::uint32_t& published_used);

    // used: one of the ..._slots_used above.
    bool is_slot(int slot, const std::uint32_t& used) const
    {
        return is_made() && slot >= 0 && static_cast<std::uint32_t>(slot) < load_acquire(&used);
    }
    // Return a counter, or null when the slot or id is out of range.
    std::int64_t* peer_stat(int slot, RE_stat_peer_id id) const
    {
        return is_own_id(id, RE_STAT_PEER_ID_MAX) && is_slot(slot, peer_slots_used) ? &peer_counters[slot].stats[id]
                                                                                    : nullptr;
    }
    std::int64_t* conn_stat(int slot, RE_stat_conn_id id) const
    {
        return is_own_id(id, RE_STAT_CONN_ID_MAX) && is_slot(slot, conn_slots_used) ? &conn_counters[slot].stats[id]
                                                                                    : nullptr;
    }
    std::int64_t* global_stat(RE_stat_global_id id) const
    {
        return is_own_id(id, RE_STAT_GLOBAL_ID_MAX) && is_made() ? &global->stats[id] : nullptr;
    }
    // Must be called under the lock.
    bool is_peer(int slot) const
    {
        return is_slot(slot, peer_slots_used) && peers[static_cast<std::size_t>(slot)].row.b_in_use != 0;
    }
    // Returns the counters of the peer of the connection in `conn_slot`, or null when that peer was removed.
    RE_image_peer_counters* peer_counters_of(int conn_slot) const;
    void add_to_sums(int conn_slot, RE_stat_conn_id id, long long delta) const;
    int take_conn_slot();
    void count_active(int conn_slot, int delta);
    void publish_connected_peers() const;
    void close_conn(int conn_slot, std::time_t close_time);
    void remember_closed(int conn_slot);
    RE_bypass_table* bypass_table() const { return reinterpret_cast<RE_bypass_table*>(image().bypass.base); }
    // Returns the table's row of that server; if there is none, a vacant row; null when the table is full.
    RE_bypass_row* find_bypass(std::uint32_t server_ip, std::uint16_t server_port) const;
};

RE_stat_writer::RE_stat_writer() : m_impl(std::make_unique<implementation>())
{}

RE_stat_writer::~RE_stat_writer() = default;

int RE_stat_writer::create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode)
{
    const int error = m_impl->segment.create(limits, start_time, mode);
    if (error == 0) {
        m_impl->begin(limits);
    }
    return error;
}

void RE_stat_writer::implementation::begin(const RE_stat_limits& limits)
{
    global = reinterpret_cast<RE_image_global_row*>(image().global.base);
    peer_counters = reinterpret_cast<RE_image_peer_counters*>(image().peer_counters.base);
    conn_counters = reinterpret_cast<RE_image_conn_counters*>(image().conn_counters.base);
    apps = reinterpret_cast<RE_image_app_row*>(image().apps.base);
    prepare_bypass_table();
    conns.resize(static_cast<std::size_t>(limits.connections));
}

void RE_stat_writer::implementation::prepare_bypass_table() const
{
    bypass_table()->magic = RE_bypass_magic;
    bypass_table()->capacity = RE_bypass_capacity;
}

// Restores what truncation removed, as far as the writer has a copy. Lost counters start at 0, and lost connections are
// no longer published.
void RE_stat_writer::implementation::restore()
{
    image().header->peer_slots_used = peer_slots_used;
    image().header->conn_slots_used = conn_slots_used;
    image().header->app_slots_used = app_slots_used;
    write_row(&image().config[0], config);
    for (std::uint32_t slot = 0; slot < peer_slots_used; ++slot) {
        write_peer(slot);
        peer_counters[slot].active_conns = peers[slot].open_conns;
    }
    for (const auto& [key, slot] : app_slots) {
        if (key_of(apps[slot].header) != key) {
            std::memcpy(&apps[slot].header, key.data(), key.size());
        }
    }
    prepare_bypass_table();

    std::erase_if(closed_conns, [this](const auto& closed) { return image().conns[closed.first].b_in_use == 0; });
    free_conn_slots.clear();
    global->active_conns = 0;
    for (std::uint32_t slot = 0; slot < conn_slots_used; ++slot) {
        if (conns[slot].b_open) {
            ++global->active_conns;
        } else if (image().conns[slot].b_in_use == 0) {
            free_conn_slots.push_back(static_cast<int>(slot));
        }
    }
    publish_connected_peers();
}

bool RE_stat_writer::is_in_place() const
{
    return m_impl->segment.is_in_place();
}

int RE_stat_writer::publish_again()
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->is_made() ? m_impl->segment.publish_again([this] { m_impl->restore(); }) : -EINVAL;
}

int RE_stat_writer::publish()
{
    if (m_impl->is_made()) {
        m_impl->segment.publish();
        return 0;
    }
    return -EINVAL;
}

void RE_stat_writer::close()
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->close();
}

void RE_stat_writer::implementation::close()
{
    segment.withdraw();
    config = {};
    peers.clear();
    connected_peers = 0;
    conns.clear();
    peer_slots_used = conn_slots_used = app_slots_used = 0;
    free_conn_slots.clear();
    closed_conns.clear();
    free_peer_slots.clear();
    app_slots.clear();
}

int RE_stat_writer::set_config(const RE_stat_config_param& config)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_made()) {
        m_impl->config.b_present = 1;
        m_impl->config.config = config;
        write_row(&m_impl->image().config[0], m_impl->config);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::add_global(RE_stat_global_id id, long long delta)
{
    if (std::int64_t* const counter = m_impl->global_stat(id)) {
        add_to(*counter, delta);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::set_global(RE_stat_global_id id, long long value)
{
    if (std::int64_t* const counter = m_impl->global_stat(id)) {
        store_relaxed(counter, std::int64_t{value});
        return 0;
    }
    return -EINVAL;
}

long long RE_stat_writer::get_global(RE_stat_global_id id) const
{
    const std::int64_t* const counter = m_impl->global_stat(id);
    return counter != nullptr ? load_relaxed(counter) : 0;
}

void RE_stat_writer::implementation::write_peer(std::uint32_t slot)
{
    write_row(&image().peers[slot], peers[slot].row);
}

// Makes a new slot visible to readers. Its row must be written before.
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
    std::uint32_t slot = me.peer_slots_used;
    if (!me.free_peer_slots.empty()) {
        slot = static_cast<std::uint32_t>(me.free_peer_slots.back());
        me.free_peer_slots.pop_back();
    } else if (slot < me.image().peers.rows && me.segment.ensure_row(RE_IMAGE_PEERS, slot)) {
        me.peers.emplace_back();
    } else {
        return -ENOSPC;
    }

    // The new generation is written first, so that no reader attributes the previous tenant's figures to the new
    // tenant.
    RE_image_peer_row& row = me.peers[slot].row;
    row = {0, row.generation + 1, slot, 0, peer_id, header};
    me.peers[slot].open_conns = 0;
    me.write_peer(slot);
    RE_image_peer_counters& counters = me.peer_counters[slot];
    clear_counters(counters.stats);
    clear_counters(counters.conn_stats);
    store_release(&counters.active_conns, std::int64_t{0});
    row.b_in_use = 1;
    me.write_peer(slot);
    me.use_slot(slot, me.peer_slots_used, me.image().header->peer_slots_used);
    return static_cast<int>(slot);
}

int RE_stat_writer::update_peer(int peer_slot, const RE_stat_peer_header& header)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_peer(peer_slot)) {
        const auto slot = static_cast<std::uint32_t>(peer_slot);
        m_impl->peers[slot].row.header = header;
        m_impl->write_peer(slot);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::remove_peer(int peer_slot)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_peer(peer_slot)) {
        const auto slot = static_cast<std::uint32_t>(peer_slot);
        peer_tenant& peer = m_impl->peers[slot];
        peer.row.b_in_use = 0;
        // Connections of this peer no longer count for the slot and its next tenant.
        ++peer.row.generation;
        m_impl->write_peer(slot);
        m_impl->free_peer_slots.push_back(peer_slot);
        if (std::exchange(peer.open_conns, 0) > 0) {
            --m_impl->connected_peers;
            m_impl->publish_connected_peers();
        }
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::add_peer_stat(int peer_slot, RE_stat_peer_id id, long long delta)
{
    if (std::int64_t* const counter = m_impl->peer_stat(peer_slot, id)) {
        add_to(*counter, delta);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::set_peer_stat(int peer_slot, RE_stat_peer_id id, long long value)
{
    if (std::int64_t* const counter = m_impl->peer_stat(peer_slot, id)) {
        // Stored with release order, so that a reader that sees the value also sees the tenant's generation. Additions
        // to the value keep that guarantee.
        store_release(counter, std::int64_t{value});
        return 0;
    }
    return -EINVAL;
}

long long RE_stat_writer::get_peer_stat(int peer_slot, RE_stat_peer_id id) const
{
    const std::int64_t* const counter = m_impl->peer_stat(peer_slot, id);
    return counter != nullptr ? load_relaxed(counter) : 0;
}

RE_image_peer_counters* RE_stat_writer::implementation::peer_counters_of(int conn_slot) const
{
    // A copy, as the slot may get another tenant at this moment.
    const conn_tenant tenant = {load_relaxed(&conns[static_cast<std::size_t>(conn_slot)].peer)};
    const std::uint32_t slot = tenant.peer_slot();
    const bool b_there = slot < load_acquire(&peer_slots_used) &&
                         load_relaxed(&image().peers[slot].generation) == tenant.peer_generation();
    return b_there ? &peer_counters[slot] : nullptr;
}

// Returns a slot for a new connection: one that was released, one never used, or that of the connection closed first;
// or -ENOSPC.
int RE_stat_writer::implementation::take_conn_slot()
{
    if (!free_conn_slots.empty()) {
        const int slot = free_conn_slots.back();
        free_conn_slots.pop_back();
        return slot;
    }
    const std::uint32_t used = conn_slots_used;
    if (used < image().conns.rows) {
        return segment.ensure_row(RE_IMAGE_CONNS, used) ? static_cast<int>(used) : -ENOSPC;
    }
    while (!closed_conns.empty()) {
        const auto [slot, generation] = closed_conns.front();
        closed_conns.pop_front();
        // It may have been released since, and may even have a new tenant.
        if (image().conns[slot].generation == generation && image().conns[slot].b_in_use != 0) {
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
    const RE_image_peer_row& peer = me.peers[static_cast<std::uint32_t>(peer_slot)].row;
    const int slot = me.take_conn_slot();
    if (slot < 0) {
        return slot;
    }

    // As for peers: first the new generation, then counters of 0, then the connection.
    RE_image_conn_row* const place = &me.image().conns[slot];
    RE_image_conn_row row{};
    row.generation = place->generation + 1;
    row.slot = static_cast<std::uint32_t>(slot);
    row.peer_id = peer.peer_id;
    row.header = header;
    row.so_header = so_header;
    row.open_time = open_time;
    write_row(place, row);
    clear_counters(me.conn_counters[slot].stats);
    row.b_in_use = 1;
    write_row(place, row);
    me.use_slot(static_cast<std::uint32_t>(slot), me.conn_slots_used, me.image().header->conn_slots_used);

    conn_tenant& tenant = me.conns[static_cast<std::size_t>(slot)];
    tenant.set_peer(peer_slot, peer.generation);
    tenant.b_open = true;
    add_to(me.global->stats[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS], 1);
    add_to(me.peer_counters[peer_slot].stats[RE_STAT_PEER_ID_NUM_TOTAL_CONNS], 1);
    me.count_active(slot, 1);
    return slot;
}

int RE_stat_writer::update_conn_so_header(int conn_slot, const SO_stat_conn_header& so_header)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_slot(conn_slot, m_impl->conn_slots_used) && m_impl->image().conns[conn_slot].b_in_use != 0) {
        RE_image_conn_row row = m_impl->image().conns[conn_slot];
        row.so_header = so_header;
        write_row(&m_impl->image().conns[conn_slot], row);
        return 0;
    }
    return -EINVAL;
}

void RE_stat_writer::implementation::close_conn(int conn_slot, std::time_t close_time)
{
    conn_tenant& tenant = conns[static_cast<std::size_t>(conn_slot)];
    if (!tenant.b_open) {
        return;
    }
    tenant.b_open = false;
    RE_image_conn_row row = image().conns[conn_slot];
    row.close_time = std::max<std::time_t>(close_time, 1); // 0 or less would mean that it is open
    write_row(&image().conns[conn_slot], row);
    count_active(conn_slot, -1);
}

void RE_stat_writer::implementation::count_active(int conn_slot, int delta)
{
    add_to(global->active_conns, delta);
    // Not by peer_counters_of(): a connection may close while the published rows are cut.
    const conn_tenant& tenant = conns[static_cast<std::size_t>(conn_slot)];
    const std::uint32_t peer_slot = tenant.peer_slot();
    if (peer_slot >= peer_slots_used || peers[peer_slot].row.generation != tenant.peer_generation()) {
        return;
    }
    add_to(peer_counters[peer_slot].active_conns, delta);
    int& open_conns = peers[peer_slot].open_conns;
    connected_peers -= open_conns > 0 ? 1 : 0;
    open_conns += delta;
    connected_peers += open_conns > 0 ? 1 : 0;
    publish_connected_peers();
}

void RE_stat_writer::implementation::publish_connected_peers() const
{
    store_relaxed(&global->stats[RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER], std::int64_t{connected_peers});
    std::int64_t& most = global->stats[RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER];
    store_relaxed(&most, std::max(load_relaxed(&most), std::int64_t{connected_peers}));
}

void RE_stat_writer::implementation::remember_closed(int conn_slot)
{
    if (image().conns[conn_slot].b_in_use == 0) { // it was lost by truncation
        free_conn_slots.push_back(conn_slot);
        return;
    }
    // Connections that were released after closing stay in the queue. They are removed before they are the larger part
    // of it.
    if (closed_conns.size() > 2 * conns.size()) {
        std::erase_if(closed_conns,
                      [this](const auto& closed) { return image().conns[closed.first].generation != closed.second; });
    }
    closed_conns.emplace_back(conn_slot, image().conns[conn_slot].generation);
}

int RE_stat_writer::close_conn(int conn_slot, std::time_t close_time)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->is_slot(conn_slot, m_impl->conn_slots_used) &&
        m_impl->conns[static_cast<std::size_t>(conn_slot)].b_open) {
        m_impl->close_conn(conn_slot, close_time);
        m_impl->remember_closed(conn_slot);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::release_conn(int conn_slot)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->is_slot(conn_slot, m_impl->conn_slots_used) ||
        (m_impl->image().conns[conn_slot].b_in_use == 0 &&
         !m_impl->conns[static_cast<std::size_t>(conn_slot)].b_open)) {
        return -EINVAL;
    }
    m_impl->close_conn(conn_slot, std::time(nullptr));
    RE_image_conn_row row = m_impl->image().conns[conn_slot];
    row.b_in_use = 0;
    ++row.generation;
    write_row(&m_impl->image().conns[conn_slot], row);
    m_impl->free_conn_slots.push_back(conn_slot);
    return 0;
}

void RE_stat_writer::implementation::add_to_sums(int conn_slot, RE_stat_conn_id id, long long delta) const
{
    if (RE_image_peer_counters* const peer = peer_counters_of(conn_slot)) {
        add_to(peer->conn_stats[id], delta);
    }
    add_to(global->conn_stats[id], delta);
}

int RE_stat_writer::add_conn_stat(int conn_slot, RE_stat_conn_id id, long long delta)
{
    if (std::int64_t* const counter = m_impl->conn_stat(conn_slot, id)) {
        add_to(*counter, delta);
        m_impl->add_to_sums(conn_slot, id, delta);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::set_conn_stat(int conn_slot, RE_stat_conn_id id, long long value)
{
    if (std::int64_t* const counter = m_impl->conn_stat(conn_slot, id)) {
        const std::int64_t before = __atomic_exchange_n(counter, std::int64_t{value}, __ATOMIC_RELAXED);
        const auto delta =
            static_cast<long long>(static_cast<unsigned long long>(value) - static_cast<unsigned long long>(before));
        m_impl->add_to_sums(conn_slot, id, delta);
        return 0;
    }
    return -EINVAL;
}

long long RE_stat_writer::get_conn_stat(int conn_slot, RE_stat_conn_id id) const
{
    const std::int64_t* const counter = m_impl->conn_stat(conn_slot, id);
    return counter != nullptr ? load_relaxed(counter) : 0;
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
    if (slot >= me.image().apps.rows || !me.segment.ensure_row(RE_IMAGE_APPS, slot)) {
        return -ENOSPC;
    }
    std::memcpy(&me.apps[slot].header, identity.data(), identity.size());
    me.app_slots.emplace(identity, static_cast<int>(slot));
    // Readers read only slots below this number, and so never half an identity.
    me.use_slot(slot, me.app_slots_used, me.image().header->app_slots_used);
    return static_cast<int>(slot);
}

int RE_stat_writer::add_app_stat(int app_slot, RE_stat_app_id id, std::uint32_t delta)
{
    if (is_own_id(id, RE_STAT_APP_ID_MAX) && m_impl->is_slot(app_slot, m_impl->app_slots_used)) {
        __atomic_fetch_add(&m_impl->apps[app_slot].stats[id], delta, __ATOMIC_RELAXED);
        return 0;
    }
    return -EINVAL;
}

int RE_stat_writer::add_app_conns(int app_slot, std::uint32_t opened, std::uint32_t closed)
{
    if (!m_impl->is_slot(app_slot, m_impl->app_slots_used)) {
        return -EINVAL;
    }
    // Each count wraps without changing the other.
    std::uint64_t* const word = RE_image_app_word(&m_impl->apps[app_slot].header);
    constexpr std::uint64_t open_bits = 0x7fffff;
    std::uint64_t before = load_relaxed(word);
    std::uint64_t after = 0;
    do {
        const std::uint64_t open_count = ((before >> 17U) + opened) & open_bits;
        const std::uint64_t close_count = (before >> 40U) + closed;
        after = (before & 0x1ffffU) | (open_count << 17U) | (close_count << 40U);
    } while (!__atomic_compare_exchange_n(word, &before, after, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    return 0;
}

int RE_stat_writer::add_nack(const RE_stat_nack_header& entry)
{
    implementation& me = *m_impl;
    const std::lock_guard<std::mutex> lock(me.mutex);
    if (!me.is_made()) {
        return -EINVAL;
    }
    const std::uint64_t number = me.image().header->nacks_logged;
    const auto at = static_cast<std::uint32_t>(number % me.image().nacks.rows);
    if (!me.segment.ensure_row(RE_IMAGE_NACKS, at)) {
        return -ENOSPC;
    }
    RE_image_nack_row row{};
    row.nack = entry;
    RE_image_nack_row* const place = &me.image().nacks[at];
    store_relaxed(&place->sequence, RE_nack_sequence(number) - 1);
    store_words(place, row);
    store_release(&place->sequence, RE_nack_sequence(number));
    store_release(&me.image().header->nacks_logged, number + 1);
    return 0;
}

RE_bypass_row* RE_stat_writer::implementation::find_bypass(std::uint32_t server_ip, std::uint16_t server_port) const
{
    RE_bypass_table& table = *bypass_table();
    RE_bypass_row* vacant = nullptr;
    for (std::uint32_t at = 0; at < RE_bypass_capacity; ++at) {
        RE_bypass_row& row = table.rows[at];
        if (row.b_in_use != 0 && row.entry.server_ip == server_ip && row.entry.server_port == server_port) {
            return &row;
        }
        if (row.b_in_use == 0 && vacant == nullptr) {
            vacant = &row;
        }
        if (vacant != nullptr && at >= table.rows_used) {
            break;
        }
    }
    return vacant;
}

int RE_stat_writer::set_bypass(const RE_bypass_entry& entry)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->is_made()) {
        return -EINVAL;
    }
    RE_bypass_row* const row = m_impl->find_bypass(entry.server_ip, entry.server_port);
    if (row == nullptr) {
        return -ENOSPC;
    }
    write_row(row, RE_bypass_row{0, 1, entry});
    RE_bypass_table& table = *m_impl->bypass_table();
    const auto place = static_cast<std::uint32_t>(row - table.rows);
    if (place >= table.rows_used) {
        store_release(&table.rows_used, place + 1);
    }
    return 0;
}

int RE_stat_writer::clear_bypass(std::uint32_t server_ip, std::uint16_t server_port)
{
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->is_made()) {
        return -EINVAL;
    }
    RE_bypass_row* const row = m_impl->find_bypass(server_ip, server_port);
    if (row == nullptr || row->b_in_use == 0) {
        return -ENOENT;
    }
    write_row(row, RE_bypass_row{});
    return 0;
}
