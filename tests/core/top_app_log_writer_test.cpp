#include "RE_top_app_log_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace {

class top_app_log_writer : public testing::Test
{
protected:
    top_app_log_writer() { EXPECT_NE(mkdtemp(m_folder.data()), nullptr); }
    ~top_app_log_writer() override
    {
        unlink(path().c_str());
        rmdir(m_folder.c_str());
    }

    std::string path() const { return m_folder + "/log"; }
    std::string bytes() const
    {
        std::ifstream file(path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::string m_folder = "/tmp/top_app_log_writer.XXXXXX";
};

RE_top_app_log_name name(RE_stat_policy_engine_handler handler, const char* application, const char* classifier)
{
    RE_top_app_log_name result{handler, {}};
    std::strcpy(result.names.m_policy_engine_application_name, application);
    std::strcpy(result.names.m_policy_engine_classifier_name, classifier);
    return result;
}

RE_stat_app_struct record(std::uint32_t first_counter, unsigned handler)
{
    RE_stat_app_struct result{};
    result.m_id_array[0] = first_counter;
    result.m_header.set_policy_engine_handler(handler);
    return result;
}

std::string text_of(const char* text)
{
    std::string padded(text);
    padded.resize(41);
    return padded;
}

// A word with a value below 256.
std::string word(char low)
{
    return {low, 0, 0, 0};
}

std::string record_bytes(char first_counter, char handler)
{
    return word(first_counter) + std::string(68, '\0') + word(handler) + std::string(24, '\0');
}

// Limits the size of files for the length of a scope. Writing beyond `size` bytes fails.
class file_size_limit
{
public:
    explicit file_size_limit(rlim_t size) : m_old_handler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &m_old);
        const rlimit limited{size, m_old.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    }
    ~file_size_limit()
    {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_old_handler);
    }
    file_size_limit(const file_size_limit&) = delete;
    file_size_limit& operator=(const file_size_limit&) = delete;

private:
    rlimit m_old{};
    void (*m_old_handler)(int);
};

} // namespace

TEST_F(top_app_log_writer, writes_a_section_as_readers_expect_it)
{
    const RE_top_app_log_name names[] = {name(3, "HTTP", "Web"), name(9, "SMTP", "Mail")};
    const RE_stat_app_struct records[] = {record(7, 9), record(8, 3)};
    EXPECT_EQ(append_top_app_log(path(), names, records), 0);
    EXPECT_EQ(bytes(), word(1) + word(2) + text_of("HTTP") + text_of("Web") + word(3) + text_of("SMTP") +
                           text_of("Mail") + word(9) + word(2) + record_bytes(7, 9) + record_bytes(8, 3));
}

TEST_F(top_app_log_writer, appends_sections_back_to_back)
{
    const RE_stat_app_struct records[] = {record(7, 0)};
    EXPECT_EQ(append_top_app_log(path(), {}, {}), 0);
    EXPECT_EQ(append_top_app_log(path(), {}, records), 0);
    EXPECT_EQ(bytes(), word(1) + word(0) + word(0) + word(1) + word(0) + word(1) + record_bytes(7, 0));
}

TEST_F(top_app_log_writer, refuses_handles_of_more_than_ten_bits_and_writes_nothing)
{
    const RE_top_app_log_name last[] = {name(1023, "a", "c")};
    const RE_top_app_log_name beyond[] = {name(0, "a", "c"), name(1024, "a", "c")};
    EXPECT_EQ(append_top_app_log(path(), beyond, {}), -EINVAL);
    EXPECT_NE(access(path().c_str(), F_OK), 0);
    EXPECT_EQ(append_top_app_log(path(), last, {}), 0);
}

TEST_F(top_app_log_writer, takes_back_a_section_that_does_not_fit)
{
    const RE_stat_app_struct first[] = {record(7, 0)};
    ASSERT_EQ(append_top_app_log(path(), {}, first), 0);
    const std::string before = bytes();
    const std::vector<RE_stat_app_struct> many(100, record(9, 0));
    for (const rlim_t limit : {112U, 113U, 120U, 124U, 300U, 10000U}) {
        const file_size_limit full(limit);
        EXPECT_EQ(append_top_app_log(path(), {}, many), -EFBIG) << limit;
        EXPECT_EQ(bytes(), before) << limit;
    }
    EXPECT_EQ(append_top_app_log(path(), {}, many), 0);
    EXPECT_EQ(bytes().size(), 112U + 12 + 100 * 100);
}

