// Recording, and reading what was recorded, with the program.
#include "kavstat_program.h"
#include "support/contains.h"
#include "support/terminal.h"

#include <sys/resource.h>

#include <csignal>

namespace {

class history_program : public system_test
{
protected:
    std::string database() const { return path("history.db"); }
    void record() const
    {
        const program_result result = run_kavstat({"record", "--once", database()});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err + result.out, "");
    }
};

} // namespace

TEST_F(history_program, a_recorded_moment_gives_the_same_document)
{
    const small_engine engine;
    EXPECT_EQ(run_kavstat({"record", "--once", "--connections", database()}).status, 0);
    nlohmann::json recorded = nlohmann::json::parse(run_kavstat({"json", "--history", database()}).out);
    nlohmann::json live = nlohmann::json::parse(run_kavstat({"json"}).out);
    EXPECT_EQ(recorded["source"], "history");
    EXPECT_EQ(recorded["file"], database());
    for (nlohmann::json* const document : {&recorded, &live}) {
        document->erase("source");
        document->erase("file");
        document->erase("capture_time");
    }
    EXPECT_EQ(recorded, live);
}

TEST_F(history_program, moments_and_spans_are_read)
{
    small_engine engine;
    record();
    engine.writer().add_conn_stat(engine.encoding_conn(), RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 5);
    record();
    const std::string lines = run_kavstat({"json", "--history", database(), "--from", "-1h", "--scope", "global"}).out;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2);
    const program_result diff = run_kavstat({"diff", "--history", database(), "--from", "-1h"});
    EXPECT_EQ(diff.status, 3) << diff.out;
    EXPECT_TRUE(contains(diff.err, "history.db: the first sample is of ")) << diff.err;
    EXPECT_TRUE(contains(run_kavstat({"diff", "--history", database(), "--from", "now"}).out, "between: 0 s\n"));
    const program_result health = run_kavstat({"health", "--history", database()});
    EXPECT_EQ(health.status, 2);
    EXPECT_TRUE(contains(health.out, "peer 1 branch-1.example.net"));
    EXPECT_TRUE(contains(health.out, "; figures of 20"));
    EXPECT_TRUE(contains(run_kavstat({"watch", "--history", database(), "--once"}).out, ", 2 of 2\n"));
    EXPECT_EQ(run_kavstat({"json", "--history", database(), "--at", "2020-01-01"}).status, 3);
    const program_result wrong = run_kavstat({"json", "--history", database(), "--at", "2020-02-30"});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_TRUE(contains(wrong.err, R"(not a time like "-1h", "14:30", "2026-11-20 14:30" or seconds since the epoch: )"
                                    R"("2020-02-30")"))
        << wrong.err;
    EXPECT_EQ(run_kavstat({"diff"}).status, 2);
    EXPECT_TRUE(contains(run_kavstat({"diff"}).err, "A saved file, or --history FILE with --from TIME, is required\n"));
    const program_result of_peer = run_kavstat({"report", database(), "--svg", "round_trip"});
    EXPECT_EQ(of_peer.status, 2);
    EXPECT_EQ(of_peer.err, "kavstat: \"round_trip\" is a chart of a peer: give --peer NUMBER\n");
    for (const std::string command : {"json", "diff", "health", "watch"}) {
        const program_result reversed = run_kavstat({command, "--history", database(), "--from", "20", "--to", "10"});
        EXPECT_EQ(reversed.status, command == "health" ? 3 : 2) << command;
        EXPECT_TRUE(contains(reversed.err, "--to: earlier than --from\n")) << reversed.err;
    }
    EXPECT_EQ(run_kavstat({"json", "--history", path("missing")}).err,
              "kavstat: " + path("missing") + ": No such file or directory\n");
}

