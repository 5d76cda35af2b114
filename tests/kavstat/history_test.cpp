#include "RE_top_app_log_writer.h"
#include "history/reader.h"
#include "history/recorded_image.h"
#include "history/recorder.h"
#include "history/table_export.h"
#include "history/times.h"
#include "history/top_app_import.h"
#include "kavstat_fixture.h"
#include "support/files.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

class history_test : public kavstat_test
{
protected:
    // Records a sample of the running engine, as a recorder that runs all the time does.
    RecordResult record(Recorder& recorder)
    {
        Source source;
        EXPECT_EQ(source.open(), 0);
        const RecordResult result = recorder.record(source.reader(), true, m_seconds);
        m_seconds += 10;
        moment += 10;
        return result;
    }
    RecorderOptions options()
    {
        RecorderOptions made;
        made.b_connections = true;
        made.clock = [this] { return moment; };
        return made;
    }
    std::string path() const { return folder.file("history.db"); }

    // With a recorder that ends afterwards.
    void record_samples(int count)
    {
        Recorder recorder(options());
        EXPECT_EQ(recorder.open(path()), "");
        for (int at = 0; at < count; ++at) {
            EXPECT_EQ(record(recorder), RecordResult::recorded);
        }
    }

    // The last sample, restored as statistics.
    std::unique_ptr<RecordedReader> restored(std::optional<std::time_t> at = std::nullopt)
    {
        Database database;
        EXPECT_EQ(open_history(database, path()), "");
        HistoryReader history(database);
        const std::optional<HistorySample> sample = at ? history.at(*at) : history.last();
        if (!sample) {
            ADD_FAILURE() << "no sample";
            return nullptr;
        }
        const std::optional<RecordedMoment> restored = history.restore(*sample);
        EXPECT_TRUE(restored) << history.error();
        auto image = std::make_unique<RecordedReader>(*restored);
        EXPECT_EQ(image->open(), 0);
        return image;
    }
    long long number(const std::string& sql)
    {
        Database database;
        EXPECT_EQ(open_history(database, path()), "");
        return database.number(sql).value_or(-1);
    }

    std::time_t moment = 1700000900;

private:
    double m_seconds = 0;
};

// Each row's values joined by "|", as the sqlite3 program prints them.
std::vector<std::string> rows_of(const std::string& file, const std::string& query)
{
    Database database;
    EXPECT_EQ(open_history(database, file), "");
    Statement row = database.prepare(query);
    EXPECT_TRUE(row.is_ready()) << database.error();
    std::vector<std::string> rows;
    while (row.next()) {
        std::string text;
        for (int column = 0; column < row.columns(); ++column) {
            text += (column == 0 ? "" : "|") + std::string(row.text(column));
        }
        rows.push_back(text);
    }
    EXPECT_FALSE(row.is_failed()) << database.error();
    return rows;
}

TEST_F(history_test, a_moment_is_restored_as_it_was)
{
    start();
    fill();
    engine.set_global(SO_STAT_HWFQ_BYTES_MAX, 0); // an end mark, under which no engine counts
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    const auto image = restored();
    expect_same_statistics(*reader, *image);
    EXPECT_EQ(image->capture_time(), 1700000900);
    EXPECT_EQ(image->engine_start_time(), header().engine_start_time);
}

// Entries without a change have no row, and come from the sample in which they changed last.
TEST_F(history_test, unchanged_entries_are_left_out_and_restored)
{
    start({8, 16, 64, 8});
    fill();
    for (std::uint32_t number = 100; number < 120; ++number) {
        engine.find_or_add_app(app_key_of(number));
    }
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    const long long apps = number("SELECT count(*) FROM application WHERE sample = 1");
    engine.add_app_stat(3, RE_STAT_APP_ID_ENCODE_IN_KBYTES, 5);
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    EXPECT_GE(apps, 20);
    EXPECT_EQ(number("SELECT count(*) FROM application WHERE sample = 2"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM peer WHERE sample = 2"), 0);
    const auto image = restored();
    long value = 0;
    EXPECT_EQ(static_cast<int>(image->get_app_slot_shared_memory_header_size()), apps);
    for (int slot = 0; slot < apps; ++slot) {
        for (int id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
            long live = 0;
            reader->read_app_stat(slot, id, live);
            image->read_app_stat(slot, id, value);
            EXPECT_EQ(live, value);
        }
    }
}

// Rows of a sample that goes are moved into the next one that stays, so that nothing is lost with them.
TEST_F(history_test, thinning_keeps_the_last_sample_of_each_step)
{
    start({8, 16, 64, 8});
    fill();
    moment = 1700000040; // divisible by 60
    const std::time_t first = moment;
    RecorderOptions made = options();
    made.keep = *parse_keep("1h:all,1d:1m");
    made.b_connections = false;
    Recorder recorder(made);
    ASSERT_EQ(recorder.open(path()), "");
    // Two minutes; the second application changes in the first sample of each minute alone.
    for (int sample = 0; sample < 12; ++sample) {
        if (sample % 6 == 0) {
            engine.add_app_stat(1, RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1000);
        }
        engine.add_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 1);
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    ASSERT_EQ(recorder.thin(), Recorder::Thinning::finished);
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 12); // younger than an hour
    const auto before = restored(first + 50);
    moment = first + 3600 + 3600;
    ASSERT_EQ(recorder.thin(), Recorder::Thinning::finished);
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 2);
    EXPECT_EQ(number("SELECT count(*) FROM engine_figures"), 2);
    EXPECT_EQ(number("SELECT min(time) FROM sample"), first + 50);
    EXPECT_EQ(number("SELECT elapsed FROM sample WHERE id = 12"), 60);
    EXPECT_EQ(number("SELECT count(*) FROM application WHERE sample = 12"), 1);
    EXPECT_EQ(number("SELECT min(encode_in_kbytes) FROM application WHERE slot = 1"), 1000 + 100);
    EXPECT_EQ(number("SELECT max(encode_in_kbytes) FROM application WHERE slot = 1"), 2000 + 100);
    const auto after = restored(first + 50);
    expect_same_statistics(*before, *after);
    // Everything becomes too old; the last sample stays and is whole.
    moment = first + 3 * 86400;
    ASSERT_EQ(recorder.thin(), Recorder::Thinning::finished);
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM peer_identity"), 3);
    long value = 0;
    restored()->read_app_stat(0, RE_STAT_APP_ID_ENCODE_IN_KBYTES + 1, value);
    EXPECT_EQ(value, 1);
}

