#include "health/rules.h"

#include "RE_bypass_table.h"
#include "format/units.h"
#include "model/metric_names.h"
#include "model/words.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kavstat {

namespace {

constexpr double minute = 60;
constexpr double hour = 60 * minute;
constexpr double kilobyte = 1024;
constexpr double megabyte = 1024 * kilobyte;

// Dividing gives exactly the value of a literal such as 0.01.
constexpr double milliseconds(double value)
{
    return value / 1000;
}

constexpr double percent(double value)
{
    return value / 100;
}

// Returns the value of 1 of the unit in its base unit.
constexpr double in_base_units(RE_stat_unit unit)
{
    const BaseUnit base = base_unit_of(unit);
    auto divisor = 1.0;
    for (int digit = 0; digit < base.decimals; ++digit) {
        divisor *= 10;
    }
    return static_cast<double>(base.factor) / divisor;
}

template <std::size_t Size>
consteval Figure counter(Figure::Kind kind, const RE_stat_counter_info (&counters)[Size], int id)
{
    for (const RE_stat_counter_info& info : counters) {
        if (info.id == id) {
            return {kind, id, in_base_units(info.unit)};
        }
    }
    throw "there is no such counter";
}

consteval Figure engine(RE_stat_global_id id)
{
    return counter(Figure::Kind::engine, re_stat_global_counters, id);
}

consteval Figure peer(RE_stat_peer_id id)
{
    return counter(Figure::Kind::peer, re_stat_peer_counters, id);
}

consteval Figure connections(RE_stat_conn_id id)
{
    return counter(Figure::Kind::connections, re_stat_conn_counters, id);
}

consteval Figure application(RE_stat_app_id id)
{
    return counter(Figure::Kind::application, re_stat_app_counters, id);
}

constexpr Figure active_connections{Figure::Kind::active_connections};
constexpr Figure outdated{Figure::Kind::outdated};
constexpr Figure connected{Figure::Kind::connected};
constexpr Figure engine_start_time{Figure::Kind::engine_start_time};
constexpr Figure bypass_servers{Figure::Kind::bypass_servers};
constexpr Figure bypass_servers_with_nacks{Figure::Kind::bypass_servers_with_nacks};

constexpr Term level(const Sum& part, Comparison comparison, double limit)
{
    return {.kind = Term::Kind::level, .part = part, .comparison = comparison, .limit = limit};
}

constexpr Term ratio(const Sum& part, const Sum& whole, Comparison comparison, double limit)
{
    return {.kind = Term::Kind::ratio, .part = part, .whole = whole, .comparison = comparison, .limit = limit};
}

constexpr Term rate(const Sum& part, Comparison comparison, double limit)
{
    return {.kind = Term::Kind::rate, .part = part, .comparison = comparison, .limit = limit};
}

constexpr Term grows(const Sum& part)
{
    return rate(part, Comparison::above, 0);
}

constexpr Term share(const Sum& part, const Sum& whole, double limit, double least_part, double least_whole)
{
    return {.kind = Term::Kind::share,
            .part = part,
            .whole = whole,
            .comparison = Comparison::above,
            .limit = limit,
            .least_part = least_part,
            .least_whole = least_whole};
}

constexpr Term age(const Figure& moment, Comparison comparison, double limit)
{
    return {.kind = Term::Kind::age, .part = moment, .comparison = comparison, .limit = limit};
}

consteval Term cache_state(Comparison comparison, RE_CACHE_INIT_STATE state)
{
    return level(engine(RE_STAT_GLOBAL_ID_CACHE_STATE), comparison, state);
}

// The share of encoded messages that bypassed redundancy elimination for a cause.
consteval Term bypassed(RE_stat_conn_id cause)
{
    return share(connections(cause), connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS), percent(5), 5, 20);
}

// The same for a cause that should never occur.
consteval Term ever_bypassed(RE_stat_conn_id cause)
{
    return share(connections(cause), connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS), 0, 1, 1);
}

constexpr Term cache_is_full = ratio(engine(RE_STAT_GLOBAL_ID_USED_CACHE_SIZE),
                                     engine(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE), Comparison::at_least, percent(95));

// The longest time that loading a cache should take.
constexpr double longest_initialization = 15 * minute;

