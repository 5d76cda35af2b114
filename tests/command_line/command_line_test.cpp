// The whole command line, with views that only print how they were called.

#include "RE_exec_show_stats_kav.h"

#include "RE_config_view.h"
#include "RE_conn_view.h"
#include "RE_global_view.h"
#include "RE_nack_view.h"
#include "RE_peer_view.h"
#include "RE_top_app_log.h"
#include "RE_viewer_reader.h"
#include "support/fake_reader.h"
#include "support/viewer_usage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

void show_global(bool detail)
{
    std::printf("<global %d>\n", detail);
}

void show_peer(RE_mac_id* p_peer_mac_id, unsigned int peer_ip, int filter_pid, int ctx, RE_show_type type)
{
    std::printf("<peer mac=%s ip=%x no=%d ctx=%d type=%d>\n",
                p_peer_mac_id == nullptr ? "any" : p_peer_mac_id->getString().c_str(), peer_ip, filter_pid, ctx, type);
}

void show_nack_info(int conn_id, int peer_id)
{
    std::printf("<nack %d %d>\n", conn_id, peer_id);
}

void show_conn(unsigned int client_ip, unsigned int server_ip, unsigned short client_port, unsigned short server_port,
               int conn_id, int peer_id, RE_show_type type, bool conn_active, bool conn_last)
{
    std::printf("<conn %x:%hu %x:%hu id=%d peer=%d type=%d active=%d last=%d>\n", client_ip, client_port, server_ip,
                server_port, conn_id, peer_id, type, conn_active, conn_last);
}

void show_config(bool b_show_detail)
{
    std::printf("<config %d>\n", b_show_detail);
}

void show_kav_bypass(bool b_show_detail)
{
    std::printf("<bypass %d>\n", b_show_detail);
}

void show_tech_support()
{
    std::printf("<tech-support>\n");
}

void show_top_app(char* file, char* peer, bool detail, int top)
{
    std::printf("<top-app file='%s' peer='%s' detail=%d top=%d>\n", file, peer, detail, top);
}

namespace {

// One request to a running engine, with its output, its exit status and the number of deletions of its reader.
class command_line : public testing::Test
{
protected:
    command_line()
    {
        fake_engine::reset();
        fake_engine::create = [this](RE_stat_reader_type type, const char* path) -> RE_stat_reader* {
            created.push_back(std::to_string(type) + " " + (path == nullptr ? "null" : path));
            auto* const reader = new fake_reader;
            reader->open_result = open_result;
            reader->save_result = save_result;
            reader->on_destruction = [this, reader] {
                ++deleted;
                calls = reader->calls;
            };
            return reader;
        };
    }
    ~command_line() override { fake_engine::reset(); }

    void run(std::vector<std::string> words)
    {
        words.insert(words.begin(), "exec_show_stats_kav");
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        created.clear();
        deleted = 0;
        printed = output_of([&] { status = exec_show_stats_kav(static_cast<int>(argv.size()) - 1, argv.data()); });
    }

    // Runs a request. It must print `text`, end with `expected_status`, and create and delete its reader once.
    void expect(const std::vector<std::string>& words, const std::string& text, int expected_status)
    {
        run(words);
        EXPECT_EQ(printed, text) << testing::PrintToString(words);
        EXPECT_EQ(status, expected_status) << testing::PrintToString(words);
        EXPECT_EQ(created.size(), 1U) << testing::PrintToString(words);
        EXPECT_EQ(deleted, 1) << testing::PrintToString(words);
    }

