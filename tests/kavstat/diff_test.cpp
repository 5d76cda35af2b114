// The changes between two moments.
#include "documents/diff.h"
#include "kavstat_fixture.h"
#include "model/change.h"

#include <nlohmann/json.hpp>

#include <cstring>
#include <limits>

using namespace kavstat;

namespace {

constexpr long long largest = std::numeric_limits<long long>::max();
constexpr long long lowest = std::numeric_limits<long long>::min();

bool is(const Change& change, ChangeKind kind, long long by)
{
    return change.kind == kind && change.by == by;
}

DiffSide side(std::time_t capture, std::time_t start = 1700000000)
{
    DiffSide result;
    result.name = "file-" + std::to_string(capture);
    result.snapshot.engine_start_time = start;
    result.snapshot.capture_time = capture;
    return result;
}

std::string diff(const DiffSide& before, const DiffSide& after, const DiffChoice& choice = {})
{
    StringSink sink;
    Output output(sink);
    write_diff(before, after, choice, output);
    output.flush();
    return sink.text();
}

nlohmann::json diff_json(const DiffSide& before, const DiffSide& after, const DiffChoice& choice = {})
{
    StringSink sink;
    Output output(sink);
    write_diff_json(before, after, choice, output);
    output.flush();
    return nlohmann::json::parse(sink.text());
}

class difference : public testing::Test
{
protected:
    difference() { setenv("TZ", "UTC", 1); }
};

} // namespace

TEST(change, of_a_total_is_what_it_grew_by)
{
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 5, 12, false), ChangeKind::moved, 7));
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 5, 5, false), ChangeKind::none, 0));
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 0, largest, false), ChangeKind::moved, largest));
}

TEST(change, of_a_total_that_went_back_is_not_known)
{
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 12, 5, false), ChangeKind::went_back, 0));
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, largest, lowest, false), ChangeKind::went_back, 0));
}

TEST(change, behind_a_restart_counts_from_the_start)
{
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 12, 5, true), ChangeKind::restarted, 5));
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 5, 12, true), ChangeKind::restarted, 12));
    EXPECT_TRUE(is(change_of(RE_stat_kind::total, 0, 0, true), ChangeKind::none, 0));
}

TEST(change, of_a_current_value_goes_both_ways)
{
    EXPECT_TRUE(is(change_of(RE_stat_kind::current, 12, 5, false), ChangeKind::moved, -7));
    EXPECT_TRUE(is(change_of(RE_stat_kind::current, 12, 5, true), ChangeKind::moved, -7));
    // The largest possible step has no positive form. It wraps as the counter itself does.
    EXPECT_TRUE(is(change_of(RE_stat_kind::current, lowest, largest, false), ChangeKind::moved, -1));
}

TEST(change, of_32_bits_may_wrap)
{
    EXPECT_TRUE(is(change_of_32(RE_stat_kind::total, 0xfffffff0U, 0x10, false), ChangeKind::moved, 0x20));
    EXPECT_TRUE(is(change_of_32(RE_stat_kind::total, 1000, 10, false), ChangeKind::went_back, 0));
    EXPECT_TRUE(is(change_of_32(RE_stat_kind::total, 0xfffffff0U, 0x10, true), ChangeKind::restarted, 0x10));
    EXPECT_TRUE(is(change_of_32(RE_stat_kind::total, 0, 0xffffffffU, false), ChangeKind::moved, 0xffffffffLL));
}

TEST(change, has_a_rate_where_it_is_known)
{
    EXPECT_EQ(rate_of({ChangeKind::moved, 30}, 60), 0.5);
    EXPECT_EQ(rate_of({ChangeKind::went_back, 0}, 60), 0);
    EXPECT_EQ(rate_of({ChangeKind::moved, 30}, 0), 0);
}

TEST_F(difference, shows_what_changed_with_totals_and_rates)
{
    DiffSide before = side(1700000100);
    before.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 100;
    before.snapshot.engine[RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE] = 2000;
    before.snapshot.connections[RE_STAT_CONN_ID_ENCODE_IN_BYTES] = 5000;
    before.snapshot.active_connections = 7;
    DiffSide after = before;
    after.name = "b";
    after.snapshot.capture_time += 60;
    after.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 130;
    after.snapshot.connections[RE_STAT_CONN_ID_ENCODE_IN_BYTES] = 11000;
    after.snapshot.active_connections = 4;
    EXPECT_EQ(diff(before, after), "before: 2023-11-14 22:15:00, engine started 2023-11-14 22:13:20, file-1700000100\n"
                                   "after:  2023-11-14 22:16:00, engine started 2023-11-14 22:13:20, b\n"
                                   "between: 60 s\n"
                                   "\n"
                                   "engine\n"
                                   "  counter             unit         before  after  change    rate\n"
                                   "  active_connections  connections       7      4      -3\n"
                                   "  num_read            events          100    130     +30  0.50/s\n"
                                   "\n"
                                   "all connections\n"
                                   "  counter          unit   before  after  change      rate\n"
                                   "  encode_in_bytes  bytes    5000  11000   +6000  100.00/s\n");
}

