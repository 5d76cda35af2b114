// Compares the demo engine's statistics, as a viewer reads them, with its ledger.
#include "RE_application.h"
#include "RE_auto_bypass.h"
#include "RE_bypass_table.h"
#include "RE_ip.h"
#include "RE_statistics.h"

#include "engine_process.h"
#include "test_bytes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>

namespace {

using nlohmann::json;
using counter_reader = std::function<long long(int id)>;

struct counter_place
{
    int id;
    const char* side;
    const char* field;
};

// Where the ledger contains the expected value of a counter.
constexpr counter_place counter_places[] = {
    {RE_STAT_CONN_ID_ENCODE_NUM_MSGS, "encode", "/messages"},
    {RE_STAT_CONN_ID_ENCODE_IN_BYTES, "encode", "/lan_bytes"},
    {RE_STAT_CONN_ID_ENCODE_OUT_BYTES, "encode", "/wan_bytes"},
    {RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS, "encode", "/re_messages"},
    {RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES, "encode", "/re_lan_bytes"},
    {RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES, "encode", "/re_wan_bytes"},
    {RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, "encode", "/bypass_messages"},
    {RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, "encode", "/bypass_bytes"},
    {RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, "encode", "/lz_messages"},
    {RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, "encode", "/lz_lan_bytes"},
    {RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES, "encode", "/lz_wan_bytes"},
    {RE_STAT_CONN_ID_ENCODE_X, "encode", "/message_sizes/0"},
    {RE_STAT_CONN_ID_ENCODE_2X, "encode", "/message_sizes/1"},
    {RE_STAT_CONN_ID_ENCODE_4X, "encode", "/message_sizes/2"},
    {RE_STAT_CONN_ID_ENCODE_8X, "encode", "/message_sizes/3"},
    {RE_STAT_CONN_ID_ENCODE_16X, "encode", "/message_sizes/4"},
    {RE_STAT_CONN_ID_ENCODE_32X, "encode", "/message_sizes/5"},
    {RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS, "encode", "/retransmissions/total"},
    {RE_STAT_CONN_ID_NUM_MISS_RTX_MSGS, "encode", "/retransmissions/chunk_missed"},
    {RE_STAT_CONN_ID_NUM_COL_RTX_MSGS, "encode", "/retransmissions/checksum_collision"},
    {RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS, "encode", "/retransmissions/cache_not_ready"},
    {SO_STAT_AO_RD_BYTES, "encode", "/lan_bytes"},
    {SO_STAT_RECV_ACK_FRAME_NUM, "encode", "/acks"},
    {RE_STAT_CONN_ID_DECODE_NUM_MSGS, "decode", "/messages"},
    {RE_STAT_CONN_ID_DECODE_IN_BYTES, "decode", "/wan_bytes"},
    {RE_STAT_CONN_ID_DECODE_OUT_BYTES, "decode", "/lan_bytes"},
    {RE_STAT_CONN_ID_RE_DECODE_NUM_MSGS, "decode", "/re_messages"},
    {RE_STAT_CONN_ID_RE_DECODE_IN_BYTES, "decode", "/re_wan_bytes"},
    {RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES, "decode", "/re_lan_bytes"},
    {RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_NUM, "decode", "/bypass_messages"},
    {RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_BYTES, "decode", "/bypass_bytes"},
    {RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, "decode", "/lz_messages"},
    {RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, "decode", "/lz_wan_bytes"},
    {RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES, "decode", "/lz_lan_bytes"},
    {RE_STAT_CONN_ID_DECODE_X, "decode", "/message_sizes/0"},
    {RE_STAT_CONN_ID_DECODE_2X, "decode", "/message_sizes/1"},
    {RE_STAT_CONN_ID_DECODE_4X, "decode", "/message_sizes/2"},
    {RE_STAT_CONN_ID_DECODE_8X, "decode", "/message_sizes/3"},
    {RE_STAT_CONN_ID_DECODE_16X, "decode", "/message_sizes/4"},
    {RE_STAT_CONN_ID_DECODE_32X, "decode", "/message_sizes/5"},
    {RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, "decode", "/nacks/total"},
    {RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS, "decode", "/nacks/chunk_missed"},
    {RE_STAT_CONN_ID_NUM_COL_NACK_MSGS, "decode", "/nacks/checksum_collision"},
    {RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_NACK_MSGS, "decode", "/nacks/cache_not_ready"},
    {SO_STAT_AO_WT_BYTES, "decode", "/lan_bytes"},
    {SO_STAT_SEND_ACK_FRAME_NUM, "decode", "/acks"},
};

long long at(const json& account, const std::string& place)
{
    return account.at(json::json_pointer(place)).get<long long>();
}

void expect_account(const json& account, const counter_reader& read, const std::string& whose)
{
    for (const counter_place& place : counter_places) {
        const std::string path = std::string("/") + place.side + place.field;
        EXPECT_EQ(read(place.id), at(account, path)) << whose << ": " << path;
    }
    EXPECT_EQ(read(RE_STAT_CONN_ID_NUM_ACK_MSGS), at(account, "/encode/acks") + at(account, "/decode/acks")) << whose;
    EXPECT_EQ(read(RE_STAT_CONN_ID_ACK_BYTES), at(account, "/encode/ack_bytes") + at(account, "/decode/ack_bytes"))
        << whose;
    // The bypass messages are the sum of all causes. Bytes that did not reach the LZ stage were sent unchanged.
    EXPECT_EQ(read(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP) +
                  read(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_CACHE_NOT_READY) +
                  read(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_OVERLD),
              at(account, "/encode/bypass_messages"))
        << whose;
    EXPECT_EQ(read(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES) + read(RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES) -
                  read(RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES) + read(RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES),
              read(RE_STAT_CONN_ID_ENCODE_OUT_BYTES))
        << whose;
    EXPECT_EQ(read(RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES) + read(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES),
              read(RE_STAT_CONN_ID_ENCODE_IN_BYTES))
        << whose;
    EXPECT_EQ(read(RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES) + read(RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_BYTES),
              read(RE_STAT_CONN_ID_DECODE_OUT_BYTES))
        << whose;
}

// Returns the entry of `list` whose `field` is `value`, or null when there is none.
const json* find(const json& list, const char* field, long long value)
{
    for (const json& entry : list) {
        if (entry.at(field).get<long long>() == value) {
            return &entry;
        }
    }
    return nullptr;
}

void expect_peers(RE_stat_reader& reader, const json& ledger)
{
    std::size_t with_traffic = 0;
    long long connected = 0;
    for (int slot = 0; slot < reader.get_max_peer_slots(); ++slot) {
        int number = -1;
        long long connections = 0;
        if (!reader.is_peer_valid(slot)) {
            continue;
        }
        reader.read_peer_id(slot, number);
        reader.read_peer_stat(slot, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, connections);
        const json* const account = find(ledger.at("peers"), "peer", number);
        ASSERT_EQ(account == nullptr, connections == 0);
        if (account == nullptr) {
            continue;
        }
        ++with_traffic;
        connected += at(*account, "/open_connections") > 0 ? 1 : 0;
        const auto read = [&](int id) {
            long long value = 0;
            reader.read_peer_conn_stat(slot, id, value);
            return value;
        };
        expect_account(*account, read, "peer " + std::to_string(number));
        EXPECT_EQ(connections, at(*account, "/connections"));
        EXPECT_EQ(reader.read_peer_active_conn_count(slot), at(*account, "/open_connections"));
        long long value = 0;
        reader.read_peer_stat(slot, RE_STAT_PEER_ID_NUM_NACKS, value);
        EXPECT_EQ(value, at(*account, "/decode/nacks/total"));
        reader.read_peer_stat(slot, RE_STAT_PEER_ID_NUM_RTXS, value);
        EXPECT_EQ(value, at(*account, "/encode/retransmissions/total"));
    }
    EXPECT_EQ(with_traffic, ledger.at("peers").size());
    long long value = 0;
    reader.read_global_stat(RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER, value);
    EXPECT_EQ(value, connected);
}

void expect_connections(RE_stat_reader& reader, const json& ledger)
{
    std::size_t count = 0;
    for (int slot = 0; slot < reader.get_max_conn_slots(); ++slot) {
        if (!reader.is_conn_valid(slot)) {
            continue;
        }
        ++count;
        RE_stat_conn_header header{};
        int peer = -1;
        std::time_t open_time = 0;
        std::time_t close_time = 0;
        reader.read_conn_header(slot, header);
        reader.read_conn_peer_id(slot, peer);
        reader.read_conn_time(slot, open_time, close_time);
        const json* const account = find(ledger.at("connection_details"), "conn_id", header.m_conn_id);
        ASSERT_NE(account, nullptr) << header.m_conn_id;
        EXPECT_EQ(at(*account, "/peer"), peer);
        EXPECT_EQ(account->at("client_ip"), ip_to_string(header.m_client_ip));
        EXPECT_EQ(account->at("server_ip"), ip_to_string(header.m_server_ip));
        EXPECT_EQ(at(*account, "/client_port"), header.m_client_port);
        EXPECT_EQ(at(*account, "/server_port"), header.m_server_port);
        EXPECT_EQ(at(*account, "/open_connections"), close_time <= 0 ? 1 : 0);
        const auto read = [&](int id) {
            long long value = 0;
            reader.read_conn_stat(slot, id, value);
            return value;
        };
        expect_account(*account, read, "connection " + std::to_string(header.m_conn_id));
    }
    EXPECT_EQ(count, ledger.at("connection_details").size());
}

void expect_applications(RE_stat_reader& reader, const json& ledger)
{
    std::size_t count = 0;
    for (const json& account : ledger.at("applications")) {
        RE_stat_app_struct* record = nullptr;
        bool b_found = false;
        for (int slot = 0; !b_found && reader.read_app_slot(slot, record) >= 0 && record != nullptr; ++slot) {
            const RE_stat_app_header& header = record->m_header;
            // The peer's number is in the low bytes of its address.
            const int peer = header.m_kav_peer_id.m_data[4] * 256 + header.m_kav_peer_id.m_data[5];
            b_found = header.m_policy_engine_handler == at(account, "/handler") &&
                      header.m_server_port == at(account, "/server_port") && peer == at(account, "/peer");
        }
        ASSERT_TRUE(b_found) << account;
        ++count;
        const auto kilobytes = [&](int id) { return record->m_id_array[id]; };
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_ENCODE_IN_KBYTES), at(account, "/encode/lan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_ENCODE_OUT_KBYTES), at(account, "/encode/wan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES), at(account, "/encode/re_lan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES), at(account, "/encode/re_wan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES), at(account, "/encode/lz_lan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES), at(account, "/encode/lz_wan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_DECODE_IN_KBYTES), at(account, "/decode/wan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_DECODE_OUT_KBYTES), at(account, "/decode/lan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_RE_DECODE_IN_KBYTES), at(account, "/decode/re_wan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES), at(account, "/decode/re_lan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES), at(account, "/decode/lz_wan_bytes") / 1024);
        EXPECT_EQ(kilobytes(RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES), at(account, "/decode/lz_lan_bytes") / 1024);
        EXPECT_EQ(record->m_id_array[RE_STAT_APP_ID_ENCODE_NUM_MSGS], at(account, "/encode/messages"));
        EXPECT_EQ(record->m_id_array[RE_STAT_APP_ID_RE_ENCODE_NUM_MSGS], at(account, "/encode/re_messages"));
        EXPECT_EQ(record->m_id_array[RE_STAT_APP_ID_LZ_ENCODE_NUM_MSGS], at(account, "/encode/lz_messages"));
        EXPECT_EQ(record->m_id_array[RE_STAT_APP_ID_DECODE_NUM_MSGS], at(account, "/decode/messages"));
        EXPECT_EQ(record->m_id_array[RE_STAT_APP_ID_RE_DECODE_NUM_MSGS], at(account, "/decode/re_messages"));
        EXPECT_EQ(record->m_id_array[RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS], at(account, "/decode/lz_messages"));
        EXPECT_EQ(record->m_header.m_open_cnt, at(account, "/connections"));
        EXPECT_EQ(record->m_header.m_open_cnt - record->m_header.m_close_cnt, at(account, "/open_connections"));
    }
    RE_stat_app_struct* beyond = nullptr;
    reader.read_app_slot(static_cast<int>(count), beyond);
    EXPECT_EQ(beyond, nullptr);
}

