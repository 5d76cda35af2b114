#include "RE_auto_bypass.h"

#include "RE_bypass_table.h"
#include "RE_ip.h"
#include "RE_local_time.h"
#include "RE_sequence.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace {

const char* reason_word(RE_bypass_reason reason)
{
    switch (reason) {
    case RE_bypass_reason::low_compression:
        return "low compression";
    case RE_bypass_reason::configured:
        return "configured";
    case RE_bypass_reason::repeated_nacks:
        return "repeated NACKs";
    }
    return "unknown";
}

struct moment_text
{
    char text[32];
};

moment_text text_of(std::int64_t moment)
{
    moment_text result{};
    const auto seconds = static_cast<std::time_t>(moment);
    std::tm local{};
    // A time whose year does not fit into std::tm comes from a corrupt record; it is printed as a number.
    if (!RE_local_time(seconds, local) || std::strftime(result.text, sizeof result.text, "%m/%d/%Y %T", &local) == 0) {
        std::snprintf(result.text, sizeof result.text, "%" PRId64, moment);
    }
    return result;
}

void print_entry(const RE_bypass_entry& entry)
{
    std::printf("  %15s:%-5u  %-15s  %-19s  %12" PRIu64 "  %11" PRIu64 "  %s\n", ip_to_string(entry.server_ip),
                static_cast<unsigned int>(entry.server_port), reason_word(entry.reason), text_of(entry.since).text,
                entry.bytes, entry.connections, entry.next_attempt == 0 ? "never" : text_of(entry.next_attempt).text);
}

} // namespace

std::uint32_t RE_auto_bypass::get_shm_size()
{
    return sizeof(RE_bypass_table);
}

void RE_auto_bypass::show_tables(void* mem, bool b_detail)
{
    const auto* const table = static_cast<const RE_bypass_table*>(mem);
    if (table == nullptr || load_relaxed(&table->magic) != RE_bypass_magic) {
        std::puts("KAV auto-bypass table: not available");
        return;
    }

    // The summary and the list of entries each read all rows; a running engine may change rows in between.
    const std::uint32_t rows = std::min(load_acquire(&table->rows_used), RE_bypass_capacity);
    RE_patience patience = RE_patience::with_engine();
    std::uint32_t servers = 0;
    std::uint64_t bytes = 0;
    std::uint64_t connections = 0;
    for (std::uint32_t at = 0; at < rows; ++at) {
        RE_bypass_row row{};
        if (copy_row(&table->rows[at], row, patience) && row.b_in_use != 0) {
            ++servers;
            bytes += row.entry.bytes;
            connections += row.entry.connections;
        }
    }
    std::printf("KAV auto-bypass table: %u of %u entries in use\n", servers, RE_bypass_capacity);
    std::printf("  Bypassed: %" PRIu64 " bytes, %" PRIu64 " connections\n", bytes, connections);
    if (!b_detail || servers == 0) {
        return;
    }

    std::printf("\n  %15s:%-5s  %-15s  %-19s  %12s  %11s  %s\n", "Server-ip", "port", "Reason", "Since", "Bytes",
                "Connections", "Next attempt");
    for (std::uint32_t at = 0; at < rows; ++at) {
        RE_bypass_row row{};
        if (copy_row(&table->rows[at], row, patience) && row.b_in_use != 0) {
            print_entry(row.entry);
        }
    }
}
