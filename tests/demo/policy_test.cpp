#include "RE_application.h"
#include "RE_bypass_policy.h"
#include "RE_concurrency.h"
#include "RE_published_app.h"
#include "RE_publisher.h"
#include "RE_traffic.h"

#include "test_bytes.h"

#include <gtest/gtest.h>

namespace {

constexpr std::time_t noon = 1'000'000;

TEST(bypass_policy, goes_around_a_server_whose_traffic_does_not_compress)
{
    RE_bypass_policy policy({1000, 5, 60});
    const RE_server server{1, 80};
    EXPECT_FALSE(policy.measure(server, 900, 900, noon)); // too little to decide
    EXPECT_TRUE(policy.measure(server, 100, 51, noon));   // 951 of 1,000: less than 5% saved
    ASSERT_NE(policy.find(server), nullptr);
    EXPECT_EQ(policy.find(server)->since, noon);
    EXPECT_EQ(policy.find(server)->next_attempt, noon + 60);
    EXPECT_EQ(policy.find({1, 81}), nullptr);
    EXPECT_EQ(policy.find({2, 80}), nullptr);
    policy.count_message(server, 500);
    policy.count_connection(server);
    EXPECT_EQ(policy.find(server)->bytes, 500U);
    EXPECT_EQ(policy.find(server)->connections, 1U);
}

TEST(bypass_policy, judges_each_sample_by_itself)
{
    RE_bypass_policy policy({1000, 5, 60});
    const RE_server server{1, 80};
    EXPECT_FALSE(policy.measure(server, 1000, 950, noon)); // exactly 5% saved
    EXPECT_FALSE(policy.measure(server, 999, 999, noon));
    EXPECT_TRUE(policy.measure(server, 1, 1, noon));
}

TEST(bypass_policy, tries_a_server_again_when_its_time_has_come)
{
    RE_bypass_policy policy({1000, 5, 60});
    const RE_server server{1, 80};
    policy.measure(server, 1000, 1000, noon);
    RE_server due{};
    EXPECT_FALSE(policy.take_due(noon + 59, due));
    EXPECT_TRUE(policy.take_due(noon + 60, due));
    EXPECT_EQ(due, server);
    EXPECT_EQ(policy.find(server), nullptr);
    EXPECT_FALSE(policy.take_due(noon + 60, due));
}

TEST(classifier, goes_by_the_name_and_then_by_the_content)
{
    const auto classifier_of = [](const char* path, const char* content) {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(content);
        return std::string(classify(path, RE_byte_view(bytes, std::char_traits<char>::length(content))).classifier);
    };
    EXPECT_EQ(classifier_of("/www/index.HTML", ""), "HTTP");
    EXPECT_EQ(classifier_of("/backup/all.tar.gz", "text"), "Rsync");
    EXPECT_EQ(classifier_of("/home/x.d/notes", "text"), "CIFS");
    EXPECT_EQ(classifier_of("/bin/ls", "\177ELF\2\1\1"), "NFS");
    const std::uint8_t binary[] = {1, 0, 2};
    EXPECT_STREQ(classify("/bin/data", binary).classifier, "Other");
    for (const RE_application& application : all_applications()) {
        EXPECT_EQ(&all_applications()[application.handler], &application);
    }
}

TEST(traffic, finds_the_files_of_a_folder_in_order_and_follows_no_links)
{
    const temporary_folder folder;
    folder.write("b/2", random_bytes(10, 1));
    folder.write("b/1", random_bytes(10, 1));
    folder.write("a", {});
    std::filesystem::create_directory_symlink(folder.path(), folder.file("b/loop"));
    EXPECT_EQ(find_traffic({folder.path()}),
              (std::vector<std::string>{folder.file("a"), folder.file("b/1"), folder.file("b/2")}));
    EXPECT_THROW(find_traffic({folder.file("missing")}), std::runtime_error);
    EXPECT_TRUE(find_traffic({"/dev/null"}).empty());
}

TEST(traffic, cuts_a_file_into_messages_that_make_the_file_again)
{
    const temporary_folder folder;
    const RE_byte_buffer data = random_bytes(300'000, 1);
    folder.write("data", data);
    for (const std::uint32_t fixed_size : {0U, 1000U, 7777U}) {
        RE_message_source source(folder.file("data"), {fixed_size}, 1);
        RE_byte_buffer together;
        RE_byte_buffer message;
        while (source.next(message)) {
            EXPECT_TRUE(fixed_size == 0 || message.size() == fixed_size ||
                        together.size() + message.size() == data.size());
            EXPECT_LE(message.size(), 64U * 1024);
            append_bytes(together, message);
        }
        EXPECT_EQ(together, data) << fixed_size;
    }
}

TEST(traffic, has_no_messages_in_what_cannot_be_read)
{
    const temporary_folder folder;
    RE_byte_buffer message;
    RE_message_source missing(folder.file("missing"), {0}, 1);
    EXPECT_FALSE(missing.is_open());
    EXPECT_FALSE(missing.next(message));
    RE_message_source a_folder(folder.path(), {0}, 1);
    EXPECT_FALSE(a_folder.is_open());
    folder.write("empty", {});
    RE_message_source empty(folder.file("empty"), {0}, 1);
    EXPECT_TRUE(empty.is_open());
    EXPECT_FALSE(empty.next(message));
}

TEST(concurrency, knows_the_most_and_the_average_of_two_minutes)
{
    RE_concurrency concurrency;
    EXPECT_EQ(concurrency.max(noon), 0);
    concurrency.change(noon, 1);
    concurrency.change(noon, 3);
    concurrency.change(noon, -2);
    EXPECT_EQ(concurrency.open(), 2);
    EXPECT_EQ(concurrency.max(noon), 4);
    EXPECT_EQ(concurrency.average(noon), 4);
    EXPECT_EQ(concurrency.average(noon + 3), (4 + 2 + 2 + 2) / 4);
    EXPECT_EQ(concurrency.max(noon + 119), 4);
    EXPECT_EQ(concurrency.max(noon + 120), 2);
    EXPECT_EQ(concurrency.average(noon + 100'000), 2);
}

TEST(microseconds, lose_nothing_by_rounding)
{
    RE_microseconds total;
    long long sum = 0;
    for (int count = 0; count < 1000; ++count) {
        sum += total.add_ns(700);
    }
    EXPECT_EQ(sum, 700);
}

TEST(published_app, logs_what_was_published_since_the_last_record)
{
    RE_published_app app;
    EXPECT_FALSE(app.has_news());
    app.totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = 1023;
    EXPECT_FALSE(app.has_news());
    app.totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = 5 * 1024 + 1;
    app.totals[RE_STAT_APP_ID_ENCODE_NUM_MSGS] = 3;
    app.opened = 2;
    EXPECT_TRUE(app.has_news());
    RE_stat_app_struct record = app.take_log_record();
    EXPECT_EQ(record.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES], 5U);
    EXPECT_EQ(record.m_id_array[RE_STAT_APP_ID_ENCODE_NUM_MSGS], 3U);
    EXPECT_EQ(record.m_header.m_open_cnt, 2U);
    EXPECT_FALSE(app.has_news());
    app.totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES] += 1023;
    app.closed = 1;
    record = app.take_log_record();
    EXPECT_EQ(record.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES], 1U);
    EXPECT_EQ(record.m_header.m_open_cnt, 0U);
    EXPECT_EQ(record.m_header.m_close_cnt, 1U);
}

} // namespace
