// Saving statistics and reading them back, with all errors of both.

#include "RE_stat_error.h"
#include "support/contains.h"
#include "support/own_session.h"
#include "support/viewer_test.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

namespace {

class saved_statistics : public viewer_test
{
protected:
    std::string save(const std::string& name)
    {
        EXPECT_EQ(report_of({"save-file", path(name)}), "");
        return path(name);
    }

    void expect_read_refused(const std::string& file, int error, const run_surroundings& surroundings = {})
    {
        const program_result result = run_viewer({"read-file", file}, surroundings);
        EXPECT_EQ(result.out, "KAV Statistics Reader: failed to read file " + file +
                                  ", error code: " + std::to_string(error) + "\n");
        EXPECT_EQ(result.status, 1) << file;
        EXPECT_EQ(result.err, "");
    }

    void expect_save_refused(const std::string& file, int error, const run_surroundings& surroundings = {})
    {
        const std::vector<std::string> before = names_in(folder());
        const program_result result = run_viewer({"save-file", file}, surroundings);
        EXPECT_EQ(result.out, "KAV Statistics Reader: failed to write file " + file +
                                  ", error code: " + std::to_string(error) + "\n");
        EXPECT_EQ(result.status, 1) << file;
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(names_in(folder()), before) << "no litter";
    }

    // Returns a user without permissions for the test's files. Without root, it is the same user, for whom a mode
    // without any bits has the same effect.
    static run_surroundings without_rights()
    {
        run_surroundings surroundings;
        if (geteuid() == 0) {
            surroundings.user = {nobody, nogroup};
        }
        return surroundings;
    }
};

} // namespace

TEST_F(saved_statistics, read_back_as_the_live_reports_byte_for_byte_with_the_engine_stopped)
{
    const std::string global = report_of({"global-detail"});
    const std::string peers = report_of({"peer", "detail"});
    const std::string file = save("saved");
    m_engine.stop();
    EXPECT_EQ(report_of({"read-file", file}),
              "-------------------- kav global-detail\n" + global + "-------------------- kav peer-detail\n" + peers);
}

TEST_F(saved_statistics, show_the_moment_of_saving)
{
    const std::string before = report_of({"global-info"});
    const std::string file = save("saved");
    m_engine.writer().add_conn_stat(m_engine.encoding_conn(), RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 1);
    EXPECT_NE(report_of({"global-info"}), before);
    const std::string report = report_of({"read-file", file});
    EXPECT_TRUE(contains(report, "   Overall: msg:         10, in:    976 KB"));
    EXPECT_FALSE(contains(report, "   Overall: msg:         11, "));
}

