// The engine's configuration, its auto-bypass table and the support bundle.
#include "RE_config_view.h"
#include "cli/fake_system_calls.h"
#include "support/fake_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

// A failed allocation returns null, as it does without the sanitizer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace {

const std::string brief = "\nKAV configuration:\n"
                          "  Mac-id: 00:1a:b2:03:ff:10\n"
                          "  KAV-peer-id: 00:01:02:03:04:05-060708090a0b-0c0d0e0f\n"
                          "  Max concurrent connections: 1000, max fan-out: 50\n"
                          "  KAV auto bypass fifo threshold 25 MB\n";
const std::string banner = "\n<---------------- re_cfg.txt start here--------------------->\n";

class config_view : public view_test
{
protected:
    std::filesystem::path folder;

    void SetUp() override
    {
        char name[] = "/tmp/config_view_XXXXXX";
        folder = mkdtemp(name);
        RE_stat_config_param cfg{};
        const unsigned char mac[] = {0x00, 0x1a, 0xb2, 0x03, 0xff, 0x10};
        std::memcpy(cfg.m_own_mac_id.m_data, mac, sizeof mac);
        for (unsigned char at = 0; at < 16; ++at) {
            cfg.m_local_kav_peer_id.m_data[at] = at;
        }
        cfg.m_max_con_cur_connection = 1000;
        cfg.m_max_fan_out = 50;
        cfg.m_kav_auto_bypass_threshold = 25;
        reader.config = cfg;
        show_file(folder / "missing");
    }
    void TearDown() override
    {
        fake_system_calls::reset();
        std::filesystem::remove_all(folder);
    }

    RE_stat_config_param& cfg() { return *reader.config; }

    // Replaces the engine's configuration file by `path`.
    void show_file(const std::filesystem::path& path)
    {
        fake_system_calls::open = [this, path](const char* asked, int flags) {
            EXPECT_STREQ(asked, "/sw/vantero/config/re_cfg.txt");
            m_open_flags = flags;
            m_fd = fake_system_calls::real_open(path.c_str(), flags);
            return m_fd;
        };
    }
    void show_file_with(const std::string& content)
    {
        const std::filesystem::path path = folder / "re_cfg.txt";
        std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
        show_file(path);
    }

    static std::string config(bool b_detail)
    {
        return output_of([b_detail] { show_config(b_detail); });
    }
    // Returns the text after the banner of the configuration file.
    std::string file_part()
    {
        const std::string output = config(true);
        const std::size_t at = output.find(banner);
        EXPECT_NE(at, std::string::npos);
        if (m_fd >= 0) {
            EXPECT_EQ(fcntl(m_fd, F_GETFD), -1) << "the file stayed open";
        }
        return at == std::string::npos ? "" : output.substr(at + banner.size());
    }
    // Returns the line of the detailed configuration that starts with `start`.
    std::string line(const std::string& start)
    {
        const std::string output = config(true);
        const std::size_t at = output.find("\n" + start);
        return at == std::string::npos ? "" : output.substr(at + 1, output.find('\n', at + 1) - at - 1);
    }

    int m_open_flags = 0;
    int m_fd = -1;
};

} // namespace

TEST_F(config_view, prints_nothing_without_a_configuration)
{
    reader.config.reset();
    EXPECT_EQ(config(false), "");
    EXPECT_EQ(config(true), "");
}

TEST_F(config_view, is_exactly_the_heading_and_four_lines_in_brief)
{
    show_file_with("secret");
    EXPECT_EQ(config(false), brief);
    EXPECT_EQ(m_fd, -1);
}

