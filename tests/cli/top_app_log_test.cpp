#include "RE_top_app_log.h"

#include "RE_top_app_names.h"
#include "RE_top_app_post_process.h"
#include "cli/fake_system_calls.h"
#include "support/contains.h"
#include "support/fake_reader.h"
#include "support/files.h"
#include "support/top_app_log_reference.h"
#include "support/top_app_records.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

namespace {

// A regular file that is not in any folder, with a path.
class memory_file
{
public:
    explicit memory_file(const std::string& bytes) : m_fd(memfd_create("top-app-log", MFD_CLOEXEC)) { append(bytes); }
    ~memory_file() { close(m_fd); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_fd); }
    void append(const std::string& bytes) const
    {
        EXPECT_EQ(pwrite(m_fd, bytes.data(), bytes.size(), lseek(m_fd, 0, SEEK_END)),
                  static_cast<ssize_t>(bytes.size()));
    }
    void shrink(off_t size) const { EXPECT_EQ(ftruncate(m_fd, size), 0); }
    // Locks the whole file as the engine does while it appends (F_WRLCK), or unlocks it (F_UNLCK).
    void lock(int type) const
    {
        struct flock request = {};
        request.l_type = static_cast<short>(type);
        request.l_whence = SEEK_SET;
        EXPECT_EQ(fcntl(m_fd, F_OFD_SETLK, &request), 0);
    }

private:
    int m_fd;
};

class top_app_log : public view_test
{
protected:
    top_app_log() { fake_system_calls::reset(); }
    ~top_app_log() override
    {
        fake_system_calls::reset();
        g_stat_handler_policy_engine_map.clear();
        g_stat_policy_engine_handler_map.clear();
    }
};

using top_app_live = top_app_log;

std::string shown(std::string file, std::string peer = "", bool detail = false, int top = 0)
{
    return output_of([&] { show_top_app(file.data(), peer.data(), detail, top); });
}

// Expects that a message names the source lines that send it. They contain its text up to the first colon.
void expect_true_place(const fake_log_message& message)
{
    EXPECT_EQ(message.file, "comp/TCP/cli/RE_top_app_log.cpp");
    std::ifstream source(KAV_SOURCE_DIR "/" + message.file);
    std::string line;
    for (int number = 0; number < message.line; ++number) {
        std::getline(source, line);
    }
    EXPECT_TRUE(contains(line, "__re_syslog(")) << message.line << line;
    std::getline(source, line);
    EXPECT_NE(line.find('"' + message.text.substr(0, message.text.find(':'))), std::string::npos)
        << message.line << line;
}

std::vector<std::string> messages()
{
    std::vector<std::string> texts;
    for (const fake_log_message& message : fake_engine::log) {
        EXPECT_EQ(message.submodule, 6);
        EXPECT_EQ(message.priority, 3);
        EXPECT_EQ(message.msgid, 690452);
        expect_true_place(message);
        texts.push_back(message.text);
    }
    fake_engine::log.clear();
    return texts;
}

log_outcome outcome_of(const std::string& path, const std::string& peer = "", bool detail = false, int top = 0)
{
    std::string output = shown(path, peer, detail, top);
    return {output, messages()};
}

std::string read_error(const std::string& path, const std::string& rest)
{
    return "top_app_log read error: read(" + path + ") returned " + rest + "\n";
}

// Runs the viewer and the reference on a file with these bytes and expects the same results.
void expect_as_field_by_field(const std::string& bytes, const std::string& peer, bool detail, int top)
{
    const memory_file file(bytes);
    const log_outcome expected = read_log_field_by_field(bytes, file.path(), peer, detail, top);
    const auto expected_names = g_stat_handler_policy_engine_map;
    EXPECT_EQ(outcome_of(file.path(), peer, detail, top), expected);
    EXPECT_EQ(g_stat_handler_policy_engine_map, expected_names);
}

void read_at_most(std::size_t limit)
{
    fake_system_calls::read = [limit](int fd, void* buffer, std::size_t size) {
        return fake_system_calls::real_read(fd, buffer, std::min(size, limit));
    };
}

RE_stat_app_struct record_of_peer(unsigned handle, std::uint32_t traffic, std::uint32_t peer_hash)
{
    RE_stat_app_struct record = handle_record(handle, traffic);
    record.m_header.m_kav_peer_id = peer_of_hash(peer_hash);
    return record;
}