TEST_F(history_program, a_report_has_the_charts_of_peers_and_applications)
{
    const small_engine engine;
    record();
    record();
    for (const std::vector<std::string>& source : {std::vector<std::string>{database()}, {}}) {
        std::vector<std::string> words = {"report"};
        words.insert(words.end(), source.begin(), source.end());
        const program_result result = run_kavstat(words);
        EXPECT_EQ(result.status, 0) << result.err;
        const std::size_t begin = result.out.find("\n", result.out.find("id=\"kavstat-report\""));
        const nlohmann::json histories =
            nlohmann::json::parse(result.out.substr(begin, result.out.find("</script>", begin) - begin))["histories"];
        std::map<std::string, int> count;
        for (const auto& [key, history] : histories.items()) {
            EXPECT_GE(history["rows"].size(), 1U) << key; // both samples may be of one second
            ++count[key.substr(0, key.find('/'))];
        }
        const nlohmann::json all = nlohmann::json::parse(run_kavstat({"json"}).out);
        EXPECT_EQ(count["engine"], 1);
        EXPECT_EQ(static_cast<std::size_t>(count["peer"]), all["peers"].size());
        EXPECT_EQ(static_cast<std::size_t>(count["application"]), all["apps"].size());
    }
}

TEST_F(history_program, troubles_are_reported)
{
    const program_result without_engine = run_kavstat({"record", "--once", database()});
    EXPECT_EQ(without_engine.status, 3);
    EXPECT_TRUE(without_engine.err.ends_with("; nothing was recorded\n")) << without_engine.err;
    write_file(path("text"), std::string(200, 'x'));
    EXPECT_EQ(run_kavstat({"record", "--once", path("text")}).err,
              "kavstat: " + path("text") + ": file is not a database\n");
    const program_result served = run_kavstat({"serve", "--listen", "127.0.0.1:0", "--history", path("text")});
    EXPECT_EQ(served.status, 3);
    EXPECT_EQ(served.err, "kavstat: " + path("text") + ": file is not a database\n");
    EXPECT_EQ(run_kavstat({"record", "--max-size", "1M", database()}).status, 2);
    EXPECT_EQ(run_kavstat({"record", "--keep", "1d", database()}).status, 2);
    const program_result exported = run_kavstat({"export", "--table", "nothing", database()});
    EXPECT_EQ(exported.status, 1);
    EXPECT_TRUE(contains(exported.err, "no such table: \"nothing\"; there are application, ")) << exported.err;
}

TEST_F(history_program, logs_are_imported_and_tables_exported)
{
    const std::string log = KAV_TEST_DATA "/top_app.layout-1.log";
    const program_result first = run_kavstat({"import", log, database()});
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.err, "");
    EXPECT_EQ(run_kavstat({"import", log, database()}).out, log + ": 0 records\n");
    const std::string csv = run_kavstat({"export", "--table", "top_app_record", database()}).out;
    EXPECT_TRUE(csv.starts_with("log,number,section,application,classifier,kav_peer_id,port,")) << csv;
    EXPECT_EQ(first.out, log + ": " + std::to_string(std::count(csv.begin(), csv.end(), '\n') - 1) + " records\n");
    EXPECT_EQ(run_kavstat({"import", path("missing"), log, path("other.db")}).status, 1);
    EXPECT_EQ(run_kavstat({"import", "--max-size", "1M", log, path("small.db")}).status, 2);
    std::string long_log;
    while (long_log.size() < (8U << 20U)) {
        long_log += bytes_of_file(log);
    }
    write_file(path("long.log"), long_log);
    const program_result full = run_kavstat({"import", "--max-size", "4M", path("long.log"), path("small.db")});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "kavstat: " + path("long.log") + ": the database has no room for the rest within --max-size\n");
    EXPECT_GT(std::filesystem::file_size(path("small.db")), 1U << 20U);
    EXPECT_LE(std::filesystem::file_size(path("small.db")), 4U << 20U);
}

TEST_F(history_program, a_recorder_ends_cleanly_and_lets_others_read)
{
    const small_engine engine;
    child_program recorder(built_program("kavstat"), {"record", "--interval", "0.1", database()});
    program_result read;
    for (int attempt = 0; attempt < 100 && read.status != 0; ++attempt) {
        usleep(100000);
        read = run_kavstat({"json", "--history", database()});
    }
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(run_kavstat({"record", "--once", database()}).err,
              "kavstat: " + database() + ": another recorder is writing it\n");
    recorder.send_signal(SIGTERM);
    const program_result ended = recorder.finish();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err + ended.out, "");
    EXPECT_EQ(names_in(folder()), std::vector<std::string>{"history.db"});
}

