// Each reason why live statistics cannot be read has its own number. Engines never disturb each other.
#include "support/engine_fixture.h"

#include "RE_stat_error.h"
#include "RE_stat_segment.h"
#include "support/own_session.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// An engine in a child process. It is ready when the constructor returns.
class engine_process
{
public:
    explicit engine_process(bool b_publish = true)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        m_child = fork();
        if (m_child == 0) {
            alarm(60);
            RE_stat_writer engine;
            const char outcome = engine.create({8, 16, 8, 8}, 1) == 0 ? 'y' : 'n';
            if (b_publish) {
                engine.publish();
            }
            engine.set_global(RE_stat_global_id{1}, 4711);
            engine.add_peer(3, peer_header_of(3));
            if (write(ready[1], &outcome, 1) == 1) {
                pause();
            }
            _exit(1);
        }
        ::close(ready[1]);
        char outcome = 'n';
        EXPECT_EQ(read(ready[0], &outcome, 1), 1);
        EXPECT_EQ(outcome, 'y');
        ::close(ready[0]);
    }
    ~engine_process() { end(); }
    engine_process(const engine_process&) = delete;
    engine_process& operator=(const engine_process&) = delete;

    // Ends the engine as `kill -9` does.
    void end()
    {
        if (m_child > 0) {
            ::kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
            m_child = 0;
        }
    }

private:
    pid_t m_child = 0;
};

class open_test : public engine_test
{
protected:
    int open_result()
    {
        const auto mine = live_reader();
        const int result = mine->open();
        if (result != 0) {
            EXPECT_EQ(mine->get_max_conn_slots(), 0);
            EXPECT_EQ(mine->get_config_param(), nullptr);
        }
        return result;
    }
    // Returns the result of opening another segment.
    int open_result_of(const char* name)
    {
        setenv("KAV_STAT_SEGMENT", name, 1);
        const int result = open_result();
        setenv("KAV_STAT_SEGMENT", segment_name().c_str(), 1);
        return result;
    }
};

TEST_F(open_test, no_segment_is_no_engine)
{
    EXPECT_EQ(open_result(), RE_STAT_ERR_NO_ENGINE);
}