TEST_F(saved_statistics, are_read_without_a_look_at_the_live_ones)
{
    const std::string file = save("saved");
    const std::string report = report_of({"read-file", file});
    const program_result result =
        run_viewer({"read-file", file, "ignored"}, {.environment = {{"KAV_STAT_SEGMENT", "/"}}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, report);
}

TEST_F(saved_statistics, go_through_a_pipe)
{
    const program_result saved = run_viewer({"save-file", "/dev/stdout"});
    EXPECT_EQ(saved.status, 0);
    EXPECT_EQ(saved.err, "");
    write_file(path("from_pipe"), saved.out);
    EXPECT_EQ(report_of({"read-file", path("from_pipe")}), report_of({"read-file", save("saved")}));
}

TEST_F(saved_statistics, take_the_place_of_older_ones_and_keep_their_mode)
{
    const std::string file = save("saved");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    m_engine.writer().set_global(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 4000);
    save("saved");
    EXPECT_TRUE(contains(report_of({"read-file", file}), "Total usable disk size:   4000 MB"));
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(names_in(folder()), std::vector<std::string>{"saved"});
}

TEST_F(saved_statistics, follow_ones_own_link_and_leave_it_in_place)
{
    save("saved");
    write_file(path("target"), "old");
    ASSERT_EQ(symlink("target", path("link").c_str()), 0);
    save("link");
    EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
    EXPECT_EQ(report_of({"read-file", path("target")}), report_of({"read-file", path("saved")}));
}

TEST_F(saved_statistics, that_are_not_there_are_refused)
{
    expect_read_refused(path("missing"), RE_STAT_ERR_NO_FILE);
    expect_read_refused(path("missing/folder"), RE_STAT_ERR_NO_FILE);
    expect_read_refused("", RE_STAT_ERR_NO_FILE);
}

TEST_F(saved_statistics, that_are_no_regular_file_are_refused_at_once)
{
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    expect_read_refused(path("fifo"), RE_STAT_ERR_NOT_A_FILE);
    expect_read_refused(folder(), RE_STAT_ERR_NOT_A_FILE);
    expect_read_refused("/dev/null", RE_STAT_ERR_NOT_A_FILE);
    expect_read_refused("/dev/zero", RE_STAT_ERR_NOT_A_FILE);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = path("socket");
    ASSERT_LT(name.size(), sizeof address.sun_path);
    name.copy(address.sun_path, name.size());
    const int socket_end = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(socket_end, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    expect_read_refused(name, RE_STAT_ERR_NOT_A_FILE);
    close(socket_end);
}

TEST_F(saved_statistics, that_are_something_else_or_damaged_are_refused)
{
    const std::string bytes = bytes_of_file(save("saved"));
    const auto with = [&bytes](std::size_t place, const std::string& other) {
        return std::string(bytes).replace(place, other.size(), other);
    };
    const auto flipped = [&](std::size_t place) {
        return with(place, std::string(1, static_cast<char>(bytes[place] ^ 0x10)));
    };
    constexpr std::size_t byte_order = 8;
    constexpr std::size_t layout_version = 12;
    constexpr std::size_t behind_header = 128;
    const std::pair<std::string, int> files[] = {
        {"", RE_STAT_ERR_EMPTY_FILE},
        {"KAV configuration:\n", RE_STAT_ERR_NOT_STATISTICS},
        {bytes_of_file(built_program("exec_show_stats_kav")), RE_STAT_ERR_NOT_STATISTICS},
        {bytes.substr(0, 1), RE_STAT_ERR_CUT},
        {bytes.substr(0, 8), RE_STAT_ERR_CUT},
        {bytes.substr(0, behind_header - 1), RE_STAT_ERR_CUT},
        {bytes.substr(0, behind_header), RE_STAT_ERR_CUT},
        {bytes.substr(0, bytes.size() / 2), RE_STAT_ERR_CUT},
        {bytes.substr(0, bytes.size() - 1), RE_STAT_ERR_CUT},
        {bytes + '\0', RE_STAT_ERR_CUT},
        {flipped(behind_header), RE_STAT_ERR_CHECKSUM},
        {flipped(bytes.size() / 2), RE_STAT_ERR_CHECKSUM},
        {flipped(bytes.size() - 1), RE_STAT_ERR_CHECKSUM},
        {with(byte_order, {bytes[11], bytes[10], bytes[9], bytes[8]}), RE_STAT_ERR_BYTE_ORDER},
        {with(layout_version, "\x63"), RE_STAT_ERR_VERSION},
    };
    for (const auto& [content, error] : files) {
        write_file(path("file"), content);
        expect_read_refused(path("file"), error);
    }
}

TEST_F(saved_statistics, that_may_not_be_read_are_refused)
{
    const std::string file = save("saved");
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
    expect_read_refused(file, RE_STAT_ERR_PERMISSION, without_rights());
}

TEST_F(saved_statistics, refuse_targets_that_cannot_be)
{
    expect_save_refused(folder(), RE_STAT_ERR_TARGET_FOLDER);
    expect_save_refused(path("missing/file"), RE_STAT_ERR_TARGET);
    write_file(path("file"), "");
    expect_save_refused(path("file/below"), RE_STAT_ERR_TARGET);
    expect_save_refused(path(std::string(300, 'n')), RE_STAT_ERR_TARGET);
    expect_save_refused("", RE_STAT_ERR_TARGET);
}

TEST_F(saved_statistics, do_not_wait_for_a_reader_of_a_pipe)
{
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    expect_save_refused(path("fifo"), RE_STAT_ERR_TARGET);
}

TEST_F(saved_statistics, tell_a_full_disk)
{
    expect_save_refused("/dev/full", RE_STAT_ERR_NO_SPACE);
}

TEST_F(saved_statistics, leave_the_older_ones_whole_when_there_is_no_room)
{
    const std::string bytes = bytes_of_file(save("saved"));
    expect_save_refused(path("saved"), RE_STAT_ERR_NO_SPACE, {.limits = {{RLIMIT_FSIZE, 1024}}});
    EXPECT_EQ(bytes_of_file(path("saved")), bytes);
}

TEST_F(saved_statistics, leave_the_older_ones_whole_without_the_right_to_replace_them)
{
    const std::string bytes = bytes_of_file(save("saved"));
    const own_session session;
    const small_engine engine(0644);
    ASSERT_TRUE(session.let_others_in());
    ASSERT_EQ(chmod(folder().c_str(), 0555), 0);
    expect_save_refused(path("saved"), RE_STAT_ERR_TARGET, without_rights());
    ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
    EXPECT_EQ(bytes_of_file(path("saved")), bytes);
}

TEST_F(saved_statistics, never_follow_anothers_link_out_of_a_folder_open_to_all)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make a link that is another user's";
    }
    write_file(path("precious"), "precious");
    ASSERT_EQ(mkdir(path("open").c_str(), 0777), 0);
    ASSERT_EQ(chmod(path("open").c_str(), 01777), 0);
    ASSERT_EQ(symlink(path("precious").c_str(), path("open/planted").c_str()), 0);
    ASSERT_EQ(lchown(path("open/planted").c_str(), nobody, nogroup), 0);
    expect_save_refused(path("open/planted"), RE_STAT_ERR_PLANTED_LINK);
    EXPECT_EQ(bytes_of_file(path("precious")), "precious");
}

TEST_F(saved_statistics, need_an_engine_only_to_be_saved)
{
    m_engine.stop();
    EXPECT_EQ(refusal_of({"save-file", path("saved")}), "KAV Statistics failed OR KAV was not initialized by WEQ");
    EXPECT_EQ(refusal_of({"save-file"}), "KAV Statistics failed OR KAV was not initialized by WEQ");
    EXPECT_TRUE(names_in(folder()).empty());
}
