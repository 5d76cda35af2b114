// The top-application report from its records: peer filter, merging into rows, order and printing.
//
// Rows are merged and named by classifier when g_stat_handler_policy_engine_map holds names, otherwise by server port.
#pragma once

#include "RE_statistics.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

// A record's traffic on the local network's side, in kilobytes; wraps at 2^32 as its counters do.
inline std::uint32_t top_app_traffic(const RE_stat_app_struct& record)
{
    return record.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES] + record.m_id_array[RE_STAT_APP_ID_DECODE_OUT_KBYTES];
}

// The three orders: most traffic first, lowest server port first, lowest handle first. None of them breaks ties. Sorts
// are stable, so records with equal keys stay in the order in which they were gathered.
class TrafficComparatorClass
{
public:
    bool operator()(const RE_stat_app_struct& a, const RE_stat_app_struct& b) const
    {
        return top_app_traffic(a) > top_app_traffic(b);
    }
};

class PortComparatorClass
{
public:
    bool operator()(const RE_stat_app_struct& a, const RE_stat_app_struct& b) const
    {
        return a.m_header.m_server_port < b.m_header.m_server_port;
    }
};

class ClassifierComparatorClass
{
public:
    bool operator()(const RE_stat_app_struct& a, const RE_stat_app_struct& b) const
    {
        return a.m_header.m_policy_engine_handler < b.m_header.m_policy_engine_handler;
    }
};

// Both append to `rows` one row for each run of equal handles, or server ports, in `records`, and add every record to
// `totals` (RE_STAT_APP_ID_MAX elements). A row has the sums of its records' counters, which wrap at 2^32, and the
// whole header of the first record: open and close counts are not summed.
void aggregate_classifier_sorted_vector(std::vector<RE_stat_app_struct>& records, std::vector<RE_stat_app_struct>& rows,
                                        std::uint64_t* totals);
void aggregate_port_sorted_vector(std::vector<RE_stat_app_struct>& records, std::vector<RE_stat_app_struct>& rows,
                                  std::uint64_t* totals);

// Whether the record belongs to the peer that `peer` (not empty) identifies: by its text form in lower case, its 16 raw
// bytes, or its 16-bit or 32-bit hash as a decimal number. Text that is not a number means hash 0.
bool is_kav_peer_id_string_matched(RE_stat_app_struct& record, char* peer);

// Whether the record belongs to the peer. If `peer` is empty, every record does.
bool is_kept(RE_stat_app_struct& record, char* peer);

// Gathers the record if it is kept.
void check_kav_peer_id_string_match_and_push_back(std::vector<RE_stat_app_struct>& collector,
                                                  RE_stat_app_struct& record, char* peer, int slot, bool detail);

// Gathers the record, and with `detail` prints its entry block to standard output.
void push_back_to_collector_and_print(std::vector<RE_stat_app_struct>& collector, RE_stat_app_struct& record, int slot,
                                      bool detail);

// Prints one record: its peer, port and traffic. slot: the record's number at its source.
void print_top_app_entry(FILE* out, int slot, RE_stat_app_struct& record);

// Prints the sums over all records, with `totals` as aggregation leaves them.
void print_top_app_entry_total(FILE* out, unsigned long long* totals);

// Prints the table: the total line and the first `top` rows, or all rows when `top` is 0 or less. Prints nothing when
// there are no rows.
void print_aggregated_vector(FILE* out, std::vector<RE_stat_app_struct>& rows, int top, unsigned long long* totals);

// Prints what follows the entry blocks: the sums if `detail` is set, then the table. `rows`: merged, in ascending order
// of their keys. They are sorted here by traffic; rows with equal traffic stay in the order of their keys.
void print_top_app_rows(FILE* out, std::vector<RE_stat_app_struct>& rows,
                        const std::array<std::uint64_t, RE_STAT_APP_ID_MAX>& totals, int top, bool detail);

// Sorts and merges the gathered records and prints what follows their entry blocks; nothing when there are none.
void process_top_app_vector(FILE* out, std::vector<RE_stat_app_struct>& records, int top, bool detail);