// Returns the records of all sections of a top-application log, added up by application.
std::vector<RE_stat_app_struct> read_app_log(const std::string& path)
{
    // Without traffic, the log does not exist.
    const std::string text = std::filesystem::exists(path) ? bytes_of_file(path) : "";
    std::size_t at_byte = 0;
    const auto take = [&](void* to, std::size_t size) {
        ASSERT_LE(at_byte + size, text.size());
        std::memcpy(to, text.data() + at_byte, size);
        at_byte += size;
    };
    std::vector<RE_stat_app_struct> sums;
    while (at_byte < text.size() && !testing::Test::HasFatalFailure()) {
        std::uint32_t word = 0;
        take(&word, sizeof word);
        EXPECT_EQ(word, 1U);
        take(&word, sizeof word);
        EXPECT_EQ(word, all_applications().size());
        at_byte += 86 * std::size_t{word};
        take(&word, sizeof word);
        for (std::uint32_t record = 0; record < word; ++record) {
            RE_stat_app_struct news{};
            take(&news, sizeof news);
            const auto known = std::find_if(
                sums.begin(), sums.end(), [&](const RE_stat_app_struct& sum) { return sum.m_header == news.m_header; });
            if (known == sums.end()) {
                sums.push_back(news);
                continue;
            }
            for (std::size_t id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
                known->m_id_array[id] += news.m_id_array[id];
            }
            known->m_header.m_open_cnt = (known->m_header.m_open_cnt + news.m_header.m_open_cnt) & 0x7fffffU;
            known->m_header.m_close_cnt = (known->m_header.m_close_cnt + news.m_header.m_close_cnt) & 0xffffffU;
        }
    }
    return sums;
}

