// The table of rules and its evaluation.
#include "format/units.h"
#include "health_edges.h"
#include "kavstat_fixture.h"
#include "support/contains.h"
#include "support/files.h"

#include <cstring>

namespace {

using names = std::vector<std::string>;

class health : public testing::Test
{
protected:
    health() { setenv("TZ", "UTC", 1); }
};

} // namespace

TEST_F(health, finds_nothing_wrong_with_a_healthy_engine)
{
    EXPECT_EQ(two_moments().broken(), names{});
    EXPECT_EQ(two_moments().text(),
              "KAV OK: healthy - 50 rules, 1 peer, 1 application, 5 open connections; rates over 10 s\n");
    RuleSet rules;
    rules.settings.front().b_enabled = false;
    rules.settings.back().b_enabled = false;
    EXPECT_EQ(two_moments().text(false, rules),
              "KAV OK: healthy - 48 rules, 1 peer, 1 application, 5 open connections; rates over 10 s\n");
}

TEST_F(health, tells_both_sides_of_every_threshold)
{
    for (const edge& each : edges()) {
        two_moments healthy;
        each.healthy(healthy);
        EXPECT_EQ(healthy.broken(), names{}) << each.rule;
        two_moments ill;
        each.ill(ill);
        const names broken = ill.broken();
        EXPECT_EQ(std::count(broken.begin(), broken.end(), each.rule), 1) << each.rule;
    }
}

TEST_F(health, has_an_edge_for_every_rule)
{
    std::set<std::string> tried = {"no_engine", "connection_stuck"}; // which have tests of their own
    for (const edge& each : edges()) {
        tried.insert(each.rule);
    }
    for (const Rule& rule : all_rules()) {
        EXPECT_EQ(tried.erase(rule.name), 1U) << rule.name;
    }
    EXPECT_TRUE(tried.empty());
}

TEST_F(health, has_rules_that_make_sense)
{
    std::set<std::string> seen;
    for (const Rule& rule : all_rules()) {
        EXPECT_TRUE(std::regex_match(rule.name, std::regex("[a-z][a-z_]*[a-z]"))) << rule.name;
        EXPECT_TRUE(seen.insert(rule.name).second) << rule.name;
        EXPECT_TRUE(std::string(rule.meaning).ends_with('.')) << rule.name;
        EXPECT_TRUE(std::string(rule.remedy).ends_with('.')) << rule.name;
        EXPECT_GE(rule.hold, 0) << rule.name;
        // Of many subjects, those with the largest values are named.
        EXPECT_TRUE(rule.scope == RuleScope::engine || rule.term.comparison != Comparison::below) << rule.name;
        // Rules of the engine cannot use counters of peers or applications.
        std::vector<Term> terms = {rule.term};
        for (const std::optional<Term>& term : rule.also) {
            terms.insert(terms.end(), term.value_or(Term{}));
        }
        for (const Term& term : terms) {
            for (const Sum& sum : {term.part, term.whole}) {
                for (const Figure& figure : sum.figures()) {
                    if (figure.kind == Figure::Kind::peer || figure.kind == Figure::Kind::outdated ||
                        figure.kind == Figure::Kind::connected) {
                        EXPECT_EQ(rule.scope, RuleScope::peer) << rule.name;
                    }
                    if (figure.kind == Figure::Kind::application) {
                        EXPECT_EQ(rule.scope, RuleScope::application) << rule.name;
                    }
                }
            }
        }
    }
}

TEST_F(health, says_what_is_wrong_where_since_when_and_what_to_do)
{
    two_moments moments;
    moments.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_FAILED);
    moments.connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 50000, 59880);
    moments.peer(RE_STAT_PEER_ID_NUM_NACKS, 100, 220);
    EXPECT_EQ(
        moments.text(),
        "KAV CRITICAL: 2 problems - engine: cache_failed; peer 3 branch-3: nacks_frequent\n"
        "CRITICAL engine: cache state failed, for at least 10 s [cache_failed]\n"
        "    The engine has given up its cache; traffic passes without redundancy elimination. Save the statistics "
        "(exec_show_stats_kav save-file FILE), then look at the disk and restart the engine.\n"
        "WARNING peer 3 branch-3: messages nacked 1.20% (should be at most 0.10%), in the last 10 s [nacks_frequent]\n"
        "    Messages of the peer could not be decoded here and are asked for again; each costs a round trip. Look "
        "at the reasons (exec_show_stats_kav peer nack). Many chunk-misses: the cache here is smaller than the "
        "peer believes, or it lost data; compare both ends' cache ages.\n"
        "Looked at: 50 rules, 1 peer, 1 application, 5 open connections; rates over 10 s\n");
}

TEST_F(health, knows_since_when_the_engine_runs)
{
    two_moments moments;
    moments.before.engine_start_time = moments.now.engine_start_time = moments.now.capture_time - 90;
    const std::vector<Finding> found = moments.findings();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].figure_text(), "time since the engine's start 90 s (should be at least 5m)");
    EXPECT_EQ(text_of(found[0].since), "since 2023-11-15 22:12:00");
}

