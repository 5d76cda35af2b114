#include "ledger_figures.h"

#include <algorithm>
#include <cstdio>

using nlohmann::json;

namespace {

constexpr long long kilobyte = 1024;
constexpr long long megabyte = 1024 * kilobyte;
constexpr long long gigabyte = 1024 * megabyte;

// Counters of applications are in whole kilobytes.
std::string shown_kilobytes(long long kilobytes)
{
    if (kilobytes > 100 * megabyte) {
        return std::to_string(kilobytes / megabyte) + " GB";
    }
    return kilobytes > 100 * kilobyte ? std::to_string(kilobytes / kilobyte) + " MB"
                                      : std::to_string(kilobytes) + " KB";
}

// Returns the reduction in percent, computed in single precision as in the reports.
std::string shown_reduction(long long larger, long long smaller)
{
    float percent = 0;
    if (larger > 0 && larger > smaller) {
        percent = static_cast<float>(larger - smaller) * 100.0F / static_cast<float>(larger);
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.2f%%", static_cast<double>(percent));
    return percent > 0 && percent < 0.0001F ? "<0.01%" : text;
}

// When only one side is 0, reports on connections show no reduction, and those on applications show a full one.
std::string shown_app_reduction(long long larger, long long smaller)
{
    return (larger == 0) != (smaller == 0) ? "100.00%" : shown_reduction(larger, smaller);
}

long long at(const json& account, const char* side, const char* figure)
{
    return account.at(side).at(figure).get<long long>();
}

std::string shown_sizes(const json& counts)
{
    static constexpr const char* names[] = {"0-1K", "1K-5K", "5K-15K", "15K-25K", "25K-40K", ">40K"};
    long long total = 0;
    for (const json& count : counts) {
        total += count.get<long long>();
    }
    std::string text;
    for (std::size_t bucket = 0; bucket < std::size(names); ++bucket) {
        const long long percent = total == 0 ? 0 : counts.at(bucket).get<long long>() * 100 / total;
        text += (bucket == 0 ? "" : "  ") + std::string(names[bucket]) + "=" + std::to_string(percent) + "%";
    }
    return text;
}

void add_stage(figure_map& figures, const std::string& name, long long messages, long long in, long long out,
               bool b_encode)
{
    figures[name + " msg"] = std::to_string(messages);
    figures[name + " in"] = shown_bytes(in);
    figures[name + " out"] = shown_bytes(out);
    // A ratio needs both sides.
    const bool b_both = in > 0 && out > 0;
    figures[name + " ratio"] = b_both ? (b_encode ? shown_reduction(in, out) : shown_reduction(out, in)) : "0.00%";
}

void add_bypass(figure_map& figures, const std::string& name, long long messages, long long bytes)
{
    figures[name + " msg"] = std::to_string(std::max(0LL, messages));
    figures[name + " in"] = shown_bytes(std::max(0LL, bytes));
}

void add_side(figure_map& figures, const json& account, bool b_encode)
{
    const char* const side = b_encode ? "encode" : "decode";
    const std::string name = b_encode ? "Encode" : "Decode";
    const auto figure = [&](const char* which) { return at(account, side, which); };
    const auto add = [&](const char* stage, long long messages, long long lan, long long wan) {
        add_stage(figures, name + stage, messages, b_encode ? lan : wan, b_encode ? wan : lan, b_encode);
    };
    add(" Overall", figure("messages"), figure("lan_bytes"), figure("wan_bytes"));
    add(" KAV", figure("re_messages"), figure("re_lan_bytes"), figure("re_wan_bytes"));
    add(" LZ", figure("lz_messages"), figure("lz_lan_bytes"), figure("lz_wan_bytes"));
    add_bypass(figures, name + " KAV Bypass", figure("bypass_messages"), figure("bypass_bytes"));
    // Data that reached the LZ stage and was not compressed. On the other side, data that arrived uncompressed.
    add_bypass(figures, name + " LZ Bypass", figure("messages") - figure("lz_messages"),
               b_encode ? figure("bypass_bytes") + figure("re_wan_bytes") - figure("lz_lan_bytes")
                        : figure("wan_bytes") - figure("lz_wan_bytes"));
    figures[name + " average"] = shown_bytes(figure("messages") == 0 ? 0 : figure("lan_bytes") / figure("messages"));
    figures[name + " sizes"] = shown_sizes(account.at(side).at("message_sizes"));
}

void add_counts_by_reason(figure_map& figures, const std::string& name, const json& counts)
{
    static constexpr std::pair<const char*, const char*> shown_reasons[] = {
        {"collision", "checksum_collision"}, {"chunk-miss", "chunk_missed"}, {"cache-not-ready", "cache_not_ready"}};
    figures[name + " total"] = std::to_string(counts.at("total").get<long long>());
    for (const auto& [shown, reason] : shown_reasons) {
        if (counts.at(reason).get<long long>() > 0) {
            figures[name + " " + shown] = std::to_string(counts.at(reason).get<long long>());
        }
    }
}

struct app_stage
{
    const char* name;
    const char* messages;
    const char* lan_bytes;
    const char* wan_bytes;
};

constexpr app_stage app_stages[] = {
    {" Overall", "messages", "lan_bytes", "wan_bytes"},
    {" KAV", "re_messages", "re_lan_bytes", "re_wan_bytes"},
    {" LZ", "lz_messages", "lz_lan_bytes", "lz_wan_bytes"},
};

void add_app_stage(figure_map& figures, const json& application, const app_stage& stage, bool b_encode)
{
    const char* const side = b_encode ? "encode" : "decode";
    const std::string name = (b_encode ? "Encode" : "Decode") + std::string(stage.name);
    const long long lan = at(application, side, stage.lan_bytes) / kilobyte;
    const long long wan = at(application, side, stage.wan_bytes) / kilobyte;
    figures[name + " msg"] = std::to_string(at(application, side, stage.messages));
    figures[name + " in"] = shown_kilobytes(b_encode ? lan : wan);
    figures[name + " out"] = shown_kilobytes(b_encode ? wan : lan);
    figures[name + " ratio"] = shown_app_reduction(lan, wan);
}

// The sums of a row in the top-application table, in whole kilobytes per application.
struct app_sums
{
    long long encode_in = 0;
    long long decode_out = 0;
    long long kav_lan = 0;
    long long kav_wan = 0;
    long long lz_lan = 0;
    long long lz_wan = 0;

    void add(const json& application)
    {
        const auto kilobytes = [&](const char* side, const char* figure) {
            return at(application, side, figure) / kilobyte;
        };
        encode_in += kilobytes("encode", "lan_bytes");
        decode_out += kilobytes("decode", "lan_bytes");
        kav_lan += kilobytes("encode", "re_lan_bytes") + kilobytes("decode", "re_lan_bytes");
        kav_wan += kilobytes("encode", "re_wan_bytes") + kilobytes("decode", "re_wan_bytes");
        lz_lan += kilobytes("encode", "lz_lan_bytes") + kilobytes("decode", "lz_lan_bytes");
        lz_wan += kilobytes("encode", "lz_wan_bytes") + kilobytes("decode", "lz_wan_bytes");
    }
    long long traffic() const { return encode_in + decode_out; }
};

} // namespace

std::string shown_bytes(long long bytes)
{
    if (bytes > 100 * megabyte) {
        return std::to_string(bytes / megabyte) + " MB";
    }
    return bytes > 100 * kilobyte ? std::to_string(bytes / kilobyte) + " KB" : std::to_string(bytes) + " B";
}

std::string shown_compact(long long bytes)
{
    if (bytes > gigabyte) {
        return std::to_string(bytes / gigabyte) + "GB";
    }
    if (bytes > megabyte) {
        return std::to_string(bytes / megabyte) + "MB";
    }
    return bytes > kilobyte ? std::to_string(bytes / kilobyte) + "KB" : std::to_string(bytes) + "B";
}

figure_map expected_connection_figures(const json& account)
{
    figure_map figures;
    add_side(figures, account, true);
    add_side(figures, account, false);
    figures["processed"] = std::to_string(at(account, "encode", "messages") + at(account, "decode", "messages"));
    figures["Ack msg"] = std::to_string(at(account, "encode", "acks") + at(account, "decode", "acks"));
    figures["Ack size"] = shown_bytes(at(account, "encode", "ack_bytes") + at(account, "decode", "ack_bytes"));
    add_counts_by_reason(figures, "Nacks", account.at("decode").at("nacks"));
    add_counts_by_reason(figures, "R-tx", account.at("encode").at("retransmissions"));
    return figures;
}

std::string expected_connection_row(const json& connection)
{
    const auto end = [&](const std::string& who) {
        return connection.at(who + "_ip").get<std::string>() + ":" +
               std::to_string(connection.at(who + "_port").get<int>());
    };
    return std::to_string(connection.at("peer").get<int>()) + " " + end("client") + " " + end("server") + " " +
           shown_compact(at(connection, "encode", "lan_bytes")) + " " +
           shown_compact(at(connection, "decode", "lan_bytes")) + " " +
           (connection.at("open_connections") == 1 ? "A" : "C");
}

std::map<std::string, long long> expected_nack_counts(const json& ledger)
{
    static constexpr std::pair<const char*, const char*> reasons[] = {{"chunk_missed", "Chunk missed"},
                                                                      {"checksum_collision", "Checksum collision"},
                                                                      {"disk_overloaded", "Disk overloaded"},
                                                                      {"cache_not_ready", "Cache is not ready"}};
    std::map<std::string, long long> counts;
    for (const json& peer : ledger.at("peers")) {
        const std::string number = std::to_string(peer.at("peer").get<int>());
        for (const auto& [reason, shown] : reasons) {
            counts[number + " Nack " + shown] = peer.at("decode").at("nacks").at(reason);
            counts[number + " R-Tx " + shown] = peer.at("encode").at("retransmissions").at(reason);
        }
    }
    std::erase_if(counts, [](const auto& count) { return count.second == 0; });
    return counts;
}

figure_map expected_app_figures(const json& application)
{
    figure_map figures;
    for (const app_stage& stage : app_stages) {
        add_app_stage(figures, application, stage, true);
        add_app_stage(figures, application, stage, false);
    }
    const auto opened = application.at("connections").get<long long>();
    figures["open"] = std::to_string(opened);
    figures["close"] = std::to_string(opened - application.at("open_connections").get<long long>());
    return figures;
}

figure_map expected_app_row(const json& ledger, const std::function<bool(const json&)>& is_in_row)
{
    app_sums row;
    app_sums all;
    for (const json& application : ledger.at("applications")) {
        all.add(application);
        if (is_in_row(application)) {
            row.add(application);
        }
    }
    const float share =
        all.traffic() == 0 ? 0 : static_cast<float>(row.traffic()) * 100.0F / static_cast<float>(all.traffic());
    char share_text[32];
    std::snprintf(share_text, sizeof share_text, "%.2f%%", static_cast<double>(share));
    return {{"Overall", shown_kilobytes(row.traffic())},
            {"share", share_text},
            {"Encode-In", shown_kilobytes(row.encode_in)},
            {"Decode-Out", shown_kilobytes(row.decode_out)},
            {"KAV LAN", shown_kilobytes(row.kav_lan)},
            {"KAV WAN", shown_kilobytes(row.kav_wan)},
            {"KAV ratio", shown_app_reduction(row.kav_lan, row.kav_wan)},
            {"LZ LAN", shown_kilobytes(row.lz_lan)},
            {"LZ WAN", shown_kilobytes(row.lz_wan)},
            {"LZ ratio", shown_app_reduction(row.lz_lan, row.lz_wan)}};
}

figure_map expected_bypass_figures(const json& ledger)
{
    figure_map figures;
    long long bytes = 0;
    long long connections = 0;
    for (const json& server : ledger.at("bypassed_servers")) {
        const std::string name =
            server.at("server_ip").get<std::string>() + ":" + std::to_string(server.at("server_port").get<int>());
        bytes += server.at("bytes").get<long long>();
        connections += server.at("connections").get<long long>();
        figures[name] = std::to_string(server.at("bytes").get<long long>()) + " " +
                        std::to_string(server.at("connections").get<long long>());
    }
    figures["sum"] = std::to_string(bytes) + " " + std::to_string(connections);
    return figures;
}