void expect_app_log(RE_stat_reader& reader, const std::string& path)
{
    const std::vector<RE_stat_app_struct> sums = read_app_log(path);
    for (std::size_t slot = 0; slot < sums.size(); ++slot) {
        RE_stat_app_struct* live = nullptr;
        bool b_found = false;
        for (int app_slot = 0; !b_found && reader.read_app_slot(app_slot, live) >= 0 && live != nullptr; ++app_slot) {
            b_found = live->m_header == sums[slot].m_header;
        }
        ASSERT_TRUE(b_found);
        EXPECT_EQ(std::memcmp(live, &sums[slot], sizeof *live), 0) << slot;
    }
    const std::uint32_t slots_in_use = reader.get_app_slot_shared_memory_header_size();
    EXPECT_EQ(sums.size(), slots_in_use);
}

void expect_nack_log(RE_stat_reader& reader, const json& ledger)
{
    constexpr const char* reasons[] = {"none", "chunk_missed", "checksum_collision", "disk_overloaded",
                                       "cache_not_ready"};
    long long counts[2][5] = {};
    RE_stat_nack_header entry{};
    for (int cursor = reader.get_first_nack(); cursor >= 0;) {
        cursor = reader.get_next_nack(cursor, entry);
        if (cursor >= 0) {
            ASSERT_TRUE(entry.m_type == 0 || entry.m_type == 1);
            ASSERT_TRUE(entry.m_reason >= 1 && entry.m_reason <= 4);
            ++counts[entry.m_type][entry.m_reason];
        }
    }
    for (std::size_t reason = 1; reason < 5; ++reason) {
        const std::string name = reasons[reason];
        EXPECT_EQ(counts[RE_STAT_NACK_AT_RECEIVER][reason], at(ledger, "/engine/decode/nacks/" + name)) << name;
        EXPECT_EQ(counts[RE_STAT_NACK_AT_SENDER][reason], at(ledger, "/engine/encode/retransmissions/" + name)) << name;
    }
}