TEST_F(health, names_an_application_and_its_peer)
{
    two_moments moments;
    moments.application(RE_STAT_APP_ID_ENCODE_IN_KBYTES, 0xffffff00U, 0xffffff00U + 2048);
    moments.application(RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 0xffffff00U, 0xffffff00U + 4096);
    const std::vector<Finding> found = moments.findings();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].subject(), "application 443 of peer 3");
    EXPECT_EQ(found[0].figure_text(), "size after encoding 200.00% (should be at most 110.00%)");
    EXPECT_TRUE(
        contains(json_of_finding(found[0]), R"("subject":"application 443 of peer 3","peer":3,"host_name":null)"));
}

TEST_F(health, takes_no_alarm_from_a_few_messages)
{
    two_moments moments;
    // One of 100 messages was nacked, then two of 19, then two of 20.
    moments.connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 0, 99);
    moments.peer(RE_STAT_PEER_ID_NUM_NACKS, 0, 1);
    EXPECT_EQ(moments.broken(), names{});
    moments.connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 0, 17);
    moments.peer(RE_STAT_PEER_ID_NUM_NACKS, 0, 2);
    EXPECT_EQ(moments.broken(), names{});
    moments.connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 0, 18);
    EXPECT_EQ(moments.broken(), names{"nacks_frequent"});
    moments.peer(RE_STAT_PEER_ID_NUM_NACKS, 0);
    moments.connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 0, 100);
    moments.peer(RE_STAT_PEER_ID_NUM_RTXS, 0, 1);
    EXPECT_EQ(moments.broken(), names{});
    moments.peer(RE_STAT_PEER_ID_NUM_RTXS, 0, 2);
    EXPECT_EQ(moments.broken(), names{"retransmissions_frequent"});
}

TEST_F(health, wants_a_level_at_both_moments_when_it_has_to_hold)
{
    two_moments moments;
    moments.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE, RE_CACHE_TEMP_FAILED);
    EXPECT_EQ(moments.broken(), names{});
    moments.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE, RE_CACHE_FAILED);
    ASSERT_EQ(moments.broken(), names{"cache_failed"});
    EXPECT_EQ(text_of(moments.findings()[0].since), "");
}

TEST_F(health, of_one_moment_judges_levels_alone)
{
    two_moments moments;
    moments.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_TEMP_FAILED);
    moments.peer(RE_STAT_PEER_ID_NUM_NACKS, 0, 5000);
    const HealthReport report = health_report({}, {nullptr, &moments.now, 0, {}}, "a file");
    ASSERT_EQ(report.findings.size(), 1U);
    EXPECT_STREQ(report.findings[0].rule->name, "cache_temporarily_failed");
    EXPECT_EQ(report.status(), HEALTH_WARNING);
    StringSink sink;
    Output output(sink);
    write_health_text(report, false, output);
    output.flush();
    EXPECT_TRUE(sink.text().ends_with("; levels only, as rates take two moments\n")) << sink.text();
    // The same moment twice has no rates either.
    moments.seconds = 0;
    EXPECT_NE(moments.text().find("; levels only, as rates take two moments"), std::string::npos) << moments.text();
}

TEST_F(health, judges_no_counter_that_was_reset)
{
    two_moments moments;
    moments.engine(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, 5000, 7);
    moments.engine(RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR, 5000, 5001);
    EXPECT_EQ(moments.broken(), names{});
}

TEST_F(health, after_a_restart_counts_from_the_start)
{
    two_moments moments;
    moments.before.engine_start_time = two_moments::start - two_moments::day;
    moments.now.engine_start_time = moments.now.capture_time - 600;
    moments.engine(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, 5000, 300);
    const std::vector<Finding> found = moments.findings();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].figure_text(),
              "connections, decodings and allocations failed for lack of memory 0.50/s (should be at most 0/s)");
    EXPECT_EQ(text_of(found[0].since), "in the last 10m");
    EXPECT_NE(moments.text().find("\nThe engine was started anew between the two moments; rates count from that "
                                  "start.\n"),
              std::string::npos);
}

TEST_F(health, judges_no_rates_of_a_peer_that_is_new_in_its_place)
{
    two_moments moments;
    moments.peer(RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, 4, 5);
    moments.before.peers[0].number = 7;
    EXPECT_EQ(moments.broken(), names{});
    moments.before.peers[0].number = 3;
    EXPECT_EQ(moments.broken(), names{"peer_out_of_sync"});
}

TEST_F(health, finds_each_peer_by_its_slot)
{
    two_moments moments;
    SnapshotPeer other = moments.now.peers[0];
    other.slot = 5;
    other.number = 6;
    moments.before.peers.push_back(other);
    other.figures[RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC] = 1;
    moments.now.peers = {other}; // the first one no longer exists
    const std::vector<Finding> found = moments.findings();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].peer_number, 6);
}

