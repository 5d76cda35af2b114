// Zone files, held against the C library's reading of the same files.
#include "RE_time_zone.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;

constexpr std::size_t header_size = 44;

bytes bytes_of(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The same bytes on the heap at their exact size, so that a look beyond them is found.
std::optional<int> offset_in(const bytes& file, std::int64_t moment)
{
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[file.size()]);
    std::copy(file.begin(), file.end(), exact.get());
    return RE_time_zone({exact.get(), file.size()}).offset_at(moment);
}

// Zone files put together by hand.
class zone_file
{
public:
    struct type
    {
        int offset;
        bool b_daylight_saving;
    };

    std::vector<std::pair<std::int64_t, unsigned char>> transitions;
    std::vector<type> types = {{0, false}};
    std::string footer = "UTC0";
    char version = '2';
    unsigned int leaps = 0;

    bytes make() const
    {
        bytes file;
        append_block(file, 4);
        append_block(file, 8);
        file.push_back('\n');
        file.insert(file.end(), footer.begin(), footer.end());
        file.push_back('\n');
        return file;
    }

private:
    static void append(bytes& file, std::uint64_t number, unsigned int size)
    {
        for (unsigned int at = size; at > 0; --at) {
            file.push_back(static_cast<unsigned char>(number >> (8 * (at - 1))));
        }
    }

    void append_block(bytes& file, unsigned int time_size) const
    {
        const std::string magic = "TZif";
        file.insert(file.end(), magic.begin(), magic.end());
        file.push_back(static_cast<unsigned char>(version));
        file.insert(file.end(), 15, 0);
        for (const std::size_t count :
             {std::size_t{0}, std::size_t{0}, std::size_t{leaps}, transitions.size(), types.size(), std::size_t{4}}) {
            append(file, count, 4);
        }
        for (const auto& transition : transitions) {
            append(file, static_cast<std::uint64_t>(transition.first), time_size);
        }
        for (const auto& transition : transitions) {
            file.push_back(transition.second);
        }
        for (const type& each : types) {
            append(file, static_cast<std::uint32_t>(each.offset), 4);
            file.push_back(each.b_daylight_saving ? 1 : 0);
            file.push_back(0);
        }
        file.insert(file.end(), {'a', 'b', 'c', 0});
        file.insert(file.end(), std::size_t{leaps} * (time_size + 4), 0);
    }
};

zone_file two_changes()
{
    zone_file zone;
    zone.types = {{-17762, false}, {3600, false}, {7200, true}};
    zone.transitions = {{-1000, 1}, {2000, 2}, {3000, 1}};
    zone.footer = "ABC-1";
    return zone;
}

class time_zone_of_the_machine : public testing::Test
{
protected:
    ~time_zone_of_the_machine() override
    {
        unsetenv("TZ");
        tzset();
    }
};

} // namespace

TEST(time_zone, without_changes_has_one_offset)
{
    zone_file zone;
    zone.types = {{-12600, false}};
    for (const std::int64_t moment : {std::int64_t{0}, std::int64_t{INT_MIN}, std::int64_t{INT_MAX}}) {
        EXPECT_EQ(offset_in(zone.make(), moment), -12600);
    }
}

TEST(time_zone, changes_at_the_second_of_a_transition)
{
    const bytes file = two_changes().make();
    EXPECT_EQ(offset_in(file, -1001), -17762);
    EXPECT_EQ(offset_in(file, -1000), 3600);
    EXPECT_EQ(offset_in(file, 1999), 3600);
    EXPECT_EQ(offset_in(file, 2000), 7200);
    EXPECT_EQ(offset_in(file, 2999), 7200);
    EXPECT_EQ(offset_in(file, 3000), 3600);
    EXPECT_EQ(offset_in(file, INT_MAX), 3600);
}

TEST(time_zone, before_all_transitions_has_the_first_offset_without_daylight_saving)
{
    zone_file zone = two_changes();
    zone.types = {{7200, true}, {-17762, false}, {3600, false}};
    EXPECT_EQ(offset_in(zone.make(), INT_MIN), -17762);
    zone.types = {{7200, true}, {3600, true}, {10800, true}};
    EXPECT_EQ(offset_in(zone.make(), INT_MIN), 7200);
}

