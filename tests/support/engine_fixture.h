// What the tests of the core library share: an engine with a segment of its own, records made from one number, and a
// few ways to look at processes.
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

// Every field of these records follows from `number`, so that fields of different records can be told apart.
RE_stat_peer_header peer_header_of(std::uint32_t number);
RE_stat_conn_header conn_header_of(std::uint32_t number);
SO_stat_conn_header so_header_of(std::uint32_t number);
RE_stat_nack_header nack_of(std::uint32_t number);
RE_stat_app_header app_key_of(std::uint32_t number);
RE_stat_config_param config_of(std::uint32_t number);

// What a record holds; the two bytes behind the peer header's last field are nobody's.
template <typename Record>
constexpr std::size_t size_of_fields = sizeof(Record);
template <>
inline constexpr std::size_t size_of_fields<RE_stat_peer_header> = sizeof(RE_stat_peer_header) - 2;

// Whether two records hold the same bytes.
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

// Runs `work` in a child process and returns its result (0 to 255), or -1 when the child was killed, by a signal or
// because it took longer than half a minute.
int result_in_child(const std::function<int()>& work);
// The same as user "nobody". Call only when may_change_user().
int result_as_nobody(const std::function<int()>& work);
bool may_change_user();

constexpr unsigned int nobody = 65534;

// Sanitizers need time and address space of their own.
#ifdef KAV_SANITIZED
constexpr bool b_under_a_sanitizer = true;
#else
constexpr bool b_under_a_sanitizer = false;
#endif

std::unique_ptr<RE_stat_reader> live_reader();
std::unique_ptr<RE_stat_reader> file_reader(const std::string& path);

// Every read of both readers gives the same, over all slots and ids and a few beyond either end.
void expect_same_statistics(RE_stat_reader& left, RE_stat_reader& right);

std::vector<RE_stat_nack_header> all_nacks(RE_stat_reader& reader);

// Names a segment for one test and leaves none behind.
class segment_test : public ::testing::Test
{
protected:
    segment_test();
    ~segment_test() override;

    const std::string& segment_name() const { return m_name; }
    std::string segment_path() const { return own_segment_path(m_name); }
    // A writable mapping of the segment that is there, to spoil it; unmapped with the fixture.
    unsigned char* map_segment();

private:
    std::string m_name;
    std::vector<std::pair<void*, std::size_t>> m_mappings;
};

// An engine that runs, with room for a few of everything.
class engine_test : public segment_test
{
protected:
    static constexpr RE_stat_limits few = {8, 16, 8, 8};

    // Makes the engine, published, and opens `reader` on it.
    void start(const RE_stat_limits& limits = few);
    // Gives the engine some of everything.
    void fill();
    // Saves through `reader` and returns the file's path.
    std::string save(const std::string& name = "saved");
    RE_image_header& header() { return *reinterpret_cast<RE_image_header*>(map_segment()); }

    scratch_folder folder;
    RE_stat_writer engine;
    std::unique_ptr<RE_stat_reader> reader;
};
