// Every illness of the demo engine shows in the figures, and no longer does after its time is over.
#include "RE_auto_bypass.h"
#include "RE_bypass_table.h"
#include "RE_illness.h"
#include "RE_statistics.h"

#include "engine_process.h"
#include "test_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <limits>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

namespace {

constexpr double for_ever = std::numeric_limits<double>::infinity();

TEST(illness, times_are_read_in_their_units)
{
    constexpr struct
    {
        const char* text;
        RE_illness illness;
        double begin;
        double end;
    } cases[] = {
        {"nacks", RE_illness::nacks, 0, for_ever},
        {"slow-disk@60s", RE_illness::slow_disk, 60, for_ever},
        {"cache-unusable@60s+120s", RE_illness::cache_unusable, 60, 180},
        {"conn-stuck@1.5m+0.5h", RE_illness::conn_stuck, 90, 1890},
        {"peer-far@0s+0s", RE_illness::peer_far, 0, 0},
    };
    for (const auto& expected : cases) {
        RE_planned_illness planned{};
        EXPECT_EQ(parse_illness(expected.text, planned), "") << expected.text;
        EXPECT_EQ(planned.illness, expected.illness) << expected.text;
        EXPECT_EQ(planned.begin, expected.begin) << expected.text;
        EXPECT_EQ(planned.end, expected.end) << expected.text;
    }
}

TEST(illness, anything_else_is_refused)
{
    RE_planned_illness planned{};
    for (const char* const text : {"", "@5s", "nack", "nacks ", "Nacks"}) {
        EXPECT_TRUE(parse_illness(text, planned).starts_with("no illness is called \"")) << text;
    }
    for (const char* const text : {"nacks@", "nacks@5", "nacks@s", "nacks@-5s", "nacks@5d", "nacks@5ss", "nacks@5s+",
                                   "nacks@5s+5", "nacks@5s-5s", "nacks@5s+5s+5s", "nacks@infs", "nacks@nans",
                                   "nacks@1e3s", "nacks@ 5s", "nacks@300000h", "nacks@5s@5s"}) {
        EXPECT_EQ(parse_illness(text, planned),
                  "\"" + std::string(text) +
                      "\" has a time that is not like @60s, @60s+2m or @signal; units are s, m and h");
    }
}

TEST(illness, lasts_from_its_beginning_until_its_end)
{
    std::vector<RE_planned_illness> plan = {{RE_illness::nacks, 1, 2}, {RE_illness::nacks, 5, for_ever}};
    EXPECT_FALSE(illnesses_at(plan, 0.9, false).has(RE_illness::nacks));
    EXPECT_TRUE(illnesses_at(plan, 1, false).has(RE_illness::nacks));
    EXPECT_FALSE(illnesses_at(plan, 1, false).has(RE_illness::bypass));
    EXPECT_FALSE(illnesses_at(plan, 2, false).has(RE_illness::nacks));
    EXPECT_TRUE(illnesses_at(plan, 1e8, false).has(RE_illness::nacks));

    RE_planned_illness by_signal{};
    ASSERT_EQ(parse_illness("bypass@signal", by_signal), "");
    plan.push_back(by_signal);
    EXPECT_FALSE(illnesses_at(plan, 1, false).has(RE_illness::bypass));
    EXPECT_TRUE(illnesses_at(plan, 1, true).has(RE_illness::bypass));
}

TEST(illness, a_mistake_is_answered_with_all_names)
{
    engine_process wrong({"--ill", "nacks,fever"});
    EXPECT_EQ(wrong.wait(), 2);
    EXPECT_EQ(
        wrong.errors(),
        "--ill: no illness is called \"fever\"; there are cache-unusable, cache-failed, cache-lost, "
        "cache-initialising, "
        "cache-small, index-full, low-memory, slow-disk, slow-encode, slow-decode, bypass, nacks, retransmissions, "
        "peer-degraded-sigblock, peer-degraded-dataunit, peer-out-of-sync, peer-outdated, peer-low-buffer, "
        "peer-disconnected, peer-far, ack-queue, incompressible, tiny-messages, auto-bypass, conn-stuck, wait-queue, "
        "bypass-nacks, "
        "bypass-table-full, app-table-full\n"
        "Run with --help for more information.\n");
}

// All figures at one moment that a rule may use.
struct figures
{
    std::array<long long, RE_STAT_GLOBAL_ID_MAX> engine{};
    std::array<long long, RE_STAT_CONN_ID_MAX> conns{}; // sums over all connections
    std::array<long long, RE_STAT_PEER_ID_MAX> peer{};  // the first peer
    std::set<int> moved_peer_ids;                       // nonzero for at least one peer
    bool b_outdated = false;
    bool b_from_active_conn = false;
    int bypassed_servers = 0;
    int nacked_servers = 0; // bypassed because of repeated NACKs
    long long peers_with_sigblock = 0;
    long long peers_with_data_unit = 0;
    bool b_stuck = false; // an open connection has waiting data
};

// Counts those that `is_counted` accepts.
template <typename Is_counted>
int count_bypassed_servers(RE_stat_reader& reader, const Is_counted& is_counted)
{
    const int size = static_cast<int>(RE_auto_bypass::get_shm_size());
    const auto* const table = static_cast<const RE_bypass_table*>(reader.get_re_auto_bypass_memory_ptr(size));
    int count = 0;
    for (std::uint32_t row = 0; table != nullptr && row < table->rows_used; ++row) {
        count += table->rows[row].b_in_use != 0 && is_counted(table->rows[row].entry) ? 1 : 0;
    }
    return count;
}

bool has_stuck_connection(RE_stat_reader& reader)
{
    for (int slot = 0; slot < reader.get_max_conn_slots(); ++slot) {
        long long waiting = 0;
        std::time_t opened = 0;
        std::time_t closed = 0;
        if (reader.is_conn_valid(slot) && reader.read_conn_time(slot, opened, closed) == 0 && closed == 0 &&
            reader.read_conn_stat(slot, SO_STAT_WAN_W_PEND_SIZE, waiting) == 0 && waiting > 0) {
            return true;
        }
    }
    return false;
}

figures read_figures(RE_stat_reader& reader)
{
    figures now;
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        reader.read_global_stat(id, now.engine[static_cast<std::size_t>(id)]);
    }
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        reader.read_global_conn_stat(id, now.conns[static_cast<std::size_t>(id)]);
    }
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        reader.read_peer_stat(0, id, now.peer[static_cast<std::size_t>(id)]);
        for (int slot = 0; slot < reader.get_max_peer_slots(); ++slot) {
            long long value = 0;
            if (reader.read_peer_stat(slot, id, value) == 0 && value != 0) {
                now.moved_peer_ids.insert(id);
                now.peers_with_sigblock += id == RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK ? 1 : 0;
                now.peers_with_data_unit += id == RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT ? 1 : 0;
            }
        }
    }
    RE_stat_peer_header header{};
    reader.read_peer_header(0, header);
    now.b_outdated = header.m_b_outdated != 0;
    now.b_from_active_conn = header.m_b_update_from_active_conn != 0;
    now.bypassed_servers = count_bypassed_servers(reader, [](const RE_bypass_entry&) { return true; });
    now.nacked_servers = count_bypassed_servers(
        reader, [](const RE_bypass_entry& entry) { return entry.reason == RE_bypass_reason::repeated_nacks; });
    now.b_stuck = has_stuck_connection(reader);
    return now;
}

