// The end-to-end account: the demo engine processes a known set of files once, and the real viewer prints every view.
// Every figure in the reports is compared with the engine's ledger, which is independent of the statistics.

#include "ledger_figures.h"
#include "support/contains.h"
#include "support/demo_engine.h"
#include "support/system_test.h"

#include <sys/stat.h>

#include <algorithm>
#include <random>

namespace {

using nlohmann::json;

#ifdef KAV_STATIC_VIEWER
constexpr long long tiny_messages = 1000000;
#else
// Instrumented engines take twenty times as long.
constexpr long long tiny_messages = 100000;
#endif

// Returns text of `size` bytes with repeated sentences.
std::string repeating_text(std::size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    std::vector<std::string> sentences(50);
    for (std::string& sentence : sentences) {
        for (int word = 0; word < 60; ++word) {
            sentence += std::to_string(random() % 5000) + " ";
        }
    }
    std::string text;
    while (text.size() < size) {
        text += sentences[random() % sentences.size()];
    }
    text.resize(size);
    return text;
}

std::string random_bytes(std::size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

class account : public system_test
{
protected:
    account() { mkdir(traffic().c_str(), 0755); }

    std::string traffic() const { return path("traffic"); }
    void add_file(const std::string& name, const std::string& bytes) const
    {
        write_file(traffic() + "/" + name, bytes);
    }

    // Runs the engine once through the files and compares every view with the ledger, which is stored in m_ledger.
    void expect_agreement(std::vector<std::string> options)
    {
        options.insert(options.end(), {"--once", "--ledger", path("ledger"), "--top-app-log", path("log"), traffic()});
        demo_engine engine(options);
        ASSERT_TRUE(engine.says("ready"));
        ASSERT_TRUE(engine.says("idle"));
        m_ledger = json::parse(bytes_of_file(path("ledger")));
        ASSERT_TRUE(m_ledger.at("finished").get<bool>());
        EXPECT_EQ(m_ledger.at("rounds"), 1);

        expect_engine(report_of({"global-info"}), report_of({"global-detail"}));
        expect_peers(report_of({"peer"}), report_of({"peer", "detail"}));
        expect_connection_table();
        expect_each_connection();
        expect_nack_logs();
        expect_applications();
        expect_bypass_table();
        expect_saved_reports();
        EXPECT_EQ(engine.stop().status, 0);
        EXPECT_EQ(json::parse(bytes_of_file(path("ledger"))), m_ledger);
    }

    static figure_map with_counts(figure_map figures, const json& account)
    {
        figures["total"] = std::to_string(account.at("connections").get<long long>());
        figures["active"] = std::to_string(account.at("open_connections").get<long long>());
        return figures;
    }

    // Returns the figures that the summary shows.
    static figure_map without_detail(figure_map figures)
    {
        std::erase_if(figures, [](const auto& figure) {
            return figure.first.starts_with("Nacks") || figure.first.starts_with("R-tx") ||
                   figure.first.starts_with("Ack") || figure.first.starts_with("peer") || figure.first == "processed";
        });
        return figures;
    }

    void expect_engine(const std::string& info, const std::string& detail) const
    {
        const json& engine = m_ledger.at("engine");
        if (engine.at("connections") == 0) {
            EXPECT_FALSE(contains(info, "Connections:"));
            EXPECT_EQ(connection_figures(detail), figure_map{});
            return;
        }
        const figure_map expected = with_counts(expected_connection_figures(engine), engine);
        EXPECT_EQ(connection_figures(info), without_detail(expected));
        EXPECT_EQ(connection_figures(detail), expected);
    }

    void expect_peers(const std::string& info, const std::string& detail) const
    {
        const std::map<long long, std::string> infos = peers_in(info);
        const std::map<long long, std::string> details = peers_in(detail);
        EXPECT_EQ(infos.size(), details.size());
        std::size_t peers_with_traffic = 0;
        long long connected = 0;
        for (const json& peer : m_ledger.at("peers")) {
            const auto number = peer.at("peer").get<long long>();
            ASSERT_TRUE(details.contains(number));
            EXPECT_TRUE(contains(details.at(number), "Peer-ID : " + peer.at("mac_id").get<std::string>() + "\n"));
            figure_map expected = with_counts(expected_connection_figures(peer), peer);
            expected["peer Nacks"] = expected["Nacks total"];
            expected["peer R-tx"] = expected["R-tx total"];
            EXPECT_EQ(connection_figures(details.at(number)), expected) << "peer " << number;
            EXPECT_EQ(connection_figures(infos.at(number)), without_detail(expected)) << "peer " << number;
            ++peers_with_traffic;
            connected += peer.at("open_connections") > 0 ? 1 : 0;
        }
        for (const auto& [number, report] : infos) {
            peers_with_traffic -= report.find("\nConnections:") != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(peers_with_traffic, 0U) << "peers without traffic show no connections";
        EXPECT_EQ(info.substr(0, info.find('\n', 1)),
                  "\nCurrent number of peers with active connections:           " + std::to_string(connected));
    }

    // Whether a connection may be missing from all lists because the engine does not process its traffic.
    static bool may_be_unlisted(const json& connection, const json& ledger)
    {
        const auto bypassed = connection.at("encode").at("bypass_messages").get<long long>() +
                              connection.at("decode").at("bypass_messages").get<long long>();
        return bypassed > 0 && !ledger.at("bypassed_servers").empty();
    }

    void expect_connection_table()
    {
        const std::map<long long, std::string> rows = rows_of_connection_table(report_of({"conn"}));
        std::size_t listed = 0;
        for (const json& connection : m_ledger.at("connection_details")) {
            const auto row = rows.find(connection.at("conn_id").get<long long>());
            if (row == rows.end()) {
                EXPECT_TRUE(may_be_unlisted(connection, m_ledger)) << connection;
                continue;
            }
            ++listed;
            EXPECT_EQ(row->second, expected_connection_row(connection)) << "connection " << row->first;
        }
        EXPECT_EQ(rows.size(), listed) << "no row without a connection";
        m_listed_connections = listed;
    }

    void expect_each_connection()
    {
        std::size_t shown = 0;
        for (const json& connection : m_ledger.at("connection_details")) {
            const std::string id = std::to_string(connection.at("conn_id").get<long long>());
            const std::string report = report_of({"conn", "id", id, "detail"});
            if (report.empty()) {
                continue;
            }
            ++shown;
            EXPECT_EQ(connection_figures(report), expected_connection_figures(connection)) << "connection " << id;
        }
        EXPECT_EQ(shown, m_listed_connections);
    }

    void expect_nack_logs() const
    {
        const std::map<std::string, long long> expected = expected_nack_counts(m_ledger);
        EXPECT_EQ(counts_of_nack_log(report_of({"nack"})), expected);
        EXPECT_EQ(counts_of_nack_log(report_of({"peer", "nack"})), expected);
        EXPECT_EQ(counts_of_nack_log(report_of({"tech-support"})), expected);
    }

    void expect_applications() const
    {
        const std::map<long long, std::string> peers = peers_in(report_of({"peer"}));
        const std::string report = report_of({"top-app", "detail"});
        const std::vector<app_entry> entries = entries_of_top_app(report);
        EXPECT_EQ(entries.size(), m_ledger.at("applications").size());
        for (const json& application : m_ledger.at("applications")) {
            const std::string& peer = peers.at(application.at("peer").get<long long>());
            const auto entry = std::find_if(entries.begin(), entries.end(), [&](const app_entry& candidate) {
                return candidate.port == application.at("server_port") &&
                       peer.find("KAV-peer-id : " + candidate.peer_identity + " ") != std::string::npos;
            });
            ASSERT_NE(entry, entries.end()) << application;
            EXPECT_EQ(entry->figures, expected_app_figures(application)) << application.at("application");
        }
        expect_rows(rows_of_top_app(report), entries, "server_port");
        const std::string log_report =
            entries.empty() ? report_of({"top-app"}) : report_of({"top-app", "from-file", path("log")});
        expect_rows(rows_of_top_app(log_report), entries, "classifier");
    }

    // label_in_ledger: the field of an application in the ledger that distinguishes the rows.
    void expect_rows(const std::vector<app_row>& rows, const std::vector<app_entry>& entries,
                     const char* label_in_ledger) const
    {
        const auto label_of = [=](const json& application) {
            const json& label = application.at(label_in_ledger);
            return label.is_string() ? label.get<std::string>() : std::to_string(label.get<int>());
        };
        std::map<std::string, long long> ports;
        for (const json& application : m_ledger.at("applications")) {
            ports[label_of(application)] = application.at("server_port").get<long long>();
        }
        ASSERT_EQ(rows.size(), ports.empty() ? 0 : ports.size() + 1);
        for (const app_row& row : rows) {
            const bool b_total = row.label == "Total";
            figure_map expected = expected_app_row(
                m_ledger, [&](const json& application) { return b_total || label_of(application) == row.label; });
            if (b_total) {
                expected["share"] = "100.00%";
                expected["open"] = "N/A";
                expected["close"] = "N/A";
            } else {
                ASSERT_TRUE(ports.contains(row.label)) << row.label;
                // A row contains only the connections of its first entry.
                const auto first = std::find_if(entries.begin(), entries.end(), [&](const app_entry& entry) {
                    return entry.port == ports.at(row.label);
                });
                ASSERT_NE(first, entries.end()) << row.label;
                expected["open"] = first->figures.at("open");
                expected["close"] = first->figures.at("close");
            }
            EXPECT_EQ(row.figures, expected) << row.label;
        }
    }

    void expect_bypass_table() const
    {
        figure_map shown = bypass_figures(report_of({"kav-bypass", "detail"}));
        // A server without connections may have been added because of its very last message.
        std::erase_if(shown, [](const auto& entry) { return entry.first != "sum" && entry.second == "0 0"; });
        EXPECT_EQ(shown, expected_bypass_figures(m_ledger));
    }

    void expect_saved_reports() const
    {
        EXPECT_EQ(report_of({"save-file", path("saved")}), "");
        const std::string report = report_of({"read-file", path("saved")});
        const std::string second_heading = "-------------------- kav peer-detail\n";
        const std::size_t middle = report.find(second_heading);
        ASSERT_NE(middle, std::string::npos);
        expect_engine(report_of({"global-info"}), report.substr(0, middle));
        expect_peers(report_of({"peer"}), report.substr(middle + second_heading.size()));
    }

    long long engine_figure(const std::string& side, const std::string& figure) const
    {
        return m_ledger.at("engine").at(side).at(figure).get<long long>();
    }
    std::size_t connections() const { return m_ledger.at("engine").at("connections").get<std::size_t>(); }

    json m_ledger;
    std::size_t m_listed_connections = 0;
};

} // namespace

TEST_F(account, agrees_on_mixed_traffic)
{
    for (unsigned int file = 0; file < 10; ++file) {
        const std::string number = std::to_string(file);
        add_file("report" + number + ".txt", repeating_text(150000 + file * 10000, file % 3));
        add_file("page" + number + ".html", repeating_text(90000, 7) + repeating_text(30000, 100 + file));
        add_file("picture" + number + ".jpg", random_bytes(20000 + file * 1000, file));
        add_file("program" + number, std::string("\177ELF") + random_bytes(30000, 50) + repeating_text(60000, file));
    }
    add_file("empty.txt", "");
    add_file("one_byte.txt", "1");
    expect_agreement({"--variety", "--cache-mb", "4", "--repeat", "3"});
    EXPECT_EQ(connections(), 3U * 42U);
    EXPECT_EQ(m_listed_connections, connections());
    EXPECT_GT(m_ledger.at("engine").at("encode").at("retransmissions").at("total"), 0);
    EXPECT_GT(m_ledger.at("engine").at("decode").at("nacks").at("total"), 0);
    EXPECT_GT(engine_figure("encode", "re_messages"), 0);
    EXPECT_GT(engine_figure("decode", "lz_messages"), 0);
    EXPECT_GT(m_ledger.at("applications").size(), 8U);
}

TEST_F(account, agrees_on_a_million_tiny_messages)
{
    constexpr int message_size = 4;
    constexpr std::size_t bytes_a_file = tiny_messages / 2 * message_size;
    add_file("encoded.txt", repeating_text(bytes_a_file, 1));
    add_file("decoded.txt", repeating_text(bytes_a_file, 2));
    expect_agreement({"--peers", "1", "--repeat", "1", "--message-size", std::to_string(message_size)});
    EXPECT_EQ(engine_figure("encode", "messages"), tiny_messages / 2);
    EXPECT_EQ(engine_figure("decode", "messages"), tiny_messages / 2);
}

TEST_F(account, agrees_on_traffic_that_does_not_compress)
{
    for (unsigned int file = 0; file < 8; ++file) {
        add_file("archive" + std::to_string(file) + ".gz", random_bytes(1500000, file));
    }
    expect_agreement({"--peers", "2", "--repeat", "1"});
    EXPECT_EQ(m_ledger.at("bypassed_servers").size(), 2U);
    EXPECT_GT(engine_figure("encode", "bypass_bytes"), 1000000);
    EXPECT_GT(engine_figure("decode", "bypass_bytes"), 1000000);
    EXPECT_LT(m_listed_connections, connections());
}

TEST_F(account, agrees_on_an_empty_folder)
{
    expect_agreement({});
    EXPECT_EQ(connections(), 0U);
}

TEST_F(account, agrees_on_empty_files)
{
    for (int file = 0; file < 9; ++file) {
        add_file(std::to_string(file) + ".txt", "");
    }
    expect_agreement({});
    EXPECT_EQ(connections(), 18U);
    EXPECT_EQ(engine_figure("encode", "messages"), 0);
    EXPECT_EQ(m_ledger.at("engine").at("open_connections"), 4);
}

TEST_F(account, agrees_on_more_connections_than_there_are_slots)
{
    for (unsigned int file = 0; file < 25; ++file) {
        add_file(std::to_string(file) + ".html", repeating_text(20000, file));
    }
    expect_agreement({"--slots", "10", "--repeat", "2"});
    EXPECT_EQ(connections(), 50U);
    EXPECT_EQ(m_ledger.at("connection_details").size(), 10U);
    EXPECT_EQ(m_listed_connections, 10U);
}