TEST_F(health, takes_any_figures)
{
    constexpr long long extremes[] = {std::numeric_limits<long long>::min(), -1, 0, 1,
                                      std::numeric_limits<long long>::max()};
    for (const long long early : extremes) {
        for (const long long late : extremes) {
            two_moments moments;
            moments.before.engine.fill(early);
            moments.now.engine.fill(late);
            moments.before.connections.fill(early);
            moments.now.connections.fill(late);
            for (auto* const figures : {&moments.before.peers[0], &moments.now.peers[0]}) {
                figures->figures.fill(figures == &moments.now.peers[0] ? late : early);
                figures->connections.fill(figures == &moments.now.peers[0] ? late : early);
            }
            moments.before.capture_time = early;
            moments.now.engine_start_time = late;
            EXPECT_FALSE(moments.text().empty());
        }
    }
}

TEST_F(health, knows_a_reserve_of_nothing_from_one_that_is_not_measured)
{
    two_moments moments;
    moments.engine(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 0);
    EXPECT_EQ(moments.broken(), names{});
    moments.engine(RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR, 1);
    EXPECT_EQ(moments.broken(), names{"memory_reserve_low"});
}

TEST_F(health, judges_savings_of_a_few_seconds_by_more_than_one_application)
{
    two_moments moments;
    moments.connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 40000000, 50000000);
    moments.connections(RE_STAT_CONN_ID_DECODE_IN_BYTES, 40000000, 50000000);
    moments.seconds = 60;
    EXPECT_EQ(moments.broken(), names{"savings_dropped"});
    moments.seconds = 59.9;
    EXPECT_EQ(moments.broken(), names{});

    // Nothing of port 443 is saved, with any peer: 16 MB.
    const auto add_app = [&](int slot, std::uint16_t port, std::uint32_t in, std::uint32_t out) {
        SnapshotApp before = moments.before.apps[0];
        before.slot = slot;
        before.app.m_header.m_server_port = port;
        before.app.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = 0xffffffffU;
        SnapshotApp now = before;
        now.app.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES] += in;
        now.app.m_id_array[RE_STAT_APP_ID_ENCODE_OUT_KBYTES] += out;
        moments.before.apps.push_back(before);
        moments.now.apps.push_back(now);
    };
    add_app(2, 443, 8192, 8192);
    add_app(3, 443, 8192, 8192);
    EXPECT_EQ(moments.broken(), names{});
    // A megabyte of port 80 less a kilobyte says nothing, and then a little of it is saved: 15 % of 60 %.
    add_app(4, 80, 1023, 1023);
    EXPECT_EQ(moments.broken(), names{});
    moments.before.apps.pop_back();
    moments.now.apps.pop_back();
    add_app(4, 80, 10000, 8501);
    EXPECT_EQ(moments.broken(), names{"savings_dropped"});
    moments.now.apps.back().app.m_id_array[RE_STAT_APP_ID_ENCODE_OUT_KBYTES] = 8500;
    EXPECT_EQ(moments.broken(), names{});
}

TEST_F(health, compares_savings_with_ten_times_the_traffic)
{
    two_moments moments;
    moments.seconds = 60;
    moments.connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 40000000, 50000000);
    moments.connections(RE_STAT_CONN_ID_DECODE_IN_BYTES, 40000000, 50000000);
    EXPECT_EQ(moments.broken(), names{"savings_dropped"});
    moments.connections(RE_STAT_CONN_ID_ENCODE_IN_BYTES, 100000000, 110000001); // 200,000,000 and 20,000,001
    EXPECT_EQ(moments.broken(), names{});
}

TEST_F(health, keeps_hostile_names_harmless)
{
    two_moments moments;
    moments.outdated();
    std::strcpy(moments.now.peers[0].header.m_peer_host_name, "a\x1B[2J|b\nc");
    const std::string text = moments.text();
    EXPECT_NE(text.find("WARNING peer 3 a?[2J/b?c: is outdated"), std::string::npos) << text;
    EXPECT_EQ(text.find('|'), std::string::npos);
}

TEST_F(health, shows_ten_of_many)
{
    two_moments moments;
    moments.outdated();
    for (int number = 4; number <= 15; ++number) {
        SnapshotPeer peer = moments.now.peers[0];
        peer.slot = peer.number = number;
        moments.now.peers.push_back(peer);
        moments.before.peers.push_back(peer);
    }
    const auto lines = [](const std::string& text, const std::string& begin) {
        std::istringstream stream(text);
        int count = 0;
        for (std::string line; std::getline(stream, line);) {
            count += line.starts_with(begin) ? 1 : 0;
        }
        return count;
    };
    EXPECT_EQ(lines(moments.text(), "WARNING peer"), 10);
    EXPECT_EQ(lines(moments.text(), "... and 3 more peers [peer_outdated]; --all lists them"), 1);
    EXPECT_EQ(lines(moments.text(true), "WARNING peer"), 13);
    EXPECT_EQ(lines(moments.text(true), "... and"), 0);
}