TEST_F(config_view, prints_every_line_of_the_detail_in_order)
{
    cfg().m_b_rep_accl_mode = true;
    cfg().m_comp_type = 3;
    cfg().m_worker_threads_num = 1;
    cfg().m_cache_data_version = 2;
    cfg().m_total_kav_diskspace_in_MB = 3;
    cfg().m_total_kav_memory_in_MB = 4;
    cfg().m_hash_table_memory_in_MB = 5;
    cfg().m_PLZ_memory_in_MB = 6;
    cfg().m_PLZ_buffer_q_size = 7;
    cfg().m_plz_high_watermark = 8;
    cfg().m_plz_low_watermark = 9;
    cfg().m_total_WEQ_buffer_size_in_MB = 10;
    cfg().m_ack_q_WEQ_cap_in_MB = 11;
    cfg().m_ack_q_disk_cap_in_MB = 12;
    cfg().m_wait_q_cap_in_MB = 13;
    cfg().m_max_data_unit_num = 14;
    cfg().m_sig_read_pool_size = 15;
    cfg().m_data_read_pool_size = 16;
    cfg().m_anchor_distance = 17;
    cfg().m_section_size = 18;
    cfg().m_avg_chunk_size = 19;
    cfg().m_min_chunk_size = 20;
    cfg().m_b_partial_lookup_on = true;
    cfg().m_write_tshld = 65535;
    cfg().m_cold_pass_tshld = 22;
    std::strcpy(cfg().m_lz_algorithm, "zlib");
    cfg().m_lz_adaptive = true;
    cfg().m_lz_comprsLevel = -1;
    cfg().m_lz_adaptive_thres = 24;
    cfg().m_lz_adaptive_use_entropy = true;
    cfg().m_b_plz_enabled = true;
    cfg().m_big_msg_checksum = true;
    cfg().m_iov_block_size = INT_MIN;
    show_file_with("a = 1\nb = 2\n");
    EXPECT_EQ(config(true), brief + "  Replication-accelerator mode: ON\n"
                                    "  Comp-Type: KAV + LZ\n"
                                    "  WEQ working thread number: 1 \n"
                                    "  KAV cache data version: 2\n"
                                    "  Total KAV cache diskspace: 3 MB\n"
                                    "  Total KAV cache memory: 4 MB, hash table memory: 5 MB\n"
                                    "  PLZ memory: 6 MB, PLZ buffer queue size: 7\n"
                                    "  PLZ high-watermark=8, low-watermark=9\n"
                                    "  Total WEQ buffer size: 10 MB\n"
                                    "  ACK WEQ buffer queue cap: 11 MB, ACK queue diskspace cap: 12 MB\n"
                                    "  Wait queue cap: 13 MB\n"
                                    "  Max data-unit number: 14\n"
                                    "  Sign-block read pool size: 15, data-segment read pool size: 16\n"
                                    "  Default anchor distance: 17\n"
                                    "  Default section size: 18\n"
                                    "  Default average chunk size: 19, default min chunk size: 20\n"
                                    "  Range lookup parameteres:\n"
                                    "  \tPartial lookup: ON\n"
                                    "  \tWrite threshold: 65535, Cold pass threshold: 22\n"
                                    "  LZ algorithm: zlib, adaptive LZ: on\n"
                                    "  LZ compression level: -1\n"
                                    "  Adaptive threshold: 24, adaptive LZ use entropy: on\n"
                                    "  PLZ enabled: Yes\n"
                                    "  Big message checksum: on\n"
                                    "  Buffer block_size: -2147483648\n"
                                    "\n<---------------- re_cfg.txt start here--------------------->\n"
                                    "a = 1\nb = 2\n");
}

TEST_F(config_view, has_its_own_words_for_what_is_off)
{
    EXPECT_EQ(line("  Replication-accelerator"), "  Replication-accelerator mode: OFF");
    EXPECT_EQ(line("  \tPartial"), "  \tPartial lookup: OFF");
    EXPECT_EQ(line("  LZ algorithm"), "  LZ algorithm: , adaptive LZ: off");
    EXPECT_EQ(line("  Adaptive threshold"), "  Adaptive threshold: 0, adaptive LZ use entropy: off");
    EXPECT_EQ(line("  PLZ enabled"), "  PLZ enabled: No");
    EXPECT_EQ(line("  Big message"), "  Big message checksum: off");
}

TEST_F(config_view, takes_any_byte_but_0_for_a_flag_that_is_set)
{
    const std::size_t flags[] = {22, 120, 176, 184, 185, 196};
    for (const std::size_t offset : flags) {
        reinterpret_cast<unsigned char*>(&cfg())[offset] = 0x82;
    }
    EXPECT_EQ(line("  Replication-accelerator"), "  Replication-accelerator mode: ON");
    EXPECT_EQ(line("  \tPartial"), "  \tPartial lookup: ON");
    EXPECT_EQ(line("  LZ algorithm"), "  LZ algorithm: , adaptive LZ: on");
    EXPECT_EQ(line("  Adaptive threshold"), "  Adaptive threshold: 0, adaptive LZ use entropy: on");
    EXPECT_EQ(line("  PLZ enabled"), "  PLZ enabled: Yes");
    EXPECT_EQ(line("  Big message"), "  Big message checksum: on");
}