TEST_F(top_app_log_writer, leaves_an_empty_log_when_the_first_section_does_not_fit)
{
    const RE_stat_app_struct records[] = {record(7, 0)};
    const file_size_limit full(50);
    EXPECT_EQ(append_top_app_log(path(), {}, records), -EFBIG);
    EXPECT_EQ(bytes(), "");
}

TEST_F(top_app_log_writer, tells_what_went_wrong)
{
    const RE_stat_app_struct records[] = {record(7, 0)};
    EXPECT_EQ(append_top_app_log("/nonexistent/log", {}, records), -ENOENT);
    EXPECT_EQ(append_top_app_log("/tmp", {}, records), -EISDIR);
    EXPECT_EQ(append_top_app_log("/dev/full", {}, records), -EINVAL);
}

TEST_F(top_app_log_writer, waits_for_no_pipe)
{
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(append_top_app_log(path(), {}, {}), -EINVAL) << "nobody reads it";
    const int reader = open(path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(append_top_app_log(path(), {}, {}), -EINVAL) << "somebody does";
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0) << "and is given nothing";
    close(reader);
}

TEST_F(top_app_log_writer, follows_no_link)
{
    const std::string elsewhere = path() + ".elsewhere";
    ASSERT_EQ(symlink(elsewhere.c_str(), path().c_str()), 0);
    EXPECT_EQ(append_top_app_log(path(), {}, {}), -ELOOP);
    EXPECT_NE(access(elsewhere.c_str(), F_OK), 0);
}

TEST_F(top_app_log_writer, follows_no_folder_that_may_be_planted)
{
    const std::string open_to_all = path() + ".d";
    ASSERT_EQ(mkdir(open_to_all.c_str(), 0755), 0);
    ASSERT_EQ(chmod(open_to_all.c_str(), 0777), 0);
    ASSERT_EQ(symlink("/tmp", (open_to_all + "/link").c_str()), 0);
    EXPECT_EQ(append_top_app_log(open_to_all + "/link/kav_no_such_log", {}, {}), -ELOOP);
    EXPECT_NE(access("/tmp/kav_no_such_log", F_OK), 0);
    unlink((open_to_all + "/link").c_str());
    rmdir(open_to_all.c_str());
}

// Locks the whole log through a new descriptor, until the descriptor is closed.
int lock_log(const std::string& path, int type)
{
    const int descriptor = open(path.c_str(), (type == F_RDLCK ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    struct flock request = {};
    request.l_type = static_cast<short>(type);
    request.l_whence = SEEK_SET;
    EXPECT_EQ(fcntl(descriptor, F_OFD_SETLK, &request), 0);
    return descriptor;
}

TEST_F(top_app_log_writer, appends_although_somebody_keeps_the_log_locked)
{
    ASSERT_EQ(append_top_app_log(path(), {}, {}), 0);
    for (const int type : {F_RDLCK, F_WRLCK}) {
        const int locked = lock_log(path(), type);
        const std::size_t before = bytes().size();
        const auto begun = std::chrono::steady_clock::now();
        EXPECT_EQ(append_top_app_log(path(), {}, {}), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));
        EXPECT_EQ(bytes().size(), before + 12);
        close(locked);
    }
}

TEST_F(top_app_log_writer, keeps_sections_of_several_threads_whole)
{
    constexpr int rounds = 50;
    std::vector<std::thread> threads;
    for (char who = 1; who <= 4; ++who) {
        threads.emplace_back([this, who] {
            const std::vector<RE_stat_app_struct> records(200, record(static_cast<std::uint32_t>(who), 0));
            for (int round = 0; round < rounds; ++round) {
                EXPECT_EQ(append_top_app_log(path(), {}, records), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string log = bytes();
    constexpr std::size_t section_size = 12 + 200 * 100;
    ASSERT_EQ(log.size(), 4 * rounds * section_size);
    for (std::size_t at = 0; at < log.size(); at += section_size) {
        const std::string section = log.substr(at, section_size);
        std::string expected = word(1) + word(0) + std::string("\xc8\0\0\0", 4);
        for (int i = 0; i < 200; ++i) {
            expected += record_bytes(section[12], 0);
        }
        ASSERT_EQ(section, expected);
    }
}

TEST_F(top_app_log_writer, leaves_no_descriptor_open)
{
    const int before = dup(0);
    close(before);
    EXPECT_EQ(append_top_app_log(path(), {}, {}), 0);
    EXPECT_EQ(append_top_app_log("/dev/full", {}, {}), -EINVAL);
    EXPECT_EQ(append_top_app_log("/tmp", {}, {}), -EISDIR);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}