TEST_F(health, names_the_worst_thousand_and_counts_the_others)
{
    two_moments moments;
    moments.now.peers.resize(1);
    const SnapshotPeer first = moments.now.peers[0];
    moments.now.peers.clear();
    moments.before.peers.clear();
    for (int slot = 0; slot < 4096; ++slot) {
        SnapshotPeer peer = first;
        peer.slot = peer.number = slot;
        peer.figures[RE_STAT_PEER_ID_ACK_Q_AVG_RTT] = 600'000 + slot * 7 % 4096;
        peer.header.m_b_outdated = 1;
        moments.now.peers.push_back(peer);
        moments.before.peers.push_back(peer);
    }
    const std::vector<Finding> found = moments.findings();
    ASSERT_EQ(found.size(), 2000U);
    // Of equal peers, the first.
    EXPECT_STREQ(found[0].rule->name, "peer_outdated");
    EXPECT_EQ(found[0].peer_number, 0);
    EXPECT_EQ(found[0].others, 0U);
    EXPECT_EQ(found[999].peer_number, 999);
    EXPECT_EQ(found[999].others, 3096U);
    // The slowest: 600,000 microseconds and 4095 to 3096 more.
    EXPECT_STREQ(found[1000].rule->name, "peer_slow");
    EXPECT_DOUBLE_EQ(found[1000].value, 0.604095);
    EXPECT_DOUBLE_EQ(found[1999].value, 0.603096);
    EXPECT_EQ(found[1999].others, 3096U);
    const std::string text = moments.text();
    EXPECT_TRUE(text.starts_with("KAV WARNING: 8192 problems - peer 0 branch-3: peer_outdated; ")) << text;
    EXPECT_NE(text.find("\n... and 4086 more peers [peer_slow]; --all lists the worst\n"), std::string::npos) << text;
    EXPECT_NE(moments.text(true).find("\n... and 3096 more peers [peer_slow]\n"), std::string::npos);
}

TEST_F(health, names_the_worst_application_first)
{
    two_moments moments;
    moments.application(RE_STAT_APP_ID_ENCODE_IN_KBYTES, 10000, 20000);
    moments.application(RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 10000, 22000);
    SnapshotApp larger = moments.now.apps[0];
    SnapshotApp before = moments.before.apps[0];
    larger.slot = before.slot = 2;
    larger.app.m_id_array[RE_STAT_APP_ID_ENCODE_OUT_KBYTES] = 30000;
    moments.now.apps.push_back(larger);
    moments.before.apps.push_back(before);
    ASSERT_EQ(moments.findings().size(), 2U);
    EXPECT_EQ(moments.findings()[0].value, 2.0);
    EXPECT_EQ(moments.findings()[1].value, 1.2);
}

TEST_F(health, judges_savings_that_were_a_fifth_at_least)
{
    two_moments moments;
    moments.seconds = 60;
    for (const auto& [before, rules] : {std::pair(79000000, names{"savings_dropped"}), std::pair(81000000, names{})}) {
        moments.connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, before, before + 10000000);
        moments.connections(RE_STAT_CONN_ID_DECODE_IN_BYTES, before, before + 10000000);
        EXPECT_EQ(moments.broken(), rules) << before;
    }
}

TEST_F(health, shows_values_in_units_that_people_read)
{
    EXPECT_EQ(shown_value(Form::seconds, 0.0125), "12.5 ms");
    EXPECT_EQ(shown_value(Form::seconds, 2), "2 s");
    EXPECT_EQ(shown_value(Form::seconds, 2.54), "2.5 s");
    EXPECT_EQ(shown_value(Form::seconds, 119.9), "119.9 s");
    EXPECT_EQ(shown_value(Form::seconds, 120), "2m");
    EXPECT_EQ(shown_value(Form::seconds, 3599), "59m59s");
    EXPECT_EQ(shown_value(Form::seconds, 3600), "1h");
    EXPECT_EQ(shown_value(Form::seconds, 86400), "1d");
    EXPECT_EQ(shown_value(Form::seconds, 93600), "1d2h");
    EXPECT_EQ(shown_value(Form::bytes, 999), "999 B");
    EXPECT_EQ(shown_value(Form::bytes, 1536), "1.5 KiB");
    EXPECT_EQ(shown_value(Form::bytes, 67108864), "64.0 MiB");
    EXPECT_EQ(shown_value(Form::percent, 0.001), "0.10%");
    EXPECT_EQ(shown_value(Form::state, 1), "initializing");
    EXPECT_EQ(shown_value(Form::state, 9), "unknown");
}

// ---- Rules and the viewer's manual page.