TEST_F(open_test, names_that_are_none_are_no_engine)
{
    start();
    EXPECT_EQ(open_result_of(""), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of("/"), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of("."), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(".."), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(".start"), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(".unfinished"), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(("../shm/" + segment_name()).c_str()), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(("//" + segment_name()).c_str()), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(("/dev/shm/" + segment_name()).c_str()), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(std::string(256, 'x').c_str()), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(std::string(255, 'x').c_str()), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(open_result_of(std::string(100000, 'x').c_str()), RE_STAT_ERR_NO_ENGINE);
}

TEST_F(open_test, a_slash_in_front_of_the_name_is_the_usual_form)
{
    start();
    EXPECT_EQ(open_result_of(("/" + segment_name()).c_str()), 0);
}

TEST_F(open_test, an_engine_takes_no_name_that_is_none)
{
    for (const std::string& name : {std::string(), std::string("/"), std::string("a/b"), std::string("..")}) {
        setenv("KAV_STAT_SEGMENT", name.c_str(), 1);
        EXPECT_EQ(engine.create(few, 1), -EINVAL) << name;
    }
}

TEST_F(open_test, every_name_that_may_be_read_may_be_an_engines)
{
    const std::string name = segment_name() + std::string(255 - segment_name().size(), 'n');
    setenv("KAV_STAT_SEGMENT", name.c_str(), 1);
    EXPECT_EQ(engine.create(few, 1), 0);
    engine.publish();
    EXPECT_EQ(open_result_of(name.c_str()), 0);
    engine.close();
}

TEST_F(open_test, limits_out_of_range_make_no_engine)
{
    const RE_stat_limits bad[] = {{0, 16, 8, 8},       {4097, 16, 8, 8},     {-1, 16, 8, 8},    {8, 0, 8, 8},
                                  {8, 1000001, 8, 8},  {8, 16, 0, 8},        {8, 16, 65537, 8}, {8, 16, 8, 0},
                                  {8, 16, 8, 1000001}, {8, 16, INT32_MIN, 8}};
    for (const RE_stat_limits& limits : bad) {
        EXPECT_EQ(engine.create(limits, 1), -EINVAL);
        EXPECT_EQ(open_result(), RE_STAT_ERR_NO_ENGINE);
    }
    EXPECT_EQ(engine.create(few, 1), 0);
    EXPECT_EQ(engine.create(few, 1), -EINVAL) << "it runs already";
}

TEST_F(open_test, an_engine_that_was_killed_is_gone)
{
    engine_process other;
    EXPECT_EQ(open_result(), 0);
    other.end();
    EXPECT_EQ(open_result(), RE_STAT_ERR_ENGINE_GONE);
}

TEST_F(open_test, an_engine_that_is_starting_is_not_published)
{
    ASSERT_EQ(engine.create(few, 1), 0);
    EXPECT_EQ(open_result(), RE_STAT_ERR_NOT_PUBLISHED);
    engine.publish();
    EXPECT_EQ(open_result(), 0);
}

TEST_F(open_test, an_engine_that_is_stopping_is_not_published)
{
    start();
    header().state = RE_IMAGE_WITHDRAWN;
    EXPECT_EQ(open_result(), RE_STAT_ERR_NOT_PUBLISHED);
}

TEST_F(open_test, an_engine_that_stopped_leaves_nothing)
{
    start();
    engine.close();
    EXPECT_EQ(open_result(), RE_STAT_ERR_NO_ENGINE);
    EXPECT_NE(access(segment_path().c_str(), F_OK), 0);
}

TEST_F(open_test, tells_what_is_wrong_with_the_header)
{
    start();
    RE_image_header& image = header();
    const RE_image_header good = image;
    image.layout_version = 2;
    EXPECT_EQ(open_result(), RE_STAT_ERR_VERSION);
    image.layout_version = 0;
    EXPECT_EQ(open_result(), RE_STAT_ERR_VERSION);
    image = good;
    image.byte_order = 0x04030201;
    EXPECT_EQ(open_result(), RE_STAT_ERR_BYTE_ORDER);
    image = good;
    image.magic[7] = 's';
    EXPECT_EQ(open_result(), RE_STAT_ERR_NOT_STATISTICS);
    image = good;
    ++image.total_size;
    EXPECT_EQ(open_result(), RE_STAT_ERR_CUT);
    image = good;
    image.state = RE_IMAGE_SAVED;
    EXPECT_EQ(open_result(), RE_STAT_ERR_LAYOUT);
    image = good;
    image.state = 99;
    EXPECT_EQ(open_result(), RE_STAT_ERR_NOT_PUBLISHED);
    image = good;
    --image.section_count;
    EXPECT_EQ(open_result(), RE_STAT_ERR_LAYOUT);
    image = good;
    ++image.conn_counters;
    EXPECT_EQ(open_result(), RE_STAT_ERR_LAYOUT);
    image = good;
    EXPECT_EQ(open_result(), 0);
}

TEST_F(open_test, a_cut_segment_is_told)
{
    start();
    reader->close();
    // From here on, the engine's own mapping must not be accessed, because its file is truncated.
    constexpr auto header_size = static_cast<off_t>(sizeof(RE_image_header));
    for (const off_t size : {header_size + 100, header_size, header_size - 1, off_t{1}, off_t{0}}) {
        ASSERT_EQ(truncate(segment_path().c_str(), size), 0);
        EXPECT_EQ(open_result(), RE_STAT_ERR_CUT) << size;
    }
    ASSERT_EQ(truncate(segment_path().c_str(), 1 << 20), 0); // so that the engine can withdraw
}

TEST_F(open_test, every_single_bit_of_the_section_table_is_checked)
{
    start();
    unsigned char* const image = map_segment();
    int refused = 0;
    constexpr int bits = static_cast<int>(RE_image_section_count * sizeof(RE_image_section) * 8);
    for (int bit = 0; bit < bits; ++bit) {
        unsigned char& byte = image[sizeof(RE_image_header) + static_cast<std::size_t>(bit / 8)];
        byte = static_cast<unsigned char>(byte ^ (1U << (bit % 8)));
        const auto mine = live_reader();
        const int result = mine->open();
        if (result == 0) { // a smaller but valid table, which must be safe to read
            const auto again = live_reader();
            ASSERT_EQ(again->open(), 0);
            expect_same_statistics(*mine, *again);
        } else {
            EXPECT_EQ(result, RE_STAT_ERR_LAYOUT);
            ++refused;
        }
        byte = static_cast<unsigned char>(byte ^ (1U << (bit % 8)));
    }
    EXPECT_GT(refused, bits * 9 / 10);
}

TEST_F(open_test, needs_permission_to_read)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const own_session session;
    ASSERT_EQ(engine.create(few, 1, 0640), 0);
    engine.publish();
    EXPECT_EQ(result_as_nobody([&] { return live_reader()->open() == RE_STAT_ERR_PERMISSION ? 0 : 1; }), 0);
    ASSERT_TRUE(session.let_others_in());
    EXPECT_EQ(result_as_nobody([&] { return live_reader()->open() == RE_STAT_ERR_PERMISSION ? 0 : 1; }), 0);
    engine.close();
    ASSERT_EQ(engine.create(few, 1, 0644), 0);
    engine.publish();
    EXPECT_EQ(result_as_nobody([&] { return live_reader()->open(); }), 0);
}