TEST_F(difference, marks_totals_that_went_back)
{
    DiffSide before = side(1700000100);
    before.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 100;
    DiffSide after = side(1700000160);
    after.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 30;
    EXPECT_NE(diff(before, after).find("\n  num_read  events     100     30       -     -  went back: reset\n"),
              std::string::npos)
        << diff(before, after);
}

TEST_F(difference, behind_a_restart_shows_what_was_counted_since_then)
{
    DiffSide before = side(1700000100);
    before.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 100;
    DiffSide after = side(1700000200, 1700000150);
    after.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 200;
    const std::string text = diff(before, after);
    EXPECT_NE(text.find("The engine was started anew in between."), std::string::npos);
    EXPECT_NE(text.find("\n  num_read  events     100    200    +200  4.00/s  since the restart\n"), std::string::npos)
        << text;
}

TEST_F(difference, of_one_moment_has_no_rates)
{
    const DiffSide before = side(1700000100);
    DiffSide after = before;
    after.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 30;
    EXPECT_NE(diff(before, after).find("\n  num_read  events       0     30     +30\n"), std::string::npos);
}

TEST_F(difference, follows_peers_and_applications_whatever_their_slots)
{
    SnapshotPeer peer;
    peer.number = 3;
    std::strcpy(peer.header.m_peer_host_name, "branch\x1B[2J");
    peer.figures[RE_STAT_PEER_ID_NUM_NACKS] = 5;
    SnapshotPeer other;
    other.number = 4;
    SnapshotApp app;
    app.peer_number = 3;
    app.app.m_header.set(peer.header.m_kav_peer_id, 80, false);
    app.app.m_id_array[RE_STAT_APP_ID_ENCODE_NUM_MSGS] = 0xfffffffeU;

    DiffSide before = side(1700000100);
    before.snapshot.peers = {peer, other};
    before.snapshot.apps = {app};
    DiffSide after = side(1700000110);
    peer.slot = 9;
    peer.figures[RE_STAT_PEER_ID_NUM_NACKS] = 6;
    peer.connections[RE_STAT_CONN_ID_NUM_ACK_MSGS] = 10;
    other.number = 5;
    other.header.m_kav_peer_id.m_data[0] = 1;
    app.app.m_id_array[RE_STAT_APP_ID_ENCODE_NUM_MSGS] = 8;
    after.snapshot.peers = {other, peer};
    after.snapshot.apps = {app};

    const std::string text = diff(before, after);
    EXPECT_NE(text.find("\npeer 3 branch?[2J\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  num_nacks  messages       5      6      +1  0.10/s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\npeer 3 branch?[2J, connections\n"), std::string::npos);
    EXPECT_NE(text.find("\n  num_ack_msgs  messages       0     10     +10  1.00/s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\npeer 5, new\n"), std::string::npos);
    EXPECT_NE(text.find("\npeer 4, gone\n"), std::string::npos);
    EXPECT_NE(text.find("\napplication 80 with peer 3\n"), std::string::npos);
    EXPECT_NE(text.find("  encode_num_msgs  messages  4294967294      8     +10  1.00/s\n"), std::string::npos) << text;
}

TEST_F(difference, with_all_shows_every_counter)
{
    const DiffSide before = side(1700000100);
    const std::string text = diff(before, before, {.b_all = true});
    // Three lines at the top, and for each section a blank line, its title and its column headings.
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3 + (3 + 1 + 383) + (3 + 166));
}