TEST_F(health, and_the_manual_page_call_the_same_values_healthy)
{
    const std::pair<const char*, std::pair<double, const char*>> statements[] = {
        {"cache_too_small_for_encoding", {3600, "less than an hour while the cache is full"}},
        {"cache_too_small_for_decoding", {3600, "less than an hour while the cache is full"}},
        {"index_table_full", {0, "Growing: the hash table is too small for the cache on disk."}},
        {"index_table_nearly_full", {0.98, "Above 98% new data"}},
        {"cache_reads_slow", {0.010, "Above 10 ms the disk slows down traffic."}},
        {"disk_reads_slow", {0.015, "Above 15 ms the disk is overloaded or failing."}},
        {"low_memory_errors", {0, "All should be 0. Growing: give the engine more memory"}},
        {"memory_reserve_low", {67108864, "Less than 64 MB is too little."}},
        {"wait_queue_stays", {0, "Normally 0; data that stays holds connections up."}},
        {"encoding_slow", {0.010, "a few milliseconds; more than 10 ms means that the engine is overloaded"}},
        {"decoding_slow", {0.010, "a few milliseconds; more than 10 ms means that the engine is overloaded"}},
        {"bypass_low_memory", {0.05, "more than 5% of the messages for one cause"}},
        {"bypass_out_of_sync", {0.05, "more than 5% of the messages for one cause"}},
        {"bypass_disk_error", {0, "any message for a disk IO error"}},
        {"bypass_peer_disk_error", {0, "any message for a disk IO error"}},
        {"bypass_low_compression", {0.9, "more than 90% for low compression"}},
        {"nacks_frequent", {0.001, "more than one in a thousand is not"}},
        {"retransmissions_frequent", {0.001, "more than one in a thousand is not"}},
        {"peers_degraded_signatures", {0, "Should be 0; otherwise too many peers are busy at a time."}},
        {"peers_degraded_data", {0, "Should be 0; otherwise too many peers are busy at a time."}},
        {"peer_slow", {0.5, "much more, such as 500 ms, means a busy peer or a full line"}},
        {"peer_out_of_sync", {0, "Growth from one report to the next is not healthy."}},
        {"savings_dropped", {0.25, "less than a quarter of the savings then"}},
    };
    const std::string page =
        std::regex_replace(bytes_of_file(KAV_DOCS "/man/exec_show_stats_kav.8.scd"), std::regex("[\\s]+"), " ");
    for (const auto& [rule, statement] : statements) {
        const auto& [limit, text] = statement;
        EXPECT_EQ(find_rule(rule)->term.limit, limit) << rule;
        EXPECT_NE(page.find(text), std::string::npos) << text;
    }
}

// The list of rules in the manual page.
static std::string manual_of_rules()
{
    std::string text;
    for (const Rule& rule : all_rules()) {
        const std::string hold = rule.hold > 0 ? ", for " + shown_value(Form::seconds, rule.hold) : "";
        text +=
            std::string("*") + rule.name + "* (" + word_of(rule.scope) + ", " + word_of(rule.severity) + hold + ")\n";
        const std::string figure = rule.figure + limit_text(rule, rule.term.limit);
        for (const std::string& paragraph : {figure + ".", std::string(rule.meaning) + " " + rule.remedy}) {
            for (const std::string& line : wrapped(paragraph, 112)) {
                text += "\t" + line + "\n";
            }
            text += "\n";
        }
    }
    return text;
}

TEST_F(health, has_every_rule_in_its_manual_page)
{
    const std::string page = bytes_of_file(KAV_DOCS "/man/kav-rules.5.scd");
    const std::string heading = "# RULES\n\n";
    const std::size_t begin = page.find(heading) + heading.size();
    EXPECT_EQ(page.substr(begin, page.find("# EVALUATION\n") - begin), manual_of_rules());
}

// ---- Without an engine.

TEST_F(health, without_an_engine_is_unknown)
{
    const HealthReport report = unknown_health({}, "no engine is running", "the running engine", true);
    EXPECT_EQ(report.status(), HEALTH_UNKNOWN);
    StringSink sink;
    Output output(sink);
    write_health_text(report, false, output);
    output.flush();
    EXPECT_EQ(sink.text(),
              "KAV UNKNOWN: no engine is running\n"
              "CRITICAL engine: no engine is running [no_engine]\n"
              "    There are no statistics: the engine has stopped, is still starting, or may not be read. Start the "
              "engine; the system log says why it stopped. If it runs, check KAV_STAT_SEGMENT, KAV_STAT_OWNER and the "
              "permission to read its shared memory.\n");
}

// ---- Connections that are stuck, in an engine.

class health_of_connections : public kavstat_test
{
protected:
    int open_conn(int id)
    {
        RE_stat_conn_header ends = conn_header_of(1);
        ends.m_conn_id = id;
        ends.m_client_ip = 0xc000020a;
        ends.m_client_port = 40000;
        ends.m_server_ip = 0xc6336401;
        ends.m_server_port = 80;
        return engine.open_conn(m_peer, ends, {}, now - 100);
    }
    void look(double seconds)
    {
        Source source;
        ASSERT_EQ(source.open(), 0);
        m_snapshot = take_snapshot(source.reader(), now);
        m_pending.update(source.reader(), m_snapshot, seconds);
    }
    names stuck()
    {
        RuleSet rules;
        for (RuleSetting& setting : rules.settings) {
            setting.b_enabled = setting.rule->scope == RuleScope::connection;
        }
        names lines;
        HealthExtras extras;
        extras.pending = &m_pending;
        for (const Finding& finding : findings(rules, {&m_snapshot, &m_snapshot, 2, extras})) {
            lines.push_back(finding.subject() + ": " + finding.figure_text() + ", " + text_of(finding.since));
        }
        return lines;
    }
    void SetUp() override
    {
        start();
        m_peer = engine.add_peer(3, peer_header_of(3));
    }

