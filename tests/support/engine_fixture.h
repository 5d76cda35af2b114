// Shared by the tests of the core library: an engine with its own segment, records made from one number, and helpers
// that inspect processes.
#pragma once

#include "RE_stat_image.h"
#include "RE_stat_writer.h"
#include "RE_statistics.h"
#include "support/files.h"
#include "support/own_segment.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Every field of these records is derived from `number`, so that fields of different records can be told apart.
RE_stat_peer_header peer_header_of(std::uint32_t number);
RE_stat_conn_header conn_header_of(std::uint32_t number);
SO_stat_conn_header so_header_of(std::uint32_t number);
RE_stat_nack_header nack_of(std::uint32_t number);
RE_stat_app_header app_key_of(std::uint32_t number);
RE_stat_config_param config_of(std::uint32_t number);

// The size of a record's fields. The peer header ends with two bytes of padding.
template <typename Record>
constexpr std::size_t size_of_fields = sizeof(Record);
template <>
inline constexpr std::size_t size_of_fields<RE_stat_peer_header> = sizeof(RE_stat_peer_header) - 2;

// Whether two records contain the same bytes.
template <typename Record>
::testing::AssertionResult same_record(const Record& left, const Record& right)
{
    const auto* const a = reinterpret_cast<const unsigned char*>(&left);
    const auto* const b = reinterpret_cast<const unsigned char*>(&right);
    for (std::size_t at = 0; at < size_of_fields<Record>; ++at) {
        if (a[at] != b[at]) {
            return ::testing::AssertionFailure() << "byte " << at << " differs: " << int{a[at]} << ", " << int{b[at]};
        }
    }
    return ::testing::AssertionSuccess();
}

// Runs `work` in a child process and returns its result (0 to 255). Returns -1 when the child was killed by a signal or
// because it ran longer than half a minute.
int result_in_child(const std::function<int()>& work);
// Like result_in_child(), but as user "nobody". Call it only when may_change_user() is true.
int result_as_nobody(const std::function<int()>& work);
bool may_change_user();

constexpr unsigned int nobody = 65534;

// Sanitizers need additional time and address space.
#ifdef KAV_SANITIZED
constexpr bool b_under_a_sanitizer = true;
#else
constexpr bool b_under_a_sanitizer = false;
#endif

std::unique_ptr<RE_stat_reader> live_reader();
std::unique_ptr<RE_stat_reader> file_reader(const std::string& path);

// Expects that every read gives the same with both readers, for all slots and ids and a few beyond both ends.
void expect_same_statistics(RE_stat_reader& left, RE_stat_reader& right);

std::vector<RE_stat_nack_header> all_nacks(RE_stat_reader& reader);

// Gives each test its own segment name and removes the segment afterwards.
class segment_test : public ::testing::Test
{
protected:
    segment_test();
    ~segment_test() override;

    const std::string& segment_name() const { return m_name; }
    std::string segment_path() const { return own_segment_path(m_name); }
    // Maps the existing segment writable, so that a test can spoil it. The fixture unmaps it.
    unsigned char* map_segment();

private:
    std::string m_name;
    std::vector<std::pair<void*, std::size_t>> m_mappings;
};

// A running engine with a few slots of each kind.
class engine_test : public segment_test
{
protected:
    static constexpr RE_stat_limits few = {8, 16, 8, 8};

    // Creates and publishes the engine and opens `reader` on it.
    void start(const RE_stat_limits& limits = few);
    // Adds a few peers, connections, applications and other records.
    void fill();
    // Saves through `reader` and returns the path of the file.
    std::string save(const std::string& name = "saved");
    RE_image_header& header() { return *reinterpret_cast<RE_image_header*>(map_segment()); }

    scratch_folder folder;
    RE_stat_writer engine;
    std::unique_ptr<RE_stat_reader> reader;
};