// Two sections that use the same names with different handles. One handle has no name, and one name is not used.
std::string two_sections()
{
    return log_section({{3, names_of("Web", "HTTP")}, {7, names_of("Mail", "SMTP")}, {2000, names_of("No", "No")}},
                       {record_of_peer(3, 10, 1), record_of_peer(7, 20, 2), record_of_peer(9, 5, 1)}) +
           log_section({{7, names_of("Web", "HTTP")}}, {record_of_peer(7, 1, 2), record_of_peer(7, 4, 1)});
}

} // namespace

TEST_F(top_app_log, says_nothing_without_a_file_or_peer_argument)
{
    char empty[] = "";
    EXPECT_EQ(output_of([&] { show_top_app(nullptr, empty, true, 0); }), "");
    EXPECT_EQ(output_of([&] { show_top_app(empty, nullptr, true, 0); }), "");
    EXPECT_TRUE(messages().empty());
}

TEST_F(top_app_log, of_no_bytes_is_an_empty_report)
{
    const memory_file file("");
    EXPECT_EQ(shown(file.path()), "\n");
    EXPECT_EQ(shown(file.path(), "", true), "\n");
    EXPECT_TRUE(messages().empty());
}

TEST_F(top_app_log, of_one_section_without_names_and_records_is_an_empty_report)
{
    const memory_file file(log_section({}, {}));
    EXPECT_EQ(shown(file.path()), "\n");
    EXPECT_TRUE(messages().empty());
}

TEST_F(top_app_log, prints_its_applications_by_classifier)
{
    const memory_file file(log_section({{3, names_of("Web", "HTTP")}, {7, names_of("Mail", "SMTP")}},
                                       {handle_record(3, 30), handle_record(7, 60), handle_record(3, 10)}));
    EXPECT_EQ(
        shown(file.path()),
        "\n"
        "Top Application Summary:\n"
        "\n"
        "     Classifier,  Overall,  ratio,  open-cnt, close-cnt, Encode-In, Decode-Out,  KAV LAN,  KAV WAN,  ratio,"
        "   LZ LAN,   LZ WAN,  ratio\n"
        "          Total    100 KB 100.00%        N/A        N/A     100 KB        0 KB      0 KB      0 KB   0.00%"
        "      0 KB      0 KB   0.00%\n"
        "           Mail     60 KB  60.00%          0          0      60 KB        0 KB      0 KB      0 KB   0.00%"
        "      0 KB      0 KB   0.00%\n"
        "            Web     40 KB  40.00%          0          0      40 KB        0 KB      0 KB      0 KB   0.00%"
        "      0 KB      0 KB   0.00%\n"
        "\n");
    EXPECT_TRUE(messages().empty());
}

TEST_F(top_app_log, gives_the_same_names_of_two_sections_one_handle)
{
    const memory_file file(two_sections());
    const std::string report = shown(file.path());
    EXPECT_TRUE(contains(report, "\n           Mail     20 KB  50.00% ")) << report;
    EXPECT_TRUE(contains(report, "\n            Web     15 KB  37.50% ")) << report;
    EXPECT_TRUE(contains(report, "\n                     5 KB  12.50% ")) << report;
    // Numbered in the order of appearance. The name that no record uses is not included.
    ASSERT_EQ(g_stat_handler_policy_engine_map.size(), 3U);
    EXPECT_EQ(g_stat_handler_policy_engine_map[0], names_of("Web", "HTTP"));
    EXPECT_EQ(g_stat_handler_policy_engine_map[1], names_of("Mail", "SMTP"));
    EXPECT_EQ(g_stat_handler_policy_engine_map[2], names_of("", ""));
    EXPECT_EQ(g_stat_policy_engine_handler_map.size(), 3U);
    EXPECT_EQ(g_stat_policy_engine_handler_map[names_of("Mail", "SMTP")], 1U);
}

TEST_F(top_app_log, keeps_the_first_names_of_a_handle)
{
    const memory_file file(
        log_section({{3, names_of("First", "A")}, {3, names_of("Second", "B")}}, {handle_record(3, 1)}));
    EXPECT_TRUE(contains(shown(file.path()), "\n          First      1 KB"));
}

TEST_F(top_app_log, does_not_carry_names_from_one_section_to_the_next)
{
    const memory_file file(log_section({{3, names_of("Web", "HTTP")}}, {handle_record(3, 1)}) +
                           log_section({}, {handle_record(3, 2)}));
    const std::string report = shown(file.path());
    EXPECT_TRUE(contains(report, "\n            Web      1 KB"));
    EXPECT_TRUE(contains(report, "\n                     2 KB"));
}

