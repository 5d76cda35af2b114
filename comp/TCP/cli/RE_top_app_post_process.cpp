#include "RE_top_app_post_process.h"

#include "RE_row_writer.h"
#include "RE_top_app_names.h"
#include "RE_value_format.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using counters = std::array<unsigned long long, RE_STAT_APP_ID_MAX>;

template <typename key_of_record>
void aggregate_sorted_vector(const std::vector<RE_stat_app_struct>& records, std::vector<RE_stat_app_struct>& rows,
                             std::uint64_t* totals, key_of_record key)
{
    for (const RE_stat_app_struct& record : records) {
        for (int k = 0; k < RE_STAT_APP_ID_MAX; ++k) {
            totals[k] += record.m_id_array[k];
        }
        if (rows.empty() || key(record) != key(rows.back())) {
            rows.push_back(record);
        } else {
            for (int k = 0; k < RE_STAT_APP_ID_MAX; ++k) {
                rows.back().m_id_array[k] += record.m_id_array[k];
            }
        }
    }
}

// Returns the record's names, or null when the record is reported by its server port.
const RE_stat_policy_engine_header* names_of(const RE_stat_app_struct& record)
{
    const auto found = g_stat_handler_policy_engine_map.find(record.m_header.m_policy_engine_handler);
    return found == g_stat_handler_policy_engine_map.end() ? nullptr : &found->second;
}

// A name without a NUL ends at the end of its array.
template <std::size_t Size>
std::string_view text_of(const char (&name)[Size])
{
    return {name, strnlen(name, Size)};
}

// Returns the mark for a port that is the client's, otherwise no_mark.
const char* source_port_mark(const RE_stat_app_header& header, const char* no_mark)
{
    return header.m_b_src_port ? "*" : no_mark;
}

// Whether `text`, which has RE_kav_peer_id::text_length characters, is the identity's text form. Does not build the
// text form: every record of a long log is compared with `text`, and most differ early.
bool is_text_form(const RE_kav_peer_id& id, const char* text)
{
    constexpr char digits[] = "0123456789abcdef";
    constexpr char separators[] = ":::::-.....-....";
    for (int i = 0; i < 16; ++i) {
        const unsigned byte = id.data()[i];
        if (*text++ != digits[byte >> 4U] || *text++ != digits[byte & 15U]) {
            return false;
        }
        if (separators[i] != '.' && *text++ != separators[i]) {
            return false;
        }
    }
    return true;
}

// Entries are put together like rows, because a log may have millions of them. No entry has half as many bytes.
constexpr std::size_t max_entry = 2048;

// "%s: msg: %10llu, in: %s, out: %s, ratio: %s\n"
char* put_traffic_line(char* at, std::string_view label, unsigned long long messages, unsigned long long in,
                       unsigned long long out, bool b_encode)
{
    at = put_text(at, label);
    at = put_text(at, ": msg: ");
    at = put_unsigned_right(at, messages, 10);
    at = put_text(at, ", in: ");
    at = put_data_size(at, in);
    at = put_text(at, ", out: ");
    at = put_data_size(at, out);
    at = put_text(at, ", ratio: ");
    at = put_in_out_ratio(at, in, out, b_encode);
    return put_char(at, '\n');
}

template <typename counter>
char* put_traffic_lines(char* at, const counter* c)
{
    at = put_text(at, "Encode:\n");
    at = put_traffic_line(at, "   Overall", c[RE_STAT_APP_ID_ENCODE_NUM_MSGS], c[RE_STAT_APP_ID_ENCODE_IN_KBYTES],
                          c[RE_STAT_APP_ID_ENCODE_OUT_KBYTES], true);
    at = put_traffic_line(at, "       KAV", c[RE_STAT_APP_ID_RE_ENCODE_NUM_MSGS], c[RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES],
                          c[RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES], true);
    at = put_traffic_line(at, "        LZ", c[RE_STAT_APP_ID_LZ_ENCODE_NUM_MSGS], c[RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES],
                          c[RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES], true);
    at = put_text(at, "Decode:\n");
    at = put_traffic_line(at, "   Overall", c[RE_STAT_APP_ID_DECODE_NUM_MSGS], c[RE_STAT_APP_ID_DECODE_IN_KBYTES],
                          c[RE_STAT_APP_ID_DECODE_OUT_KBYTES], false);
    at = put_traffic_line(at, "       KAV", c[RE_STAT_APP_ID_RE_DECODE_NUM_MSGS], c[RE_STAT_APP_ID_RE_DECODE_IN_KBYTES],
                          c[RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES], false);
    at = put_traffic_line(at, "        LZ", c[RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS], c[RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES],
                          c[RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES], false);
    return put_char(at, '\n');
}

// The columns that the total line and the rows share.
struct traffic_columns
{
    std::string overall, encode_in, decode_out, kav_lan, kav_wan, kav_ratio, lz_lan, lz_wan, lz_ratio;
};