void expect_bypass_table(RE_stat_reader& reader, const json& ledger)
{
    const int size = static_cast<int>(RE_auto_bypass::get_shm_size());
    const auto* const table = static_cast<const RE_bypass_table*>(reader.get_re_auto_bypass_memory_ptr(size));
    ASSERT_NE(table, nullptr);
    std::size_t count = 0;
    for (std::uint32_t row = 0; row < table->rows_used; ++row) {
        const RE_bypass_entry& entry = table->rows[row].entry;
        // A server without connections may have been added because of its very last message.
        if (table->rows[row].b_in_use == 0 || entry.connections == 0) {
            continue;
        }
        ++count;
        bool b_found = false;
        for (const json& account : ledger.at("bypassed_servers")) {
            if (account.at("server_ip") == ip_to_string(entry.server_ip) &&
                account.at("server_port") == entry.server_port) {
                b_found = true;
                EXPECT_EQ(entry.bytes, account.at("bytes"));
                EXPECT_EQ(entry.connections, account.at("connections"));
                EXPECT_EQ(entry.next_attempt, entry.since + 60);
            }
        }
        EXPECT_TRUE(b_found) << ip_to_string(entry.server_ip);
    }
    EXPECT_EQ(count, ledger.at("bypassed_servers").size());
}