TEST_F(top_app_log, tells_applications_of_one_classifier_apart)
{
    const memory_file file(log_section({{1, names_of("Web", "HTTP")}, {2, names_of("Web", "HTTPS")}},
                                       {handle_record(1, 1), handle_record(2, 2)}));
    const std::string report = shown(file.path());
    EXPECT_TRUE(contains(report, "\n            Web      1 KB"));
    EXPECT_TRUE(contains(report, "\n            Web      2 KB"));
}

TEST_F(top_app_log, takes_names_for_equal_up_to_their_nul)
{
    RE_stat_policy_engine_header clean = names_of("Web", "HTTP");
    RE_stat_policy_engine_header dirty = clean;
    dirty.m_policy_engine_classifier_name[10] = 'x';
    dirty.m_policy_engine_application_name[40] = 'y';
    const memory_file file(log_section({{1, clean}, {2, dirty}}, {handle_record(1, 1), handle_record(2, 2)}));
    EXPECT_TRUE(contains(shown(file.path()), "\n            Web      3 KB 100.00% "));
    EXPECT_EQ(g_stat_handler_policy_engine_map.size(), 1U);
}

TEST_F(top_app_log, ends_names_without_a_nul_at_their_arrays_end)
{
    const memory_file file(
        log_section({{1, names_of(std::string(41, 'c'), std::string(41, 'a'))}}, {handle_record(1, 1)}));
    const std::string report = shown(file.path(), "", true);
    EXPECT_TRUE(
        contains(report, "\nClassifier: " + std::string(41, 'c') + ", Application: " + std::string(41, 'a') + "\n"));
    EXPECT_TRUE(contains(report, "\n" + std::string(41, 'c') + "      1 KB"));
}

TEST_F(top_app_log, of_more_names_than_handles_lets_them_share)
{
    std::vector<named_handle> first;
    std::vector<RE_stat_app_struct> first_records;
    for (unsigned i = 0; i < 1024; ++i) {
        first.push_back({i, names_of("class " + std::to_string(i), "")});
        first_records.push_back(handle_record(i, 1));
    }
    const memory_file file(log_section(first, first_records) +
                           log_section({{0, names_of("late 1024", "")}, {1, names_of("late 1025", "")}},
                                       {handle_record(1, 7), handle_record(0, 9)}));
    const std::string report = shown(file.path(), "", false, 2);
    EXPECT_EQ(g_stat_handler_policy_engine_map.size(), 1026U);
    EXPECT_EQ(g_stat_handler_policy_engine_map[1024], names_of("late 1025", ""));
    // The first new names are those of handle 1. They share handle 0 of the run.
    EXPECT_TRUE(contains(report, "\n        class 1     10 KB ")) << report;
    EXPECT_TRUE(contains(report, "\n        class 0      8 KB ")) << report;
    EXPECT_TRUE(messages().empty());
}

TEST_F(top_app_log, keeps_one_peer_and_the_records_own_numbers)
{
    const memory_file file(two_sections());
    const std::string report = shown(file.path(), "2", true);
    EXPECT_FALSE(contains(report, "App-Slot: 0, "));
    EXPECT_TRUE(contains(report, "App-Slot: 1, "));
    EXPECT_FALSE(contains(report, "App-Slot: 2, "));
    EXPECT_TRUE(contains(report, "App-Slot: 3, "));
    EXPECT_FALSE(contains(report, "App-Slot: 4, "));
    EXPECT_TRUE(contains(report, "\n           Mail     20 KB  95.24% ")) << report;
    EXPECT_TRUE(contains(report, "\n            Web      1 KB   4.76% ")) << report;
}

TEST_F(top_app_log, of_other_peers_alone_is_an_empty_report_but_fills_the_names)
{
    const memory_file file(two_sections());
    EXPECT_EQ(shown(file.path(), "77"), "\n");
    EXPECT_EQ(g_stat_handler_policy_engine_map.size(), 3U);
}

TEST_F(top_app_log, starts_each_run_without_names)
{
    const memory_file named(two_sections());
    shown(named.path());
    const memory_file empty("");
    shown(empty.path());
    EXPECT_TRUE(g_stat_handler_policy_engine_map.empty());
    EXPECT_TRUE(g_stat_policy_engine_handler_map.empty());
}

TEST_F(top_app_log, refuses_another_layout_behind_a_section)
{
    const memory_file file(two_sections() + log_word(2));
    EXPECT_EQ(shown(file.path()), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{"top_app_log compatibility error: " + file.path() +
                                                   ": Top-App logs of v4.4.1 and v4.4.3 cannot be mingled\n"});
}

