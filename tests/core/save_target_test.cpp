// Where saved statistics go. After any error, the target is the old file or the new one, complete. A link of an
// untrusted user is not followed.
#include "support/engine_fixture.h"

#include "RE_stat_error.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

class save_target_test : public engine_test
{
protected:
    void SetUp() override
    {
        start();
        fill();
    }
    int save_to(const std::string& path) { return reader->save_stats_binary(path.c_str()); }
    // Expects that the target contains statistics that read like the live ones.
    void expect_saved(const std::string& path)
    {
        const auto saved = file_reader(path);
        ASSERT_EQ(saved->open(), 0) << path;
        expect_same_statistics(*saved, *reader);
    }
    unsigned int mode_of(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0);
        return status.st_mode & 07777U;
    }
    // Creates a folder in which every user may create files, and only owners may remove theirs.
    std::string sticky_folder()
    {
        const std::string path = folder.file("sticky");
        EXPECT_EQ(chmod(folder.path().c_str(), 0755), 0);
        EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
        EXPECT_EQ(chmod(path.c_str(), 01777), 0);
        return path;
    }
};

using names = std::vector<std::string>;

TEST_F(save_target_test, makes_a_new_file_as_the_umask_has_it)
{
    const mode_t mask = umask(0027);
    EXPECT_EQ(save_to(folder.file("new")), 0);
    EXPECT_EQ(umask(mask), 0027U) << "left as it was";
    EXPECT_EQ(mode_of(folder.file("new")), 0640U);
    expect_saved(folder.file("new"));
    EXPECT_EQ(names_in(folder.path()), names{"new"});
}

