#include "RE_config_view.h"

#include "RE_auto_bypass.h"
#include "RE_nack_view.h"
#include "RE_record_flag.h"
#include "RE_viewer_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr const char* config_file_path = "/sw/vantero/config/re_cfg.txt";

const char* comp_type_word(int comp_type)
{
    static constexpr const char* words[] = {"INVALID", "KAV-ONLY", "LZ-ONLY", "KAV + LZ", "None"};
    constexpr int count = sizeof words / sizeof words[0];
    return words[comp_type >= 0 && comp_type < count ? comp_type : 0];
}

void print_brief_config(const RE_stat_config_param& cfg)
{
    std::puts("\nKAV configuration:");
    std::printf("  Mac-id: %s\n", RE_mac_id(cfg.m_own_mac_id).getString().c_str());
    std::printf("  KAV-peer-id: %s\n", RE_kav_peer_id(cfg.m_local_kav_peer_id).getString().c_str());
    std::printf("  Max concurrent connections: %d, max fan-out: %d\n", cfg.m_max_con_cur_connection, cfg.m_max_fan_out);
    std::printf("  KAV auto bypass fifo threshold %d MB\n", cfg.m_kav_auto_bypass_threshold);
}

// The words for true and false differ from line to line, and one line ends in a blank. Scripts rely on both.
void print_detailed_config(const RE_stat_config_param& cfg)
{
    std::printf("  Replication-accelerator mode: %s\n", is_set(cfg.m_b_rep_accl_mode) ? "ON" : "OFF");
    std::printf("  Comp-Type: %s\n", comp_type_word(cfg.m_comp_type));
    std::printf("  WEQ working thread number: %d \n", cfg.m_worker_threads_num);
    std::printf("  KAV cache data version: %d\n", cfg.m_cache_data_version);
    std::printf("  Total KAV cache diskspace: %d MB\n", cfg.m_total_kav_diskspace_in_MB);
    std::printf("  Total KAV cache memory: %d MB, hash table memory: %d MB\n", cfg.m_total_kav_memory_in_MB,
                cfg.m_hash_table_memory_in_MB);
    std::printf("  PLZ memory: %d MB, PLZ buffer queue size: %d\n", cfg.m_PLZ_memory_in_MB, cfg.m_PLZ_buffer_q_size);
    std::printf("  PLZ high-watermark=%d, low-watermark=%d\n", cfg.m_plz_high_watermark, cfg.m_plz_low_watermark);
    std::printf("  Total WEQ buffer size: %d MB\n", cfg.m_total_WEQ_buffer_size_in_MB);
    std::printf("  ACK WEQ buffer queue cap: %d MB, ACK queue diskspace cap: %d MB\n", cfg.m_ack_q_WEQ_cap_in_MB,
                cfg.m_ack_q_disk_cap_in_MB);
    std::printf("  Wait queue cap: %d MB\n", cfg.m_wait_q_cap_in_MB);
    std::printf("  Max data-unit number: %d\n", cfg.m_max_data_unit_num);
    std::printf("  Sign-block read pool size: %d, data-segment read pool size: %d\n", cfg.m_sig_read_pool_size,
                cfg.m_data_read_pool_size);
    std::printf("  Default anchor distance: %d\n", cfg.m_anchor_distance);
    std::printf("  Default section size: %d\n", cfg.m_section_size);
    std::printf("  Default average chunk size: %d, default min chunk size: %d\n", cfg.m_avg_chunk_size,
                cfg.m_min_chunk_size);
    std::puts("  Range lookup parameteres:"); // misspelt, but scripts rely on this spelling
    std::printf("  \tPartial lookup: %s\n", is_set(cfg.m_b_partial_lookup_on) ? "ON" : "OFF");
    std::printf("  \tWrite threshold: %u, Cold pass threshold: %u\n", cfg.m_write_tshld, cfg.m_cold_pass_tshld);
    std::printf("  LZ algorithm: %.*s, adaptive LZ: %s\n", static_cast<int>(sizeof cfg.m_lz_algorithm),
                cfg.m_lz_algorithm, is_set(cfg.m_lz_adaptive) ? "on" : "off");
    std::printf("  LZ compression level: %d\n", cfg.m_lz_comprsLevel);
    std::printf("  Adaptive threshold: %d, adaptive LZ use entropy: %s\n", cfg.m_lz_adaptive_thres,
                is_set(cfg.m_lz_adaptive_use_entropy) ? "on" : "off");
    std::printf("  PLZ enabled: %s\n", is_set(cfg.m_b_plz_enabled) ? "Yes" : "No");
    std::printf("  Big message checksum: %s\n", is_set(cfg.m_big_msg_checksum) ? "on" : "off");
    std::printf("  Buffer block_size: %d\n", cfg.m_iov_block_size);
}

// Prints what one read returns for the file's size: less if the file is truncated in the meantime or cannot be read.
// Only a file that is too large to be a configuration is read in several pieces. The buffer is allocated for the whole
// file, as the error message says, but only the size of one piece is ever used.
void print_open_file(int fd)
{
    constexpr std::size_t most_in_a_read = 0x7ffff000; // the system's limit for one read; no more is ever printed
    constexpr std::size_t piece = 16 << 20;            // larger than any configuration
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    // One byte more than the file, because malloc(0) may return null without a failure.
    const std::unique_ptr<char, decltype(&std::free)> buffer(static_cast<char*>(std::malloc(size + 1)), &std::free);
    if (!buffer) {
        std::printf(" malloc failure for config file open: %ld\n", static_cast<long>(status.st_size));
        return;
    }
    for (std::size_t left = std::min(size, most_in_a_read); left > 0;) {
        const std::size_t wanted = std::min(left, piece);
        const ssize_t length = read(fd, buffer.get(), wanted);
        if (length > 0) {
            std::fwrite(buffer.get(), 1, static_cast<std::size_t>(length), stdout);
        }
        if (length != static_cast<ssize_t>(wanted) || std::ferror(stdout) != 0) {
            return;
        }
        left -= wanted;
    }
}

// Prints the file as it is on disk, including NUL bytes.
void print_config_file()
{
    std::puts("\n<---------------- re_cfg.txt start here--------------------->");
    // Without O_NONBLOCK, opening a FIFO in the file's place would block until it has a writer.
    const int fd = open(config_file_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        std::puts(" Config file open failed ");
        return;
    }
    print_open_file(fd);
    close(fd);
}

} // namespace

void show_config(bool b_show_detail)
{
    const RE_stat_config_param* const cfg = p_statReader->get_config_param();
    if (cfg == nullptr) {
        return;
    }
    print_brief_config(*cfg);
    if (b_show_detail) {
        print_detailed_config(*cfg);
        print_config_file();
    }
}

void show_kav_bypass(bool b_show_detail)
{
    const auto size = static_cast<int>(RE_auto_bypass::get_shm_size());
    void* const mem = p_statReader->get_re_auto_bypass_memory_ptr(size);
    RE_auto_bypass::show_tables(mem, b_show_detail);
}

// The first two banners begin with a blank and the third does not. Scripts rely on this.
void show_tech_support()
{
    std::puts("\n ------------ KAV configuration parameters ------------------");
    show_config(false);
    std::puts("\n ------------ KAV Nack detail statistics ------------------");
    show_nack_info(-1, -1);
    std::puts("\n------------- KAV auto bypass table -----------------------");
    show_kav_bypass(true);
}
