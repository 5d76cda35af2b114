#include "history/reader.h"
#include "history/recorded_image.h"
#include "history/recorder.h"
#include "kavstat_fixture.h"
#include "support/files.h"

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
    ASSERT_TRUE(recorder.thin());
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 12); // younger than an hour
    const auto before = restored(first + 50);
    moment = first + 3600 + 3600;
    ASSERT_TRUE(recorder.thin());
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
    ASSERT_TRUE(recorder.thin());
    EXPECT_EQ(number("SELECT count(*) FROM sample"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM peer_identity"), 3);
    long value = 0;
    restored()->read_app_stat(0, RE_STAT_APP_ID_ENCODE_IN_KBYTES + 1, value);
    EXPECT_EQ(value, 1);
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
    EXPECT_EQ(recorder.open(later), "its layout is of version 2, which is newer than this program's (1)");
    EXPECT_EQ(open_history(database, later), "its layout is of version 2, which is newer than this program's (1)");
}

// A database of an earlier release lacks counters: they are 0 there, and get columns when it is recorded into.
TEST_F(history_test, columns_of_later_counters_are_added)
{
    start();
    fill();
    {
        Recorder recorder(options());
        ASSERT_EQ(recorder.open(path()), "");
        ASSERT_EQ(record(recorder), RecordResult::recorded);
    }
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

} // namespace
