#include "RE_time_zone.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace {

constexpr std::size_t type_size = 6;

// A number as zone files have it, the most significant byte first.
template <std::size_t Size>
std::uint64_t number_at(const unsigned char* bytes)
{
    std::uint64_t number = 0;
    for (std::size_t at = 0; at < Size; ++at) {
        number = number << 8U | bytes[at];
    }
    return number;
}

// One of the two blocks of a file: the first has times of 4 bytes, the second, which is the one to be used, of 8.
struct zone_block
{
    static constexpr std::size_t header_size = 44;

    std::uint64_t leaps = 0;
    std::uint64_t transitions = 0;
    std::uint64_t types = 0;
    std::uint64_t size = 0; // behind the header

    // False when `bytes` do not begin with a whole block.
    bool read(std::span<const unsigned char> bytes, std::uint64_t time_size)
    {
        constexpr std::string_view magic = "TZif";
        if (bytes.size() < header_size || std::memcmp(bytes.data(), magic.data(), magic.size()) != 0) {
            return false;
        }
        const auto count = [&bytes](std::size_t index) { return number_at<4>(bytes.data() + 20 + 4 * index); };
        leaps = count(2);
        transitions = count(3);
        types = count(4);
        size = transitions * (time_size + 1) + types * type_size + count(5) + leaps * (time_size + 4) + count(0) +
               count(1);
        return size <= bytes.size() - header_size;
    }
};

// Whether a footer, the rule for the time after the last transition, is a name and an offset and no more.
bool is_without_changes(std::string_view footer)
{
    const std::size_t name_end = footer.starts_with('<') ? footer.find('>') : footer.find_first_of("+-0123456789");
    return name_end != std::string_view::npos &&
           footer.find_first_not_of("+-0123456789:", name_end + 1) == std::string_view::npos;
}

} // namespace

RE_time_zone::RE_time_zone(std::span<const unsigned char> bytes)
{
    zone_block block;
    if (!block.read(bytes, 4) || bytes[4] < '2') {
        return;
    }
    bytes = bytes.subspan(zone_block::header_size + block.size);
    if (!block.read(bytes, 8) || block.leaps != 0 || block.types == 0) {
        return;
    }
    const std::string_view footer(reinterpret_cast<const char*>(bytes.data()) + zone_block::header_size + block.size,
                                  bytes.size() - zone_block::header_size - block.size);
    const std::size_t footer_end = footer.find('\n', 1);
    if (!footer.starts_with('\n') || footer_end == std::string_view::npos) {
        return;
    }
    b_known_after_last = is_without_changes({footer.data() + 1, footer_end - 1});

    bytes = bytes.subspan(zone_block::header_size);
    m_times = bytes.first(block.transitions * 8);
    m_type_at = bytes.subspan(m_times.size(), block.transitions);
    m_types = bytes.subspan(m_times.size() + m_type_at.size(), block.types * type_size);
    if (std::any_of(m_type_at.begin(), m_type_at.end(), [&](unsigned char type) { return type >= block.types; })) {
        m_types = {};
    }
}

int RE_time_zone::offset_of_type(std::size_t type) const
{
    return static_cast<int>(static_cast<std::uint32_t>(number_at<4>(&m_types[type * type_size])));
}

std::optional<int> RE_time_zone::offset_at(std::int64_t moment) const
{
    if (m_types.empty()) {
        return {};
    }
    // How many transitions are not after the moment.
    std::size_t passed = 0;
    for (std::size_t end = m_type_at.size(); passed < end;) {
        const std::size_t middle = (passed + end) / 2;
        if (static_cast<std::int64_t>(number_at<8>(&m_times[middle * 8])) <= moment) {
            passed = middle + 1;
        } else {
            end = middle;
        }
    }
    if (passed == 0) {
        // Before all transitions, or without any: the first type that is no daylight saving time.
        std::size_t type = 0;
        while (type < m_types.size() / type_size && m_types[type * type_size + 4] != 0) {
            ++type;
        }
        return offset_of_type(type < m_types.size() / type_size ? type : 0);
    }
    if (passed == m_type_at.size() && !b_known_after_last) {
        return {};
    }
    return offset_of_type(m_type_at[passed - 1]);
}

namespace {

RE_time_zone read_system_zone()
{
    constexpr std::size_t most = 8192; // no zone has half as much
    static unsigned char* bytes;       // kept as long as the program runs
    const int file = open("/etc/localtime", O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return {};
    }
    bytes = new (std::nothrow) unsigned char[most];
    const ssize_t size = bytes != nullptr ? read(file, bytes, most) : -1;
    close(file);
    if (size <= 0 || static_cast<std::size_t>(size) == most) {
        return {};
    }
    return RE_time_zone({bytes, static_cast<std::size_t>(size)});
}

const RE_time_zone& system_zone()
{
    static RE_time_zone zone;
    static bool b_read = false;
    if (!b_read) {
        zone = read_system_zone();
        b_read = true;
    }
    return zone;
}

} // namespace

bool RE_local_time(std::time_t moment, std::tm& local)
{
    local = {};
    const bool b_ours = moment == static_cast<std::int32_t>(moment) && std::getenv("TZ") == nullptr;
    const std::optional<int> offset = b_ours ? system_zone().offset_at(moment) : std::optional<int>();
    if (!offset) {
        return localtime_r(&moment, &local) != nullptr;
    }
    const std::chrono::sys_seconds clock{std::chrono::seconds(moment + *offset)};
    const auto day = std::chrono::floor<std::chrono::days>(clock);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(clock - day);
    local.tm_year = static_cast<int>(date.year()) - 1900;
    local.tm_mon = static_cast<int>(static_cast<unsigned int>(date.month())) - 1;
    local.tm_mday = static_cast<int>(static_cast<unsigned int>(date.day()));
    local.tm_hour = static_cast<int>(time.hours().count());
    local.tm_min = static_cast<int>(time.minutes().count());
    local.tm_sec = static_cast<int>(time.seconds().count());
    return true;
}