TEST(time_zone, whose_clocks_go_on_changing_is_known_up_to_the_last_transition)
{
    for (const char* const rule : {"CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT", "<-03>3<-02>,M3.5.0/-2,M10.5.0/-1"}) {
        zone_file zone = two_changes();
        zone.footer = rule;
        EXPECT_EQ(offset_in(zone.make(), 2999), 7200);
        EXPECT_EQ(offset_in(zone.make(), 3000), std::nullopt) << rule;
    }
    for (const char* const rule : {"ABC-1", "<+0330>-3:30", "UTC0", "XYZ-5:30:15"}) {
        zone_file zone = two_changes();
        zone.footer = rule;
        EXPECT_EQ(offset_in(zone.make(), 3000), 3600) << rule;
    }
}

TEST(time_zone, with_leap_seconds_or_of_the_first_version_is_left_to_the_c_library)
{
    zone_file zone = two_changes();
    zone.leaps = 2;
    EXPECT_EQ(offset_in(zone.make(), 0), std::nullopt);
    zone.leaps = 0;
    zone.version = '\0';
    EXPECT_EQ(offset_in(zone.make(), 0), std::nullopt);
    zone.version = '3';
    EXPECT_EQ(offset_in(zone.make(), 0), 3600);
}

TEST(time_zone, cut_anywhere_is_no_zone)
{
    const bytes whole = two_changes().make();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        ASSERT_EQ(offset_in(bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)), 0), std::nullopt)
            << size;
    }
}

TEST(time_zone, with_a_type_that_is_not_there_is_no_zone)
{
    zone_file zone = two_changes();
    zone.transitions[1].second = 3;
    EXPECT_EQ(offset_in(zone.make(), 0), std::nullopt);
    zone.transitions.clear();
    zone.types.clear();
    EXPECT_EQ(offset_in(zone.make(), 0), std::nullopt);
}

TEST(time_zone, of_any_bytes_is_read_safely)
{
    std::mt19937 random(11);
    const bytes whole = two_changes().make();
    for (int round = 0; round < 20000; ++round) {
        bytes spoiled = whole;
        for (unsigned int change = random() % 4 + 1; change > 0; --change) {
            spoiled[random() % spoiled.size()] = static_cast<unsigned char>(random());
        }
        offset_in(spoiled, static_cast<std::int32_t>(random()));
    }
}

TEST_F(time_zone_of_the_machine, of_every_zone_there_is_agrees_with_the_c_library)
{
    std::mt19937 random(7);
    int zones = 0;
    int answers = 0;
    int questions = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator("/usr/share/zoneinfo")) {
        const bytes file = entry.is_regular_file() ? bytes_of(entry.path()) : bytes();
        if (file.size() < header_size || std::memcmp(file.data(), "TZif", 4) != 0) {
            continue;
        }
        ++zones;
        setenv("TZ", (":" + entry.path().string()).c_str(), 1);
        tzset();
        for (int round = 0; round < 300; ++round) {
            const std::time_t moment = static_cast<std::int32_t>(random());
            ++questions;
            if (const std::optional<int> offset = offset_in(file, moment)) {
                ++answers;
                std::tm local{};
                localtime_r(&moment, &local);
                ASSERT_EQ(*offset, local.tm_gmtoff) << entry.path() << " " << moment;
            }
        }
    }
    EXPECT_GT(zones, 300);
    EXPECT_GT(answers, questions / 3); // the rest are leap seconds, and years to come
}

TEST_F(time_zone_of_the_machine, gives_the_local_time_of_the_c_library)
{
    std::mt19937 random(8);
    for (int round = 0; round < 20000; ++round) {
        const std::time_t moment = static_cast<std::int32_t>(random());
        std::tm expected{};
        localtime_r(&moment, &expected);
        const std::tm local = RE_local_time(moment);
        ASSERT_EQ(local.tm_year, expected.tm_year) << moment;
        ASSERT_EQ(local.tm_mon, expected.tm_mon) << moment;
        ASSERT_EQ(local.tm_mday, expected.tm_mday) << moment;
        ASSERT_EQ(local.tm_hour, expected.tm_hour) << moment;
        ASSERT_EQ(local.tm_min, expected.tm_min) << moment;
        ASSERT_EQ(local.tm_sec, expected.tm_sec) << moment;
    }
}