TEST_F(save_target_test, replaces_a_file_and_keeps_its_mode)
{
    const std::string path = folder.file("old");
    write_file(path, std::string(100000, 'x'));
    for (const unsigned int mode : {0600U, 0444U, 0666U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(save_to(path), 0);
        EXPECT_EQ(mode_of(path), mode);
        expect_saved(path);
    }
    EXPECT_EQ(names_in(folder.path()), names{"old"});
}

TEST_F(save_target_test, never_makes_a_file_that_runs_as_its_owner)
{
    const std::string path = folder.file("old");
    write_file(path, "x");
    ASSERT_EQ(chmod(path.c_str(), 06755), 0);
    EXPECT_EQ(save_to(path), 0);
    EXPECT_EQ(mode_of(path), 0755U);
}

TEST_F(save_target_test, leaves_other_names_of_an_old_file_alone)
{
    write_file(folder.file("old"), "old");
    ASSERT_EQ(link(folder.file("old").c_str(), folder.file("other").c_str()), 0);
    EXPECT_EQ(save_to(folder.file("old")), 0);
    EXPECT_EQ(bytes_of_file(folder.file("other")), "old");
}

TEST_F(save_target_test, takes_a_path_without_a_folder)
{
    char before[PATH_MAX];
    ASSERT_NE(getcwd(before, sizeof before), nullptr);
    ASSERT_EQ(chdir(folder.path().c_str()), 0);
    EXPECT_EQ(save_to("here"), 0);
    EXPECT_EQ(save_to("./here"), 0);
    EXPECT_EQ(chdir(before), 0);
    expect_saved(folder.file("here"));
    EXPECT_EQ(names_in(folder.path()), names{"here"});
}

TEST_F(save_target_test, follows_a_link_and_keeps_it)
{
    ASSERT_EQ(mkdir(folder.file("deep").c_str(), 0755), 0);
    write_file(folder.file("deep/old"), "old");
    ASSERT_EQ(symlink("deep/old", folder.file("link").c_str()), 0);
    ASSERT_EQ(symlink("link", folder.file("link2").c_str()), 0);
    EXPECT_EQ(save_to(folder.file("link2")), 0);
    expect_saved(folder.file("deep/old"));
    struct stat status = {};
    ASSERT_EQ(lstat(folder.file("link").c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(names_in(folder.path()), (names{"deep", "link", "link2"}));
}

TEST_F(save_target_test, a_link_to_nothing_is_refused)
{
    ASSERT_EQ(symlink("nothing", folder.file("link").c_str()), 0);
    ASSERT_EQ(symlink("loop", folder.file("loop").c_str()), 0);
    EXPECT_EQ(save_to(folder.file("link")), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(folder.file("loop")), RE_STAT_ERR_TARGET);
    EXPECT_EQ(names_in(folder.path()), (names{"link", "loop"}));
}

TEST_F(save_target_test, what_is_no_place_for_a_file_is_refused)
{
    write_file(folder.file("file"), "x");
    ASSERT_EQ(mkdir(folder.file("folder").c_str(), 0755), 0);
    ASSERT_EQ(symlink("folder", folder.file("link").c_str()), 0);
    EXPECT_EQ(reader->save_stats_binary(nullptr), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(""), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(folder.file("folder")), RE_STAT_ERR_TARGET_FOLDER);
    EXPECT_EQ(save_to(folder.file("folder/")), RE_STAT_ERR_TARGET_FOLDER);
    EXPECT_EQ(save_to(folder.file("link")), RE_STAT_ERR_TARGET_FOLDER);
    EXPECT_EQ(save_to("/"), RE_STAT_ERR_TARGET_FOLDER);
    EXPECT_EQ(save_to(folder.file("missing/file")), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(folder.file("missing/")), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(folder.file("file/file")), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(folder.file("file/")), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to(folder.file(std::string(256, 'n'))), RE_STAT_ERR_TARGET);
    EXPECT_EQ(save_to("/" + std::string(PATH_MAX, 'n')), RE_STAT_ERR_TARGET);
    EXPECT_EQ(bytes_of_file(folder.file("file")), "x");
    EXPECT_EQ(names_in(folder.path()), (names{"file", "folder", "link"}));
}

TEST_F(save_target_test, the_longest_name_can_be_saved_to)
{
    const std::string name(255, 'n');
    EXPECT_EQ(save_to(folder.file(name)), 0);
    EXPECT_EQ(names_in(folder.path()), names{name});
}

TEST_F(save_target_test, without_permission_nothing_changes)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    write_file(folder.file("old"), "old");
    ASSERT_EQ(chmod(folder.file("old").c_str(), 0666), 0);
    EXPECT_EQ(result_as_nobody([&] {
                  return save_to(folder.file("new")) == RE_STAT_ERR_TARGET &&
                                 save_to(folder.file("old")) == RE_STAT_ERR_TARGET
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(bytes_of_file(folder.file("old")), "old");
    EXPECT_EQ(names_in(folder.path()), names{"old"});
}

TEST_F(save_target_test, a_folder_that_may_be_written_to_but_not_read_will_do)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    const std::string drop = folder.file("drop");
    ASSERT_EQ(mkdir(drop.c_str(), 0755), 0);
    ASSERT_EQ(chmod(drop.c_str(), 0733), 0);
    EXPECT_EQ(result_as_nobody([&] { return save_to(drop + "/new"); }), 0);
    expect_saved(drop + "/new");
}

// ---- Files and links of other users.

TEST_F(save_target_test, a_link_that_another_user_planted_is_refused)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string shared = sticky_folder();
    const std::string victim = folder.file("victim");
    write_file(victim, "precious");
    ASSERT_EQ(symlink(victim.c_str(), (shared + "/saved").c_str()), 0);
    ASSERT_EQ(lchown((shared + "/saved").c_str(), nobody, nobody), 0);
    EXPECT_EQ(save_to(shared + "/saved"), RE_STAT_ERR_PLANTED_LINK);
    EXPECT_TRUE(bytes_of_file(victim) == "precious");
    ASSERT_EQ(lchown((shared + "/saved").c_str(), geteuid(), getegid()), 0);
    EXPECT_EQ(save_to(shared + "/saved"), 0) << "a link of one's own";
    expect_saved(victim);
}

TEST_F(save_target_test, a_planted_link_behind_a_link_of_ones_own_is_refused)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string shared = sticky_folder();
    const std::string victim = folder.file("victim");
    write_file(victim, "precious");
    ASSERT_EQ(symlink(victim.c_str(), (shared + "/planted").c_str()), 0);
    ASSERT_EQ(lchown((shared + "/planted").c_str(), nobody, nobody), 0);
    ASSERT_EQ(symlink((shared + "/planted").c_str(), folder.file("mine").c_str()), 0);
    EXPECT_EQ(save_to(folder.file("mine")), RE_STAT_ERR_PLANTED_LINK);
    EXPECT_TRUE(bytes_of_file(victim) == "precious");
}

TEST_F(save_target_test, a_folder_on_the_way_is_judged_as_the_target_is)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string shared = sticky_folder();
    const std::string victim = folder.file("victim");
    ASSERT_EQ(mkdir(victim.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((victim + "/deep").c_str(), 0755), 0);
    ASSERT_EQ(symlink(victim.c_str(), (shared + "/d").c_str()), 0);
    EXPECT_EQ(save_to(shared + "/d/deep/../saved"), 0) << "a link of one's own";
    expect_saved(victim + "/saved");
    ASSERT_EQ(unlink((victim + "/saved").c_str()), 0);
    ASSERT_EQ(lchown((shared + "/d").c_str(), nobody, nobody), 0);
    EXPECT_EQ(save_to(shared + "/d/saved"), RE_STAT_ERR_PLANTED_LINK);
    EXPECT_EQ(save_to(shared + "/d/deep/saved"), RE_STAT_ERR_PLANTED_LINK);
    EXPECT_NE(access((victim + "/saved").c_str(), F_OK), 0);

    ASSERT_EQ(mkdir((shared + "/theirs").c_str(), 0755), 0);
    ASSERT_EQ(chown((shared + "/theirs").c_str(), nobody, nobody), 0);
    EXPECT_EQ(save_to(shared + "/theirs/saved"), RE_STAT_ERR_PLANTED_LINK) << "it may be a link in a moment";
}

TEST_F(save_target_test, a_link_of_ones_own_is_followed_only_where_nobody_else_can_move_it)
{
    const std::string open_to_all = folder.file("open");
    ASSERT_EQ(mkdir(open_to_all.c_str(), 0755), 0);
    write_file(folder.file("old"), "old");
    ASSERT_EQ(symlink(folder.file("old").c_str(), (open_to_all + "/link").c_str()), 0);
    for (const mode_t mode : {0777U, 0775U}) {
        ASSERT_EQ(chmod(open_to_all.c_str(), mode), 0);
        EXPECT_EQ(save_to(open_to_all + "/link"), RE_STAT_ERR_PLANTED_LINK) << mode;
    }
    EXPECT_EQ(bytes_of_file(folder.file("old")), "old");
    EXPECT_EQ(save_to(open_to_all + "/new"), 0) << "without a link";
    ASSERT_EQ(chmod(open_to_all.c_str(), 01777), 0);
    EXPECT_EQ(save_to(open_to_all + "/link"), 0);
    expect_saved(folder.file("old"));
}

TEST_F(save_target_test, a_pipe_that_another_user_planted_is_refused)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string pipe_path = sticky_folder() + "/saved";
    ASSERT_EQ(mkfifo(pipe_path.c_str(), 0666), 0);
    ASSERT_EQ(chown(pipe_path.c_str(), nobody, nobody), 0);
    EXPECT_EQ(save_to(pipe_path), RE_STAT_ERR_PLANTED_LINK);
}

TEST_F(save_target_test, an_owner_of_the_shared_folder_may_point_elsewhere)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string shared = sticky_folder();
    const std::string victim = folder.file("theirs");
    write_file(victim, "old");
    ASSERT_EQ(chown(victim.c_str(), nobody, nobody), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
    ASSERT_EQ(symlink(victim.c_str(), (shared + "/saved").c_str()), 0); // the link is the folder owner's, not nobody's
    EXPECT_EQ(result_as_nobody([&] { return save_to(shared + "/saved"); }), 0);
    expect_saved(victim);
}

TEST_F(save_target_test, a_file_that_another_user_planted_gives_away_neither_its_mode_nor_anything)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string path = sticky_folder() + "/saved";
    write_file(path, "x");
    ASSERT_EQ(chown(path.c_str(), nobody, nobody), 0);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    const mode_t mask = umask(0077);
    EXPECT_EQ(save_to(path), 0);
    umask(mask);
    EXPECT_EQ(mode_of(path), 0600U);
    expect_saved(path);
}