// Sums have the width of the counters: a row's wrap at 2^32, the totals' at 2^64.
template <typename counter>
traffic_columns columns_of(const counter* c)
{
    const counter overall = c[RE_STAT_APP_ID_ENCODE_IN_KBYTES] + c[RE_STAT_APP_ID_DECODE_OUT_KBYTES];
    const counter kav_lan = c[RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES] + c[RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES];
    const counter kav_wan = c[RE_STAT_APP_ID_RE_DECODE_IN_KBYTES] + c[RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES];
    const counter lz_lan = c[RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES] + c[RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES];
    const counter lz_wan = c[RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES] + c[RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES];
    const auto size = [](unsigned long long kbytes) { return get_data_size_str(kbytes); };
    const auto ratio = [](unsigned long long lan, unsigned long long wan) {
        return get_in_out_ratio_str(lan, wan, true);
    };
    return {size(overall),
            size(c[RE_STAT_APP_ID_ENCODE_IN_KBYTES]),
            size(c[RE_STAT_APP_ID_DECODE_OUT_KBYTES]),
            size(kav_lan),
            size(kav_wan),
            ratio(kav_lan, kav_wan),
            size(lz_lan),
            size(lz_wan),
            ratio(lz_lan, lz_wan)};
}

void print_total_line(FILE* out, const unsigned long long* totals)
{
    const traffic_columns c = columns_of(totals);
    std::fputs(g_stat_handler_policy_engine_map.empty() ? "Total  " : "          Total ", out);
    std::fprintf(out, "%s 100.00%%        N/A        N/A  %s   %s %s %s %s %s %s %s\n", c.overall.c_str(),
                 c.encode_in.c_str(), c.decode_out.c_str(), c.kav_lan.c_str(), c.kav_wan.c_str(), c.kav_ratio.c_str(),
                 c.lz_lan.c_str(), c.lz_wan.c_str(), c.lz_ratio.c_str());
}

void print_row(FILE* out, const RE_stat_app_struct& row, unsigned long long total_traffic)
{
    const RE_stat_app_header& header = row.m_header;
    // A row without names shows its port even in a table of classifiers. It is then narrower than the column.
    if (const RE_stat_policy_engine_header* const names = names_of(row)) {
        std::fprintf(out, "%15.41s ", names->m_policy_engine_classifier_name);
    } else {
        std::fprintf(out, "%5u%s ", static_cast<unsigned>(header.m_server_port), source_port_mark(header, " "));
    }

    const traffic_columns c = columns_of(row.m_id_array);
    const float share = total_traffic == 0
                            ? 0.0F
                            : static_cast<float>(top_app_traffic(row)) * 100.0F / static_cast<float>(total_traffic);
    std::fprintf(out, "%s %6.2f%%  %9u  %9u  %s   %s %s %s %s %s %s %s\n", c.overall.c_str(),
                 static_cast<double>(share), static_cast<unsigned>(header.m_open_cnt),
                 static_cast<unsigned>(header.m_close_cnt), c.encode_in.c_str(), c.decode_out.c_str(),
                 c.kav_lan.c_str(), c.kav_wan.c_str(), c.kav_ratio.c_str(), c.lz_lan.c_str(), c.lz_wan.c_str(),
                 c.lz_ratio.c_str());
}

} // namespace

void aggregate_classifier_sorted_vector(std::vector<RE_stat_app_struct>& records, std::vector<RE_stat_app_struct>& rows,
                                        std::uint64_t* totals)
{
    aggregate_sorted_vector(records, rows, totals, [](const RE_stat_app_struct& record) {
        return static_cast<unsigned>(record.m_header.m_policy_engine_handler);
    });
}

void aggregate_port_sorted_vector(std::vector<RE_stat_app_struct>& records, std::vector<RE_stat_app_struct>& rows,
                                  std::uint64_t* totals)
{
    aggregate_sorted_vector(records, rows, totals, [](const RE_stat_app_struct& record) {
        return static_cast<unsigned>(record.m_header.m_server_port);
    });
}

bool is_kav_peer_id_string_matched(RE_stat_app_struct& record, char* peer)
{
    const RE_kav_peer_id& id = record.m_header.m_kav_peer_id;
    const std::size_t length = std::strlen(peer);
    if (length == RE_kav_peer_id::text_length && is_text_form(id, peer)) {
        return true;
    }
    if (length == sizeof id.m_data && std::memcmp(peer, id.data(), length) == 0) {
        return true;
    }
    // Any text is also compared as a hash: the number at its start, or 0.
    const auto hash = static_cast<std::uint32_t>(std::strtol(peer, nullptr, 10));
    return static_cast<std::uint16_t>(hash) == id.hash_u16() || hash == id.hash_u32();
}

bool is_kept(RE_stat_app_struct& record, char* peer)
{
    return peer[0] == '\0' || is_kav_peer_id_string_matched(record, peer);
}