constexpr Rule rules[] = {
    // ---- The engine and its cache.
    {.name = "no_engine",
     .scope = RuleScope::engine,
     .severity = Severity::critical,
     .term = {.kind = Term::Kind::engine_is_missing},
     .form = Form::flag,
     .hold = 60,
     .figure = "no engine is running",
     .meaning = "There are no statistics: the engine has stopped, is still starting, or may not be read.",
     .remedy = "Start the engine; the system log says why it stopped. If it runs, check KAV_STAT_SEGMENT, "
               "KAV_STAT_OWNER and the permission to read its shared memory."},
    {.name = "engine_restarted",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = age(engine_start_time, Comparison::below, 5 * minute),
     .form = Form::seconds,
     .figure = "time since the engine's start",
     .meaning = "The engine was started a moment ago; its counters began at 0, and connections were cut.",
     .remedy = "If nobody restarted it on purpose, read the system log for the reason."},
    {.name = "cache_not_usable",
     .scope = RuleScope::engine,
     .severity = Severity::critical,
     .term = cache_state(Comparison::not_equal, RE_CACHE_ACTIVE),
     .also = {cache_state(Comparison::not_equal, RE_CACHE_INIT_IN_PROGRESS),
              cache_state(Comparison::not_equal, RE_CACHE_TEMP_FAILED),
              cache_state(Comparison::not_equal, RE_CACHE_FAILED)},
     .form = Form::state,
     .hold = 60,
     .figure = "cache state",
     .meaning = "The engine is off or has no cache; traffic passes without redundancy elimination.",
     .remedy = "Look at the engine's configuration: exec_show_stats_kav config."},
    {.name = "cache_failed",
     .scope = RuleScope::engine,
     .severity = Severity::critical,
     .term = cache_state(Comparison::equal, RE_CACHE_FAILED),
     .form = Form::state,
     .figure = "cache state",
     .meaning = "The engine has given up its cache; traffic passes without redundancy elimination.",
     .remedy = "Save the statistics (exec_show_stats_kav save-file FILE), then look at the disk and restart the "
               "engine."},
    {.name = "cache_temporarily_failed",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = cache_state(Comparison::equal, RE_CACHE_TEMP_FAILED),
     .form = Form::state,
     .hold = 60,
     .figure = "cache state",
     .meaning = "The engine tries to get over disk trouble; traffic passes without redundancy elimination meanwhile.",
     .remedy = "Look at the disk: its health, its free space and the system log."},
    {.name = "cache_initializing_long",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = age(engine_start_time, Comparison::above, longest_initialization),
     .also = {cache_state(Comparison::equal, RE_CACHE_INIT_IN_PROGRESS)},
     .form = Form::seconds,
     .figure = "the cache is still initializing, time since the engine's start",
     .meaning = "The cache is still being loaded; traffic passes without redundancy elimination until it is done.",
     .remedy = "Look at the disk's speed. Loading takes minutes with a large disk, not longer."},
    {.name = "cache_too_small_for_encoding",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = age(engine(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE), Comparison::below, hour),
     .also = {cache_is_full},
     .form = Form::seconds,
     .hold = 300,
     .figure = "the cache is full, age of its oldest signatures",
     .meaning =
         "What was sent a short while ago is not recognised any more: the cache is too small for its traffic, or "
         "traffic without redundancy pushes the rest out.",
     .remedy =
         "Look for applications with much traffic and little saved (exec_show_stats_kav top-app) and except them, "
         "or give the cache more disk."},
    {.name = "cache_too_small_for_decoding",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = age(engine(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE), Comparison::below, hour),
     .also = {cache_is_full},
     .form = Form::seconds,
     .hold = 300,
     .figure = "the cache is full, age of its oldest data",
     .meaning =
         "What peers refer to is thrown away early: the cache is too small for its traffic, which leads to NACKs.",
     .remedy = "Compare the age with that of the peers' sigblocks, and give the cache more disk."},
    {.name = "index_table_full",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = grows(engine(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL)),
     .form = Form::per_second,
     .figure = "the index table was full",
     .meaning = "New data did not get into the index and cannot be found again.",
     .remedy = "The hash table is too small for the cache on disk: give it more memory."},
    {.name = "index_table_nearly_full",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term =
         ratio(Sum(engine(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE)) + engine(RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE),
               engine(RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY), Comparison::above, percent(98)),
     .form = Form::percent,
     .hold = 300,
     .figure = "entries of the index table in use",
     .meaning = "Soon new data will not get into the index and not be found again.",
     .remedy = "The hash table is too small for the cache on disk: give it more memory."},
    {.name = "cache_reads_slow",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(RE_STAT_GLOBAL_ID_AVG_READ_LATENCY), Comparison::above, milliseconds(10)),
     .also = {grows(engine(RE_STAT_GLOBAL_ID_NUM_READ))},
     .form = Form::seconds,
     .hold = 60,
     .figure = "average time of a read from the cache",
     .meaning = "The disk holds up traffic.",
     .remedy = "Look at what else uses the disk, and at its health; give the machine a faster disk or less traffic."},
    {.name = "disk_reads_slow",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY), Comparison::above, milliseconds(15)),
     .also = {grows(engine(RE_STAT_GLOBAL_ID_NUM_DISK_READ))},
     .form = Form::seconds,
     .hold = 60,
     .figure = "average time of a read from the disk itself",
     .meaning = "The disk is overloaded or failing.",
     .remedy = "Look at what else uses the disk, and at its health; replace a disk that reports errors."},

    // ---- Memory.
    {.name = "low_memory_errors",
     .scope = RuleScope::engine,
     .severity = Severity::critical,
     .term = grows(Sum(engine(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR)) + engine(RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR) +
                   engine(RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR)),
     .form = Form::per_second,
     .figure = "connections, decodings and allocations failed for lack of memory",
     .meaning = "The engine is out of memory; connections fail or pass without redundancy elimination.",
     .remedy = "Give the engine more memory or fewer connections (Max concurrent connections)."},
    {.name = "plz_turned_off",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = grows(engine(RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF)),
     .form = Form::per_second,
     .figure = "persistent LZ was turned off for lack of memory",
     .meaning = "The engine saves memory at the cost of compression.",
     .remedy = "Give the engine more memory or fewer connections (Max concurrent connections)."},
    {.name = "memory_reserve_low",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE), Comparison::below, 64 * megabyte),
     // 0 without any error means that the engine does not measure it.
     .also = {level(Sum(engine(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE)) + engine(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR) +
                        engine(RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR) + engine(RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR),
                    Comparison::above, 0)},
     .form = Form::bytes,
     .figure = "least memory that was ever left in reserve",
     .meaning = "The engine came close to the end of its memory since its start.",
     .remedy = "Give the engine more memory or fewer connections, before allocations fail. Resetting the statistics "
               "begins a new measurement."},

    // ---- Speed.
    {.name = "encoding_slow",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = share(connections(RE_STAT_CONN_ID_TOT_ENCODE_SPEED), connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS),
                   milliseconds(10), 0, 20),
     .form = Form::seconds,
     .figure = "average time to encode a message",
     .meaning = "The engine is overloaded or its disk is slow, and holds traffic up.",
     .remedy = "Compare with the disk latency of exec_show_stats_kav global-info: close to it, look at the disk; far "
               "above it, at the machine's processors and at what else they do."},
    {.name = "decoding_slow",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = share(connections(RE_STAT_CONN_ID_TOT_DECODE_SPEED), connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS),
                   milliseconds(10), 0, 20),
     .form = Form::seconds,
     .figure = "average time to decode a message",
     .meaning = "The engine is overloaded or its disk is slow, and holds traffic up.",
     .remedy = "Compare with the disk latency of exec_show_stats_kav global-info: close to it, look at the disk; far "
               "above it, at the machine's processors and at what else they do."},

    // ---- Messages that go around redundancy elimination, by the cause on this side.
    {.name = "bypass_low_memory",
     .scope = RuleScope::engine,
     .severity = Severity::critical,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM),
     .form = Form::percent,
     .figure = "messages bypassed encoding for lack of memory",
     .meaning = "The engine is short of memory and saves less than it could.",
     .remedy = "Give the engine more memory or fewer connections (Max concurrent connections)."},
    {.name = "bypass_disk_error",
     .scope = RuleScope::engine,
     .severity = Severity::critical,
     .term = ever_bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_IO_ERR),
     .form = Form::percent,
     .figure = "messages bypassed encoding after errors of the local disk",
     .meaning = "The disk here is failing.",
     .remedy = "Replace the disk; the system log has its errors."},
    {.name = "bypass_disk_overloaded",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_OVERLD),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the local disk is overloaded",
     .meaning = "The disk here cannot keep up.",
     .remedy = "Look at what else uses the disk; give the machine a faster disk or less traffic."},
    {.name = "bypass_cache_not_ready",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_READY),
     .also = {cache_state(Comparison::equal, RE_CACHE_ACTIVE)},
     .form = Form::percent,
     .hold = 60,
     .figure = "messages bypassed encoding because the cache is being loaded",
     .meaning = "The cache counts as usable, and yet messages go around it.",
     .remedy = "Look at the disk. If it goes on, save the statistics (exec_show_stats_kav save-file FILE) and restart "
               "the engine."},

    // ---- The same by peer, for causes that lie with it or its traffic.
    {.name = "bypass_low_compression",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = share(connections(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP),
                   connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS), percent(90), 0, 100),
     .form = Form::percent,
     .hold = 300,
     .figure = "messages bypassed encoding because they compress little",
     .meaning = "Servers with most of the traffic are in the auto-bypass table: it is encrypted or compressed already.",
     .remedy =
         "See which they are (exec_show_stats_kav kav-bypass detail). Let their traffic be compressible if you can "
         "(no compression of their own), or except it by configuration."},
    {.name = "bypass_out_of_sync",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_OUT_OF_SYNC),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the caches are out of sync",
     .meaning = "The caches of both ends differ.",
     .remedy = "It heals by itself. If it goes on, compare both ends' cache ages and creation times "
               "(exec_show_stats_kav peer detail)."},
    {.name = "bypass_peer_not_compatible",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the peer's cache is not compatible",
     .meaning = "The peer runs a version or cache size that does not match.",
     .remedy = "Make version and cache size of both ends match."},
    {.name = "bypass_ack_queue",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_ACKQ_CAP_EXCEED),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the ack queue is over its cap",
     .meaning = "The peer does not acknowledge as fast as data is sent.",
     .remedy = "Look at the peer's round-trip time (exec_show_stats_kav peer detail), its load and its disk."},
    {.name = "bypass_peer_waits",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REMOTE_WAITQ),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the peer waits after a NACK",
     .meaning = "The peer waits for messages to be sent again.",
     .remedy = "Look for the reason of the NACKs: exec_show_stats_kav peer nack."},
    {.name = "bypass_peer_disk_overloaded",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_OVERLD),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the peer's disk is overloaded",
     .meaning = "The peer's disk cannot keep up.",
     .remedy = "Give the peer a faster disk or less traffic."},
    {.name = "bypass_peer_disk_error",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = ever_bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_IO_ERR),
     .form = Form::percent,
     .figure = "messages bypassed encoding after errors of the peer's disk",
     .meaning = "The peer's disk is failing.",
     .remedy = "Replace the peer's disk."},
    {.name = "bypass_peer_cache_not_ready",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_CACHE_NOT_READY),
     .form = Form::percent,
     .figure = "messages bypassed encoding because the peer's cache is being loaded",
     .meaning = "The peer has started, or has lost its cache.",
     .remedy = "It ends some minutes after the peer's start. If it goes on, look at the peer's cache status and disk."},
    {.name = "bypass_peer_info_incorrect",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = bypassed(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_INFO_INCORRECT),
     .form = Form::percent,
     .figure = "messages bypassed encoding because what is known of the peer is incorrect",
     .meaning = "The peer has changed since its data was stored here.",
     .remedy = "It heals at the next contact. If it goes on, check that no two appliances share an identity."},

    // ---- NACKs.
    {.name = "nacks_frequent",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = share(peer(RE_STAT_PEER_ID_NUM_NACKS),
                   Sum(connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS)) + peer(RE_STAT_PEER_ID_NUM_NACKS), percent(0.1), 2,
                   20),
     .form = Form::percent,
     .figure = "messages nacked",
     .meaning = "Messages of the peer could not be decoded here and are asked for again; each costs a round trip.",
     .remedy = "Look at the reasons (exec_show_stats_kav peer nack). Many chunk-misses: the cache here is smaller than "
               "the peer believes, or it lost data; compare both ends' cache ages."},
    {.name = "retransmissions_frequent",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = share(peer(RE_STAT_PEER_ID_NUM_RTXS), connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS), percent(0.1), 2, 20),
     .form = Form::percent,
     .figure = "messages sent again",
     .meaning = "The peer could not decode messages and asks for them again; each costs a round trip.",
     .remedy = "Look at the reasons (exec_show_stats_kav peer nack). Many chunk-misses: the peer's cache is smaller "
               "than believed here, or it lost data; compare both ends' cache ages."},
    {.name = "wait_queue_stays",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(RE_STAT_GLOBAL_ID_WAIT_Q_SIZE), Comparison::above, 0),
     .form = Form::bytes,
     .hold = 60,
     .figure = "data in the wait queue",
     .meaning = "Messages wait for one that has to be sent again, and hold their connections up.",
     .remedy = "Look for the peer with NACKs (exec_show_stats_kav nack), and at the line to it."},

    // ---- Peers.
    {.name = "peers_degraded_signatures",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK), Comparison::above, 0),
     .form = Form::count,
     .hold = 60,
     .figure = "peers degraded due to writing sigblocks",
     .meaning = "Signatures of these peers are not written to the cache because others take up all blocks for writing.",
     .remedy = "Too many peers are busy at a time: spread their traffic, or use a larger machine."},
    {.name = "peers_degraded_data",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT), Comparison::above, 0),
     .form = Form::count,
     .hold = 60,
     .figure = "peers degraded due to writing data units",
     .meaning = "Data of these peers is not written to the cache because others take up all blocks for writing.",
     .remedy = "Too many peers are busy at a time: spread their traffic, or use a larger machine."},
    {.name = "peer_degraded_signatures",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = level(peer(RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK), Comparison::equal, 0),
     .also = {level(engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK), Comparison::above, 0),
              level(engine(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK), Comparison::above, 0),
              grows(connections(RE_STAT_CONN_ID_ENCODE_IN_BYTES))},
     .form = Form::flag,
     .hold = 60,
     .figure =
         "has traffic to encode and no sigblock to write to while others have and the engine counts degraded peers",
     .meaning = "The signatures of its traffic are probably not written to the cache.",
     .remedy = "Too many peers are busy at a time: spread their traffic, or use a larger machine."},
    {.name = "peer_degraded_data",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = level(peer(RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT), Comparison::equal, 0),
     .also = {level(engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT), Comparison::above, 0),
              level(engine(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT), Comparison::above, 0),
              grows(connections(RE_STAT_CONN_ID_DECODE_OUT_BYTES))},
     .form = Form::flag,
     .hold = 60,
     .figure =
         "has traffic to decode and no data unit to write to while others have and the engine counts degraded peers",
     .meaning = "The data of its traffic is probably not written to the cache.",
     .remedy = "Too many peers are busy at a time: spread their traffic, or use a larger machine."},
    {.name = "peer_disconnected",
     .scope = RuleScope::peer,
     .severity = Severity::critical,
     .term = level(connected, Comparison::equal, 0),
     .also = {level(active_connections, Comparison::above, 0)},
     .form = Form::flag,
     .hold = 60,
     .figure = "is disconnected although connections are open",
     .meaning = "Connections with the peer are open, but none of them reaches it any more.",
     .remedy = "Check that the peer runs and can be reached over the WAN."},
    {.name = "peer_not_acknowledging",
     .scope = RuleScope::peer,
     .severity = Severity::critical,
     .term = level(peer(RE_STAT_PEER_ID_ACK_Q_SIZE), Comparison::above, 4096),
     .also = {level(active_connections, Comparison::above, 0),
              rate(connections(SO_STAT_RECV_ACK_FRAME_NUM), Comparison::equal, 0)},
     .form = Form::bytes,
     .hold = 60,
     .figure = "no acknowledgements although connections are open, data that waits for them",
     .meaning = "The peer does not answer: it has stopped, or the line to it is down.",
     .remedy = "Check that the peer runs and can be reached over the WAN, and look at its disk."},
    {.name = "peer_out_of_sync",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = grows(peer(RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC)),
     .form = Form::per_second,
     .figure = "the caches were found out of sync",
     .meaning = "The caches of both ends differ, and traffic is sent in full until they agree.",
     .remedy = "Once is no harm. If it goes on, compare both ends' cache ages and creation times "
               "(exec_show_stats_kav peer detail)."},
    {.name = "peer_outdated",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = level(outdated, Comparison::equal, 1),
     .also = {level(active_connections, Comparison::above, 0)},
     .form = Form::flag,
     .hold = 300,
     .figure = "is outdated although connections are open",
     .meaning = "What is stored here about the peer is known to be out of date.",
     .remedy = "It should heal at the next contact. If it stays, check the peer's version and that its management "
               "connection works."},
    {.name = "peer_low_on_buffers",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = level(peer(RE_STAT_PEER_ID_REMOTE_BUF_LOW), Comparison::not_equal, 0),
     .form = Form::flag,
     .hold = 60,
     .figure = "is low on buffers",
     .meaning = "The peer is short of buffers and slows its connections down.",
     .remedy = "Give the peer more memory or less traffic."},
    {.name = "peer_slow",
     .scope = RuleScope::peer,
     .severity = Severity::warning,
     .term = level(peer(RE_STAT_PEER_ID_ACK_Q_AVG_RTT), Comparison::above, milliseconds(500)),
     .also = {level(active_connections, Comparison::above, 0)},
     .form = Form::seconds,
     .hold = 60,
     .figure = "average time until an acknowledgement",
     .meaning = "It should be the WAN's round trip and some milliseconds: the peer is busy or the line is full.",
     .remedy = "Compare with a ping. Much more than that: look at the peer's load and disk. On a line that is slow by "
               "nature, such as a satellite's, raise the threshold."},
    {.name = "ack_queue_stops_connections",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(engine(SO_STAT_ACK_Q_CURR_STOP), Comparison::above, 0),
     .form = Form::count,
     .hold = 60,
     .figure = "connections stopped because the ack queue is full",
     .meaning = "These connections send nothing until peers acknowledge what they have.",
     .remedy = "Look for the peer with a large ack queue or a long round-trip time (exec_show_stats_kav peer detail)."},

    // ---- What is saved.
    {.name = "savings_dropped",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = {.kind = Term::Kind::savings,
              .part = Sum(connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES)) + connections(RE_STAT_CONN_ID_DECODE_IN_BYTES),
              .whole =
                  Sum(connections(RE_STAT_CONN_ID_ENCODE_IN_BYTES)) + connections(RE_STAT_CONN_ID_DECODE_OUT_BYTES),
              .comparison = Comparison::below,
              .limit = percent(25),
              .least_part = percent(20),
              .least_whole = megabyte,
              .least_seconds = minute}, // see Term
     .form = Form::percent,
     .hold = 300,
     .figure = "savings, as a share of what they were before",
     .meaning = "Far less is saved than before: traffic has changed (encrypted or compressed, say), or the cache has.",
     .remedy = "Look at the causes of bypass (exec_show_stats_kav global-detail) and for new applications with little "
               "saved (exec_show_stats_kav top-app)."},
    {.name = "bypass_servers_after_nacks",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(bypass_servers_with_nacks, Comparison::above, 0),
     .form = Form::count,
     .figure = "servers bypassed because of repeated NACKs",
     .meaning = "Traffic of these servers goes around the engine because peers could not decode it too often.",
     .remedy = "See which they are (exec_show_stats_kav kav-bypass detail), and why in the NACK log "
               "(exec_show_stats_kav nack)."},
    {.name = "bypass_table_nearly_full",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = level(bypass_servers, Comparison::above, RE_bypass_capacity* percent(90)),
     .form = Form::count,
     .hold = 60,
     .figure = "servers in the auto-bypass table",
     .meaning = "Soon servers whose traffic does not compress will not be passed by, and cost time for nothing.",
     .remedy =
         "See which they are (exec_show_stats_kav kav-bypass detail), and except their traffic by configuration."},
    {.name = "application_table_full",
     .scope = RuleScope::engine,
     .severity = Severity::warning,
     .term = grows(engine(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT)),
     .form = Form::per_second,
     .figure = "updates of application counters failed",
     .meaning = "There are more applications than places; the report top-app leaves traffic out.",
     .remedy = "Restart the engine at a quiet time to begin anew, and join ports to applications by policy."},
    {.name = "application_grows",
     .scope = RuleScope::application,
     .severity = Severity::warning,
     .term = share(application(RE_STAT_APP_ID_ENCODE_OUT_KBYTES), application(RE_STAT_APP_ID_ENCODE_IN_KBYTES),
                   percent(110), 0, megabyte),
     .form = Form::percent,
     .figure = "size after encoding",
     .meaning = "The engine makes the application's traffic larger.",
     .remedy = "Except the application from redundancy elimination: it is encrypted or compressed, or its messages are "
               "very small."},

    // ---- Connections.
    {.name = "connection_stuck",
     .scope = RuleScope::connection,
     .severity = Severity::warning,
     .term = {.kind = Term::Kind::silence, .comparison = Comparison::at_least, .limit = 2},
     .form = Form::seconds,
     .figure = "open with data pending, time without any movement",
     .meaning = "The connection is open, data waits to be written or decoded, and nothing moves.",
     .remedy = "See on which side it waits (exec_show_stats_kav conn id N detail), and look at the host on that side "
               "first."},
};

} // namespace