TEST_F(top_app_log, refuses_another_layout_behind_records_that_the_peer_filter_dropped)
{
    const memory_file file(two_sections() + log_word(0));
    EXPECT_EQ(shown(file.path(), "77"), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{"top_app_log compatibility error: " + file.path() +
                                                   ": Top-App logs of v4.4.1 and v4.4.3 cannot be mingled\n"});
}

TEST_F(top_app_log, in_detail_leaves_printed_what_was_gathered_before_an_error)
{
    const memory_file file(log_section({{0, names_of("Web", "HTTP")}}, {handle_record(0, 1)}) + log_word(2));
    const std::string report = shown(file.path(), "", true);
    EXPECT_EQ(report.substr(0, 13), "\nApp-Slot: 0,");
    EXPECT_FALSE(contains(report, "Total:"));
    EXPECT_FALSE(contains(report, "Summary"));
}

TEST_F(top_app_log, of_the_old_layout_is_gathered_and_never_reported)
{
    const memory_file file(log_array({port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 5}}), port_record(81, {})}));
    EXPECT_EQ(shown(file.path()), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), "0 - short read")});

    const std::string report = shown(file.path(), "", true);
    EXPECT_TRUE(contains(report, "App-Slot: 0, "));
    EXPECT_TRUE(contains(report, "App-Slot: 1, "));
    EXPECT_FALSE(contains(report, "Total:"));
    EXPECT_FALSE(contains(report, "Summary"));
    EXPECT_TRUE(g_stat_handler_policy_engine_map.empty());
}

TEST_F(top_app_log, of_the_old_layout_ends_with_what_is_left_of_a_record)
{
    const memory_file file(log_array({port_record(80, {})}) + std::string(37, '\0'));
    EXPECT_EQ(shown(file.path()), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), "37 - short read")});
}

TEST_F(top_app_log, behind_sections_without_records_goes_back_to_the_start_for_the_old_layout)
{
    // The 12 and 88 bytes are one record. Its number of messages is shown in the entry block.
    const memory_file file(log_section({}, {}) + log_word(77) + std::string(84, '\0'));
    const std::string report = shown(file.path(), "", true);
    EXPECT_TRUE(contains(report, "App-Slot: 0, "));
    EXPECT_TRUE(contains(report, "in:      1 KB, out:      0 KB")) << report;
    EXPECT_FALSE(contains(report, "App-Slot: 1, "));
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), "0 - short read")});
}

TEST_F(top_app_log, of_the_old_layout_that_starts_with_a_1_is_taken_for_the_new_one)
{
    RE_stat_app_struct record{};
    record.m_id_array[0] = 1;
    const memory_file file(log_array({record, record}));
    // No names and no records. The next word, 0, does not start a section.
    EXPECT_EQ(shown(file.path()), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), "0 - short read")});

    record.m_id_array[1] = 3;
    const memory_file cut(log_array({record, record}));
    EXPECT_EQ(shown(cut.path()), "\n");
    // 200 bytes: 8 bytes, two name entries of 86, and 20 of the 82 bytes of the third one.
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(cut.path(), "20 - short read")});
}

TEST_F(top_app_log, reports_the_returned_count_of_every_field)
{
    const std::string names = log_section({{1, names_of("Web", "HTTP")}}, {handle_record(1, 1)});
    const auto message_of_cut = [&names](std::size_t size) {
        const memory_file file(names.substr(0, size));
        EXPECT_EQ(shown(file.path()), "\n");
        const std::vector<std::string> texts = messages();
        const std::string start = "top_app_log read error: read(" + file.path() + ") ";
        return texts.size() == 1 && texts[0].starts_with(start) ? texts[0].substr(start.size()) : "?";
    };
    EXPECT_EQ(message_of_cut(1), "returned 1 - short read\n");
    EXPECT_EQ(message_of_cut(3), "returned 3 - short read\n");
    EXPECT_EQ(message_of_cut(4), "returned 0 - short read\n"); // N
    EXPECT_EQ(message_of_cut(7), "returned 3 - short read\n");
    EXPECT_EQ(message_of_cut(8), "returned 0 - short read\n"); // names
    EXPECT_EQ(message_of_cut(89), "returned 81 - short read\n");
    EXPECT_EQ(message_of_cut(90), "returned 0 - short read\n"); // handle
    EXPECT_EQ(message_of_cut(93), "returned 3 - short read\n");
    EXPECT_EQ(message_of_cut(94), "returned 0 - short read\n"); // M
    EXPECT_EQ(message_of_cut(97), "returned 3 - short read\n");
    EXPECT_EQ(message_of_cut(98), "returned 0 - short read\n"); // record
    EXPECT_EQ(message_of_cut(197), "returned 99 - short read\n");
}