    int m_peer = -1;
    Snapshot m_snapshot;
    PendingConnections m_pending;
};

TEST_F(health_of_connections, finds_those_that_are_silent_with_data_pending)
{
    const int silent = open_conn(17);
    const int busy = open_conn(18);
    const int idle = open_conn(19);
    const int closed = open_conn(20);
    for (const int slot : {silent, busy, closed}) {
        engine.set_conn_stat(slot, SO_STAT_WAN_W_PEND_SIZE, 4096);
    }
    engine.add_conn_stat(idle, SO_STAT_AO_RD_BYTES, 500);
    engine.close_conn(closed, now);
    look(0);
    EXPECT_EQ(stuck(), names{});
    engine.add_conn_stat(busy, SO_STAT_WAN_WT_BYTES, 1);
    look(1.9);
    EXPECT_EQ(stuck(), names{});
    engine.add_conn_stat(busy, SO_STAT_AO_RD_BYTES, 1);
    look(0.1);
    EXPECT_EQ(stuck(), names{"connection 17 192.0.2.10:40000 - 198.51.100.1:80 of peer 3: open with data pending, time "
                             "without any movement 2 s (should be less than 2 s), for at least 2 s"});
    // It moves again.
    engine.add_conn_stat(silent, SO_STAT_WAN_WT_BYTES, 1);
    look(2);
    EXPECT_EQ(stuck(), names{"connection 18 192.0.2.10:40000 - 198.51.100.1:80 of peer 3: open with data pending, time "
                             "without any movement 2 s (should be less than 2 s), for at least 2 s"});
}

TEST_F(health_of_connections, are_counted_beyond_the_most_silent_thousand)
{
    RE_stat_limits limits;
    limits.peers = 4;
    limits.connections = 1200;
    engine.close();
    start(limits);
    m_peer = engine.add_peer(3, peer_header_of(3));
    for (int id = 0; id < 1200; ++id) {
        engine.set_conn_stat(open_conn(id), SO_STAT_AO_W_PEND_SIZE, 4096);
    }
    look(0);
    EXPECT_EQ(m_pending.longest_silence(), 0);
    look(3);
    EXPECT_EQ(m_pending.most_silent().size(), 1000U);
    EXPECT_EQ(m_pending.longest_silence(), 3);
    EXPECT_EQ(stuck().size(), 1000U);
    HealthExtras extras;
    extras.pending = &m_pending;
    EXPECT_EQ(findings({}, {&m_snapshot, &m_snapshot, 2, extras}).back().others, 200U);
}

TEST_F(health_of_connections, begins_anew_with_another_one_in_the_slot)
{
    const int slot = open_conn(17);
    engine.set_conn_stat(slot, SO_STAT_DEC_PEND_SIZE, 4096);
    look(0);
    engine.release_conn(slot);
    const int next = open_conn(18);
    ASSERT_EQ(next, slot);
    engine.set_conn_stat(next, SO_STAT_DEC_PEND_SIZE, 4096);
    look(5);
    EXPECT_EQ(stuck(), names{});
}

TEST_F(health_of_connections, are_not_looked_at_while_nothing_is_pending)
{
    const int slot = open_conn(17);
    engine.set_conn_stat(slot, SO_STAT_AO_W_PEND_SIZE, 4096);
    look(0);
    EXPECT_EQ(m_pending.size(), 1U);
    engine.set_conn_stat(slot, SO_STAT_AO_W_PEND_SIZE, 0);
    look(5);
    EXPECT_EQ(m_pending.size(), 0U);
}

// ---- Repeated evaluation in a live view.

class health_watch : public kavstat_test
{
protected:
    const std::vector<Finding>& look(int second)
    {
        Source source;
        EXPECT_EQ(source.open(), 0);
        return m_watch.update(source.reader(), take_snapshot(source.reader(), now + second), at(second));
    }
    static HealthWatch::clock::time_point at(int second)
    {
        return HealthWatch::clock::time_point(std::chrono::seconds(1000 + second));
    }
    void SetUp() override
    {
        start(); // at 1700000000
        engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
        engine.set_global(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 500);
    }

    HealthWatch m_watch;
};

