// Writes, reads and changes statistics with the counters that this program was built with. A test builds it with one
// counter more and one less of each family, and lets every build handle the images of every other.
//     image_tool publish COMMAND     runs the command while the sample engine's statistics are published
//     image_tool print [FILE]        prints everything in the file or in the live statistics
//     image_tool save FILE           saves the live statistics
//     image_tool reset               sets the live statistics back to 0
//     image_tool clear               also resets current values
#include "support/engine_shapes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

void print_figures(RE_stat_reader& reader)
{
    long long value = 0;
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        std::printf("global %d = %lld\n", id, reader.read_global_stat(id, value) == 0 ? value : -1);
    }
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        std::printf("sum %d = %lld\n", id, reader.read_global_conn_stat(id, value) == 0 ? value : -1);
    }
    std::printf("active = %d\n", reader.read_global_active_conn_count());
}

void print_peers(RE_stat_reader& reader)
{
    for (int slot = 0; slot < reader.get_max_peer_slots(); ++slot) {
        RE_stat_peer_header header{};
        int number = 0;
        reader.read_peer_header(slot, header);
        reader.read_peer_id(slot, number);
        std::printf("peer %d: %d %s active %d\n", slot, number, header.m_peer_host_name,
                    reader.read_peer_active_conn_count(slot));
        long long value = 0;
        for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
            std::printf("peer %d: %d = %lld\n", slot, id, reader.read_peer_stat(slot, id, value) == 0 ? value : -1);
        }
        for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
            std::printf("peer %d: sum %d = %lld\n", slot, id,
                        reader.read_peer_conn_stat(slot, id, value) == 0 ? value : -1);
        }
    }
}

void print_conns(RE_stat_reader& reader)
{
    for (int slot = 0; slot < reader.get_max_conn_slots(); ++slot) {
        RE_stat_conn_header header{};
        SO_stat_conn_header so_header{};
        std::time_t opened = 0;
        std::time_t closed = 0;
        reader.read_conn_header(slot, header);
        reader.read_conn_so_header(slot, so_header);
        reader.read_conn_time(slot, opened, closed);
        std::printf("conn %d: %d port %d fd %d from %lld to %lld\n", slot, header.m_conn_id, header.m_client_port,
                    static_cast<int>(so_header.m_wan_fd), static_cast<long long>(opened),
                    static_cast<long long>(closed));
        long long value = 0;
        for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
            std::printf("conn %d: %d = %lld\n", slot, id, reader.read_conn_stat(slot, id, value) == 0 ? value : -1);
        }
    }
}

void print_apps(RE_stat_reader& reader)
{
    for (int slot = 0; slot < static_cast<int>(reader.get_app_slot_shared_memory_header_size()); ++slot) {
        RE_stat_app_struct* app = nullptr;
        reader.read_app_slot(slot, app);
        std::printf("app %d: port %d, %d opened, %d closed, peer %s\n", slot,
                    static_cast<int>(app->m_header.m_server_port), static_cast<int>(app->m_header.m_open_cnt),
                    static_cast<int>(app->m_header.m_close_cnt), app->m_header.m_kav_peer_id.getString().c_str());
        for (int id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
            long value = 0;
            const bool b_read = reader.read_app_stat(slot, id, value) == 0;
            std::printf("app %d: %d = %ld\n", slot, id, b_read ? value : -1);
        }
    }
}

void print_all(RE_stat_reader& reader)
{
    const RE_stat_config_param* const config = reader.get_config_param();
    std::printf("config: %d %s\n", config != nullptr ? config->m_max_fan_out : -1,
                config != nullptr ? config->m_lz_algorithm : "");
    print_figures(reader);
    print_peers(reader);
    print_conns(reader);
    print_apps(reader);
    RE_stat_nack_header nack{};
    for (int cursor = reader.get_first_nack(); (cursor = reader.get_next_nack(cursor, nack)) >= 0;) {
        std::printf("nack: %d conn %d message %d\n", nack.m_time, nack.m_conn_id, nack.m_msg_seq_no);
    }
}

int handle(const char* what, const char* path)
{
    const bool b_file = std::strcmp(what, "print") == 0 && path != nullptr;
    const std::unique_ptr<RE_stat_reader> reader(
        RE_stat_reader::create(b_file ? RE_STAT_READER_FILE : RE_STAT_READER_SHM, b_file ? path : nullptr));
    if (const int error = reader->open()) {
        std::printf("open: %d\n", error);
        return 1;
    }
    if (std::strcmp(what, "save") == 0) {
        return reader->save_stats_binary(path) == 0 ? 0 : 1;
    }
    if (std::strcmp(what, "reset") == 0) {
        reader->reset_all();
    } else if (std::strcmp(what, "clear") == 0) {
        reader->clear_all();
    } else {
        print_all(*reader);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const char* const what = argc > 1 ? argv[1] : "print";
    const char* const argument = argc > 2 ? argv[2] : nullptr;
    if (std::strcmp(what, "publish") != 0) {
        return handle(what, argument);
    }
    RE_stat_writer engine;
    return publish_sample(engine, {}) == 0 && std::system(argument) == 0 ? 0 : 1;
}