// Returns one sum's change in a second divided by that of another, or 0 when the other did not change.
double share(const figures& before, const figures& now, int part_id, int whole_id)
{
    const auto change = [&](int id) {
        return static_cast<double>(now.conns[static_cast<std::size_t>(id)] -
                                   before.conns[static_cast<std::size_t>(id)]);
    };
    return change(whole_id) == 0 ? 0 : change(part_id) / change(whole_id);
}

struct sign
{
    const char* illness;
    bool (*is_ill)(const figures& before, const figures& now); // the moments are a second apart
};

constexpr sign signs[] = {
    {"cache-unusable",
     [](const figures&, const figures& now) { return now.engine[RE_STAT_GLOBAL_ID_CACHE_STATE] == 0; }},
    {"cache-failed", [](const figures&, const figures& now) { return now.engine[RE_STAT_GLOBAL_ID_CACHE_STATE] == 3; }},
    {"cache-lost", [](const figures&, const figures& now) { return now.engine[RE_STAT_GLOBAL_ID_CACHE_STATE] == 4; }},
    {"cache-initialising",
     [](const figures&, const figures& now) { return now.engine[RE_STAT_GLOBAL_ID_CACHE_STATE] == 1; }},
    {"cache-small",
     [](const figures&, const figures& now) {
         return now.engine[RE_STAT_GLOBAL_ID_USED_CACHE_SIZE] == now.engine[RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE];
     }},
    {"index-full",
     [](const figures& before, const figures& now) {
         return now.engine[RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL] >
                    before.engine[RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL] &&
                now.engine[RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY] == 128; // both directions of one peer
     }},
    {"low-memory",
     [](const figures& before, const figures& now) {
         return now.engine[RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR] >
                    before.engine[RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR] &&
                now.engine[RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE] == 0;
     }},
    {"slow-disk",
     [](const figures&, const figures& now) { return now.engine[RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY] >= 20'000; }},
    {"slow-encode",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, RE_STAT_CONN_ID_ENCODE_NUM_MSGS) >= 20'000;
     }},
    {"slow-decode",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_TOT_DECODE_SPEED, RE_STAT_CONN_ID_DECODE_NUM_MSGS) >= 20'000;
     }},
    {"bypass",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, RE_STAT_CONN_ID_ENCODE_NUM_MSGS) > 0.9;
     }},
    {"nacks",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS, RE_STAT_CONN_ID_DECODE_NUM_MSGS) > 0.001;
     }},
    {"retransmissions",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_NUM_MISS_RTX_MSGS, RE_STAT_CONN_ID_ENCODE_NUM_MSGS) > 0.001;
     }},
    {"peer-degraded-sigblock",
     [](const figures&, const figures& now) {
         return now.engine[RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK] == 1 &&
                now.engine[RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK] == now.peers_with_sigblock &&
                now.peers_with_sigblock == 1; // of two
     }},
    {"peer-degraded-dataunit",
     [](const figures&, const figures& now) {
         return now.engine[RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT] == 1 &&
                now.engine[RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT] == now.peers_with_data_unit &&
                now.peers_with_data_unit == 1; // of two
     }},
    {"peer-out-of-sync",
     [](const figures& before, const figures& now) {
         return now.peer[RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC] > before.peer[RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC];
     }},
    {"peer-outdated", [](const figures&, const figures& now) { return now.b_outdated; }},
    {"peer-low-buffer",
     [](const figures&, const figures& now) { return now.peer[RE_STAT_PEER_ID_REMOTE_BUF_LOW] == 1; }},
    {"peer-disconnected", [](const figures&, const figures& now) { return !now.b_from_active_conn; }},
    {"peer-far", [](const figures&, const figures& now) { return now.peer[RE_STAT_PEER_ID_ACK_Q_AVG_RTT] > 300'000; }},
    {"ack-queue", [](const figures&, const figures& now) { return now.engine[SO_STAT_ACK_Q_CURR_STOP] > 0; }},
    {"incompressible",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, RE_STAT_CONN_ID_ENCODE_IN_BYTES) > 0.95;
     }},
    {"tiny-messages",
     [](const figures& before, const figures& now) {
         return share(before, now, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, RE_STAT_CONN_ID_ENCODE_IN_BYTES) > 1.1;
     }},
    {"auto-bypass", [](const figures&, const figures& now) { return now.bypassed_servers > 0; }},
    {"conn-stuck", [](const figures&, const figures& now) { return now.b_stuck; }},
    {"wait-queue",
     [](const figures&, const figures& now) { return now.engine[RE_STAT_GLOBAL_ID_WAIT_Q_SIZE] == 65'536; }},
    {"bypass-nacks", [](const figures&, const figures& now) { return now.nacked_servers == 1; }},
    {"bypass-table-full", [](const figures&, const figures& now) { return now.bypassed_servers == 1024; }},
    {"app-table-full",
     [](const figures& before, const figures& now) {
         return now.engine[RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT] >
                    before.engine[RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT] &&
                now.engine[RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT] ==
                    before.engine[RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT];
     }},
};

bool is_ill(const std::string& illness, const figures& before, const figures& now)
{
    for (const sign& candidate : signs) {
        if (illness == candidate.illness) {
            return candidate.is_ill(before, now);
        }
    }
    ADD_FAILURE() << illness << " has no sign";
    return false;
}

std::string lines_of(const std::set<std::string>& words)
{
    std::string lines;
    for (const std::string& word : words) {
        lines += word + '\n';
    }
    return lines;
}

// A counter and its name in kavstat.
struct named_counter
{
    int first;
    int last;
    std::string name;
};

std::string name_of(std::string_view enumerator)
{
    std::string name;
    for (const std::string_view prefix : {"RE_STAT_GLOBAL_ID_", "RE_STAT_PEER_ID_", "RE_STAT_CONN_ID_", "SO_STAT_"}) {
        if (enumerator.starts_with(prefix)) {
            enumerator.remove_prefix(prefix.size());
            name = prefix == "SO_STAT_" ? "so_" : "";
            break;
        }
    }
    for (const char letter : enumerator) {
        name += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return name;
}

const std::vector<named_counter> engine_counters = {
#define RE_STAT_GLOBAL(value, enumerator, ...) {value, value, name_of(#enumerator)},
#define RE_STAT_GLOBAL_RANGE(first, last, enumerator, ...) {first, last, name_of(#enumerator)},
#include "RE_stat_counters.def"
};
const std::vector<named_counter> peer_counters = {
#define RE_STAT_PEER(value, enumerator, ...) {value, value, name_of(#enumerator)},
#include "RE_stat_counters.def"
};
const std::vector<named_counter> conn_counters = {
#define RE_STAT_CONN(value, enumerator, ...) {value, value, name_of(#enumerator)},
#include "RE_stat_counters.def"
};

// The counters that were nonzero at some time.
class moved_counters
{
public:
    void add(const figures& now)
    {
        add(m_engine, engine_counters, [&](int id) { return now.engine[static_cast<std::size_t>(id)] != 0; });
        add(m_peer, peer_counters, [&](int id) { return now.moved_peer_ids.contains(id); });
        add(m_conn, conn_counters, [&](int id) { return now.conns[static_cast<std::size_t>(id)] != 0; });
    }
    void add(const moved_counters& other)
    {
        m_engine.insert(other.m_engine.begin(), other.m_engine.end());
        m_peer.insert(other.m_peer.begin(), other.m_peer.end());
        m_conn.insert(other.m_conn.begin(), other.m_conn.end());
    }
    std::string unmoved_engine() const { return unmoved(m_engine, engine_counters); }
    std::string unmoved_peer() const { return unmoved(m_peer, peer_counters); }
    std::string unmoved_conn() const { return unmoved(m_conn, conn_counters); }

private:
    template <typename Moved>
    static void add(std::set<std::string>& names, const std::vector<named_counter>& counters, const Moved& has_moved)
    {
        for (const named_counter& counter : counters) {
            for (int id = counter.first; id <= counter.last; ++id) {
                if (has_moved(id)) {
                    names.insert(counter.name);
                }
            }
        }
    }
    static std::string unmoved(const std::set<std::string>& moved, const std::vector<named_counter>& counters)
    {
        std::set<std::string> names;
        for (const named_counter& counter : counters) {
            if (!moved.contains(counter.name)) {
                names.insert(counter.name);
            }
        }
        return lines_of(names);
    }

    std::set<std::string> m_engine;
    std::set<std::string> m_peer;
    std::set<std::string> m_conn;
};

// An engine and a reader of its figures.
class watched_engine
{
public:
    watched_engine(std::vector<std::string> arguments, std::vector<std::string> ills)
        : m_ills(std::move(ills)), m_engine(std::move(arguments))
    {
        EXPECT_TRUE(m_engine.wait_for("ready"));
        m_reader.reset(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
        EXPECT_EQ(m_reader->open(), 0);
        look();
    }

    void look()
    {
        m_before = m_now;
        m_now = read_figures(*m_reader);
        for (const std::string& illness : m_ills) {
            if (is_ill(illness, m_before, m_now)) {
                m_shown.insert(illness);
            }
        }
        m_moved.add(m_now);
    }
    void look_when_idle()
    {
        EXPECT_TRUE(m_engine.wait_for("idle"));
        look();
    }
    bool has_shown_all() const { return m_shown.size() == m_ills.size(); }
    bool is_well() const
    {
        return std::none_of(m_ills.begin(), m_ills.end(),
                            [&](const std::string& illness) { return is_ill(illness, m_before, m_now); });
    }
    void expect_shown_and_well() const
    {
        for (const std::string& illness : m_ills) {
            EXPECT_TRUE(m_shown.contains(illness)) << illness;
            EXPECT_FALSE(is_ill(illness, m_before, m_now)) << illness;
        }
    }
    // Expects no sign of any illness, and nothing that may become one.
    void expect_healthy() const
    {
        for (const sign& candidate : signs) {
            EXPECT_FALSE(candidate.is_ill(m_before, m_now)) << candidate.illness;
        }
        for (const int id : {RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS,
                             RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_NUM}) {
            EXPECT_EQ(m_now.conns[static_cast<std::size_t>(id)], 0) << id;
        }
        EXPECT_GT(m_now.conns[RE_STAT_CONN_ID_ENCODE_NUM_MSGS], 0);
        EXPECT_GT(m_now.engine[RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE], 0);
    }
    const moved_counters& moved() const { return m_moved; }

private:
    std::vector<std::string> m_ills;
    engine_process m_engine;
    std::unique_ptr<RE_stat_reader> m_reader;
    figures m_before;
    figures m_now;
    std::set<std::string> m_shown;
    moved_counters m_moved;
};

// Returns the lines that a document contains between "```SCOPE" and "```", sorted.
std::string listed_counters(const std::string& document, const std::string& scope)
{
    const std::string heading = "\n```" + scope + "\n";
    const std::size_t begin = document.find(heading);
    EXPECT_NE(begin, std::string::npos) << scope;
    if (begin == std::string::npos) {
        return {};
    }
    const std::size_t list = begin + heading.size();
    std::istringstream words(document.substr(list, document.find("```\n", list) - list));
    std::set<std::string> names;
    for (std::string name; words >> name;) {
        names.insert(name);
    }
    return lines_of(names);
}

// Groups of illnesses that do not hide each other. Each group has its own engine.
const std::vector<std::vector<std::string>> groups = {
    {"nacks", "low-memory", "peer-degraded-sigblock", "peer-degraded-dataunit", "peer-outdated", "peer-low-buffer",
     "peer-disconnected", "wait-queue", "bypass-nacks"},
    {"retransmissions", "cache-small"},
    {"slow-disk"},
    {"index-full", "bypass-table-full", "app-table-full"},
    {"cache-lost"},
    {"tiny-messages"},
    {"cache-failed", "slow-encode"},
    {"cache-initialising", "peer-out-of-sync"},
    {"cache-unusable", "bypass", "slow-decode"},
    {"incompressible", "conn-stuck"},
    {"auto-bypass", "peer-far"},
    {"ack-queue"},
};

TEST(illness, each_shows_and_is_over_and_what_none_moves_is_documented)
{
    std::size_t count = 0;
    for (const std::vector<std::string>& group : groups) {
        count += group.size();
    }
    ASSERT_EQ(count, all_illnesses().size());

    const temporary_folder folder;
    for (std::uint64_t number = 0; number < 20; ++number) {
        folder.write("small/" + std::to_string(number) + ".html", text_bytes(200'000, number));
        folder.write("large/" + std::to_string(number) + ".html", text_bytes(900'000, number));
    }
    watched_engine various({"--variety", "--once", "--cache-mb", "6", folder.file("large")}, {});
    const std::vector<std::string> common = {"--duration", "60", "--rate", "3"};
    std::vector<std::unique_ptr<watched_engine>> engines;
    for (const std::vector<std::string>& group : groups) {
        std::vector<std::string> arguments = common;
        // A peer is degraded only while others are not.
        const bool b_degraded = std::count(group.begin(), group.end(), "peer-degraded-sigblock") > 0;
        arguments.insert(arguments.end(), {"--peers", b_degraded ? "2" : "1", "--cache-mb", "8", "--bypass-retry", "1",
                                           folder.file("small")});
        for (const std::string& illness : group) {
            arguments.insert(arguments.end(), {"--ill", illness + "@1s+5s"});
        }
        engines.push_back(std::make_unique<watched_engine>(arguments, group));
    }
    std::vector<std::string> healthy = common;
    healthy.push_back(folder.file("small"));
    engines.push_back(std::make_unique<watched_engine>(healthy, std::vector<std::string>{}));

    const auto start = std::chrono::steady_clock::now();
    const auto is_over = [&](const auto& engine) { return engine->has_shown_all() && engine->is_well(); };
    do {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        for (const auto& engine : engines) {
            engine->look();
        }
    } while (std::chrono::steady_clock::now() - start < std::chrono::seconds(40) &&
             !std::all_of(engines.begin(), engines.end(), is_over));

    engines.back()->expect_healthy();
    various.look_when_idle();
    moved_counters moved = various.moved();
    for (const auto& engine : engines) {
        engine->expect_shown_and_well();
        moved.add(engine->moved());
    }
    const std::string document = bytes_of_file(std::string(KAV_DOCS) + "/demo-engine.md");
    EXPECT_EQ(moved.unmoved_engine(), listed_counters(document, "engine"));
    EXPECT_EQ(moved.unmoved_peer(), listed_counters(document, "peer"));
    EXPECT_EQ(moved.unmoved_conn(), listed_counters(document, "connection"));
}

} // namespace