// A recorder thins between two samples, and must be on time for the next one.
TEST_F(history_test, thinning_in_steps_gives_the_same_as_thinning_at_once)
{
    start({8, 16, 64, 8});
    fill();
    RecorderOptions made = options();
    made.keep = *parse_keep("1h:all,1d:1m");
    made.b_connections = false;
    constexpr int samples = 260;
    for (const int starts : {1, 2}) {
        Recorder recorder(made);
        ASSERT_EQ(recorder.open(path()), "");
        for (int sample = 0; sample < samples / 2; ++sample) {
            engine.add_app_stat(sample % 3, RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1);
            ASSERT_EQ(record(recorder), RecordResult::recorded);
        }
        recorder.close();
        Database database;
        ASSERT_TRUE(database.open(path(), Database::Access::write));
        ASSERT_TRUE(database.run("UPDATE engine_start SET start_time = " + std::to_string(starts)));
    }
    const std::string copy = folder.file("copy.db");
    std::filesystem::copy(path(), copy);
    moment += 86400 - 1000; // the oldest samples are too old for all rules
    {
        Recorder at_once(made);
        ASSERT_EQ(at_once.open(path()), "");
        ASSERT_EQ(at_once.thin(), Recorder::Thinning::finished);
    }
    Recorder in_steps(made);
    ASSERT_EQ(in_steps.open(copy), "");
    long long left = samples;
    int calls = 1;
    while (in_steps.thin([] { return true; }) == Recorder::Thinning::unfinished) {
        const long long count = std::stoll(rows_of(copy, "SELECT count(*) FROM sample").at(0));
        EXPECT_GE(count, left - 1);
        left = count;
        ++calls;
    }
    EXPECT_LT(left, 40);
    EXPECT_GT(calls, samples - left);
    for (const HistoryTable& table : history_tables()) {
        const std::string rows = "SELECT * FROM " + table.name;
        EXPECT_EQ(rows_of(copy, rows), rows_of(path(), rows)) << table.name;
    }
}

TEST_F(history_test, a_second_recorder_is_refused)
{
    start();
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    Recorder second(options());
    EXPECT_EQ(second.open(path()), "another recorder is writing it");
    recorder.close();
    EXPECT_EQ(second.open(path()), "");
}

TEST_F(history_test, files_that_are_no_history_and_later_versions_are_refused)
{
    write_file(path(), "This is a text of more than a hundred bytes, which nobody would take for a database. No, "
                       "nobody at all would take it for one.");
    Recorder text(options());
    EXPECT_EQ(text.open(path()), "file is not a database");
    text.close();

    const std::string other = folder.file("other.db");
    Database database;
    ASSERT_TRUE(database.open(other, Database::Access::write));
    ASSERT_TRUE(database.run("CREATE TABLE t (x)"));
    database.close();
    Recorder foreign(options());
    EXPECT_EQ(foreign.open(other), "not a recorded history");

    const std::string later = folder.file("later.db");
    {
        Recorder recorder(options());
        ASSERT_EQ(recorder.open(later), "");
    }
    ASSERT_TRUE(database.open(later, Database::Access::write));
    ASSERT_TRUE(database.run("PRAGMA user_version = 2"));
    database.close();
    Recorder recorder(options());
    EXPECT_EQ(recorder.open(later), "its layout has version 2, which is newer than this program's (1)");
    EXPECT_EQ(open_history(database, later), "its layout has version 2, which is newer than this program's (1)");
}

TEST_F(history_test, only_regular_files_are_opened)
{
    const std::string fifo = folder.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Database database;
    for (const std::string& file : {fifo, std::string("/dev/null"), folder.path()}) {
        Recorder recorder(options());
        EXPECT_NE(recorder.open(file), "") << file;
        EXPECT_EQ(open_history(database, file), "not a regular file") << file;
        EXPECT_FALSE(database.open(file, Database::Access::write)) << file;
        EXPECT_EQ(database.error(), "not a regular file") << file;
    }
}

// A history contains names and addresses.
TEST_F(history_test, other_users_cannot_read_a_new_file)
{
    const mode_t mask = umask(022);
    Database database;
    EXPECT_TRUE(database.open(path(), Database::Access::write)) << database.error();
    umask(mask);
    EXPECT_EQ(static_cast<int>(std::filesystem::status(path()).permissions()), 0640);
}