bool Term::needs_two_moments() const
{
    return kind == Kind::rate || kind == Kind::share || kind == Kind::savings || kind == Kind::silence;
}

bool Rule::needs_two_moments() const
{
    return term.needs_two_moments() || std::any_of(also.begin(), also.end(), [](const std::optional<Term>& other) {
               return other && other->needs_two_moments();
           });
}

std::span<const Rule> all_rules()
{
    return rules;
}

const Rule* find_rule(std::string_view name)
{
    const auto* const found =
        std::find_if(std::begin(rules), std::end(rules), [&](const Rule& rule) { return rule.name == name; });
    return found != std::end(rules) ? found : nullptr;
}

const char* word_of(RuleScope scope)
{
    switch (scope) {
    case RuleScope::engine:
        return "engine";
    case RuleScope::peer:
        return "peer";
    case RuleScope::application:
        return "application";
    case RuleScope::connection:
        break;
    }
    return "connection";
}

const char* word_of(Severity severity)
{
    return severity == Severity::critical ? "critical" : "warning";
}

RuleSet::RuleSet()
{
    for (const Rule& rule : rules) {
        settings.push_back({&rule, rule.term.limit, rule.hold, rule.severity, true});
    }
}

namespace {

std::string rounded(double value, int decimals)
{
    char text[400]; // enough for the largest number
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string shown_seconds(double seconds)
{
    if (seconds < 1) {
        return rounded(seconds * 1000, 1) + " ms";
    }
    if (seconds < 2 * minute) {
        std::string text = rounded(seconds, 1);
        return (text.ends_with(".0") ? text.substr(0, text.size() - 2) : text) + " s";
    }
    constexpr double day = 24 * hour;
    const bool b_days = seconds >= day;
    const bool b_hours = seconds >= hour;
    const double large = b_days ? day : b_hours ? hour : minute;
    const double small = b_days ? hour : b_hours ? minute : 1;
    std::string text = rounded(std::floor(seconds / large), 0) + (b_days ? "d" : b_hours ? "h" : "m");
    if (const double rest = std::floor(std::fmod(seconds, large) / small); rest > 0) {
        text += rounded(rest, 0) + (b_days ? "h" : b_hours ? "m" : "s");
    }
    return text;
}

} // namespace

std::string shown_value(Form form, double value)
{
    switch (form) {
    case Form::state:
        return word_for(cache_state_words, value >= 0 && value < 100 ? static_cast<int>(value) : -1);
    case Form::flag:
        break;
    case Form::count:
        return rounded(value, 0);
    case Form::percent:
        return value == 0 ? "0%" : rounded(value * 100, 2) + "%";
    case Form::seconds:
        return shown_seconds(value);
    case Form::bytes:
        return size_text(value);
    case Form::per_second:
        return value == 0 ? "0/s" : rounded(value, 2) + "/s";
    }
    return "";
}

std::string limit_text(const Rule& rule, double threshold)
{
    if (!rule.has_threshold()) {
        return "";
    }
    const char* const words = rule.term.comparison == Comparison::below      ? " (should be at least "
                              : rule.term.comparison == Comparison::at_least ? " (should be less than "
                                                                             : " (should be at most ";
    return words + shown_value(rule.form, threshold) + ")";
}

} // namespace kavstat
