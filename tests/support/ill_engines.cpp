#include "support/ill_engines.h"

#include <sstream>

const std::vector<ill_engine>& ill_engines()
{
    static const std::vector<ill_engine> list = {
        {"", {}},
        {"low-memory,peer-outdated,peer-low-buffer,peer-disconnected,peer-degraded-sigblock,peer-degraded-dataunit,"
         "wait-queue,bypass-nacks,bypass-table-full,app-table-full",
         {"low_memory_errors", "plz_turned_off", "memory_reserve_low", "peer_outdated", "peer_low_on_buffers",
          "peer_disconnected", "peers_degraded_signatures", "peers_degraded_data", "peer_degraded_signatures",
          "peer_degraded_data", "wait_queue_stays", "bypass_servers_after_nacks", "bypass_table_nearly_full",
          "application_table_full"},
         {},
         {},
         {"--rate", "2", "--peers", "2"}},
        // The data of the connection is missing in the peer's cache.
        {"conn-stuck", {"connection_stuck"}, {"nacks_frequent", "retransmissions_frequent"}},
        {"cache-unusable", {"cache_not_usable"}, {"bypass_peer_cache_not_ready", "nacks_frequent"}},
        {"cache-failed", {"cache_temporarily_failed"}, {"bypass_peer_cache_not_ready", "nacks_frequent"}},
        {"cache-lost", {"cache_failed"}, {"bypass_peer_cache_not_ready", "nacks_frequent"}},
        {"cache-initialising", {"cache_initializing_long"}, {"bypass_peer_cache_not_ready", "nacks_frequent"}},
        {"index-full",
         {"index_table_full", "index_table_nearly_full"},
         {"savings_dropped", "nacks_frequent", "retransmissions_frequent"}},
        {"cache-small",
         {"cache_too_small_for_encoding", "cache_too_small_for_decoding"},
         {"savings_dropped", "nacks_frequent", "retransmissions_frequent"}},
        {"slow-disk", {"cache_reads_slow", "disk_reads_slow"}},
        {"slow-encode", {"encoding_slow"}},
        {"slow-decode", {"decoding_slow"}},
        {"bypass",
         {"bypass_low_memory", "bypass_disk_error", "bypass_disk_overloaded", "bypass_cache_not_ready",
          "bypass_out_of_sync", "bypass_peer_not_compatible", "bypass_ack_queue", "bypass_peer_waits",
          "bypass_peer_disk_overloaded", "bypass_peer_disk_error", "bypass_peer_cache_not_ready",
          "bypass_peer_info_incorrect"},
         {"savings_dropped"}},
        // Little traffic that is soon saved and never bypassed.
        {"incompressible",
         {},
         {"application_grows", "cache_too_small_for_encoding", "cache_too_small_for_decoding"},
         {"savings_dropped"},
         {"--rate", "2", "--peers", "1", "--bypass-threshold-mb", "1024", "/usr/share/common-licenses"}},
        {"tiny-messages",
         {"application_grows"},
         {"savings_dropped", "cache_too_small_for_encoding", "cache_too_small_for_decoding"},
         {},
         {"--rate", "1", "--peers", "1", "--bypass-threshold-mb", "1024"}},
        {"nacks", {"nacks_frequent"}},
        {"retransmissions", {"retransmissions_frequent"}},
        {"peer-out-of-sync", {"peer_out_of_sync", "retransmissions_frequent", "bypass_peer_cache_not_ready"}},
        {"ack-queue", {"ack_queue_stops_connections", "peer_not_acknowledging"}},
        // Nearly all messages are bypassed, so for some seconds none may be acknowledged.
        {"auto-bypass", {"bypass_low_compression"}, {"peer_not_acknowledging"}},
        {"peer-far", {"peer_slow"}},
    };
    return list;
}

std::vector<std::string> arguments_of(const ill_engine& engine)
{
    std::vector<std::string> arguments = {"--bypass-retry", "1"};
    std::istringstream names(engine.illnesses);
    for (std::string name; std::getline(names, name, ',');) {
        arguments.insert(arguments.end(), {"--ill", name + "@signal"});
    }
    arguments.insert(arguments.end(), engine.arguments.begin(), engine.arguments.end());
    return arguments;
}