TEST_F(top_app_log, of_a_missing_file_is_an_empty_report_and_an_open_error)
{
    EXPECT_EQ(shown("/nonexistent/log", "", true), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{
                              "top_app_log open error: open(/nonexistent/log, O_RDONLY): No such file or directory\n"});
}

TEST_F(top_app_log, that_cannot_be_opened_leaves_the_names)
{
    const names_in_place names({names_of("Web", "HTTP")});
    shown("/nonexistent/log");
    EXPECT_EQ(g_stat_handler_policy_engine_map.size(), 1U);
}

TEST_F(top_app_log, that_is_a_folder_cannot_be_read)
{
    const scratch_folder folder(disk());
    EXPECT_EQ(shown(folder.path()), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(folder.path(), "-1 - Is a directory")});
}

TEST_F(top_app_log, that_is_an_empty_device_is_an_empty_report)
{
    EXPECT_EQ(shown("/dev/null"), "\n");
    EXPECT_TRUE(messages().empty());
}

TEST_F(top_app_log, comes_through_a_fifo_in_pieces)
{
    const scratch_folder folder(disk());
    const std::string path = folder.file("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const std::string bytes = two_sections();
    std::thread writer([&] {
        const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        for (std::size_t at = 0; at < bytes.size(); at += 33) {
            const std::string piece = bytes.substr(at, 33);
            ASSERT_EQ(write(fd, piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
            usleep(200);
        }
        close(fd);
    });
    const log_outcome outcome = outcome_of(path);
    writer.join();
    EXPECT_EQ(outcome, read_log_field_by_field(bytes, path, "", false, 0));
    EXPECT_TRUE(contains(outcome.output, "Web"));
}

TEST_F(top_app_log, that_is_appended_to_is_waited_for_from_wherever_it_ends)
{
    const std::string bytes = two_sections();
    for (std::size_t size = 1; size < bytes.size(); size += 31) {
        const memory_file file(bytes.substr(0, size));
        file.lock(F_WRLCK);
        std::thread writer([&] {
            usleep(2000);
            file.append(bytes.substr(size));
            file.lock(F_UNLCK);
        });
        const log_outcome outcome = outcome_of(file.path());
        writer.join();
        EXPECT_EQ(outcome, read_log_field_by_field(bytes, file.path(), "", false, 0)) << size;
    }
}

TEST_F(top_app_log, that_somebody_keeps_locked_is_waited_for_a_second)
{
    const std::string bytes = two_sections();
    const memory_file cut(bytes.substr(0, bytes.size() - 1));
    cut.lock(F_WRLCK);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(outcome_of(cut.path()),
              read_log_field_by_field(bytes.substr(0, bytes.size() - 1), cut.path(), "", false, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
}

TEST_F(top_app_log, of_the_old_layout_cannot_come_through_a_fifo)
{
    const scratch_folder folder(disk());
    const std::string path = folder.file("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const std::string bytes = log_array({port_record(80, {})});
    std::thread writer([&] {
        const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    });
    EXPECT_EQ(shown(path), "\n");
    writer.join();
    EXPECT_EQ(messages(),
              std::vector<std::string>{"top_app_log seek error: lseek(" + path + ", 0, SEEK_SET): Illegal seek\n"});
}

TEST_F(top_app_log, cut_anywhere_is_as_read_field_by_field)
{
    std::mt19937 random(2);
    std::vector<RE_stat_app_struct> records(3);
    std::generate(records.begin(), records.end(), [&] { return random_record(random); });
    const std::string logs[] = {two_sections(),
                                two_sections() + log_word(0),
                                log_array(records),
                                log_section({}, {}) + log_section({{1, names_of("c", "a")}}, {}) + log_word(5) +
                                    log_array(records),
                                log_section({}, {}).substr(0, 8) + log_word(0xffffffffU) + log_array(records),
                                log_word(1) + log_word(0xffffffffU) + log_array(records)};
    for (const std::string& log : logs) {
        for (std::size_t size = 0; size <= log.size(); ++size) {
            expect_as_field_by_field(log.substr(0, size), "", false, 0);
            expect_as_field_by_field(log.substr(0, size), "2", true, 1);
        }
    }
}

TEST_F(top_app_log, read_in_pieces_of_any_size_is_the_same)
{
    std::mt19937 random(3);
    std::vector<RE_stat_app_struct> records(40);
    std::generate(records.begin(), records.end(), [&] { return random_record(random); });
    const std::string log = two_sections() + log_section({{1, names_of("Web", "HTTP")}}, records) + two_sections();
    for (const std::string& bytes : {log, log.substr(0, log.size() - 41), log + log_word(9), log_array(records)}) {
        for (const std::size_t limit : {1U, 3U, 4U, 5U, 81U, 82U, 83U, 86U, 99U, 100U, 101U, 199U, 200U, 201U, 1000U}) {
            read_at_most(limit);
            expect_as_field_by_field(bytes, "", false, 0);
            expect_as_field_by_field(bytes, "", true, 3);
        }
    }
}

TEST_F(top_app_log, at_random_is_as_read_field_by_field)
{
    std::mt19937 random(4);
    for (int round = 0; round < 400; ++round) {
        std::string log;
        const unsigned sections = drawn(random, 4);
        for (unsigned section = 0; section < sections; ++section) {
            std::vector<named_handle> names(drawn(random, 9));
            for (named_handle& name : names) {
                name.handle = drawn(random, 10) == 0 ? 1024U + drawn(random, 9) : drawn(random, 8);
                name.names = names_of(std::string(drawn(random, 42), 'c'), std::to_string(drawn(random, 3)));
            }
            std::vector<RE_stat_app_struct> records(drawn(random, 12));
            std::generate(records.begin(), records.end(), [&] { return random_record(random); });
            log += drawn(random, 16) == 0 ? log_array(records) : log_section(names, records);
        }
        for (unsigned flips = drawn(random, 3); flips > 0 && !log.empty(); --flips) {
            log[random() % log.size()] ^= static_cast<char>(1 << (drawn(random, 8)));
        }
        if (drawn(random, 3) == 0) {
            log.resize(random() % (log.size() + 1));
        }
        const std::string peers[] = {"", "0", "1", "65538", "01:00:00:00:00:00-000000000000-00000000"};
        expect_as_field_by_field(log, peers[drawn(random, 5)], drawn(random, 2) == 0,
                                 static_cast<int>(drawn(random, 6)) - 1);
    }
}

TEST_F(top_app_log, longer_than_the_buffer_is_as_read_field_by_field_with_a_read_for_each_mebibyte)
{
    std::mt19937 random(5);
    std::vector<RE_stat_app_struct> records(30000);
    std::generate(records.begin(), records.end(), [&] { return random_record(random); });
    const std::vector<RE_stat_app_struct> few(records.begin(), records.begin() + 777);
    const std::vector<named_handle> names{{1, names_of("Web", "HTTP")}, {2, names_of("Mail", "SMTP")}};
    const std::string log = log_section(names, few) + log_section(names, records) + log_section({}, records);
    fake_system_calls::reads = 0;
    expect_as_field_by_field(log, "", false, 0);
    EXPECT_LE(fake_system_calls::reads, static_cast<int>(log.size() / (1024 * 1024)) + 3);
    expect_as_field_by_field(log, "1", false, 2);
    expect_as_field_by_field(log.substr(0, log.size() - 50), "", false, 0);
    expect_as_field_by_field(log_array(records), "", false, 0);
}

TEST_F(top_app_log, is_read_on_after_interruptions)
{
    const memory_file file(two_sections());
    const log_outcome undisturbed = outcome_of(file.path());
    int calls = 0;
    fake_system_calls::open = [&](const char* path, int flags) {
        errno = EINTR;
        return ++calls < 3 ? -1 : fake_system_calls::real_open(path, flags);
    };
    fake_system_calls::read = [&](int fd, void* buffer, std::size_t size) -> ssize_t {
        errno = EINTR;
        return ++calls % 3 != 0 ? -1 : fake_system_calls::real_read(fd, buffer, std::min<std::size_t>(size, 10));
    };
    EXPECT_EQ(outcome_of(file.path()), undisturbed);
}

TEST_F(top_app_log, of_the_old_layout_ends_at_an_interruption)
{
    const memory_file file(log_array(std::vector<RE_stat_app_struct>(3, port_record(80, {}))));
    int calls = 0;
    fake_system_calls::read = [&](int fd, void* buffer, std::size_t size) -> ssize_t {
        errno = EINTR;
        // The first two calls read the version, after one interruption. The third one reads two records.
        ++calls;
        return calls == 1 || calls == 4 ? -1
                                        : fake_system_calls::real_read(fd, buffer, std::min<std::size_t>(size, 200));
    };
    const std::string report = shown(file.path(), "", true);
    EXPECT_TRUE(contains(report, "App-Slot: 1, "));
    EXPECT_FALSE(contains(report, "App-Slot: 2, "));
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), "-1 - Interrupted system call")});
}

TEST_F(top_app_log, seeks_on_after_interruptions_and_reports_other_failures)
{
    const memory_file file(log_array({port_record(80, {})}));
    int seeks = 0;
    fake_system_calls::lseek = [&](int fd, off_t offset, int whence) {
        EXPECT_EQ(offset, 0);
        EXPECT_EQ(whence, SEEK_SET);
        errno = EINTR;
        return ++seeks < 3 ? -1 : fake_system_calls::real_lseek(fd, offset, whence);
    };
    shown(file.path());
    EXPECT_EQ(seeks, 3);
    EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), "0 - short read")});

    fake_system_calls::lseek = [](int, off_t, int) {
        errno = EINVAL;
        return off_t{-1};
    };
    EXPECT_EQ(shown(file.path(), "", true), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{"top_app_log seek error: lseek(" + file.path() +
                                                   ", 0, SEEK_SET): Invalid argument\n"});
}