TEST_F(save_target_test, in_a_sticky_folder_the_file_of_another_user_stays)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const std::string shared = sticky_folder();
    write_file(shared + "/saved", "precious");
    EXPECT_EQ(result_as_nobody([&] { return save_to(shared + "/saved") == RE_STAT_ERR_RENAME ? 0 : 1; }), 0);
    EXPECT_EQ(bytes_of_file(shared + "/saved"), "precious");
    int entries = 0;
    for (const std::string& name : names_in(folder.path())) {
        entries += name.find("kav_statistics") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(entries, 0);
    EXPECT_NE(access((shared + "/saved").c_str(), F_OK), -1);
}

// ---- Pipes and devices.

// A pipe without a writer is at its end, so a reader that opens it first waits for input.
void wait_for_input(int descriptor)
{
    pollfd ready{descriptor, POLLIN, 0};
    poll(&ready, 1, -1);
}

// Reads a descriptor to its end.
std::string drain(int descriptor)
{
    wait_for_input(descriptor);
    std::string bytes;
    char buffer[4096];
    for (ssize_t part = 0; (part = read(descriptor, buffer, sizeof buffer)) > 0;) {
        bytes.append(buffer, static_cast<std::size_t>(part));
    }
    return bytes;
}

TEST_F(save_target_test, a_pipe_is_written_in_place)
{
    const std::string path = folder.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(save_to(path), RE_STAT_ERR_TARGET) << "nobody reads it, and nobody waits";
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(fcntl(descriptor, F_SETFL, 0), 0);
    const int until_saved = open(path.c_str(), O_WRONLY | O_CLOEXEC); // a pipe without a writer is at its end
    std::string bytes;
    std::thread collector([&] { bytes = drain(descriptor); });
    EXPECT_EQ(save_to(path), 0);
    close(until_saved);
    collector.join();
    close(descriptor);
    write_file(folder.file("from_pipe"), bytes);
    expect_saved(folder.file("from_pipe"));
    struct stat status = {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode)) << "never replaced";
    EXPECT_EQ(names_in(folder.path()), (names{"from_pipe", "pipe"}));
}

