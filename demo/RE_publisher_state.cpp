// The part of the publisher for current states: caches, queues, clocks and peers.
#include "RE_clock.h"
#include "RE_publisher.h"

#include <algorithm>
#include <fstream>

namespace {

constexpr long long megabytes(std::uint64_t bytes)
{
    return static_cast<long long>(bytes >> 20U);
}

long long per_second(long long bytes, std::int64_t nanoseconds)
{
    constexpr double per_second = ns_per_second;
    return nanoseconds <= 0
               ? 0
               : static_cast<long long>(static_cast<double>(bytes) * per_second / static_cast<double>(nanoseconds));
}

void earlier_of(long long& oldest, std::time_t time)
{
    if (time != 0 && (oldest == 0 || time < oldest)) {
        oldest = time;
    }
}

RE_CACHE_INIT_STATE cache_state(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills)
{
    if (ills.has(RE_illness::cache_unusable)) {
        return RE_CACHE_INACTIVE;
    }
    if (ills.has(RE_illness::cache_initialising)) {
        return RE_CACHE_INIT_IN_PROGRESS;
    }
    const bool b_failed = std::any_of(peers.begin(), peers.end(), [](const std::unique_ptr<RE_peer>& peer) {
        return peer->inbound().decoder().store().is_failed();
    });
    if (b_failed) {
        return ills.has(RE_illness::cache_lost) ? RE_CACHE_FAILED : RE_CACHE_TEMP_FAILED;
    }
    return RE_CACHE_ACTIVE;
}

// Returns the memory that the machine could give to this program, in megabytes; 0 when it is unknown.
long long available_memory()
{
    constexpr long long kilobytes_per_megabyte = 1024;
    std::ifstream figures("/proc/meminfo");
    std::string name;
    std::string unit;
    long long kilobytes = 0;
    while (figures >> name >> kilobytes && std::getline(figures, unit)) {
        if (name == "MemAvailable:") {
            return kilobytes / kilobytes_per_megabyte;
        }
    }
    return 0;
}

// Combines averages, each of a number of values.
class average_of_averages
{
public:
    void add(double average, std::uint64_t count)
    {
        m_count += count;
        m_sum += average * static_cast<double>(count);
    }
    std::uint64_t count() const { return m_count; }
    double value() const { return m_count == 0 ? 0 : m_sum / static_cast<double>(m_count); }

private:
    std::uint64_t m_count = 0;
    double m_sum = 0;
};

} // namespace

void RE_publisher::refresh(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills,
                           int waiting_conns)
{
    m_writer.set_global(SO_STAT_ACK_Q_ACTIVE_CONN, waiting_conns);
    m_writer.set_global(SO_STAT_ACK_Q_CURR_STOP, m_stopped_conns);
    for (const std::unique_ptr<RE_peer>& peer : peers) {
        refresh_peer(peer->number() - 1, *peer);
    }
    refresh_global(peers, ills);
    refresh_reserve();
}

void RE_publisher::refresh_peer(int slot, const RE_peer& peer)
{
    const RE_path& outbound = peer.outbound();
    const RE_signature_fifo& signatures = outbound.encoder().index();
    const RE_signature_fifo& data = peer.inbound().decoder().store().index();
    const auto set = [&](RE_stat_peer_id id, long long value) { m_writer.set_peer_stat(slot, id, value); };
    const auto clock = [](std::uint64_t value) { return static_cast<long long>(value); };

    if (peer.is_before_4_4_1()) {
        set(RE_STAT_PEER_ID_PRE_NG_DATAUNIT_DISK_SPACE, megabytes(data.used_bytes()));
        set(RE_STAT_PEER_ID_PRE_NG_HEAD_SYNC_CLK, clock(data.head_clock()));
        set(RE_STAT_PEER_ID_PRE_NG_TAIL_SYNC_CLK, clock(data.tail_clock()));
        set(RE_STAT_PEER_ID_PRE_NG_REMOTE_HEAD_SYNC_CLK, clock(outbound.receiver_head_clock()));
    } else {
        set(RE_STAT_PEER_ID_DATAUNIT_DISK_SPACE, megabytes(data.used_bytes()));
        set(RE_STAT_PEER_ID_REMOTE_HEAD_SYNC_CLK, clock(outbound.receiver_head_clock()));
    }
    set(RE_STAT_PEER_ID_CACHE_SIGBLOCK_AGE, signatures.oldest_time());
    set(RE_STAT_PEER_ID_CACHE_DATAUNIT_AGE, data.oldest_time());
    set(RE_STAT_PEER_ID_USABLE_SIGBLOCK_SIZE, megabytes(signatures.used_bytes()));
    set(RE_STAT_PEER_ID_USABLE_SIGBLOCK_AGE, signatures.oldest_time());
    set(RE_STAT_PEER_ID_NUM_FIFO_DATA, clock(data.tail_clock()));
    set(RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, clock(outbound.out_of_sync_count()));
    set(RE_STAT_PEER_ID_ACK_Q_SIZE, clock(outbound.unacknowledged_bytes()));
    set(RE_STAT_PEER_ID_ACK_Q_MAX_RTT, outbound.longest_round_trip_ns() / ns_per_us);
    set(RE_STAT_PEER_ID_ACK_Q_AVG_RTT, outbound.average_round_trip_ns() / ns_per_us);
    set(RE_STAT_PEER_ID_REMOTE_ACK_Q_AVG_RTT, peer.inbound().average_round_trip_ns() / ns_per_us);

    const peer_work& work = m_peer_work[static_cast<std::size_t>(slot)];
    set(RE_STAT_PEER_ID_TOT_KAV_DECODE_THRPUT, per_second(work.decoded_bytes, work.decoding_ns));
    set(RE_STAT_PEER_ID_TOT_BYPASS_DECODE_THRPUT, per_second(work.passed_bytes, work.passing_ns));
    set(RE_STAT_PEER_ID_BYPASS_RATIO, static_cast<long long>(work.bypassed_percent.value()));

    const std::time_t now = wall_seconds();
    RE_concurrency& concurrency = m_concurrency[static_cast<std::size_t>(slot)];
    set(RE_STAT_PEER_ID_NUM_MAX_CONNS, concurrency.max(now));
    set(RE_STAT_PEER_ID_NUM_AVG_CONNS, concurrency.average(now));
}