TEST_F(top_app_log, that_fails_at_a_fields_start_reports_the_system_error_and_within_it_a_short_read)
{
    const std::string bytes = log_section({}, {handle_record(0, 1), handle_record(0, 2)});
    const memory_file file(bytes);
    for (const std::size_t readable : {0U, 4U, 8U, 12U, 50U, 112U, 150U, 212U}) {
        std::size_t offset = 0;
        fake_system_calls::read = [&](int fd, void* buffer, std::size_t size) -> ssize_t {
            const std::size_t wanted = std::min(size, readable - offset);
            if (wanted == 0) {
                errno = EIO;
                return -1;
            }
            offset += wanted;
            return fake_system_calls::real_read(fd, buffer, wanted);
        };
        EXPECT_EQ(shown(file.path()), "\n");
        const std::string rest = readable == 50    ? "38 - short read"
                                 : readable == 150 ? "38 - short read"
                                                   : "-1 - Input/output error";
        EXPECT_EQ(messages(), std::vector<std::string>{read_error(file.path(), rest)}) << readable;
    }
}

TEST_F(top_app_log, that_grows_while_it_is_read_is_reported_with_what_has_grown)
{
    const memory_file file(two_sections());
    bool b_grown = false;
    fake_system_calls::read = [&](int fd, void* buffer, std::size_t size) {
        const ssize_t count = fake_system_calls::real_read(fd, buffer, size);
        if (count == 0 && !b_grown) {
            b_grown = true;
            file.append(two_sections());
            return fake_system_calls::real_read(fd, buffer, size);
        }
        return count;
    };
    EXPECT_EQ(outcome_of(file.path()),
              read_log_field_by_field(two_sections() + two_sections(), file.path(), "", false, 0));
}