// SQLite needs the file FILE-shm, which a user without write permission cannot create.
TEST_F(history_test, a_file_is_read_in_a_folder_without_write_permission)
{
    start();
    fill();
    record_samples(1);
    ASSERT_EQ(chmod(path().c_str(), 0644), 0);
    write_file(folder.file("h.db-wal"), "x");
    std::filesystem::copy(path(), folder.file("h.db"));
    ASSERT_EQ(chmod(folder.path().c_str(), 0555), 0);
    const bool b_root = geteuid() == 0;
    constexpr uid_t user_without_files = 65534;
    ASSERT_TRUE(!b_root || seteuid(user_without_files) == 0);
    {
        Database database;
        EXPECT_EQ(open_history(database, path()), "");
        EXPECT_EQ(HistoryReader(database).last().value_or(HistorySample{}).id, 1);
        // Samples in the log would be missing.
        EXPECT_EQ(open_history(database, folder.file("h.db")), "unable to open database file");
    }
    ASSERT_TRUE(!b_root || seteuid(0) == 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
}

// A file from another user may have them.
TEST_F(history_test, planted_views_are_refused_and_triggers_do_not_run)
{
    start();
    {
        Recorder recorder(options());
        ASSERT_EQ(recorder.open(path()), "");
    }
    Database database;
    ASSERT_TRUE(database.open(path(), Database::Access::write));
    ASSERT_TRUE(database.run("CREATE TRIGGER planted BEFORE INSERT ON sample BEGIN SELECT RAISE(ABORT, 'no'); END"));
    database.close();
    {
        Recorder recorder(options());
        ASSERT_EQ(recorder.open(path()), "");
        EXPECT_EQ(record(recorder), RecordResult::recorded) << recorder.error();
    }
    ASSERT_TRUE(database.open(path(), Database::Access::write));
    ASSERT_TRUE(database.run("DROP TABLE nack; CREATE VIEW Nack AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT "
                             "i + 1 FROM n) SELECT i AS engine_start, i AS number FROM n"));
    EXPECT_EQ(open_history(database, path()), "\"nack\" is not a table");
    Recorder recorder(options());
    EXPECT_EQ(recorder.open(path()), "\"nack\" is not a table");
}

TEST_F(history_test, values_out_of_range_do_no_harm)
{
    start();
    fill();
    record_samples(2);
    Database database;
    ASSERT_TRUE(database.open(path(), Database::Access::write));
    for (const char* const sql :
         {"UPDATE sample SET time = -0x7fffffffffffffff, elapsed = 9e999, base = -0x7fffffffffffffff - 1 WHERE id = 1",
          "UPDATE sample SET time = 0x7fffffffffffffff, elapsed = 'text', end_nack = 0x7fffffffffffffff WHERE id = 2",
          "UPDATE peer_figures SET num_nacks = 0x7fffffffffffffff",
          "INSERT INTO connection (sample, slot, id, open_time) VALUES (2, 7, 1, 1), (2, '3', 1, 1), (2, 'x', 1, 1)"}) {
        ASSERT_TRUE(database.run(sql)) << database.error();
    }
    HistoryReader history(database);
    const std::vector<HistorySample> samples = history.samples({});
    ASSERT_EQ(samples.size(), 2U);
    EXPECT_FALSE(samples[0].elapsed);
    EXPECT_EQ(samples[1].time - samples[0].time, 2LL << 40);
    EXPECT_EQ(history.samples({}, 1).size(), 2U);
    const std::optional<RecordedMoment> last = history.restore(samples[1]);
    ASSERT_TRUE(last);
    EXPECT_TRUE(
        std::is_sorted(last->conns.begin(), last->conns.end(),
                       [](const SnapshotConn& left, const SnapshotConn& right) { return left.slot < right.slot; }));
    RecordedReader image(*last);
    EXPECT_EQ(image.open(), 0);
    take_snapshot(image, 0);
    // Three peers, whose sum wraps.
    SeriesRequest request{"peer", {"num_nacks"}, {}, {}, 0};
    EXPECT_EQ(history.series(request)->values.at(0).at(0), 0x7ffffffffffffffd);

    ASSERT_TRUE(database.run("UPDATE sqlite_sequence SET seq = 0x7fffffffffffffff WHERE name = 'sample'"));
    database.close();
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    EXPECT_EQ(record(recorder), RecordResult::failed);
    EXPECT_EQ(recorder.error(), "the numbers of its samples are damaged");
}

TEST_F(history_test, the_reason_of_a_failure_survives_the_rollback)
{
    Database database;
    ASSERT_TRUE(database.open(path(), Database::Access::write));
    ASSERT_TRUE(database.run("CREATE TABLE t (x UNIQUE); INSERT INTO t VALUES (1)"));
    {
        const Transaction transaction(database);
        EXPECT_FALSE(database.run("INSERT INTO t VALUES (1)"));
    }
    EXPECT_FALSE(database.is_well());
    EXPECT_EQ(database.error(), "UNIQUE constraint failed: t.x");
    EXPECT_TRUE(database.run("INSERT INTO t VALUES (2)"));
    EXPECT_TRUE(database.is_well());
}

TEST_F(history_test, a_full_nack_log_does_not_prevent_recording)
{
    start({8, 16, 64, 8000});
    for (std::uint32_t number = 0; number < 8000; ++number) {
        engine.add_nack(nack_of(number));
    }
    RecorderOptions made = options();
    made.max_size = least_history_size;
    Recorder recorder(made);
    ASSERT_EQ(recorder.open(path()), "");
    EXPECT_EQ(record(recorder), RecordResult::recorded) << recorder.error();
    EXPECT_EQ(number("SELECT max(number) FROM nack"), 7999);
    const long long stored = number("SELECT count(*) FROM nack");
    engine.add_nack(nack_of(1));
    EXPECT_EQ(record(recorder), RecordResult::recorded) << recorder.error();
    EXPECT_EQ(number("SELECT count(*) FROM nack"), stored + 1);
}

TEST_F(history_test, thinning_ends_when_the_recorder_is_stopped)
{
    start();
    bool b_stopped = false;
    RecorderOptions made = options();
    made.keep = *parse_keep("1h:all");
    made.is_stopped = [&] { return b_stopped; };
    Recorder recorder(made);
    ASSERT_EQ(recorder.open(path()), "");
    for (int sample = 0; sample < 3; ++sample) {
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    moment += 7200;
    b_stopped = true;
    EXPECT_EQ(recorder.thin(), Recorder::Thinning::finished);
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 3);
    b_stopped = false;
    EXPECT_EQ(recorder.thin(), Recorder::Thinning::finished);
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 1);
}