void RE_publisher::refresh_global(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills)
{
    struct
    {
        std::uint64_t capacity, used_bytes, head, tail, evicted_bytes, evicted_signature_bytes;
        std::uint64_t signatures, signature_sections, chunks, sections, table_entries;
        std::uint64_t unacknowledged, times_full;
        average_of_averages reads, slow_reads;
        long long oldest_signature, oldest_data, evicted_signature_sections, evicted_sections;
    } sum{};
    const std::time_t now = wall_seconds();
    for (const std::unique_ptr<RE_peer>& peer : peers) {
        const RE_signature_fifo& signatures = peer->outbound().encoder().index();
        const RE_chunk_store& store = peer->inbound().decoder().store();
        const RE_signature_fifo& data = store.index();
        sum.capacity += data.capacity();
        sum.used_bytes += data.used_bytes();
        sum.head += data.head_clock();
        sum.tail += data.tail_clock();
        sum.evicted_bytes += static_cast<std::uint64_t>(data.bytes_evicted_in_last_hour(now));
        sum.evicted_sections += data.sections_evicted_in_last_hour(now);
        sum.evicted_signature_bytes +=
            static_cast<std::uint64_t>(signatures.chunks_evicted_in_last_hour(now)) * sizeof(RE_signature);
        sum.evicted_signature_sections += signatures.sections_evicted_in_last_hour(now);
        sum.signatures += signatures.chunk_count();
        sum.signature_sections += signatures.section_count();
        sum.chunks += data.chunk_count();
        sum.sections += data.section_count();
        sum.table_entries += signatures.max_chunk_count() + data.max_chunk_count();
        sum.reads.add(store.disk_work().read_ns.value(), store.disk_work().reads);
        sum.slow_reads.add(store.disk_work().slow_read_ns.value(), store.disk_work().slow_reads);
        sum.times_full += signatures.times_full() + data.times_full();
        sum.unacknowledged += peer->outbound().unacknowledged_bytes();
        earlier_of(sum.oldest_signature, signatures.oldest_time());
        earlier_of(sum.oldest_data, data.oldest_time());
    }

    const auto set = [&](RE_stat_global_id id, auto value) { m_writer.set_global(id, static_cast<long long>(value)); };
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, cache_state(peers, ills));
    set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, megabytes(sum.capacity));
    set(RE_STAT_GLOBAL_ID_USED_CACHE_SIZE, megabytes(sum.used_bytes));
    set(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE, megabytes(sum.used_bytes));
    set(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_SECTION_CNT, sum.signature_sections);
    set(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_CHUNK_CNT, sum.signatures);
    set(RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_SECTION_CNT, sum.sections);
    set(RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_CHUNK_CNT, sum.chunks);
    set(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, sum.oldest_signature);
    set(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, sum.oldest_data);
    set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_RAM_SIZE, megabytes(sum.table_entries * RE_signature_fifo::bytes_per_chunk()));
    set(RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY, sum.table_entries);
    set(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE, sum.signatures);
    set(RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE, sum.chunks);
    set(RE_STAT_GLOBAL_ID_ACK_Q_SIZE, sum.unacknowledged);
    set(RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_IN_LAST_HOUR, megabytes(sum.evicted_signature_bytes));
    set(RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_SECTION_IN_LAST_HOUR, sum.evicted_signature_sections);
    set(RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_IN_LAST_HOUR, megabytes(sum.evicted_bytes));
    set(RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_SECTION_IN_LAST_HOUR, sum.evicted_sections);
    set(RE_STAT_GLOBAL_ID_NUM_READ, sum.reads.count());
    set(RE_STAT_GLOBAL_ID_AVG_READ_LATENCY, sum.reads.value() / ns_per_us);
    set(RE_STAT_GLOBAL_ID_NUM_DISK_READ, sum.slow_reads.count());
    set(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, sum.slow_reads.value() / ns_per_us);
    set(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL, sum.times_full);
    set(RE_STAT_GLOBAL_ID_FIFO_HEAD_CLOCK, sum.head);
    set(RE_STAT_GLOBAL_ID_FIFO_TAIL_CLOCK, sum.tail);
}

// Publishes the lowest value that this function has seen since the engine's start.
void RE_publisher::refresh_reserve()
{
    m_lowest_reserve = std::min(m_lowest_reserve, available_memory());
    m_writer.set_global(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, m_lowest_reserve);
}