// Runs the engine once through `folder`, compares everything and returns the ledger.
json expect_agreement(const temporary_folder& folder, std::vector<std::string> arguments)
{
    const temporary_folder outputs;
    const std::string ledger_path = outputs.file("ledger.json");
    const std::string app_log_path = outputs.file("top_app.log");
    arguments.insert(arguments.end(),
                     {"--once", "--ledger", ledger_path, "--top-app-log", app_log_path, folder.path()});
    engine_process engine(arguments);
    EXPECT_TRUE(engine.wait_for("ready"));
    EXPECT_TRUE(engine.wait_for("idle"));
    const json ledger = json::parse(bytes_of_file(ledger_path));
    EXPECT_TRUE(ledger.at("finished"));

    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    EXPECT_EQ(reader->open(), 0);
    const auto read = [&](int id) {
        long long value = 0;
        reader->read_global_conn_stat(id, value);
        return value;
    };
    expect_account(ledger.at("engine"), read, "engine");
    long long connections = -1;
    reader->read_global_stat(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, connections);
    EXPECT_EQ(connections, at(ledger, "/engine/connections"));
    EXPECT_EQ(reader->read_global_active_conn_count(), at(ledger, "/engine/open_connections"));
    expect_peers(*reader, ledger);
    expect_connections(*reader, ledger);
    expect_applications(*reader, ledger);
    expect_app_log(*reader, app_log_path);
    expect_nack_log(*reader, ledger);
    expect_bypass_table(*reader, ledger);

    engine.send(SIGTERM);
    EXPECT_EQ(engine.wait(), 0) << engine.errors();
    EXPECT_FALSE(engine.has_segment());
    EXPECT_EQ(json::parse(bytes_of_file(ledger_path)), ledger);
    return ledger;
}