void check_kav_peer_id_string_match_and_push_back(std::vector<RE_stat_app_struct>& collector,
                                                  RE_stat_app_struct& record, char* peer, int slot, bool detail)
{
    if (is_kept(record, peer)) {
        push_back_to_collector_and_print(collector, record, slot, detail);
    }
}

void push_back_to_collector_and_print(std::vector<RE_stat_app_struct>& collector, RE_stat_app_struct& record, int slot,
                                      bool detail)
{
    collector.push_back(record);
    if (detail) {
        print_top_app_entry(stdout, slot, record);
    }
}

void print_top_app_entry(FILE* out, int slot, RE_stat_app_struct& record)
{
    const RE_stat_app_header& header = record.m_header;
    char entry[max_entry];
    // "App-Slot: %u, KAV_peer_id: %s (%u), Port: %u%s, Open-cnt: %u, Close-cnt: %u\n"
    char* at = put_text(entry, "App-Slot: ");
    at = put_unsigned(at, static_cast<unsigned>(slot));
    at = put_text(at, ", KAV_peer_id: ");
    at = put_text(at, header.m_kav_peer_id.getString());
    at = put_text(at, " (");
    at = put_unsigned(at, header.m_kav_peer_id.hash_u16());
    at = put_text(at, "), Port: ");
    at = put_unsigned(at, header.m_server_port);
    at = put_text(at, source_port_mark(header, ""));
    at = put_text(at, ", Open-cnt: ");
    at = put_unsigned(at, header.m_open_cnt);
    at = put_text(at, ", Close-cnt: ");
    at = put_unsigned(at, header.m_close_cnt);
    at = put_char(at, '\n');
    if (const RE_stat_policy_engine_header* const names = names_of(record)) {
        at = put_text(at, "Classifier: ");
        at = put_text(at, text_of(names->m_policy_engine_classifier_name));
        at = put_text(at, ", Application: ");
        at = put_text(at, text_of(names->m_policy_engine_application_name));
        at = put_char(at, '\n');
    }
    at = put_traffic_lines(at, record.m_id_array);
    std::fwrite(entry, 1, static_cast<std::size_t>(at - entry), out);
}

void print_top_app_entry_total(FILE* out, unsigned long long* totals)
{
    char entry[max_entry];
    char* at = put_text(entry, "Total:\n");
    at = put_traffic_lines(at, totals);
    std::fwrite(entry, 1, static_cast<std::size_t>(at - entry), out);
}

void print_aggregated_vector(FILE* out, std::vector<RE_stat_app_struct>& rows, int top, unsigned long long* totals)
{
    if (rows.empty()) {
        return;
    }
    std::fputs("Top Application Summary:\n\n", out);
    // The headings and labels differ in width. Scripts that cut columns rely on this.
    std::fputs(g_stat_handler_policy_engine_map.empty() ? " Port,   " : "     Classifier,  ", out);
    std::fputs("Overall,  ratio,  open-cnt, close-cnt, Encode-In, Decode-Out,  KAV LAN,  KAV WAN,  ratio,   LZ LAN,   "
               "LZ WAN,  ratio\n",
               out);
    print_total_line(out, totals);

    const unsigned long long total_traffic =
        totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES] + totals[RE_STAT_APP_ID_DECODE_OUT_KBYTES];
    const std::size_t count = top > 0 ? std::min(rows.size(), static_cast<std::size_t>(top)) : rows.size();
    for (std::size_t i = 0; i < count; ++i) {
        print_row(out, rows[i], total_traffic);
    }
    std::fputs("\n", out);
}

void print_top_app_rows(FILE* out, std::vector<RE_stat_app_struct>& rows,
                        const std::array<std::uint64_t, RE_STAT_APP_ID_MAX>& totals, int top, bool detail)
{
    std::stable_sort(rows.begin(), rows.end(), TrafficComparatorClass{});
    counters printed_totals{};
    std::copy(totals.begin(), totals.end(), printed_totals.begin());
    if (detail && !rows.empty()) {
        print_top_app_entry_total(out, printed_totals.data());
    }
    print_aggregated_vector(out, rows, top, printed_totals.data());
}

void process_top_app_vector(FILE* out, std::vector<RE_stat_app_struct>& records, int top, bool detail)
{
    std::array<std::uint64_t, RE_STAT_APP_ID_MAX> totals{};
    std::vector<RE_stat_app_struct> rows;
    rows.reserve(records.size());
    if (g_stat_handler_policy_engine_map.empty()) {
        std::stable_sort(records.begin(), records.end(), PortComparatorClass{});
        aggregate_port_sorted_vector(records, rows, totals.data());
    } else {
        std::stable_sort(records.begin(), records.end(), ClassifierComparatorClass{});
        aggregate_classifier_sorted_vector(records, rows, totals.data());
    }
    print_top_app_rows(out, rows, totals, top, detail);
}