    int open_result = 0;
    int save_result = 0;
    std::vector<std::string> created;
    int deleted = 0;
    std::vector<std::string> calls; // of the reader that was deleted last
    std::string printed;
    int status = -1;
};

TEST_F(command_line, tells_the_usage_without_a_word)
{
    run({});
    EXPECT_EQ(printed, "Invalid args\n" + usage);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(fake_engine::log_inits, 0);
    EXPECT_TRUE(created.empty());
}

TEST_F(command_line, starts_logging_once_before_anything_else)
{
    fake_engine::create = [](RE_stat_reader_type, const char*) -> RE_stat_reader* {
        EXPECT_EQ(fake_engine::log_inits, 1);
        return nullptr;
    };
    run({"nack"});
    EXPECT_EQ(fake_engine::log_inits, 1);
}

// Each row contains the words, what they print while an engine runs, and the exit status.
TEST_F(command_line, is_taken_as_in_this_table)
{
    fake_engine::martian_texts = {"127.0.0.1", "224.0.0.1", "0.0.0.0"};
    const struct
    {
        std::vector<std::string> words;
        std::string text;
        int status;
    } cases[] = {
        // Each view has its own word.
        {{"tech-support"}, "<tech-support>\n", 0},
        {{"nack"}, "<nack -1 -1>\n", 0},
        {{"global-info"}, "<global 0>\n", 0},
        {{"global-detail"}, "<global 1>\n", 0},
        {{"config"}, "<config 1>\n", 0},
        {{"brief-config"}, "<config 0>\n", 0},
        {{"kav-bypass"}, "<bypass 0>\n", 0},
        {{"kav-bypass", "detail"}, "<bypass 1>\n", 0},
        {{"kav-bypass", "more"}, "<bypass 0>\n", 0},
        // Words match if they start with a keyword.
        {{"nacks"}, "<nack -1 -1>\n", 0},
        {{"global-information"}, "<global 0>\n", 0},
        {{"peers"}, "<peer mac=any ip=0 no=-1 ctx=-1 type=0>\n", 0},
        {{"configuration"}, "<config 1>\n", 0},
        {{"kav-bypass", "details"}, "<bypass 1>\n", 0},
        {{"conns", "idle", "7"}, "<conn 0:0 0:0 id=7 peer=-1 type=0 active=0 last=0>\n", 0},
        {{"peer", "none", "3"}, "<peer mac=any ip=0 no=3 ctx=-1 type=0>\n", 0},
        // The whole keyword is needed.
        {{"nac"}, "", 0},
        {{""}, "", 0},
        {{"peer", ""}, "Invalid peer argument: \n" + usage, 1},
        // An unknown word prints nothing.
        {{"unknown"}, "", 0},
        // Filters of "peer"
        {{"peer"}, "<peer mac=any ip=0 no=-1 ctx=-1 type=0>\n", 0},
        {{"peer", "no", "12"}, "<peer mac=any ip=0 no=12 ctx=-1 type=0>\n", 0},
        {{"peer", "ctx-id", "65535"}, "<peer mac=any ip=0 no=-1 ctx=65535 type=0>\n", 0},
        {{"peer", "ip", "192.0.2.7"}, "<peer mac=any ip=c0000207 no=-1 ctx=-1 type=0>\n", 0},
        {{"peer", "mac-id", "00:11:22:AA:bb:cc"}, "<peer mac=00:11:22:aa:bb:cc ip=0 no=-1 ctx=-1 type=0>\n", 0},
        {{"peer", "detail"}, "<peer mac=any ip=0 no=-1 ctx=-1 type=1>\n", 0},
        {{"peer", "nack"}, "<peer mac=any ip=0 no=-1 ctx=-1 type=2>\n", 0},
        // The last of repeated keywords counts.
        {{"peer", "detail", "no", "1", "nack", "no", "2"}, "<peer mac=any ip=0 no=2 ctx=-1 type=2>\n", 0},
        {{"peer", "nack", "detail"}, "<peer mac=any ip=0 no=-1 ctx=-1 type=1>\n", 0},
        // An invalid MAC address is printed up to the length of a MAC address.
        {{"peer", "mac-id", "00:11:22:33:44:zz:66"}, "invalid mac-id format: 00:11:22:33:44:zz\n" + usage, 1},
        // Numbers are narrowed to their low 32 bits.
        {{"peer", "no", "4294967297"}, "<peer mac=any ip=0 no=1 ctx=-1 type=0>\n", 0},
        {{"peer", "no", "99999999999999999999"}, "<peer mac=any ip=0 no=-1 ctx=-1 type=0>\n", 0},
        {{"peer", "no", "-99999999999999999999"}, "<peer mac=any ip=0 no=0 ctx=-1 type=0>\n", 0},
        {{"peer", "no", " 12x"}, "<peer mac=any ip=0 no=12 ctx=-1 type=0>\n", 0},
        {{"peer", "ctx-id", "word"}, "<peer mac=any ip=0 no=-1 ctx=0 type=0>\n", 0},
        // The next argument is always the value.
        {{"peer", "no", "detail"}, "<peer mac=any ip=0 no=0 ctx=-1 type=0>\n", 0},
        // Unknown words, and invalid host addresses. The latter do not print the usage.
        {{"peer", "detail", "Nack"}, "Invalid peer argument: Nack\n" + usage, 1},
        {{"peer", "ip", "127.0.0.1"}, "Invalid host address 127.0.0.1.\n", 1},
        // Filters of "conn"
        {{"conn"}, "<conn 0:0 0:0 id=-1 peer=-1 type=0 active=0 last=0>\n", 0},
        {{"conn", "client-ip", "192.0.2.1", "client-port", "1024", "server-ip", "198.51.100.2", "server-port", "443"},
         "<conn c0000201:1024 c6336402:443 id=-1 peer=-1 type=0 active=0 last=0>\n",
         0},
        {{"conn", "id", "5", "peer-no", "6", "detail", "active", "last"},
         "<conn 0:0 0:0 id=5 peer=6 type=1 active=1 last=1>\n",
         0},
        {{"conn", "nack"}, "<conn 0:0 0:0 id=-1 peer=-1 type=2 active=0 last=0>\n", 0},
        // Ports are narrowed to 16 bits.
        {{"conn", "client-port", "70000"}, "<conn 0:4464 0:0 id=-1 peer=-1 type=0 active=0 last=0>\n", 0},
        {{"conn", "server-port", "-1"}, "<conn 0:0 0:65535 id=-1 peer=-1 type=0 active=0 last=0>\n", 0},
        {{"connection", "", "", "", "", "client-port", "1bb"},
         "<conn 0:443 0:0 id=-1 peer=-1 type=0 active=0 last=0>\n",
         0},
        // Unknown words, and invalid host addresses. Both print the usage.
        {{"conn", "port"}, "Invalid conn argument: port\n" + usage, 1},
        {{"conn", "client-ip", "224.0.0.1"}, "Invalid host address 224.0.0.1.\n" + usage, 1},
        {{"conn", "server-ip", "224.0.0.1"}, "Invalid host address 224.0.0.1.\n" + usage, 1},
        // "connection" reads arguments by their positions. Numbers are hexadecimal.
        {{"connection"}, "<conn 0:0 0:0 id=-1 peer=-1 type=0 active=0 last=0>\n", 0},
        {{"connection", "client-ip", "c0000201", "server-ip", "c6336402", "client-port", "400", "server-port", "1bb",
          "detail", "active", "last", "peer-no", "1f"},
         "<conn c0000201:1024 c6336402:443 id=-1 peer=31 type=1 active=1 last=1>\n",
         0},
        {{"connection", "id", "ff", "-", "-", "-", "-", "-", "-", "nack", "-", "-", "-", "-"},
         "<conn 0:0 0:0 id=255 peer=-1 type=2 active=0 last=0>\n",
         0},
        {{"connections", "id", "7f"}, "<conn 0:0 0:0 id=127 peer=-1 type=0 active=0 last=0>\n", 0},
        // Words in the wrong position are ignored.
        {{"connection", "detail", "active", "id", "5", "nack"},
         "<conn 0:0 0:0 id=-1 peer=-1 type=0 active=0 last=0>\n",
         0},
        // Its errors do not print the usage.
        {{"connection", "client-ip"}, "parameter to client-ip is NULL\n", 1},
        {{"connection", "idle"}, "parameter to idle is NULL\n", 1},
        {{"connection", "-", "-", "server-ip"}, "parameter to server-ip is NULL\n", 1},
        {{"connection", "-", "-", "-", "-", "client-port"}, "parameter to client-port is NULL\n", 1},
        {{"connection", "-", "-", "-", "-", "-", "-", "server-port"}, "parameter to server-port is NULL\n", 1},
        {{"connection", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "peer-no"},
         "parameter to peer-no is NULL\n",
         1},
        // The peer number is checked before the server address.
        {{"connection", "-", "-", "server-ip", "0", "-", "-", "-", "-", "-", "-", "-", "peer-no"},
         "parameter to peer-no is NULL\n",
         1},
        {{"connection", "client-ip", "0"}, "Invalid host address 0.0.0.0.\n", 1},
        {{"connection", "-", "-", "server-ip", "zero"}, "Invalid host address 0.0.0.0.\n", 1},
        // Arguments of "top-app". Unknown words are ignored.
        {{"top-app"}, "<top-app file='' peer='' detail=0 top=0>\n", 0},
        {{"top-app", "detail", "top", "5", "from-file", "/tmp/log", "peer", "4711"},
         "<top-app file='/tmp/log' peer='4711' detail=1 top=5>\n",
         0},
        {{"top-app", "top", "-3"}, "<top-app file='' peer='' detail=0 top=-3>\n", 0},
        {{"top-app", "whatever", "top", "5"}, "<top-app file='' peer='' detail=0 top=5>\n", 0},
        // A missing value is reported with the whole keyword, without the usage.
        {{"top-app", "top"}, "parameter to top is NULL\n", 1},
        {{"top-app", "topmost"}, "parameter to top is NULL\n", 1},
        {{"top-app", "detail", "from-file"}, "parameter to from-file is NULL\n", 1},
        {{"top-app", "peer"}, "parameter to peer is NULL\n", 1},
        // The last of repeated values counts.
        {{"top-app", "from-file", "a-long-name", "from-file", "b", "peer", "12345", "peer", "6", "top", "1", "top",
          "2"},
         "<top-app file='b' peer='6' detail=0 top=2>\n",
         0},
        {{"top-app", "from-file", "name", "from-file", ""}, "<top-app file='' peer='' detail=0 top=0>\n", 0},
        // Long values are truncated.
        {{"top-app", "from-file", std::string(5000, 'f'), "peer", std::string(5000, 'p')},
         "<top-app file='" + std::string(1023, 'f') + "' peer='" + std::string(255, 'p') + "' detail=0 top=0>\n",
         0},
    };
    for (const auto& [words, text, expected_status] : cases) {
        expect(words, text, expected_status);
    }
}

TEST_F(command_line, fails_on_every_word_when_the_engine_does_not_run)
{
    open_result = -3;
    for (const char* word : {"unknown", "nack", "peer", "save-file", "conn", "top-app"}) {
        expect({word}, "KAV Statistics failed OR KAV was not initialized by WEQ", 1);
    }
}

TEST_F(command_line, refuses_a_live_reader_that_opens_with_a_positive_number)
{
    open_result = 1;
    expect({"nack"}, "KAV Statistics failed OR KAV was not initialized by WEQ", 1);
}

TEST_F(command_line, tells_when_no_live_reader_can_be_made)
{
    fake_engine::create = nullptr;
    run({"nack"});
    EXPECT_EQ(printed, "Reader object not initialized\n");
    EXPECT_EQ(status, 1);
}

TEST_F(command_line, makes_a_live_reader_without_a_path)
{
    run({"nack"});
    EXPECT_EQ(created, std::vector<std::string>{"0 null"});
}

// Saved files.

TEST_F(command_line, reads_a_saved_file_without_touching_live_statistics)
{
    expect({"read-file", "stats.bin", "ignored"},
           "-------------------- kav global-detail\n<global 1>\n-------------------- kav peer-detail\n"
           "<peer mac=any ip=0 no=-1 ctx=-1 type=1>\n",
           0);
    EXPECT_EQ(created, std::vector<std::string>{"1 stats.bin"});
}

TEST_F(command_line, accepts_a_file_reader_that_opens_with_a_positive_number)
{
    open_result = 5;
    run({"read-files", "stats.bin"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(printed.substr(0, 39), "-------------------- kav global-detail\n");
}

TEST_F(command_line, tells_the_error_code_of_an_unreadable_file)
{
    open_result = -14;
    expect({"read-file", "bad.bin"}, "KAV Statistics Reader: failed to read file bad.bin, error code: -14\n", 1);
}

TEST_F(command_line, tells_when_no_file_reader_can_be_made)
{
    fake_engine::create = nullptr;
    run({"read-file", "x"});
    EXPECT_EQ(printed, "KAV Statistics Reader: object not initialized\n");
    EXPECT_EQ(status, 1);
}

TEST_F(command_line, wants_a_path_for_read_file)
{
    run({"read-file"});
    EXPECT_EQ(printed, usage);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(created.empty());
}

TEST_F(command_line, wants_a_path_for_save_file)
{
    expect({"save-file"}, usage, 1);
    EXPECT_EQ(calls, std::vector<std::string>{"open"});
}

TEST_F(command_line, saves_without_a_word)
{
    expect({"save-file", "out.bin"}, "", 0);
    EXPECT_EQ(calls, (std::vector<std::string>{"open", "save_stats_binary out.bin"}));
}

TEST_F(command_line, takes_a_positive_result_of_saving_for_success)
{
    save_result = 7;
    expect({"save-file", "out.bin"}, "", 0);
}

TEST_F(command_line, tells_the_error_code_of_a_failed_save)
{
    save_result = -25;
    expect({"save-file", "out.bin"}, "KAV Statistics Reader: failed to write file out.bin, error code: -25\n", 1);
}

TEST_F(command_line, cuts_a_mac_id_to_seventeen_characters)
{
    expect({"peer", "mac-id", "00:11:22:33:44:55:66"}, "<peer mac=00:11:22:33:44:55 ip=0 no=-1 ctx=-1 type=0>\n", 0);
    EXPECT_TRUE(fake_engine::log.empty());
}

TEST_F(command_line, refuses_a_short_mac_id)
{
    expect({"peer", "mac-id", "0:1:2:3:4:5"}, "invalid mac-id format: 0:1:2:3:4:5\n" + usage, 1);
    ASSERT_EQ(fake_engine::log.size(), 1U);
    EXPECT_EQ(fake_engine::log[0], (fake_log_message{"comp/TCP/include/RE_context_id", 86, 1, 3, 690410,
                                                     "Invalid MAC address: Invalid mac id string:0:1:2:3:4:5"}));
}

TEST_F(command_line, tells_a_missing_peer_value_with_the_keyword_as_typed)
{
    for (const char* keyword : {"no", "none", "mac-id", "ctx-ident", "ip"}) {
        expect({"peer", "detail", keyword}, std::string("parameter to ") + keyword + " is NULL\n" + usage, 1);
    }
}

TEST_F(command_line, tells_a_missing_connection_value)
{
    for (const char* keyword : {"client-ip", "id", "peer-no", "server-ip", "client-port", "server-port"}) {
        expect({"conn", keyword}, std::string("parameter to ") + keyword + " is NULL\n" + usage, 1);
    }
}

// Debug traces of addresses.

TEST_F(command_line, traces_addresses_only_when_the_debug_bit_is_set)
{
    run({"peer", "ip", "192.0.2.7"});
    EXPECT_TRUE(fake_engine::log.empty());
    fake_engine::global_debug_flags = 0xf7;
    run({"peer", "ip", "192.0.2.7"});
    EXPECT_TRUE(fake_engine::log.empty());
    fake_engine::per_conn_debug_flags = 8;
    run({"peer", "ip", "192.0.2.7"});
    ASSERT_EQ(fake_engine::log.size(), 1U);
    EXPECT_EQ(fake_engine::log[0],
              (fake_log_message{"comp/TCP/cli/RE_exec_show_stats_kav", 1979, 8, 7, 690406,
                                "argv[g+1]=192.0.2.7, translate into c0000207, ip_string to 192.0.2.7\n"}));
}

TEST_F(command_line, traces_each_address_under_its_own_line)
{
    fake_engine::global_debug_flags = 8;
    run({"conn", "client-ip", "192.0.2.1", "server-ip", "192.0.2.2"});
    run({"connection", "client-ip", "c0000203", "server-ip", "c0000204"});
    const std::string file = "comp/TCP/cli/RE_exec_show_stats_kav";
    EXPECT_EQ(fake_engine::log,
              (std::vector<fake_log_message>{
                  {file, 2173, 8, 7, 690406, "argv[g+1]=192.0.2.1, translate into c0000201, ip_string to 192.0.2.1\n"},
                  {file, 2213, 8, 7, 690406, "argv[g+1]=192.0.2.2, translate into c0000202, ip_string to 192.0.2.2\n"},
                  {file, 2059, 8, 7, 690406, "argv[3]=c0000203, translate into c0000203, ip_string to 192.0.2.3\n"},
                  {file, 2094, 8, 7, 690406, "argv[5]=c0000204, translate into c0000204, ip_string to 192.0.2.4\n"}}));
}

TEST_F(command_line, fails_when_the_report_cannot_be_written)
{
    std::fflush(stdout);
    const int saved = dup(1);
    ASSERT_NE(std::freopen("/dev/full", "w", stdout), nullptr);
    std::vector<std::string> words = {"exec_show_stats_kav", "nack"};
    char* argv[] = {words[0].data(), words[1].data(), nullptr};
    EXPECT_EQ(exec_show_stats_kav(2, argv), 1);
    EXPECT_EQ(deleted, 1);
    std::clearerr(stdout);
    dup2(saved, 1);
    close(saved);
}

} // namespace
