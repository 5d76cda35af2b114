// Records and logs of the top-application report, made by hand or at random.
#pragma once

#include "RE_statistics.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <utility>
#include <vector>

// A record of a server port with some of its counters set.
RE_stat_app_struct port_record(std::uint16_t port, std::initializer_list<std::pair<RE_stat_app_id, std::uint32_t>> set);

// A record of a handle, of port 0, with so much traffic (ENCODE_IN).
RE_stat_app_struct handle_record(unsigned handle, std::uint32_t traffic);

// An identity of zeros but for its first four bytes, which are `hash`, low byte first: its 32-bit hash is `hash`.
RE_kav_peer_id peer_of_hash(std::uint32_t hash);

RE_stat_policy_engine_header names_of(const std::string& classifier, const std::string& application);

// A log in the BELVANO layout grows by sections.
struct named_handle
{
    std::uint32_t handle;
    RE_stat_policy_engine_header names;
};
std::string log_section(const std::vector<named_handle>& names, const std::vector<RE_stat_app_struct>& records);
// Records alone, the QUADA layout.
std::string log_array(const std::vector<RE_stat_app_struct>& records);
// A 32-bit word as logs hold it.
std::string log_word(std::uint32_t word);

// A number from 0 to limit-1.
unsigned drawn(std::mt19937& random, unsigned limit);

// Records with every bit drawn, but of few ports, handles and peers, so that they meet.
RE_stat_app_struct random_record(std::mt19937& random);

// What `run` prints to the stream that it is handed.
std::string printed(const std::function<void(FILE*)>& run);

// Sets the names that the report knows, by handle from 0 on, for the length of a scope.
class names_in_place
{
public:
    explicit names_in_place(const std::vector<RE_stat_policy_engine_header>& names);
    ~names_in_place();
    names_in_place(const names_in_place&) = delete;
    names_in_place& operator=(const names_in_place&) = delete;
};