TEST_F(save_target_test, standard_output_as_a_pipe_is_written_to)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::string bytes;
    std::thread collector([&] { bytes = drain(ends[0]); });
    EXPECT_EQ(save_to("/dev/fd/" + std::to_string(ends[1])), 0);
    close(ends[1]);
    collector.join();
    close(ends[0]);
    write_file(folder.file("from_pipe"), bytes);
    expect_saved(folder.file("from_pipe"));
}

TEST_F(save_target_test, a_pipe_that_takes_little_at_a_time_gets_everything)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    ASSERT_EQ(fcntl(ends[0], F_SETFL, 0), 0);
    std::string bytes;
    std::thread collector([&] {
        char byte = 0;
        while (read(ends[0], &byte, 1) > 0) {
            bytes += byte;
        }
    });
    EXPECT_EQ(save_to("/proc/self/fd/" + std::to_string(ends[1])), 0);
    close(ends[1]);
    collector.join();
    close(ends[0]);
    write_file(folder.file("from_pipe"), bytes);
    expect_saved(folder.file("from_pipe"));
}

TEST_F(save_target_test, a_pipe_whose_reader_goes_is_a_failure)
{
    const std::string path = folder.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    signal(SIGPIPE, SIG_IGN);
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    fcntl(descriptor, F_SETPIPE_SZ, 4096);
    ASSERT_EQ(fcntl(descriptor, F_SETFL, 0), 0);
    const int until_saved = open(path.c_str(), O_WRONLY | O_CLOEXEC); // a pipe without a writer is at its end
    std::thread leaver([&] {
        wait_for_input(descriptor);
        char byte = 0;
        EXPECT_EQ(read(descriptor, &byte, 1), 1);
        close(descriptor);
    });
    EXPECT_EQ(save_to(path), RE_STAT_ERR_WRITE);
    leaver.join();
    close(until_saved);
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(save_target_test, devices_are_written_in_place)
{
    EXPECT_EQ(save_to("/dev/null"), 0);
    EXPECT_EQ(save_to("/dev/full"), RE_STAT_ERR_NO_SPACE);
    struct stat status = {};
    ASSERT_EQ(lstat("/dev/full", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    ASSERT_EQ(lstat("/dev/null", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

// ---- Full disks.

TEST_F(save_target_test, a_size_limit_at_any_byte_leaves_the_old_file)
{
    const std::string path = folder.file("old");
    EXPECT_EQ(save_to(path), 0);
    const std::string before = bytes_of_file(path);
    engine.set_global(RE_stat_global_id{0}, 987654321);
    for (rlim_t size = 0; size < before.size(); size += size < 300 ? 37 : 997) {
        EXPECT_EQ(result_in_child([&] {
                      signal(SIGXFSZ, SIG_IGN);
                      const rlimit limit{size, size};
                      setrlimit(RLIMIT_FSIZE, &limit);
                      return save_to(path) == RE_STAT_ERR_NO_SPACE ? 0 : 1;
                  }),
                  0)
            << size;
        ASSERT_TRUE(before == bytes_of_file(path));
        ASSERT_EQ(names_in(folder.path()), names{"old"});
    }
}

TEST_F(save_target_test, no_descriptor_left_is_a_failure_of_the_target)
{
    if (b_under_a_sanitizer) {
        GTEST_SKIP() << "sanitizers need a descriptor themselves";
    }
    write_file(folder.file("old"), "old");
    EXPECT_EQ(result_in_child([&] {
                  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC); // all lower numbers are in use
                  const rlimit limit{static_cast<rlim_t>(next), static_cast<rlim_t>(next)};
                  setrlimit(RLIMIT_NOFILE, &limit);
                  return save_to(folder.file("old")) == RE_STAT_ERR_TARGET ? 0 : 1;
              }),
              0);
    EXPECT_EQ(bytes_of_file(folder.file("old")), "old");
    EXPECT_EQ(names_in(folder.path()), names{"old"});
}

class mounted_target_test : public save_target_test
{
protected:
    // Mounts a file system in memory. Returns false when this process may not do that.
    bool mount_disk(unsigned long flags, const char* options)
    {
        m_disk = folder.file("disk");
        EXPECT_EQ(mkdir(m_disk.c_str(), 0755), 0);
        m_b_mounted = mount("none", m_disk.c_str(), "tmpfs", flags, options) == 0;
        return m_b_mounted;
    }
    void TearDown() override
    {
        if (m_b_mounted) {
            EXPECT_EQ(umount(m_disk.c_str()), 0);
        }
    }
    std::string m_disk;
    bool m_b_mounted = false;
};

TEST_F(mounted_target_test, a_full_disk_leaves_the_old_file_and_no_litter)
{
    if (!mount_disk(0, "size=20k")) {
        GTEST_SKIP() << "may not mount";
    }
    const std::string path = m_disk + "/old";
    write_file(path, "old");
    EXPECT_EQ(save_to(path), RE_STAT_ERR_NO_SPACE);
    EXPECT_EQ(bytes_of_file(path), "old");
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(save_to(path), RE_STAT_ERR_NO_SPACE);
    write_file(m_disk + "/fits", std::string(20 << 10, 'x')); // the whole disk is free again
}

TEST_F(mounted_target_test, a_disk_without_room_for_another_file_is_full)
{
    if (!mount_disk(0, "size=1m,nr_inodes=2")) {
        GTEST_SKIP() << "may not mount";
    }
    write_file(m_disk + "/old", "old");
    EXPECT_EQ(save_to(m_disk + "/old"), RE_STAT_ERR_NO_SPACE);
    EXPECT_EQ(bytes_of_file(m_disk + "/old"), "old");
}

TEST_F(mounted_target_test, a_read_only_disk_cannot_be_saved_to)
{
    if (!mount_disk(MS_RDONLY, "size=1m")) {
        GTEST_SKIP() << "may not mount";
    }
    EXPECT_EQ(save_to(m_disk + "/new"), RE_STAT_ERR_TARGET);
}

} // namespace
