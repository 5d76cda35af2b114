// Records and logs of the top-application report, with given or random content.
#pragma once

#include "RE_statistics.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <utility>
#include <vector>

// Returns a record of a server port with the given counters set.
RE_stat_app_struct port_record(std::uint16_t port, std::initializer_list<std::pair<RE_stat_app_id, std::uint32_t>> set);

// Returns a record of a handle, with port 0 and this much traffic (ENCODE_IN).
RE_stat_app_struct handle_record(unsigned handle, std::uint32_t traffic);

// Returns an identity whose first four bytes are `hash` in little-endian order. All others are 0, so its 32-bit hash is
// `hash`.
RE_kav_peer_id peer_of_hash(std::uint32_t hash);

RE_stat_policy_engine_header names_of(const std::string& classifier, const std::string& application);

// A log in the BELVANO layout grows by sections.
struct named_handle
{
    std::uint32_t handle;
    RE_stat_policy_engine_header names;
};
std::string log_section(const std::vector<named_handle>& names, const std::vector<RE_stat_app_struct>& records);
// Returns a log in the QUADA layout, which contains only records.
std::string log_array(const std::vector<RE_stat_app_struct>& records);
// Returns a 32-bit word in the byte order of logs.
std::string log_word(std::uint32_t word);

// Returns a random number from 0 to limit-1.
unsigned drawn(std::mt19937& random, unsigned limit);

// Returns a record of random bits, but with few ports, handles and peers, so that records have them in common.
RE_stat_app_struct random_record(std::mt19937& random);

// Returns what `run` prints to the stream that it receives.
std::string printed(const std::function<void(FILE*)>& run);

// Sets the names for handles 0 and up for the length of a scope.
class names_in_place
{
public:
    explicit names_in_place(const std::vector<RE_stat_policy_engine_header>& names);
    ~names_in_place();
    names_in_place(const names_in_place&) = delete;
    names_in_place& operator=(const names_in_place&) = delete;
};