TEST_F(top_app_log, that_shrinks_while_it_is_read_ends_there)
{
    const std::string bytes = two_sections();
    const memory_file file(bytes);
    fake_system_calls::read = [&](int fd, void* buffer, std::size_t size) {
        const ssize_t count = fake_system_calls::real_read(fd, buffer, std::min<std::size_t>(size, 300));
        file.shrink(320);
        return count;
    };
    EXPECT_EQ(outcome_of(file.path()), read_log_field_by_field(bytes.substr(0, 320), file.path(), "", false, 0));
}

TEST_F(top_app_log, leaves_no_descriptor_open)
{
    const auto next_descriptor = [] {
        const int fd = dup(0);
        close(fd);
        return fd;
    };
    const memory_file good(two_sections());
    const memory_file bad(two_sections() + log_word(2));
    const int before = next_descriptor();
    shown(good.path());
    shown(bad.path());
    shown("/nonexistent/log");
    shown("/tmp");
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(top_app_log, is_opened_for_reading_without_waiting_and_kept_from_child_processes)
{
    int opened_with = 0;
    int read_with = 0;
    fake_system_calls::open = [&](const char* path, int flags) {
        opened_with = flags;
        return fake_system_calls::real_open(path, flags);
    };
    fake_system_calls::read = [&](int fd, void* buffer, std::size_t size) {
        read_with |= fcntl(fd, F_GETFL);
        return fake_system_calls::real_read(fd, buffer, size);
    };
    const memory_file file(two_sections());
    shown(file.path());
    EXPECT_EQ(opened_with, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(read_with & O_NONBLOCK, 0);
}

TEST_F(top_app_log, whose_owner_has_a_lease_is_not_waited_for)
{
    const scratch_folder folder(disk());
    const std::string path = folder.file("log");
    std::ofstream(path) << two_sections();
    const auto before = std::signal(SIGIO, SIG_IGN); // the signal that asks the owner to give up the lease
    const int owner = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(fcntl(owner, F_SETLEASE, F_WRLCK), 0);
    EXPECT_EQ(shown(path), "\n");
    EXPECT_EQ(messages(), std::vector<std::string>{"top_app_log open error: open(" + path +
                                                   ", O_RDONLY): Resource temporarily unavailable\n"});
    close(owner);
    std::signal(SIGIO, before);
}

TEST_F(top_app_live, reports_the_slots_by_port)
{
    reader.apps = {port_record(443, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 30}}),
                   port_record(80, {{RE_STAT_APP_ID_DECODE_OUT_KBYTES, 70}})};
    reader.app_slots_to_visit = 2;
    EXPECT_EQ(
        shown(""),
        "\n"
        "Top Application Summary:\n"
        "\n"
        " Port,   Overall,  ratio,  open-cnt, close-cnt, Encode-In, Decode-Out,  KAV LAN,  KAV WAN,  ratio,   LZ LAN,"
        "   LZ WAN,  ratio\n"
        "Total     100 KB 100.00%        N/A        N/A      30 KB       70 KB      0 KB      0 KB   0.00%"
        "      0 KB      0 KB   0.00%\n"
        "   80      70 KB  70.00%          0          0       0 KB       70 KB      0 KB      0 KB   0.00%"
        "      0 KB      0 KB   0.00%\n"
        "  443      30 KB  30.00%          0          0      30 KB        0 KB      0 KB      0 KB   0.00%"
        "      0 KB      0 KB   0.00%\n"
        "\n");
    EXPECT_EQ(reader.calls, (std::vector<std::string>{"get_app_slot_shared_memory_header_size", "read_app_slot 0",
                                                      "read_app_slot 1"}));
}