TEST_F(config_view, has_a_word_for_each_compression_type_and_calls_the_rest_invalid)
{
    const std::vector<std::pair<int, std::string>> words = {
        {0, "INVALID"}, {1, "KAV-ONLY"}, {2, "LZ-ONLY"},       {3, "KAV + LZ"},      {4, "None"},
        {5, "INVALID"}, {-1, "INVALID"}, {INT_MAX, "INVALID"}, {INT_MIN, "INVALID"},
    };
    for (const auto& [type, word] : words) {
        cfg().m_comp_type = type;
        EXPECT_EQ(line("  Comp-Type"), "  Comp-Type: " + word);
    }
}

TEST_F(config_view, ends_an_algorithm_without_a_nul_at_its_arrays_end)
{
    std::memset(cfg().m_lz_algorithm, 'z', sizeof cfg().m_lz_algorithm);
    cfg().m_lz_min_msg_size = 0x7a7a7a7a; // the bytes after the name are 'z' as well
    EXPECT_EQ(line("  LZ algorithm"), "  LZ algorithm: " + std::string(32, 'z') + ", adaptive LZ: off");
}

TEST_F(config_view, says_that_a_missing_file_could_not_be_opened)
{
    EXPECT_EQ(file_part(), " Config file open failed \n");
}

TEST_F(config_view, says_that_a_file_without_permission_could_not_be_opened)
{
    fake_system_calls::open = [](const char*, int) {
        errno = EACCES;
        return -1;
    };
    EXPECT_EQ(file_part(), " Config file open failed \n");
}

// When the viewer was started without standard input, open returns descriptor 0.
TEST_F(config_view, shows_a_file_that_got_descriptor_0)
{
    const int standard_input = dup(STDIN_FILENO);
    fake_system_calls::open = [](const char*, int) { return STDIN_FILENO; };
    fake_system_calls::fstat = [](int, struct stat* status) {
        status->st_size = 4;
        return 0;
    };
    fake_system_calls::read = [](int fd, void* buffer, std::size_t size) -> ssize_t {
        EXPECT_EQ(fd, STDIN_FILENO);
        EXPECT_EQ(size, 4);
        std::memcpy(buffer, "x=1\n", 4);
        return 4;
    };
    EXPECT_EQ(file_part(), "x=1\n");
    if (standard_input >= 0) {
        dup2(standard_input, STDIN_FILENO);
        close(standard_input);
    }
}