TEST_F(health_watch, remembers_since_when)
{
    EXPECT_TRUE(look(0).empty());
    engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_FAILED);
    ASSERT_EQ(look(1).size(), 1U);
    for (int second = 2; second < 40; ++second) {
        look(second);
    }
    ASSERT_EQ(look(40).size(), 1U);
    EXPECT_EQ(text_of(m_watch.findings()[0].since), "for at least 39 s");
    engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    EXPECT_TRUE(look(41).empty());
}

TEST_F(health_watch, takes_rates_over_some_seconds)
{
    for (int second = 0; second <= 20; ++second) {
        EXPECT_TRUE(look(second).empty());
    }
    engine.add_global(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, 10);
    ASSERT_EQ(look(21).size(), 1U);
    EXPECT_GE(m_watch.findings()[0].value, 1.0); // ten of them in ten seconds or less
    // One error is a finding for some seconds.
    int second = 22;
    while (second < 60 && !look(second).empty()) {
        ++second;
    }
    EXPECT_GE(second, 26);
    EXPECT_LE(second, 32);
}

// The largest engine's snapshots have 15 MB.
TEST_F(health_watch, keeps_one_older_snapshot_of_a_caller_that_shares_them)
{
    Source source;
    ASSERT_EQ(source.open(), 0);
    std::weak_ptr<const Snapshot> last;
    std::weak_ptr<const Snapshot> one_before_last;
    for (int second = 0; second <= 30; second += 5) {
        m_watch.forget_old(at(second));
        EXPECT_TRUE(one_before_last.expired());
        const auto snapshot = std::make_shared<const Snapshot>(take_snapshot(source.reader(), now + second));
        m_watch.update(source.reader(), *snapshot, at(second), snapshot);
        one_before_last = last;
        last = snapshot;
    }
    EXPECT_EQ(m_watch.seconds(), 5);
}

TEST_F(health_watch, finds_a_stuck_connection_within_ten_seconds)
{
    look(0);
    RE_stat_peer_header header = peer_header_of(4);
    header.m_b_update_from_active_conn = 1;
    const int conn = engine.open_conn(engine.add_peer(4, header), conn_header_of(1), {}, now);
    engine.set_conn_stat(conn, SO_STAT_WAN_W_PEND_SIZE, 4096);
    int second = 1;
    while (second < 20 && look(second).empty()) {
        ++second;
    }
    EXPECT_LE(second, 10);
    EXPECT_STREQ(m_watch.findings().at(0).rule->name, "connection_stuck");
    engine.add_conn_stat(conn, SO_STAT_WAN_WT_BYTES, 4096);
    while (second < 40 && !look(second).empty()) {
        ++second;
    }
    EXPECT_LE(second, 20);
}

TEST_F(health_watch, loses_the_engine_and_finds_it_again)
{
    EXPECT_TRUE(look(0).empty());
    ASSERT_EQ(m_watch.lose(at(1)).size(), 1U);
    EXPECT_STREQ(m_watch.findings()[0].rule->name, "no_engine");
    m_watch.lose(at(11));
    EXPECT_EQ(text_of(m_watch.findings()[0].since), "for at least 10 s");
    EXPECT_TRUE(look(12).empty());
}

// ---- The file of settings.

class rule_file : public testing::Test
{
protected:
    // The error without the file's path.
    std::string error(const std::string& text)
    {
        write_file(m_path, text);
        const std::string message = read_rule_file(m_path).error;
        return message.starts_with(m_path) ? message.substr(m_path.size()) : message;
    }
    RuleSetting setting(const std::string& text, const char* rule)
    {
        write_file(m_path, text);
        const RuleFileResult result = read_rule_file(m_path);
        EXPECT_EQ(result.error, "");
        for (const RuleSetting& each : result.rules.settings) {
            if (std::string(each.rule->name) == rule) {
                return each;
            }
        }
        ADD_FAILURE() << "no such rule: " << rule;
        return {};
    }

    scratch_folder m_folder;
    std::string m_path = m_folder.file("rules.toml");
};

TEST_F(rule_file, changes_what_it_names_and_nothing_else)
{
    const std::string text = "window = \"1m\"\n"
                             "[nacks_frequent]\n"
                             "threshold = 0.5\n"
                             "for = \"90s\"\n"
                             "severity = \"critical\"\n"
                             "[peer_outdated]\n"
                             "enabled = false\n"
                             "for = 7\n";
    const RuleSetting nacks = setting(text, "nacks_frequent");
    EXPECT_EQ(nacks.threshold, 0.5);
    EXPECT_EQ(nacks.hold, 90);
    EXPECT_EQ(nacks.severity, Severity::critical);
    EXPECT_TRUE(nacks.b_enabled);
    const RuleSetting outdated = setting(text, "peer_outdated");
    EXPECT_FALSE(outdated.b_enabled);
    EXPECT_EQ(outdated.hold, 7);
    const RuleSetting slow = setting(text, "peer_slow");
    EXPECT_EQ(slow.threshold, 0.5);
    EXPECT_EQ(slow.hold, 60);
    EXPECT_EQ(read_rule_file(m_path).rules.window, 60);
    EXPECT_EQ(RuleSet().window, 300);
}