TEST_F(top_app_live, ends_at_the_first_null_slot)
{
    // fake_reader has no records after its last one. Slot 3 is null although it reports more slots.
    reader.apps.assign(3, port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1}}));
    reader.app_slots_to_visit = 100;
    EXPECT_TRUE(contains(shown(""), "   80       3 KB 100.00% "));
    EXPECT_EQ(reader.count("read_app_slot 3"), 1);
    EXPECT_EQ(reader.count("read_app_slot 4"), 0);
}

TEST_F(top_app_live, visits_no_more_slots_than_the_reader_says)
{
    reader.apps.assign(3, port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1}}));
    reader.app_slots_to_visit = 2;
    EXPECT_TRUE(contains(shown(""), "   80       2 KB 100.00% "));
    reader.app_slots_to_visit = 0;
    EXPECT_EQ(shown(""), "\n");
}

TEST_F(top_app_live, takes_a_slot_count_of_two_to_the_31_for_a_number_without_a_sign)
{
    reader.apps.assign(1, port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1}}));
    reader.app_slots_to_visit = 0x80000000U;
    EXPECT_TRUE(contains(shown(""), "   80       1 KB 100.00% "));
}

TEST_F(top_app_live, keeps_one_peer_and_prints_its_entries_in_slot_order)
{
    for (const std::uint32_t peer : {1U, 2U, 1U}) {
        RE_stat_app_struct record = port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 10}});
        record.m_header.m_kav_peer_id = peer_of_hash(peer);
        reader.apps.push_back(record);
    }
    reader.app_slots_to_visit = 3;
    const std::string report = shown("", "1", true);
    const std::size_t first = report.find("App-Slot: 0, ");
    const std::size_t third = report.find("App-Slot: 2, ");
    const std::size_t sums = report.find("Total:\nEncode:\n   Overall: msg:          0, in:     20 KB,");
    ASSERT_NE(sums, std::string::npos);
    EXPECT_EQ(first, 1U);
    EXPECT_LT(first, third);
    EXPECT_LT(third, sums);
    EXPECT_LT(sums, report.find("Top Application Summary:"));
    EXPECT_FALSE(contains(report, "App-Slot: 1, "));
}

TEST_F(top_app_live, does_not_change_the_readers_records)
{
    reader.apps = {port_record(9, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1}}),
                   port_record(9, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 2}})};
    reader.app_slots_to_visit = 2;
    shown("");
    EXPECT_EQ(reader.apps[0].m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES], 1U);
    EXPECT_EQ(reader.apps[1].m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES], 2U);
}

TEST_F(top_app_live, has_no_file_messages)
{
    EXPECT_EQ(shown("", "", true), "\n");
    EXPECT_TRUE(messages().empty());
}
