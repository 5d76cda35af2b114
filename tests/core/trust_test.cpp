// Which users' statistics readers trust, where engines put them, and what other users can do about either.
#include "support/engine_fixture.h"

#include "RE_save_target.h"
#include "RE_stat_error.h"
#include "RE_stat_folder.h"
#include "RE_stat_segment.h"
#include "RE_user.h"
#include "support/own_session.h"
#include "support/private_dev.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace {

unsigned int mode_of(const std::string& path)
{
    struct stat found = {};
    return lstat(path.c_str(), &found) == 0 ? found.st_mode & 07777U : 0;
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

// The number of the first expectation that failed. A child process returns it as its result.
struct verdict
{
    int failed = 0;
    void expect(bool b_met, int number)
    {
        if (!b_met && failed == 0) {
            failed = number;
        }
    }
};

class trust_test : public engine_test
{
protected:
    ~trust_test() override { unsetenv("KAV_STAT_OWNER"); }

    static int open_result() { return live_reader()->open(); }
    static int open_result_for(const char* owner)
    {
        setenv("KAV_STAT_OWNER", owner, 1);
        const int result = open_result();
        unsetenv("KAV_STAT_OWNER");
        return result;
    }
    // Leaves the segment of an engine that was killed.
    static int leave_segment()
    {
        return result_in_child([] {
            RE_stat_writer killed;
            const int error = killed.create(few, 1);
            killed.publish();
            _exit(error == 0 ? 0 : 1);
            return 0;
        });
    }
    // Runs `work` as root with private folders in a child process. `work` returns 0 or the number of the failed
    // expectation.
    static void run_in_private(const std::function<int(private_dev&)>& work)
    {
        constexpr int cannot = 77;
        const int result = !may_change_user() ? cannot : result_in_child([&] {
            private_dev dev;
            return dev.enter() ? work(dev) : cannot;
        });
        if (result == cannot) {
            GTEST_SKIP() << "needs root, and folders of its own";
        }
        EXPECT_EQ(result, 0);
    }
};

TEST_F(trust_test, an_engine_publishes_in_the_folder_of_its_session)
{
    const own_session session;
    for (const mode_t mask : {0U, 0777U}) {
        const mode_t before = umask(mask);
        const int result = engine.create(few, 1);
        umask(before);
        ASSERT_EQ(result, 0);
        EXPECT_EQ(mode_of(session.folder()), 0700U);
        EXPECT_EQ(mode_of(session.folder() + "/" + segment_name()), 0640U);
        EXPECT_EQ(mode_of(session.folder() + "/.start"), 0600U);
        engine.publish();
        EXPECT_EQ(open_result(), 0);
        engine.close();
        std::filesystem::remove_all(session.folder());
    }
}

TEST_F(trust_test, a_session_folder_that_others_may_write_to_or_own_is_passed_over)
{
    const own_session session;
    ASSERT_EQ(chmod(session.path().c_str(), 0777), 0);
    EXPECT_EQ(engine.create(few, 1), 0);
    EXPECT_FALSE(exists(session.folder()));
    engine.close();
    ASSERT_EQ(chmod(session.path().c_str(), 0755), 0);
    if (may_change_user()) {
        ASSERT_EQ(chown(session.path().c_str(), nobody, nobody), 0);
        EXPECT_EQ(engine.create(few, 1), 0);
        EXPECT_FALSE(exists(session.folder()));
        engine.close();
    }
    for (const std::string& path : {std::string("relative"), "/" + std::string(800, 'x')}) {
        setenv("XDG_RUNTIME_DIR", path.c_str(), 1);
        EXPECT_EQ(engine.create(few, 1), 0);
        EXPECT_FALSE(exists(path));
        engine.publish();
        EXPECT_EQ(open_result(), 0);
        engine.close();
    }
}

TEST_F(trust_test, a_mode_lets_nobody_else_forge_statistics)
{
    for (const unsigned int mode : {0642U, 0646U, 0750U, 04640U, 01640U}) {
        EXPECT_EQ(engine.create(few, 1, mode), -EINVAL) << mode;
    }
    const own_session session;
    ASSERT_EQ(engine.create(few, 1, 0), 0);
    EXPECT_EQ(mode_of(session.folder() + "/" + segment_name()), 0600U);
}

TEST_F(trust_test, a_folder_that_is_a_link_is_not_followed)
{
    const own_session session;
    ASSERT_EQ(mkdir((session.path() + "/elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(symlink("elsewhere", session.folder().c_str()), 0);
    EXPECT_EQ(open_result(), RE_STAT_ERR_READ);
    ASSERT_EQ(engine.create(few, 1), 0);
    EXPECT_FALSE(exists(session.path() + "/elsewhere/" + segment_name()));
    engine.publish();
    EXPECT_EQ(open_result(), 0) << "in the next folder";
}

TEST_F(trust_test, a_folder_that_others_may_write_to_is_refused)
{
    const own_session session;
    start();
    for (const mode_t mode : {0720U, 0702U, 0777U}) {
        ASSERT_EQ(chmod(session.folder().c_str(), mode), 0);
        EXPECT_EQ(open_result(), RE_STAT_ERR_OWNER);
    }
    ASSERT_EQ(chmod(session.folder().c_str(), 0755), 0);
    EXPECT_EQ(open_result(), 0);
}

TEST_F(trust_test, an_engine_that_was_killed_does_not_hide_one_that_lives)
{
    const own_session session;
    ASSERT_EQ(leave_segment(), 0);
    EXPECT_EQ(open_result(), RE_STAT_ERR_ENGINE_GONE);
    own_session::leave();
    ASSERT_EQ(engine.create(few, 1), 0);
    session.enter();
    EXPECT_EQ(open_result(), RE_STAT_ERR_NOT_PUBLISHED);
    engine.publish();
    EXPECT_EQ(open_result(), 0);
}

TEST_F(trust_test, of_two_engines_the_one_in_the_earlier_folder_is_read)
{
    const own_session session;
    own_session::leave();
    start();
    engine.set_global(RE_stat_global_id{1}, 22);
    session.enter();
    RE_stat_writer earlier;
    ASSERT_EQ(earlier.create(few, 1), 0);
    earlier.set_global(RE_stat_global_id{1}, 11);
    earlier.publish();
    long long value = 0;
    ASSERT_EQ(reader->open(), 0);
    reader->read_global_stat(1, value);
    EXPECT_EQ(value, 11);
}

TEST_F(trust_test, another_users_engine_is_read_only_when_its_user_is_named)
{
    run_in_private([&](private_dev& dev) {
        int ready[2];
        if (pipe(ready) != 0) {
            return 1;
        }
        const pid_t child = fork();
        if (child == 0) {
            RE_stat_writer other;
            const bool b_made = setgid(nobody) == 0 && setuid(nobody) == 0 && other.create(few, 1) == 0;
            other.publish();
            if (b_made && write(ready[1], "y", 1) == 1) {
                pause();
            }
            _exit(1);
        }
        close(ready[1]);
        char outcome = 'n';
        if (read(ready[0], &outcome, 1) != 1) {
            return 2;
        }
        verdict is;
        is.expect(open_result() == RE_STAT_ERR_NO_ENGINE, 3);
        is.expect(open_result_for("nobody") == 0, 4);
        is.expect(open_result_for("65534") == 0, 5);
        is.expect(open_result_for("daemon") == RE_STAT_ERR_NO_ENGINE, 6);
        // Now it is in the place of this user's own folder.
        std::filesystem::rename("/dev/shm/kav-65534", "/dev/shm/kav-0");
        dev.logged();
        is.expect(open_result() == RE_STAT_ERR_OWNER, 7);
        const std::string told = dev.logged();
        is.expect(told.find("/dev/shm/kav-0 belongs to nobody (65534)") != std::string::npos, 8);
        is.expect(told.find("KAV_STAT_OWNER") == std::string::npos, 13); // or any user could ask for trust
        is.expect(open_result_for("daemon") == RE_STAT_ERR_OWNER, 9);
        is.expect(open_result_for("nobody") == 0, 10);
        // A file of another user in this user's folder.
        is.expect(chown("/dev/shm/kav-0", 0, 0) == 0 && open_result() == RE_STAT_ERR_OWNER, 11);
        is.expect(dev.logged().find("the segment in /dev/shm/kav-0 belongs to nobody (65534)") != std::string::npos,
                  12);
        kill(child, SIGKILL);
        return is.failed;
    });
}

TEST_F(trust_test, a_name_that_is_no_users_is_no_engine)
{
    start();
    for (const char* const owner : {"", "no such user", "4294967295", "99999999999999999999", "-1", "0x0", "root "}) {
        EXPECT_EQ(open_result_for(owner), RE_STAT_ERR_UNKNOWN_OWNER) << owner;
    }
    EXPECT_EQ(open_result_for("root"), 0);
    EXPECT_EQ(open_result_for("12345"), 0) << "others are believed as well";
}

TEST_F(trust_test, a_user_is_told_by_name_and_number)
{
    char text[RE_user_text_size];
    EXPECT_STREQ(user_text(0, text), "root (0)");
    EXPECT_STREQ(user_text(4000000000U, text), "4000000000");
}

TEST_F(trust_test, a_services_folder_comes_first_when_it_is_this_users)
{
    run_in_private([&](private_dev&) {
        const std::string segment = "/run/kav/" + segment_name();
        verdict is;
        is.expect(mkdir("/run/kav", 0750) == 0, 1);
        is.expect(engine.create(few, 1) == 0 && exists(segment), 2);
        engine.publish();
        is.expect(open_result() == 0, 3);
        engine.close();
        chmod("/run/kav", 0770);
        is.expect(engine.create(few, 1) == 0 && !exists(segment), 4);
        engine.close();
        chmod("/run/kav", 0750);
        is.expect(chown("/run/kav", nobody, nobody) == 0, 7);
        is.expect(engine.create(few, 1) == 0 && !exists(segment), 5);
        engine.publish();
        is.expect(open_result() == 0, 6); // the other user's folder does not hide it
        return is.failed;
    });
}

TEST_F(trust_test, what_others_put_in_the_folders_place_is_moved_aside)
{
    run_in_private([&](private_dev& dev) {
        const std::function<int(const char*)> obstacles[] = {
            [](const char* path) { return mkdir(path, 0755); },
            [](const char* path) { return mknod(path, S_IFREG | 0644, 0); },
            [](const char* path) { return symlink("/dev/shm/elsewhere", path); },
            [](const char* path) { return mkfifo(path, 0644); },
        };
        verdict is;
        for (const auto& obstacle : obstacles) {
            std::filesystem::remove_all("/dev/shm/kav-0");
            is.expect(obstacle("/dev/shm/kav-0") == 0 && lchown("/dev/shm/kav-0", nobody, nobody) == 0, 5);
            is.expect(open_result() == RE_STAT_ERR_OWNER, 1);
            dev.logged();
            is.expect(engine.create(few, 1) == 0, 2);
            is.expect(dev.logged().find("/dev/shm/kav-0 belonged to nobody (65534)") != std::string::npos, 3);
            engine.publish();
            is.expect(open_result() == 0, 4);
            engine.close();
        }
        is.expect(!exists("/dev/shm/elsewhere"), 6);
        return is.failed;
    });
}

TEST_F(trust_test, a_user_who_may_not_move_it_is_told_whose_it_is)
{
    run_in_private([&](private_dev& dev) {
        mkdir("/dev/shm/kav-65534", 0755);
        if (setgid(nobody) != 0 || setuid(nobody) != 0) {
            return 1;
        }
        if (engine.create(few, 1) != -EPERM) {
            return 2;
        }
        return dev.logged().find("/dev/shm/kav-65534 belongs to root (0)") != std::string::npos ? 0 : 3;
    });
}

TEST_F(trust_test, a_readers_lock_neither_fakes_nor_stops_an_engine)
{
    const own_session session;
    ASSERT_EQ(leave_segment(), 0);
    const int left = open(segment_path().c_str(), O_RDONLY | O_CLOEXEC);
    const auto lock_all = [](int descriptor) {
        struct flock request = {};
        request.l_type = F_RDLCK;
        request.l_whence = SEEK_SET;
        return fcntl(descriptor, F_OFD_SETLK, &request);
    };
    ASSERT_EQ(lock_all(left), 0);
    EXPECT_EQ(open_result(), RE_STAT_ERR_ENGINE_GONE);
    ASSERT_EQ(engine.create(few, 1), 0);
    engine.publish();
    EXPECT_EQ(open_result(), 0);
    close(left);
}

TEST_F(trust_test, other_users_cannot_open_the_start_lock)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const own_session session;
    start();
    ASSERT_TRUE(session.let_others_in());
    EXPECT_EQ(result_as_nobody(
                  [&] { return open((session.folder() + "/.start").c_str(), O_RDONLY | O_CLOEXEC) < 0 ? errno : 0; }),
              EACCES);
}

TEST_F(trust_test, an_engine_that_waits_for_the_start_lock_gives_up)
{
    const own_session session;
    ASSERT_EQ(engine.create(few, 1), 0);
    engine.close();
    const int lock = open((session.folder() + "/.start").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(take_segment_lock(lock));
    EXPECT_EQ(engine.create(few, 1), -EBUSY);
    close(lock);
    EXPECT_EQ(engine.create(few, 1), 0);
}

TEST_F(trust_test, what_an_engine_left_that_was_killed_while_starting_goes)
{
    const own_session session;
    ASSERT_EQ(mkdir(session.folder().c_str(), 0700), 0);
    write_file(session.folder() + "/.unfinished", std::string(1U << 20U, 'x'));
    ASSERT_EQ(engine.create(few, 1), 0);
    EXPECT_FALSE(exists(session.folder() + "/.unfinished"));
    engine.close();
    EXPECT_FALSE(exists(session.folder() + "/" + segment_name()));
}

TEST_F(trust_test, an_engine_publishes_again_what_was_removed)
{
    const own_session session;
    EXPECT_FALSE(engine.is_in_place());
    EXPECT_EQ(engine.publish_again(), -EINVAL);
    start({8, 200, 8, 8});
    fill();
    EXPECT_TRUE(engine.is_in_place());
    EXPECT_EQ(engine.publish_again(), 0);
    const auto before = file_reader(save());
    ASSERT_EQ(before->open(), 0);
    const std::function<void()> losses[] = {
        [&] { unlink(segment_path().c_str()); },
        [&] { std::filesystem::remove_all(session.folder()); },
        [&] { std::filesystem::rename(session.folder(), session.path() + "/moved"); },
        [&] {
            write_file(session.path() + "/other", "other");
            std::filesystem::rename(session.path() + "/other", segment_path());
        },
    };
    for (const auto& lose : losses) {
        lose();
        EXPECT_FALSE(engine.is_in_place());
        EXPECT_NE(open_result(), 0);
        EXPECT_EQ(engine.publish_again(), 0);
        EXPECT_TRUE(engine.is_in_place());
        EXPECT_EQ(mode_of(segment_path()), 0640U);
        ASSERT_EQ(reader->open(), 0);
        expect_same_statistics(*reader, *before);
    }
    // The engine goes on counting, in old and new slots.
    engine.add_global(RE_stat_global_id{1}, 5);
    for (std::uint32_t number = 0; number < 150; ++number) {
        ASSERT_GE(engine.open_conn(0, conn_header_of(number), so_header_of(number), 1), 0);
    }
    long long value = 0;
    reader->read_global_stat(1, value);
    EXPECT_EQ(value, 2000000014 + 5);
    EXPECT_TRUE(reader->is_conn_valid(150));
    engine.close();
    EXPECT_FALSE(exists(segment_path()));
}

TEST_F(trust_test, an_engine_whose_name_was_taken_waits_for_its_turn)
{
    const own_session session;
    start();
    engine.set_global(RE_stat_global_id{1}, 11);
    ASSERT_EQ(unlink(segment_path().c_str()), 0);
    RE_stat_writer second;
    ASSERT_EQ(second.create(few, 1), 0);
    second.publish();
    EXPECT_EQ(engine.publish_again(), -EBUSY);
    EXPECT_EQ(engine.get_global(RE_stat_global_id{1}), 11);
    EXPECT_TRUE(second.is_in_place());
    second.close();
    EXPECT_EQ(engine.publish_again(), 0);
    ASSERT_EQ(reader->open(), 0);
    long long value = 0;
    reader->read_global_stat(1, value);
    EXPECT_EQ(value, 11);
}

TEST_F(trust_test, nothing_is_saved_over_a_running_engines_segment)
{
    start();
    fill();
    const std::string before = bytes_of_file(segment_path());
    EXPECT_EQ(reader->save_stats_binary(segment_path().c_str()), RE_STAT_ERR_LIVE_SEGMENT);
    const std::string link = folder.file("link");
    ASSERT_EQ(symlink(segment_path().c_str(), link.c_str()), 0);
    EXPECT_EQ(reader->save_stats_binary(link.c_str()), RE_STAT_ERR_LIVE_SEGMENT);
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    EXPECT_EQ(saved->save_stats_binary(segment_path().c_str()), RE_STAT_ERR_LIVE_SEGMENT);
    EXPECT_TRUE(engine.is_in_place());
    EXPECT_TRUE(bytes_of_file(segment_path()) == before);
    EXPECT_EQ(open_result(), 0);
}

TEST_F(trust_test, nothing_is_saved_over_an_engine_that_starts_meanwhile)
{
    RE_save_target target;
    ASSERT_EQ(target.open(segment_path().c_str()), 0);
    target.append("saved", 5);
    start();
    EXPECT_EQ(target.finish(), RE_STAT_ERR_LIVE_SEGMENT);
    EXPECT_TRUE(engine.is_in_place());
    EXPECT_EQ(open_result(), 0);
}

TEST_F(trust_test, nothing_is_saved_over_the_files_that_engines_keep_beside_segments)
{
    const own_session session;
    start();
    for (const char* const name : {"/.start", "/.unfinished", "/.new"}) {
        EXPECT_EQ(reader->save_stats_binary((session.folder() + name).c_str()), RE_STAT_ERR_LIVE_SEGMENT) << name;
    }
    EXPECT_EQ(reader->save_stats_binary((session.path() + "/.new").c_str()), 0);
    EXPECT_EQ(reader->save_stats_binary((session.folder() + "/new").c_str()), 0);
}

TEST_F(trust_test, a_locked_file_that_is_no_segment_is_saved_over)
{
    start();
    const std::string target = folder.file("locked");
    write_file(target, "something else");
    const int descriptor = open(target.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(take_segment_lock(descriptor));
    EXPECT_EQ(reader->save_stats_binary(target.c_str()), 0);
    close(descriptor);
}

TEST_F(trust_test, a_segment_of_an_earlier_release_is_told_and_not_used)
{
    start();
    const std::string image = bytes_of_file(segment_path());
    engine.close();
    run_in_private([&](private_dev& dev) {
        const std::string path = "/dev/shm/" + segment_name();
        const auto is_told = [&] {
            const std::string text = dev.logged();
            return text.find(path + ", of root (0), is where engines of an earlier release publish") !=
                       std::string::npos &&
                   text.find("/dev/shm/kav-UID") != std::string::npos;
        };
        verdict is;
        is.expect(open_result() == RE_STAT_ERR_NO_ENGINE && !is_told(), 1);
        write_file(path, image);
        const int old_engine = open(path.c_str(), O_RDWR | O_CLOEXEC);
        is.expect(take_segment_lock(old_engine), 2);
        is.expect(open_result() == RE_STAT_ERR_NO_ENGINE && is_told(), 3);
        is.expect(engine.create(few, 1) == 0 && is_told(), 4);
        engine.publish();
        is.expect(open_result() == 0 && !is_told(), 5);
        engine.close();
        write_file(path, "no image");
        is.expect(open_result() == RE_STAT_ERR_NO_ENGINE && !is_told(), 6);
        // Neither the segment of an engine that ended nor another user's folder hides it.
        write_file(path, image);
        is.expect(leave_segment() == 0, 7);
        is_told();
        is.expect(open_result() == RE_STAT_ERR_ENGINE_GONE && is_told(), 8);
        is.expect(chown("/dev/shm/kav-0", nobody, nobody) == 0, 9);
        is.expect(open_result() == RE_STAT_ERR_OWNER && is_told(), 10);
        return is.failed;
    });
}

} // namespace