TEST_F(rule_file, takes_the_least_and_the_most)
{
    EXPECT_EQ(setting("window = 1\n[peer_slow]\nfor = \"30d\"\nthreshold = 0\n", "peer_slow").hold, 2592000);
    EXPECT_EQ(read_rule_file(m_path).rules.window, 1);
    EXPECT_EQ(setting("[peer_slow]\nthreshold = 0\n", "peer_slow").threshold, 0);
    EXPECT_EQ(setting("[peer_slow]\nfor = \"2h\"\n", "peer_slow").hold, 7200);
    EXPECT_EQ(setting("[nacks_frequent]\nthreshold = 1\n", "nacks_frequent").threshold, 1);
    EXPECT_EQ(error("[nacks_frequent]\nthreshold = 1.001\n"), ":2: a share is written as a number from 0 to 1");
    EXPECT_EQ(error("[peer_slow]\nfor = 2592001\n"), ":2: for is 0 seconds to 30 days");
}

TEST_F(rule_file, is_what_judges)
{
    write_file(m_path, "[nacks_frequent]\nthreshold = 0.02\n[cache_failed]\nenabled = false\n"
                       "[peer_out_of_sync]\nseverity = \"critical\"\n");
    two_moments moments;
    moments.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_FAILED);
    moments.peer(RE_STAT_PEER_ID_NUM_NACKS, 0, 150);
    moments.peer(RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, 0, 1);
    const RuleFileResult file = read_rule_file(m_path);
    ASSERT_EQ(file.error, "");
    EXPECT_EQ(moments.broken(file.rules), names{"peer_out_of_sync"});
    EXPECT_EQ(moments.findings(file.rules)[0].severity, Severity::critical);
}

TEST_F(rule_file, is_refused_with_the_line_of_the_mistake)
{
    EXPECT_TRUE(error("\n\n[nacks_frequent\n").starts_with(":3: ")) << error("\n\n[nacks_frequent\n");
    EXPECT_EQ(error("\n[nack_frequent]\n"), ":2: there is no rule \"nack_frequent\"");
    EXPECT_EQ(error("nacks_frequent = 3\n"), ":1: \"nacks_frequent\" is a rule, written as [nacks_frequent]");
    EXPECT_EQ(error("[nacks_frequent]\n\nlimit = 3\n"),
              ":3: a rule has no \"limit\", but threshold, for, severity, enabled");
    EXPECT_EQ(error("[nacks_frequent]\nthreshold = \"0.1\"\n"), ":2: a threshold is a number");
    EXPECT_EQ(error("[nacks_frequent]\nthreshold = 5\n"), ":2: a share is written as a number from 0 to 1");
    EXPECT_EQ(error("[nacks_frequent]\nthreshold = nan\n"), ":2: a share is written as a number from 0 to 1");
    EXPECT_EQ(error("[peer_slow]\nthreshold = -1\n"), ":2: a threshold is 0 to 1e15");
    EXPECT_EQ(error("[peer_slow]\nthreshold = inf\n"), ":2: a threshold is 0 to 1e15");
    EXPECT_EQ(error("[cache_failed]\nthreshold = 1\n"), ":2: cache_failed has no threshold");
    EXPECT_EQ(error("[peer_slow]\nfor = \"soon\"\n"),
              ":2: for is a number of seconds, or a text such as \"90s\", \"5m\", \"1h\"");
    EXPECT_EQ(error("[peer_slow]\nfor = -1\n"), ":2: for is 0 seconds to 30 days");
    EXPECT_EQ(error("[peer_slow]\nfor = \"31d\"\n"), ":2: for is 0 seconds to 30 days");
    EXPECT_EQ(error("[peer_slow]\nfor = \"9223372036854775807d\"\n"),
              ":2: for is a number of seconds, or a text such as \"90s\", \"5m\", \"1h\"");
    EXPECT_EQ(error("window = 0\n"), ":1: window is 1 second to 30 days");
    EXPECT_EQ(error("[peer_slow]\nseverity = \"high\"\n"), ":2: severity is \"warning\" or \"critical\"");
    EXPECT_EQ(error("[peer_slow]\nenabled = \"no\"\n"), ":2: enabled is true or false");
}

TEST_F(rule_file, tells_of_the_first_mistake)
{
    EXPECT_EQ(error("[peer_slow]\nfor = -1\nseverity = \"high\"\nenabled = 3\n"), ":2: for is 0 seconds to 30 days");
}

TEST_F(rule_file, has_to_be_there_and_of_a_sensible_size)
{
    EXPECT_EQ(read_rule_file(m_folder.file("none")).error, m_folder.file("none") + ": cannot be read");
    EXPECT_EQ(read_rule_file(m_folder.path()).error, m_folder.path() + ": cannot be read");
    EXPECT_EQ(read_rule_file("/dev/zero").error, "/dev/zero: is too large");
    EXPECT_EQ(error(""), "");
    EXPECT_EQ(read_rule_file("/dev/null").error, "");
}