// The server's clients wait for it.
TEST_F(history_test, a_reader_without_patience_does_not_wait_for_a_lock)
{
    start();
    record_samples(1);
    Database other;
    ASSERT_TRUE(other.open(path(), Database::Access::write));
    ASSERT_TRUE(other.run("PRAGMA locking_mode = EXCLUSIVE; BEGIN IMMEDIATE; DELETE FROM nack"));
    const auto begin = std::chrono::steady_clock::now();
    Database database;
    database.set_patience(std::chrono::milliseconds(20));
    EXPECT_EQ(open_history(database, path()), "database is locked");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

// A database of an earlier release lacks counters: they are 0 there, and get columns when it is recorded into.
TEST_F(history_test, columns_of_later_counters_are_added)
{
    start();
    fill();
    record_samples(1);
    Database database;
    ASSERT_TRUE(database.open(path(), Database::Access::write));
    ASSERT_TRUE(database.run("DROP VIEW peer; DROP VIEW engine"));
    ASSERT_TRUE(database.run("ALTER TABLE peer_figures DROP COLUMN num_nacks"));
    ASSERT_TRUE(database.run("ALTER TABLE engine_figures DROP COLUMN cache_state"));
    database.close();
    long long value = -1;
    restored()->read_global_stat(RE_STAT_GLOBAL_ID_CACHE_STATE, value);
    EXPECT_EQ(value, 0);
    restored()->read_global_stat(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, value);
    EXPECT_EQ(value, 2000000014);
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    engine.add_global(RE_STAT_GLOBAL_ID_CACHE_STATE, 1);
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    EXPECT_EQ(number("SELECT cache_state FROM engine WHERE sample = 2"), 1000000008);
    EXPECT_EQ(number("SELECT count(*) FROM engine WHERE cache_state IS NULL"), 1);
}

TEST_F(history_test, a_recorder_goes_on_where_the_last_one_stopped)
{
    start({8, 16, 64, 8});
    fill();
    for (int run = 0; run < 2; ++run) {
        Recorder recorder(options());
        ASSERT_EQ(recorder.open(path()), "");
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    EXPECT_EQ(number("SELECT count(*) FROM engine_start"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM configuration"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM peer_identity"), 3);
    EXPECT_EQ(number("SELECT count(*) FROM peer WHERE sample = 2"), 0);
    EXPECT_EQ(number("SELECT count(*) FROM sample WHERE elapsed IS NULL"), 2);
    EXPECT_EQ(number("SELECT count(*) FROM nack"), 8);
    engine.add_nack(nack_of(50));
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    EXPECT_EQ(number("SELECT count(*) FROM nack"), 9);
    const auto image = restored();
    EXPECT_EQ(all_nacks(*image).size(), 8U); // as many as the log holds
}

// An engine that was started anew, and one that took its place within the same second.
TEST_F(history_test, engine_starts_are_rows)
{
    start();
    fill();
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    const std::time_t start_time = header().engine_start_time;
    reader.reset();
    engine.close();
    ASSERT_EQ(engine.create(few, start_time + 100), 0);
    engine.publish();
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    EXPECT_EQ(number("SELECT count(*) FROM engine_start"), 2);
    EXPECT_EQ(number("SELECT start_time FROM engine_start WHERE id = 2"), start_time + 100);
    EXPECT_EQ(number("SELECT count(*) FROM sample WHERE engine_start = 2 AND elapsed IS NULL"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM peer WHERE sample = 3"), 0);
    EXPECT_EQ(restored()->get_max_peer_slots(), 0);

    engine.set_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 5);
    ASSERT_EQ(record(recorder), RecordResult::recorded);
    engine.close();
    ASSERT_EQ(engine.create(few, start_time + 100), 0);
    engine.publish();
    Source source;
    ASSERT_EQ(source.open(), 0);
    ASSERT_EQ(recorder.record(source.reader(), false, 1000), RecordResult::recorded);
    EXPECT_EQ(number("SELECT count(*) FROM engine_start"), 3);
}

// Samples are in the order of recording, whatever the clock says.
TEST_F(history_test, the_clock_may_go_back)
{
    start();
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    for (const int offset : {0, 10, -3600, -3590}) {
        moment = 1700000900 + offset;
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    EXPECT_EQ(number("SELECT time FROM sample WHERE id = 3"), 1700000900 - 3600);
    EXPECT_EQ(number("SELECT count(*) FROM sample WHERE elapsed = 10"), 3);
    Database database;
    ASSERT_EQ(open_history(database, path()), "");
    HistoryReader history(database);
    EXPECT_EQ(history.at(1700000905)->id, 4);
    EXPECT_EQ(history.samples({}).size(), 4U);
}

TEST_F(history_test, a_series_adds_up_what_it_selects)
{
    start({8, 16, 64, 8});
    fill();
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    for (int sample = 0; sample < 4; ++sample) {
        if (sample == 2) {
            engine.add_peer_stat(0, RE_STAT_PEER_ID_NUM_NACKS, 7);
        }
        engine.add_global(RE_STAT_GLOBAL_ID_ACK_Q_DROP_SIZE, 1);
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    Database database;
    ASSERT_EQ(open_history(database, path()), "");
    HistoryReader history(database);
    SeriesRequest request;
    request.columns = {"ack_q_drop_size"};
    const long long before = 1000000007LL * (RE_STAT_GLOBAL_ID_ACK_Q_DROP_SIZE + 1);
    EXPECT_EQ(history.series(request)->values.at(0),
              (std::vector<long long>{before + 1, before + 2, before + 3, before + 4}));
    request = {"peer", {"num_nacks"}, {{"number", "40"}}, {1700000910, std::nullopt}, 0};
    const long long nacks = RE_STAT_PEER_ID_NUM_NACKS;
    EXPECT_EQ(history.series(request)->values.at(0), (std::vector<long long>{nacks, nacks + 7, nacks + 7}));
    request.where.clear();
    request.most_samples = 2;
    const long long others = 20000 + 30000 + 2 * nacks;
    EXPECT_EQ(history.series(request)->values.at(0), (std::vector<long long>{others + nacks, others + nacks + 7}));
    request.columns = {"num_nacks; DROP TABLE sample"};
    EXPECT_FALSE(history.series(request));
    EXPECT_EQ(history.error(), "no such column: \"num_nacks; DROP TABLE sample\"");
}

TEST(history_keep, is_read_and_applied)
{
    EXPECT_TRUE(parse_keep("all")->rules.empty());
    EXPECT_EQ(parse_keep("1d:all,30d:1m,2y:1h")->rules.size(), 3U);
    for (const char* const wrong : {"", "1d", "1d:", ":1m", "1d:all,1h:1m", "1d:all,", "1d:-1m", "1d:5", "x:all"}) {
        EXPECT_FALSE(parse_keep(wrong)) << wrong;
    }
    const auto sample = [](long long id, std::time_t time, long long engine_start) {
        HistorySample made;
        made.id = id;
        made.time = time;
        made.engine_start = engine_start;
        return made;
    };
    const auto text = [](const std::vector<ThinningStep>& steps) {
        std::string all;
        for (const ThinningStep& step : steps) {
            all += std::to_string(step.sample) + ">" + std::to_string(step.into) + " ";
        }
        return all;
    };
    const Keep keep = *parse_keep("100s:all,1000s:1m");
    // An engine start ends a group, and so does a step.
    const std::vector<HistorySample> samples = {sample(1, 610, 1), sample(2, 620, 1), sample(3, 630, 1),
                                                sample(4, 640, 2), sample(5, 650, 2), sample(6, 660, 2),
                                                sample(7, 790, 2)};
    EXPECT_EQ(text(plan_thinning(samples, keep, 700, 99)), "");
    EXPECT_EQ(text(plan_thinning(samples, keep, 760, 99)), "2>3 1>3 4>5 ");
    EXPECT_EQ(text(plan_thinning(samples, keep, 760, 2)), "2>3 1>3 ");
    EXPECT_EQ(text(plan_thinning(samples, keep, 1635, 99)), "1>2 2>3 3>0 4>5 ");
    // The clock was ahead: sample 2 is as old as sample 3.
    const std::vector<HistorySample> ahead = {sample(1, 610, 1), sample(2, 99000, 1), sample(3, 630, 1),
                                              sample(4, 900, 1)};
    EXPECT_EQ(text(plan_thinning(ahead, keep, 900, 99)), "2>3 1>3 ");
}

// The queries of the manual page, in order.
std::vector<std::string> documented_queries()
{
    const std::string page = bytes_of_file(KAV_DOCS "/man/kav-history.5.scd");
    std::vector<std::string> queries;
    for (std::size_t at = page.find("\n```\n"); at != std::string::npos;) {
        const std::size_t end = page.find("\n```\n", at + 5);
        queries.push_back(page.substr(at + 5, end - at - 5));
        at = page.find("\n```\n", end + 5);
    }
    return queries;
}

// Two hours of two days with a restart between.
TEST_F(history_test, documented_queries_give_what_they_promise)
{
    setenv("TZ", "UTC", 1);
    start();
    RE_stat_peer_header headers[2] = {peer_header_of(1), peer_header_of(2)};
    std::strcpy(headers[0].m_peer_host_name, "north");
    std::strcpy(headers[1].m_peer_host_name, "south");
    int peers[2] = {engine.add_peer(1, headers[0]), engine.add_peer(2, headers[1])};
    int conn = engine.open_conn(peers[0], conn_header_of(1), so_header_of(1), 5000);
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    const auto sample = [&](std::time_t at, long long before, long long after, long long north, long long south) {
        moment = at;
        engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_IN_BYTES, before);
        engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, after);
        engine.add_peer_stat(peers[0], RE_STAT_PEER_ID_NUM_NACKS, north);
        engine.add_peer_stat(peers[1], RE_STAT_PEER_ID_NUM_NACKS, south);
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    };
    constexpr std::time_t midnight = 1699920000; // 2023-11-14 00:00
    sample(midnight + 36000, 500, 500, 9, 9);
    sample(midnight + 36010, 1000, 250, 3, 0);
    sample(midnight + 37000, 1000, 250, 0, 5);
    sample(midnight + 39600, 800, 600, 0, 0);
    engine.add_nack({1, 0, 1, 1, 1, 1});
    engine.add_nack({2, 0, 1, 1, 1, 2});
    engine.add_nack({3, 1, 3, 1, 1, 3});
    ASSERT_EQ(engine.set_bypass({0x0a000001, 443, RE_bypass_reason::low_compression, 1600000000, 0, 1, 6}), 0);
    sample(midnight + 86400, 0, 0, 4, 1);
    ASSERT_EQ(engine.set_bypass({0x0a000001, 443, RE_bypass_reason::low_compression, 1600000000, 0, 2, 6}), 0);
    // Counted anew since a restart: its first sample has nothing to be compared with.
    reader.reset();
    engine.close();
    ASSERT_EQ(engine.create(few, midnight + 86500), 0);
    engine.publish();
    peers[0] = engine.add_peer(1, headers[0]);
    peers[1] = engine.add_peer(2, headers[1]);
    conn = engine.open_conn(peers[0], conn_header_of(1), so_header_of(1), 5000);
    sample(midnight + 86600, 7000, 7000, 100, 0);
    sample(midnight + 86610, 400, 100, 0, 2);
    recorder.close();

    const std::vector<std::string> queries = documented_queries();
    ASSERT_EQ(queries.size(), 3U);
    using rows = std::vector<std::string>;
    EXPECT_EQ(rows_of(path(), queries[0]), (rows{"2023-11-14 10:00|2000|500|75.0", "2023-11-14 11:00|800|600|25.0",
                                                 "2023-11-15 00:00|400|100|75.0"}));
    EXPECT_EQ(rows_of(path(), queries[1]), (rows{"2023-11-14|2|south|5", "2023-11-15|1|north|4"}));
    EXPECT_EQ(rows_of(path(), queries[2]),
              (rows{"bypass|low_compression|1", "nack|chunk_missed|2", "rtx|disk_overloaded|1"}));
}

// Every table and view, and every column that does not come from the descriptions of counters and fields.
TEST_F(history_test, the_manual_page_names_all_tables_and_columns)
{
    std::string page = bytes_of_file(KAV_DOCS "/man/kav-history.5.scd");
    page.erase(std::remove(page.begin(), page.end(), '\\'), page.end());
    std::set<std::string> described;
    for (const auto& [scope, prefix] :
         {std::pair(CounterScope::engine, ""), std::pair(CounterScope::peer, ""),
          std::pair(CounterScope::application, ""), std::pair(CounterScope::connection, ""),
          std::pair(CounterScope::connection, "conn_")}) {
        for (const HistoryColumn& column : counter_columns(scope, prefix)) {
            described.insert(column.name);
        }
    }
    const auto add = [&](const auto& fields, const std::string& prefix = {}) {
        for (const auto& field : fields) {
            described.insert(prefix + field.key);
        }
    };
    add(peer_fields);
    add(app_fields);
    add(bypass_fields);
    add(config_fields);
    add(connection_fields);
    add(nack_fields);
    add(transport_fields, "transport_");
    for (const HistoryTable& table : history_tables()) {
        EXPECT_NE(page.find(table.name), std::string::npos) << table.name;
        for (const HistoryColumn& column : table.columns) {
            EXPECT_TRUE(described.contains(column.name) || page.find("_" + column.name + "_") != std::string::npos)
                << table.name << "." << column.name;
        }
    }
}

TEST(history_times, are_read_as_people_write_them)
{
    setenv("TZ", "UTC", 1);
    constexpr std::time_t now = 1763735400; // 2025-11-21 14:30:00
    const std::pair<const char*, std::time_t> moments[] = {
        {"now", now},
        {"-1h", now - 3600},
        {"-1h30m", now - 5400},
        {"-2d", now - 172800},
        {"14:30", now},
        {"14:31", now - 86400 + 60},
        {"14:29:58", now - 2},
        {"9:00", now - 19800},
        {"2025-11-20", 1763596800},
        {"2025-11-20 14:30", now - 86400},
        {"2025-11-20T14:30:15", now - 86400 + 15},
        {"1763735400", now},
        {"0", 0},
    };
    for (const auto& [text, moment] : moments) {
        EXPECT_EQ(parse_moment(text, now), moment) << text;
    }
    for (const char* const wrong :
         {"", "-", "-1", "1h", "-1x", "24:00", "12:60", "12", "2025-02-30", "2025-13-01", "2025-11-20 ",
          "2025-11-20 25:00", "2025-11-20x", "99999999999999999999", "-99999999999999999d", "yesterday", "1:2:3"}) {
        if (std::string(wrong) != "12") { // seconds since the epoch
            EXPECT_EQ(parse_moment(wrong, now), std::nullopt) << wrong;
        }
    }
    // Daylight saving time skips 02:30 on the first of these days, and has it twice on the second one.
    setenv("TZ", "Europe/Berlin", 1);
    EXPECT_EQ(parse_moment("2025-03-30 02:30", now), 1743298200); // 03:30
    EXPECT_EQ(parse_moment("2025-10-26", now), 1761429600);
    EXPECT_EQ(parse_moment("2025-10-27", now), 1761429600 + 25 * 3600);
    const std::optional<std::time_t> twice = parse_moment("2025-10-26 02:30", now);
    EXPECT_TRUE(twice == 1761438600 || twice == 1761442200) << *twice;
    EXPECT_EQ(parse_moment("01:30", 1761429600 + 3600), 1761429600 - 86400 + 5400);
    setenv("TZ", "America/Santiago", 1);
    EXPECT_EQ(parse_moment("2025-09-07", now), 1757217600); // begins at 01:00
    setenv("TZ", "UTC", 1);
    tzset(); // for the tests after this one
    EXPECT_EQ(parse_size("4096"), 4096);
    EXPECT_EQ(parse_size("500M"), 524288000);
    EXPECT_EQ(parse_size("2G"), 2147483648);
    for (const char* const wrong : {"", "M", "1MB", "1m", "-1", "99999999999G"}) {
        EXPECT_EQ(parse_size(wrong), std::nullopt) << wrong;
    }
}

// ---- Import and export.

class history_import : public history_test
{
protected:
    history_import()
    {
        EXPECT_TRUE(m_database.open(path(), Database::Access::write));
        EXPECT_EQ(prepare_schema(m_database), "");
    }
    ImportResult import(const std::string& log) { return import_top_app_log(m_database, log, 1700000000); }
    // A section of one name and so many records, each with its number as traffic.
    void append_section(const std::string& log, int records)
    {
        RE_top_app_log_name name{7, {}};
        std::strcpy(name.names.m_policy_engine_application_name, "we\"b,");
        std::strcpy(name.names.m_policy_engine_classifier_name, "http\xff");
        std::vector<RE_stat_app_struct> rows;
        for (int at = 0; at < records; ++at) {
            RE_stat_app_struct row{};
            row.m_header = app_key_of(5);
            row.m_header.m_reserve_not_used = 0;
            row.m_header.set_policy_engine_handler(at == 0 ? 7 : 8);
            row.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = static_cast<std::uint32_t>(at + 1);
            rows.push_back(row);
        }
        ASSERT_EQ(append_top_app_log(log, {&name, 1}, rows), 0);
    }
    std::string exported(const std::string& table, ExportFormat format, const HistorySpan& span = {})
    {
        Database database;
        EXPECT_EQ(open_history(database, path()), "");
        StringSink sink;
        Output output(sink);
        EXPECT_EQ(export_table(database, table, format, span, output), "");
        output.flush();
        return sink.text();
    }

private:
    Database m_database;
};

TEST_F(history_import, logs_with_sections_are_imported_once)
{
    const std::string log = folder.file("log");
    append_section(log, 3);
    ImportResult result = import(log);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.records, 3);
    EXPECT_EQ(import(log).records, 0);
    // Under another name, and grown.
    std::filesystem::rename(log, folder.file("log.1"));
    append_section(folder.file("log.1"), 2);
    EXPECT_EQ(import(folder.file("log.1")).records, 2);
    EXPECT_EQ(number("SELECT count(*) FROM top_app_log"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM top_app_record"), 5);
    EXPECT_EQ(number("SELECT sum(encode_in_kbytes) FROM top_app_record WHERE section = 2"), 3);
    EXPECT_EQ(number("SELECT count(*) FROM top_app_record WHERE application = 'we\"b,' AND classifier = 'http\uFFFD'"),
              2);
    EXPECT_EQ(number("SELECT count(*) FROM top_app_record WHERE application IS NULL"), 3);
}

TEST_F(history_import, what_is_whole_of_a_cut_log_is_kept)
{
    const std::string log = folder.file("log");
    append_section(log, 3);
    append_section(log, 3);
    const std::string whole = bytes_of_file(log);
    for (std::size_t size = whole.size() / 2 + 1; size < whole.size(); size += 37) {
        write_file(log, whole.substr(0, size));
        EXPECT_EQ(import(log).error, "it is truncated after byte " + std::to_string(size));
        ASSERT_EQ(number("SELECT count(*) FROM top_app_record"), 3);
    }
    write_file(log, whole);
    EXPECT_EQ(import(log).error, "");
    EXPECT_EQ(number("SELECT count(*) FROM top_app_record"), 6);
}

TEST_F(history_import, logs_without_sections_are_imported)
{
    RE_stat_app_log_record record{};
    record.m_header.m_server_port = 443;
    record.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = 12;
    const std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
    const std::string log = folder.file("array");
    write_file(log, bytes + bytes + "rest");
    const ImportResult result = import(log);
    EXPECT_EQ(result.records, 2);
    EXPECT_EQ(result.error, "it is truncated after byte 204");
    EXPECT_EQ(number("SELECT sum(encode_in_kbytes) FROM top_app_record WHERE port = 443 AND section = 1"), 24);
    write_file(log, bytes + bytes + bytes);
    EXPECT_EQ(import(log).records, 1);
}

TEST_F(history_import, what_is_no_log_is_refused)
{
    const std::string log = folder.file("log");
    write_file(log, "");
    EXPECT_EQ(import(log).error, "the file is empty");
    write_file(log, std::string(200, 'x'));
    EXPECT_EQ(import(log).error, "at byte 0 there is no record; is it a top-application log?");
    // A section of four thousand million names.
    write_file(log, std::string("\x01\0\0\0\xff\xff\xff\xff", 8));
    EXPECT_EQ(import(log).error, "it is truncated after byte 8");
    EXPECT_EQ(import(folder.path()).error, "not a regular file");
    EXPECT_EQ(import(folder.file("missing")).error, "No such file or directory");
    EXPECT_EQ(number("SELECT count(*) FROM top_app_log"), 0);
}

// A file that is recorded with a largest size, too.
TEST_F(history_import, samples_make_room_for_logs_but_are_not_removed_in_vain)
{
    start({8, 16, 64, 8});
    fill();
    RecorderOptions made = options();
    made.max_size = least_history_size;
    made.b_connections = false;
    Recorder recorder(made);
    ASSERT_EQ(recorder.open(path()), "");
    for (int sample = 0; sample < 400; ++sample) {
        engine.add_peer_stat(0, RE_STAT_PEER_ID_NUM_NACKS, 1);
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    const std::string log = folder.file("log");
    append_section(log, 28000);
    EXPECT_EQ(import(log).records, 28000);
    ASSERT_EQ(record(recorder), RecordResult::recorded) << recorder.error();
    const long long left = number("SELECT count(*) FROM sample");
    EXPECT_GT(recorder.removed(), 0);
    EXPECT_GT(left, 5);
    append_section(log, 40000);
    EXPECT_EQ(import(log).records, 40000);
    EXPECT_EQ(record(recorder), RecordResult::failed);
    EXPECT_EQ(recorder.error(), "imported logs leave no room for samples in the largest size allowed");
    EXPECT_EQ(number("SELECT count(*) FROM sample"), left);
}

TEST_F(history_import, an_import_ends_where_there_is_no_room)
{
    const std::string log = folder.file("log");
    append_section(log, 3);
    append_section(log, 4);
    Database database;
    ASSERT_TRUE(database.open(path(), Database::Access::write));
    ImportCallbacks callbacks;
    callbacks.has_room = [](long long bytes) { return bytes < 32 * 4096 + 4 * 400; };
    const ImportResult first = import_top_app_log(database, log, 1700000000, callbacks);
    EXPECT_EQ(first.records, 3);
    EXPECT_EQ(first.error, "the database has no room for the rest within --max-size");
    EXPECT_EQ(import(log).records, 4);
}

TEST_F(history_import, tables_are_exported)
{
    append_section(folder.file("log"), 1);
    EXPECT_EQ(import(folder.file("log")).error, "");
    const std::string csv = exported("top_app_record", ExportFormat::csv);
    EXPECT_EQ(csv.substr(0, 44), "log,number,section,application,classifier,ka");
    EXPECT_NE(csv.find("\r\n1,1,1,\"we\"\"b,\",http\uFFFD,"), std::string::npos) << csv;
    const std::string lines = exported("top_app_record", ExportFormat::jsonl);
    const nlohmann::json row = nlohmann::json::parse(lines);
    EXPECT_EQ(row["application"], "we\"b,");
    EXPECT_EQ(row["encode_in_kbytes"], 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1);

    Database database;
    ASSERT_EQ(open_history(database, path()), "");
    StringSink sink;
    Output output(sink);
    EXPECT_EQ(export_table(database, "top_app_log", ExportFormat::csv, {1, 2}, output),
              "rows of \"top_app_log\" have no time");
    EXPECT_EQ(export_table(database, "sqlite_schema", ExportFormat::csv, {}, output).substr(0, 40),
              "no such table: \"sqlite_schema\"; there ar");
}

TEST_F(history_test, a_span_is_exported)
{
    start();
    fill();
    Recorder recorder(options());
    ASSERT_EQ(recorder.open(path()), "");
    for (int sample = 0; sample < 3; ++sample) {
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
    Database database;
    ASSERT_EQ(open_history(database, path()), "");
    for (const auto& [table, lines] : {std::pair("sample", 2), std::pair("engine", 2), std::pair("engine_figures", 2),
                                       std::pair("peer", 0), std::pair("nack", 0)}) {
        StringSink sink;
        Output output(sink);
        EXPECT_EQ(export_table(database, table, ExportFormat::jsonl, {1700000905, 1700000925}, output), "");
        output.flush();
        EXPECT_EQ(std::count(sink.text().begin(), sink.text().end(), '\n'), lines) << table;
    }
}

// The file, its log and what readers share never exceed the size together, and the newest samples remain.
TEST_F(history_test, the_largest_size_is_kept_to)
{
    start({64, 16, 2000, 8});
    fill();
    for (std::uint32_t app = 100; app < 1000; ++app) {
        engine.find_or_add_app(app_key_of(app));
    }
    RecorderOptions made = options();
    made.b_connections = false;
    made.max_size = 8LL << 20;
    Recorder recorder(made);
    ASSERT_EQ(recorder.open(path()), "");
    const auto size = [&] {
        std::uintmax_t sum = 0;
        for (const char* const suffix : {"", "-wal", "-shm"}) {
            std::error_code none;
            const std::uintmax_t one = std::filesystem::file_size(path() + suffix, none);
            sum += none ? 0 : one;
        }
        return sum;
    };
    std::uintmax_t largest = 0;
    for (std::uint32_t sample = 0; sample < 150; ++sample) {
        for (int app = 0; app < 900; ++app) {
            engine.add_app_stat(app, RE_STAT_APP_ID_ENCODE_IN_KBYTES, 100000 + sample);
        }
        ASSERT_EQ(record(recorder), RecordResult::recorded) << recorder.error();
        largest = std::max(largest, size());
        if (sample % 20 == 0) {
            ASSERT_EQ(recorder.thin(), Recorder::Thinning::finished);
        }
    }
    EXPECT_LE(largest, std::uintmax_t{8} << 20);
    EXPECT_GT(largest, std::uintmax_t{4} << 20);
    EXPECT_GT(recorder.removed(), 0);
    EXPECT_EQ(number("SELECT max(id) FROM sample"), 150);
    EXPECT_GT(number("SELECT count(*) FROM sample"), 5);
    const auto image = restored();
    long value = 0;
    long live = 0;
    for (int slot = 0; slot < 900; ++slot) {
        reader->read_app_stat(slot, RE_STAT_APP_ID_ENCODE_IN_KBYTES, live);
        image->read_app_stat(slot, RE_STAT_APP_ID_ENCODE_IN_KBYTES, value);
        ASSERT_EQ(live, value);
    }
    recorder.close();
    // A smaller size later.
    made.max_size = 4LL << 20;
    Recorder smaller(made);
    ASSERT_EQ(smaller.open(path()), "");
    ASSERT_EQ(record(smaller), RecordResult::recorded) << smaller.error();
    EXPECT_LE(size(), std::uintmax_t{4} << 20);
    Database database;
    ASSERT_EQ(open_history(database, path()), "");
    EXPECT_EQ(database.text("PRAGMA integrity_check"), "ok");
}

// Thinning and connections keep to the size as well; connections without room come in a later sample.
TEST_F(history_test, the_largest_size_holds_for_connections_and_thinning)
{
    start({4, 3000, 8, 8});
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 3000; ++number) {
        engine.open_conn(peer, conn_header_of(number), so_header_of(number), 5000);
    }
    RecorderOptions made = options();
    made.max_size = 4LL << 20;
    made.keep = *parse_keep("1s:all,1d:1m");
    Recorder recorder(made);
    ASSERT_EQ(recorder.open(path()), "");
    std::uintmax_t largest = 0;
    for (int sample = 0; sample < 60; ++sample) {
        for (int conn = 0; conn < 3000; conn += 7) {
            engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1);
        }
        ASSERT_EQ(record(recorder), RecordResult::recorded) << recorder.error();
        ASSERT_EQ(recorder.thin(), Recorder::Thinning::finished);
        for (const char* const suffix : {"-wal", "-shm"}) {
            std::error_code none;
            const std::uintmax_t beside = std::filesystem::file_size(path() + suffix, none);
            largest = std::max(largest, std::filesystem::file_size(path()) + (none ? 0 : beside));
        }
    }
    EXPECT_LE(largest, std::uintmax_t{4} << 20);
    EXPECT_EQ(number("SELECT count(DISTINCT slot) FROM connection WHERE slot % 7 = 0"), 429);
}

} // namespace