TEST_F(open_test, the_mode_is_the_one_asked_for_whatever_the_umask)
{
    const mode_t mask = umask(0077);
    ASSERT_EQ(engine.create(few, 1, 0644), 0);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(segment_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(open_test, what_is_no_regular_file_cannot_be_read)
{
    ASSERT_EQ(mkdir(segment_path().c_str(), 0755), 0);
    EXPECT_EQ(open_result(), RE_STAT_ERR_READ);
    EXPECT_LT(engine.create(few, 1), 0);
    ASSERT_EQ(rmdir(segment_path().c_str()), 0);

    ASSERT_EQ(mkfifo(segment_path().c_str(), 0644), 0);
    EXPECT_EQ(open_result(), RE_STAT_ERR_READ);
    ASSERT_EQ(unlink(segment_path().c_str()), 0);
}

TEST_F(open_test, a_pipe_in_the_segments_place_is_replaced_without_waiting)
{
    ASSERT_EQ(mkfifo(segment_path().c_str(), 0644), 0);
    EXPECT_EQ(result_in_child([&] { return engine.create(few, 1) == 0 ? 0 : 1; }), 0);
}

TEST_F(open_test, a_link_in_the_segments_place_is_not_followed)
{
    start();
    const std::string link = segment_path() + "_link";
    ASSERT_EQ(symlink(segment_path().c_str(), link.c_str()), 0);
    EXPECT_EQ(open_result_of((segment_name() + "_link").c_str()), RE_STAT_ERR_READ);
    const std::string victim = folder.file("victim");
    ASSERT_EQ(unlink(link.c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
    setenv("KAV_STAT_SEGMENT", (segment_name() + "_link").c_str(), 1);
    RE_stat_writer second;
    EXPECT_LT(second.create(few, 1), 0);
    EXPECT_NE(access(victim.c_str(), F_OK), 0);
    EXPECT_EQ(unlink(link.c_str()), 0);
}

TEST_F(open_test, a_file_that_no_engine_holds_is_an_engine_gone)
{
    write_file(segment_path(), "not an image");
    EXPECT_EQ(open_result(), RE_STAT_ERR_ENGINE_GONE);
    write_file(segment_path(), "");
    EXPECT_EQ(open_result(), RE_STAT_ERR_ENGINE_GONE);
}

TEST_F(open_test, a_saved_file_in_the_segments_place_is_refused_even_when_held)
{
    start();
    fill();
    const std::string saved = bytes_of_file(save());
    engine.close();
    write_file(segment_path(), saved);
    EXPECT_EQ(open_result(), RE_STAT_ERR_ENGINE_GONE);
    const int descriptor = open(segment_path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(take_segment_lock(descriptor));
    EXPECT_EQ(open_result(), RE_STAT_ERR_LAYOUT);
    ::close(descriptor);
}

TEST_F(open_test, a_huge_empty_segment_costs_nothing)
{
    const int descriptor = open(segment_path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(ftruncate(descriptor, off_t{1} << 42), 0);
    ASSERT_TRUE(take_segment_lock(descriptor));
    const int result = open_result();
    EXPECT_TRUE(result == RE_STAT_ERR_NOT_STATISTICS || result == RE_STAT_ERR_NO_MEMORY) << result;
    ::close(descriptor);
}

TEST_F(open_test, a_reader_that_only_reads_never_keeps_an_engine_from_running)
{
    start();
    EXPECT_TRUE(is_segment_lock_held(open(segment_path().c_str(), O_RDONLY | O_CLOEXEC)));
    engine.close();
    RE_stat_writer second;
    EXPECT_EQ(second.create(few, 1), 0);
}

TEST_F(open_test, a_second_engine_on_the_same_name_is_refused)
{
    start();
    engine.set_global(RE_stat_global_id{1}, 12);
    RE_stat_writer second;
    EXPECT_EQ(second.create(few, 1), -EBUSY);
    EXPECT_EQ(result_in_child([&] {
                  RE_stat_writer third;
                  return third.create(few, 1) == -EBUSY ? 0 : 1;
              }),
              0);
    second.close();
    long long value = 0;
    ASSERT_EQ(reader->open(), 0);
    reader->read_global_stat(1, value);
    EXPECT_EQ(value, 12);
}

TEST_F(open_test, an_engine_replaces_what_a_killed_one_left_while_old_readers_read_on)
{
    engine_process killed;
    const auto old = live_reader();
    ASSERT_EQ(old->open(), 0);
    killed.end();
    start({4, 4, 4, 4});
    engine.set_global(RE_stat_global_id{1}, 1);
    long long value = 0;
    reader->read_global_stat(1, value);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(old->read_global_stat(1, value), 0);
    EXPECT_EQ(value, 4711);
    EXPECT_TRUE(old->is_peer_valid(0));
    ASSERT_EQ(old->open(), 0);
    EXPECT_FALSE(old->is_peer_valid(0));
}

TEST_F(open_test, an_old_reader_reads_on_after_its_engine_has_stopped)
{
    start();
    fill();
    const auto other = live_reader();
    ASSERT_EQ(other->open(), 0);
    engine.close();
    expect_same_statistics(*reader, *other);
    EXPECT_TRUE(reader->is_peer_valid(0));
    EXPECT_EQ(reader->save_stats_binary(folder.file("late").c_str()), 0);
}

TEST_F(open_test, an_engine_starts_again_after_closing)
{
    start();
    fill();
    engine.close();
    start({2, 3, 4, 5});
    EXPECT_EQ(reader->get_max_app_slots(), 4);
    EXPECT_EQ(engine.add_peer(1, peer_header_of(1)), 0);
    EXPECT_EQ(engine.open_conn(0, conn_header_of(1), so_header_of(1), 1), 0);
    EXPECT_EQ(engine.find_or_add_app(app_key_of(60)), 0);
}

TEST_F(open_test, an_engine_that_stops_takes_only_its_own_segment_away)
{
    start();
    ASSERT_EQ(unlink(segment_path().c_str()), 0); // as when an operator cleans up
    RE_stat_writer second;
    ASSERT_EQ(second.create(few, 1), 0);
    second.publish();
    engine.close();
    EXPECT_EQ(open_result(), 0);
}

TEST_F(open_test, of_engines_that_start_at_once_one_runs)
{
    for (int round = 0; round < 20; ++round) {
        int go[2];
        int done[2];
        ASSERT_EQ(pipe(go), 0);
        ASSERT_EQ(pipe(done), 0);
        pid_t children[6];
        for (pid_t& child : children) {
            child = fork();
            if (child == 0) {
                alarm(60);
                ::close(go[1]);
                char byte = 0;
                if (read(go[0], &byte, 1) != 0) {
                    _exit(3);
                }
                RE_stat_writer mine;
                const int result = mine.create({4, 4, 4, 4}, 1);
                const char outcome = result == 0 ? 'y' : (result == -EBUSY ? 'b' : '?');
                if (write(done[1], &outcome, 1) != 1) {
                    _exit(4);
                }
                if (result == 0) {
                    pause();
                }
                _exit(0);
            }
        }
        ::close(go[0]);
        ::close(go[1]);
        int runs = 0;
        for (int at = 0; at < 6; ++at) {
            char outcome = 0;
            ASSERT_EQ(read(done[0], &outcome, 1), 1);
            EXPECT_NE(outcome, '?');
            runs += outcome == 'y' ? 1 : 0;
        }
        EXPECT_EQ(runs, 1);
        for (const pid_t child : children) {
            ::kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        ::close(done[0]);
        ::close(done[1]);
    }
}

} // namespace