TEST_F(config_view, opens_the_file_so_that_nothing_waits_and_nothing_inherits_it)
{
    show_file_with("");
    file_part();
    EXPECT_EQ(m_open_flags, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

TEST_F(config_view, prints_the_banner_alone_for_an_empty_file)
{
    show_file_with("");
    EXPECT_EQ(file_part(), "");
}

TEST_F(config_view, prints_the_files_bytes_as_they_are)
{
    for (const std::string& content : {std::string("no newline at the end"), std::string("100%s %n %d %%\n"),
                                       std::string("a\0b\0\0c\n", 7), std::string("\xff\x80\r\n")}) {
        show_file_with(content);
        EXPECT_EQ(file_part(), content);
    }
}

TEST_F(config_view, prints_a_large_file_with_one_read)
{
    std::string content;
    for (int line = 0; line < 300000; ++line) {
        content += "setting_" + std::to_string(line) + " = 1\n";
    }
    show_file_with(content);
    fake_system_calls::reads = 0;
    fake_system_calls::read = [size = content.size()](int fd, void* buffer, std::size_t asked) {
        EXPECT_EQ(asked, size);
        return fake_system_calls::real_read(fd, buffer, asked);
    };
    std::string printed;
    {
        testing::internal::CaptureStdout();
        show_config(true);
        std::fflush(stdout);
        EXPECT_EQ(fake_system_calls::reads, 1);
        fake_system_calls::read = nullptr;
        printed = testing::internal::GetCapturedStdout();
    }
    EXPECT_TRUE(printed.ends_with(banner + content));
}

TEST_F(config_view, prints_what_is_no_configuration_in_pieces)
{
    constexpr std::size_t size = (40U << 20U) + 7;
    show_file_with(std::string(size, 'x'));
    fake_system_calls::read = [](int fd, void* buffer, std::size_t asked) {
        EXPECT_LE(asked, 16U << 20U);
        return fake_system_calls::real_read(fd, buffer, asked);
    };
    testing::internal::CaptureStdout();
    show_config(true);
    std::fflush(stdout);
    fake_system_calls::read = nullptr;
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(printed.ends_with(banner + std::string(size, 'x')));
}

TEST_F(config_view, prints_what_a_short_read_gives)
{
    show_file_with("0123456789");
    fake_system_calls::read = [this](int fd, void* buffer, std::size_t size) {
        return fake_system_calls::real_read(fd, buffer, fd == m_fd ? 4 : size);
    };
    EXPECT_EQ(file_part(), "0123");
}

TEST_F(config_view, prints_nothing_of_a_file_whose_read_fails)
{
    show_file_with("0123456789");
    fake_system_calls::read = [this](int fd, void* buffer, std::size_t size) -> ssize_t {
        if (fd == m_fd) {
            errno = EIO;
            return -1;
        }
        return fake_system_calls::real_read(fd, buffer, size);
    };
    EXPECT_EQ(file_part(), "");
}

TEST_F(config_view, prints_nothing_of_a_folder)
{
    show_file(folder);
    EXPECT_EQ(file_part(), "");
}

TEST_F(config_view, never_waits_for_the_writer_of_a_fifo)
{
    const std::filesystem::path fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    show_file(fifo);
    EXPECT_EQ(file_part(), "");
}

TEST_F(config_view, says_nothing_when_the_files_size_cannot_be_had)
{
    show_file_with("0123456789");
    fake_system_calls::fstat = [this](int fd, struct stat* status) {
        return fd == m_fd ? -1 : fake_system_calls::real_fstat(fd, status);
    };
    EXPECT_EQ(file_part(), "");
}

TEST_F(config_view, says_how_much_memory_could_not_be_had)
{
    show_file_with("0123456789");
    fake_system_calls::fstat = [this](int fd, struct stat* status) {
        const int result = fake_system_calls::real_fstat(fd, status);
        if (fd == m_fd) {
            status->st_size = LONG_MAX;
        }
        return result;
    };
    EXPECT_EQ(file_part(), " malloc failure for config file open: 9223372036854775807\n");
}

TEST_F(config_view, prints_the_bypass_table_in_the_librarys_form)
{
    EXPECT_EQ(output_of([] { show_kav_bypass(false); }), "auto-bypass table at null, summary\n");
    char memory[1];
    reader.bypass_memory = memory;
    EXPECT_EQ(output_of([] { show_kav_bypass(true); }), "auto-bypass table at memory, detail\n");
}

TEST_F(config_view, passes_the_bypass_tables_size_on_as_a_signed_number)
{
    fake_engine::bypass_size = 4096;
    output_of([] { show_kav_bypass(false); });
    fake_engine::bypass_size = -1;
    output_of([] { show_kav_bypass(false); });
    EXPECT_EQ(reader.calls,
              (std::vector<std::string>{"get_re_auto_bypass_memory_ptr 4096", "get_re_auto_bypass_memory_ptr -1"}));
}

TEST_F(config_view, bundles_brief_configuration_nack_log_and_bypass_table_for_support)
{
    show_file_with("secret");
    reader.nacks = {{0, 1, 7, 5, 1, 10}};
    EXPECT_EQ(output_of(show_tech_support),
              "\n ------------ KAV configuration parameters ------------------\n" + brief +
                  "\n ------------ KAV Nack detail statistics ------------------\n"
                  "\nTime                  Peer-No  Conn-ID     Msg-No Type Reason\n"
                  "-------------------------------------------------------------------------------\n"
                  "01/01/1970 00:00:00         5        1         10 R-Tx Unknown\n"
                  "\n------------- KAV auto bypass table -----------------------\n"
                  "auto-bypass table at null, detail\n");
    EXPECT_EQ(m_fd, -1);
}

TEST_F(config_view, keeps_the_bundles_banners_without_a_configuration)
{
    reader.config.reset();
    EXPECT_EQ(output_of(show_tech_support), "\n ------------ KAV configuration parameters ------------------\n"
                                            "\n ------------ KAV Nack detail statistics ------------------\n"
                                            "\nTime                  Peer-No  Conn-ID     Msg-No Type Reason\n"
                                            "---------------------------------------------------------------------"
                                            "----------\n"
                                            "\n------------- KAV auto bypass table -----------------------\n"
                                            "auto-bypass table at null, detail\n");
}