TEST_F(difference, shows_the_scopes_and_counters_that_are_asked_for)
{
    DiffSide before = side(1700000100);
    before.snapshot.peers.resize(2);
    before.snapshot.peers[0].number = 3;
    before.snapshot.peers[1].number = 4;
    DiffSide after = side(1700000110);
    after.snapshot.peers = {before.snapshot.peers[0]};
    after.snapshot.peers[0].figures[RE_STAT_PEER_ID_NUM_NACKS] = 6;
    after.snapshot.peers[0].figures[RE_STAT_PEER_ID_NUM_RTXS] = 5;
    after.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 1;
    DiffChoice choice;
    std::string unknown;
    ASSERT_TRUE(parse_diff_scopes("peers", choice, unknown));
    const std::string head = "before: 2023-11-14 22:15:00, engine started 2023-11-14 22:13:20, file-1700000100\n"
                             "after:  2023-11-14 22:15:10, engine started 2023-11-14 22:13:20, file-1700000110\n"
                             "between: 10 s\n";
    EXPECT_EQ(diff(before, after, choice), head + "\n"
                                                  "peer 3\n"
                                                  "  counter    unit      before  after  change    rate\n"
                                                  "  num_nacks  messages       0      6      +6  0.60/s\n"
                                                  "  num_rtxs   messages       0      5      +5  0.50/s\n"
                                                  "\n"
                                                  "peer 4, gone\n");
    choice.search = "Could not be DECODED"; // text of a counter's meaning
    EXPECT_EQ(diff(before, after, choice), head + "\n"
                                                  "peer 3\n"
                                                  "  counter    unit      before  after  change    rate\n"
                                                  "  num_nacks  messages       0      6      +6  0.60/s\n");
    EXPECT_FALSE(parse_diff_scopes("peers,peer", choice, unknown));
    EXPECT_EQ(unknown, "peer");
    EXPECT_FALSE(parse_diff_scopes("peers,", choice, unknown));
    ASSERT_TRUE(parse_diff_scopes(all_diff_scopes(), choice, unknown));
    EXPECT_TRUE(choice.b_engine && choice.b_connections && choice.b_peers && choice.b_applications);
}

TEST_F(difference, is_a_json_document_as_well)
{
    DiffSide before = side(1700000100);
    before.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 100;
    before.snapshot.connections[RE_STAT_CONN_ID_ENCODE_IN_BYTES] = 5000;
    before.snapshot.peers.resize(1);
    before.snapshot.peers[0].number = 3;
    DiffSide after = side(1700000110);
    after.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ] = 105;
    after.snapshot.engine[RE_STAT_GLOBAL_ID_CACHE_STATE] = 2;
    after.snapshot.peers.resize(1);
    after.snapshot.peers[0].number = 4;
    std::strcpy(after.snapshot.peers[0].header.m_peer_host_name, "branch\x1B");
    nlohmann::json document = diff_json(before, after);
    nlohmann::json& of_new_peer = document["sections"][2]["counters"];
    EXPECT_EQ(of_new_peer.size(), RE_STAT_PEER_ID_MAX + 1U); // all counters of the peer, and its open connections
    EXPECT_EQ(
        of_new_peer["num_nacks"],
        nlohmann::json::parse(R"({"unit": "messages", "before": 0, "after": 0, "change": 0, "per_second": 0.0})"));
    of_new_peer = nlohmann::json::object();
    EXPECT_EQ(document, nlohmann::json::parse(R"({
        "kavstat_diff": 1,
        "before": {"name": "file-1700000100", "capture_time": 1700000100, "engine_start_time": 1700000000},
        "after": {"name": "file-1700000110", "capture_time": 1700000110, "engine_start_time": 1700000000},
        "seconds": 10,
        "restarted": false,
        "sections": [
            {"scope": "engine", "counters": {
                "cache_state": {"unit": "state", "before": 0, "after": 2, "change": 2},
                "num_read": {"unit": "events", "before": 100, "after": 105, "change": 5, "per_second": 0.5}}},
            {"scope": "connections", "counters": {
                "encode_in_bytes": {"unit": "bytes", "before": 5000, "after": 0, "change": null, "note": "went_back"}}},
            {"scope": "peer", "peer": 4, "host_name": "branch\ufffd", "state": "new",
             "kav_peer_id": "00:00:00:00:00:00-000000000000-00000000", "counters": {}},
            {"scope": "peer", "peer": 3, "host_name": "", "state": "gone",
             "kav_peer_id": "00:00:00:00:00:00-000000000000-00000000", "counters": {}}]})"));
}

TEST_F(difference, is_refused_for_different_engines_and_a_wrong_order)
{
    DiffSide before = side(1700000100);
    DiffSide after = side(1700000200);
    EXPECT_EQ(why_not_comparable(before, after), std::nullopt);
    EXPECT_EQ(why_not_comparable(after, before),
              "file-1700000100 is older than file-1700000200; give the older one first");
    before.engine = RE_kav_peer_id_t{{1}};
    EXPECT_EQ(why_not_comparable(before, after), std::nullopt);
    after.engine = RE_kav_peer_id_t{{2}};
    EXPECT_EQ(why_not_comparable(before, after),
              "file-1700000100 is of engine 01:00:00:00:00:00-000000000000-00000000, "
              "file-1700000200 of engine 02:00:00:00:00:00-000000000000-00000000");
}