// A limit on the size of files has the effect of a full disk.
TEST_F(history_program, recording_goes_on_when_there_is_room_again)
{
    const small_engine engine;
    child_program recorder(built_program("kavstat"), {"record", "--interval", "0.1", database()});
    const auto samples = [&] {
        const std::string lines =
            run_kavstat({"json", "--history", database(), "--from", "-1h", "--scope", "global"}).out;
        return std::count(lines.begin(), lines.end(), '\n');
    };
    const auto wait_for_more_than = [&](long count) {
        for (int attempt = 0; attempt < 200 && samples() <= count; ++attempt) {
            usleep(50000);
        }
        return samples() > count;
    };
    const auto limit_files_to = [&](rlim_t size) {
        const rlimit limit{size, RLIM_INFINITY};
        EXPECT_EQ(prlimit(recorder.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    };
    EXPECT_TRUE(wait_for_more_than(0));
    limit_files_to(4096);
    usleep(300000); // a sample that had begun
    const long before = samples();
    usleep(2500000);
    EXPECT_EQ(samples(), before);
    limit_files_to(RLIM_INFINITY);
    EXPECT_TRUE(wait_for_more_than(before));
    recorder.send_signal(SIGTERM);
    const program_result ended = recorder.finish();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "kavstat: " + database() +
                             ": disk I/O error; samples are lost until this is solved\nkavstat: recording again\n");
}

TEST_F(history_program, a_new_file_is_begun_when_the_file_was_removed)
{
    const small_engine engine;
    const std::string file = path("place") + "/history.db";
    std::filesystem::create_directory(path("place"));
    child_program recorder(built_program("kavstat"), {"record", "--interval", "0.1", file});
    const auto is_recorded = [&] {
        program_result read;
        for (int attempt = 0; attempt < 100 && read.status != 0; ++attempt) {
            usleep(100000);
            read = run_kavstat({"json", "--history", file});
        }
        return read.status == 0;
    };
    EXPECT_TRUE(is_recorded());
    std::filesystem::remove(file);
    EXPECT_TRUE(is_recorded());
    std::filesystem::rename(path("place"), path("other"));
    usleep(2500000);
    std::filesystem::create_directory(path("place"));
    EXPECT_TRUE(is_recorded());
    recorder.send_signal(SIGTERM);
    const program_result ended = recorder.finish();
    EXPECT_EQ(ended.status, 0);
    const std::string begin = "kavstat: " + file + ": ";
    const std::string replaced = begin + "was removed or replaced; recording goes on in a new file\n";
    EXPECT_EQ(ended.err, replaced + replaced + begin +
                             "No such file or directory; samples are lost until this is solved\n"
                             "kavstat: recording again\n");
}

TEST_F(history_program, an_engine_that_starts_is_found_before_a_long_interval_ends)
{
    child_program recorder(built_program("kavstat"), {"record", "--interval", "3600", database()});
    usleep(500000);
    const small_engine engine;
    program_result read;
    for (int attempt = 0; attempt < 150 && read.status != 0; ++attempt) {
        usleep(100000);
        read = run_kavstat({"json", "--history", database()});
    }
    EXPECT_EQ(read.status, 0) << read.err;
}

TEST_F(history_program, the_view_plays)
{
    small_engine engine;
    for (int sample = 0; sample < 12; ++sample) {
        record();
    }
    const terminal screen(folder(), built_program("kavstat") + " watch -i 0.2 --history " + database(), 100, 30);
    screen.screen_with(", 12 of 12");
    screen.press({"Left"});
    screen.screen_with(", 11 of 12");
    screen.press({"PPage"});
    screen.screen_with(", 1 of 12");
    screen.press({"Right", "2"});
    EXPECT_TRUE(contains(screen.screen_with("PEER HOST"), ", 2 of 12"));
    screen.press({"Space"});
    screen.screen_with(", 12 of 12  ");
    screen.press({"q"});
    screen.screen_with("status 0");
}