TEST(account, agrees_on_mixed_traffic_with_nacks_of_every_reason)
{
    const temporary_folder folder;
    const RE_byte_buffer text = text_bytes(1'000'000, 1);
    for (std::size_t number = 0; number < 30; ++number) {
        const std::string place = std::to_string(10 + number);
        folder.write(place + "/a.html", RE_byte_view(text).subspan(number * 20'000, 150'000));
        folder.write(place + "/b.html", RE_byte_view(text).subspan(number * 25'000, 70'000));
        folder.write(place + "/data", random_bytes(10'000, number));
    }
    folder.write("empty.txt", {});
    const json ledger = expect_agreement(
        folder, {"--variety", "--cache-mb", "8", "--slots", "30", "--repeat", "3", "--signature-bits", "16"});
    EXPECT_EQ(at(ledger, "/engine/connections"), 3 * 91);
    for (const char* reason : {"chunk_missed", "checksum_collision", "disk_overloaded", "cache_not_ready"}) {
        EXPECT_GT(at(ledger, std::string("/engine/encode/retransmissions/") + reason), 0) << reason;
    }
    EXPECT_GT(at(ledger, "/engine/decode/nacks/chunk_missed"), 0);
}

TEST(account, agrees_when_there_is_no_traffic)
{
    const temporary_folder folder;
    const json ledger = expect_agreement(folder, {});
    EXPECT_EQ(at(ledger, "/engine/connections"), 0);
    EXPECT_TRUE(ledger.at("peers").empty());
}

TEST(account, agrees_when_nothing_compresses_and_traffic_goes_around)
{
    const temporary_folder folder;
    for (std::uint64_t file = 0; file < 8; ++file) {
        folder.write(std::to_string(file) + ".gz", random_bytes(1'500'000, file));
    }
    const json ledger = expect_agreement(folder, {"--peers", "2", "--repeat", "1"});
    EXPECT_EQ(ledger.at("bypassed_servers").size(), 2U);
    EXPECT_GT(at(ledger, "/engine/encode/bypass_bytes"), 2'000'000);
    EXPECT_GT(at(ledger, "/engine/decode/bypass_bytes"), 2'000'000);
}

TEST(account, agrees_on_tiny_messages)
{
    const temporary_folder folder;
    folder.write("notes.txt", random_bytes(50'000, 1));
    folder.write("other.txt", random_bytes(50'000, 2));
    const json ledger = expect_agreement(folder, {"--peers", "1", "--message-size", "1", "--repeat", "1"});
    EXPECT_EQ(at(ledger, "/engine/encode/messages"), 50'000);
    EXPECT_EQ(at(ledger, "/engine/decode/messages"), 50'000);
}

TEST(account, agrees_with_the_log_of_several_passes)
{
    const temporary_folder folder;
    for (std::uint64_t file = 0; file < 10; ++file) {
        folder.write("traffic/" + std::to_string(file) + ".html", random_bytes(20'000, file));
    }
    engine_process engine({"--duration", "1.5", "--ledger", folder.file("ledger"), "--top-app-log", folder.file("log"),
                           folder.file("traffic")});
    ASSERT_EQ(engine.wait(), 0);
    const json ledger = json::parse(bytes_of_file(folder.file("ledger")));
    ASSERT_GT(at(ledger, "/rounds"), 1);
    const std::vector<RE_stat_app_struct> sums = read_app_log(folder.file("log"));
    EXPECT_EQ(sums.size(), ledger.at("applications").size());
    for (const RE_stat_app_struct& sum : sums) {
        const json* const account = find(ledger.at("applications"), "peer", sum.m_header.m_kav_peer_id.m_data[5]);
        ASSERT_NE(account, nullptr);
        EXPECT_EQ(sum.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES], at(*account, "/encode/lan_bytes") / 1024);
        EXPECT_EQ(sum.m_id_array[RE_STAT_APP_ID_DECODE_OUT_KBYTES], at(*account, "/decode/lan_bytes") / 1024);
        EXPECT_EQ(sum.m_id_array[RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES], at(*account, "/encode/lz_wan_bytes") / 1024);
        EXPECT_EQ(sum.m_header.m_open_cnt, at(*account, "/connections"));
    }
}

TEST(account, agrees_with_a_single_connection_slot)
{
    const temporary_folder folder;
    for (std::uint64_t file = 0; file < 10; ++file) {
        folder.write(std::to_string(file) + ".html", random_bytes(20'000, file));
    }
    const json ledger = expect_agreement(folder, {"--slots", "1"});
    EXPECT_EQ(ledger.at("connection_details").size(), 1U);
    EXPECT_EQ(at(ledger, "/engine/connections"), 20);
}

} // namespace
