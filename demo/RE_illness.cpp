#include "RE_illness.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

namespace {

constexpr bool happens = true;
constexpr bool is_set = false;

// The manual page lists the counters that change.
constexpr std::array<RE_illness_info, static_cast<std::size_t>(RE_illness::count)> illnesses{{
    {"cache-unusable", happens, "the engine does not use its cache; messages that refer to it are refused"},
    {"cache-failed", happens, "the disk of the cache files is full; the cache fails until it can be written to again"},
    {"cache-lost", happens, "the same, and the engine has given the cache up"},
    {"cache-initialising", happens, "the cache never finishes loading; messages that refer to it are refused"},
    {"cache-small", happens, "the cache is too small for the traffic: 1 MB for each peer"},
    {"index-full", happens, "the indexes have room for 64 chunks of each peer"},
    {"low-memory", is_set, "openings, decodings and allocations fail for lack of memory, and no reserve is left"},
    {"slow-disk", happens, "a read from the cache takes 20 ms"},
    {"slow-encode", happens, "encoding a message takes 50 ms"},
    {"slow-decode", happens, "decoding a message takes 50 ms"},
    {"bypass", happens, "all messages bypass redundancy elimination, with one cause after another"},
    {"nacks", happens, "the cache for the first peer is tiny; the peer does not know"},
    {"retransmissions", happens, "the first peer's cache is tiny; the engine does not know"},
    {"peer-degraded-sigblock", is_set, "a peer's sigblocks are not written"},
    {"peer-degraded-dataunit", is_set, "a peer's data units are not written"},
    {"peer-out-of-sync", happens, "the first peer loses its cache, twice a second"},
    {"peer-outdated", is_set, "the first peer is outdated"},
    {"peer-low-buffer", is_set, "the first peer is low on buffers"},
    {"peer-disconnected", is_set, "the first peer is not connected, although it has connections"},
    {"peer-far", happens, "the first peer's answers take 600 ms"},
    {"ack-queue", happens, "the first peer does not acknowledge anything; its connections stop"},
    {"incompressible", happens, "all traffic is noise"},
    {"tiny-messages", happens, "all traffic is noise in messages of 16 bytes, which encoding makes larger"},
    {"auto-bypass", happens, "traffic to the first peer is noise, and 64 KB of it are enough to judge a server"},
    {"conn-stuck", happens, "the peer of one connection does not accept its data"},
    {"wait-queue", is_set, "messages wait for one that must be sent again"},
    {"bypass-nacks", is_set, "a server of the first peer is bypassed because of repeated NACKs"},
    {"bypass-table-full", is_set, "the auto-bypass table is full of servers"},
    {"app-table-full", happens, "no application has a place for its counters; its traffic is not counted there"},
}};

// Reads a time and removes it from the front of `text`. Returns false when there is none.
bool take_seconds(std::string_view& text, double& seconds)
{
    constexpr double longest = 1e9;
    const char* const end = text.data() + text.size();
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    const auto [unit, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (error != std::errc() || unit == end) {
        return false;
    }
    switch (*unit) {
    case 's':
        break;
    case 'm':
        seconds *= 60;
        break;
    case 'h':
        seconds *= 3600;
        break;
    default:
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(unit + 1 - text.data()));
    return seconds <= longest;
}

// Reads "@BEGIN" or "@BEGIN+LENGTH".
bool take_times(std::string_view text, RE_planned_illness& planned)
{
    text.remove_prefix(1);
    if (!take_seconds(text, planned.begin)) {
        return false;
    }
    if (text.empty()) {
        return true;
    }
    double length = 0;
    if (text[0] != '+') {
        return false;
    }
    text.remove_prefix(1);
    if (!take_seconds(text, length) || !text.empty()) {
        return false;
    }
    planned.end = planned.begin + length;
    return true;
}

std::string all_names()
{
    std::string names;
    for (const RE_illness_info& info : illnesses) {
        names += (names.empty() ? "" : ", ") + std::string(info.name);
    }
    return names;
}

} // namespace

std::span<const RE_illness_info> all_illnesses()
{
    return illnesses;
}

std::string parse_illness(const std::string& text, RE_planned_illness& planned)
{
    const std::string_view view(text);
    const std::size_t at = std::min(view.find('@'), view.size());
    const std::string_view name = view.substr(0, at);
    const auto* const found = std::find_if(illnesses.begin(), illnesses.end(),
                                           [&](const RE_illness_info& info) { return name == info.name; });
    if (found == illnesses.end()) {
        return "no illness is called \"" + std::string(name) + "\"; there are " + all_names();
    }
    planned = {static_cast<RE_illness>(found - illnesses.begin()), 0, std::numeric_limits<double>::infinity()};
    planned.b_by_signal = view.substr(at) == "@signal";
    if (planned.b_by_signal) {
        return {};
    }
    if (at < view.size() && !take_times(view.substr(at), planned)) {
        return "\"" + text + "\" has a time that is not like @60s, @60s+2m or @signal; units are s, m and h";
    }
    return {};
}

RE_illness_set illnesses_at(const std::vector<RE_planned_illness>& plan, double seconds, bool b_signalled)
{
    RE_illness_set ills;
    for (const RE_planned_illness& planned : plan) {
        const bool b_in_time = planned.begin <= seconds && seconds < planned.end;
        if (planned.b_by_signal ? b_signalled : b_in_time) {
            ills.add(planned.illness);
        }
    }
    return ills;
}
