#include "harness.h"

#include "RE_auto_bypass.h"
#include "RE_config_view.h"
#include "RE_conn_view.h"
#include "RE_global_view.h"
#include "RE_nack_view.h"
#include "RE_peer_view.h"
#include "RE_stat_error.h"
#include "RE_top_app_log.h"
#include "RE_viewer_reader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#define XXH_INLINE_ALL
#include <xxhash.h>

void discard_output()
{
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::abort();
    }
}

memory_file::memory_file(const void* bytes, std::size_t size) : m_descriptor(memfd_create("input", MFD_CLOEXEC))
{
    if (m_descriptor < 0 || write(m_descriptor, bytes, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    m_path = "/proc/self/fd/" + std::to_string(m_descriptor);
}

memory_file::~memory_file()
{
    close(m_descriptor);
}

memory_reader::memory_reader(const unsigned char* bytes, std::size_t size)
    : m_bytes(new unsigned char[size]), m_size(size)
{
    std::copy_n(bytes, size, m_bytes.get());
}

int memory_reader::open()
{
    RE_stat_image image;
    if (const int error = image.attach(m_bytes.get(), m_size, RE_image_kind::live)) {
        return error;
    }
    if (image.header->state != RE_IMAGE_PUBLISHED) {
        return RE_STAT_ERR_NOT_PUBLISHED;
    }
    begin(image);
    return 0;
}

int memory_reader::close()
{
    end();
    return 0;
}

std::unique_ptr<RE_image_reader::writable_image> memory_reader::open_writable()
{
    auto target = std::make_unique<writable_image>();
    target->image = image();
    return target;
}

namespace {

void show_every_report()
{
    show_global(false);
    show_global(true);
    for (const RE_show_type type : {RE_SHOW_INFO, RE_SHOW_DETAIL, RE_SHOW_NACK}) {
        show_peer(nullptr, 0, -1, -1, type);
        show_conn(0, 0, 0, 0, -1, -1, type, false, false);
    }
    show_peer(nullptr, 0, 11, -1, RE_SHOW_INFO);
    show_conn(0, 0, 0, 0, -1, -1, RE_SHOW_INFO, true, false);
    show_conn(0, 0, 0, 0, -1, -1, RE_SHOW_INFO, false, true);
    show_conn(0, 0, 0, 80, -1, 11, RE_SHOW_INFO, false, false);
    show_config(true);
    show_tech_support();
    char no_file[] = "";
    char no_peer[] = "";
    char peer[] = "1";
    show_top_app(no_file, no_peer, true, 0);
    show_top_app(no_file, peer, false, 2);
}

// Invalid slots and ids must change nothing, whatever the image contains.
void ask_for_what_is_not_there(RE_stat_reader& reader)
{
    for (const int slot : {-1, INT_MIN, INT_MAX, 4096, 1000000}) {
        long long value = 0;
        long small_value = 0;
        int number = 0;
        std::time_t opened = 0;
        std::time_t closed = 0;
        RE_stat_peer_header peer;
        RE_stat_conn_header conn;
        SO_stat_conn_header so_conn;
        RE_stat_app_header app;
        RE_stat_app_struct* record = nullptr;
        RE_stat_nack_header nack;
        RE_stat_conn_for_qlt qlt;
        reader.read_global_stat(slot, value);
        reader.read_global_conn_stat(slot, value);
        reader.is_peer_valid(slot);
        reader.read_peer_header(slot, peer);
        reader.read_peer_id(slot, number);
        reader.read_peer_stat(slot, 0, value);
        reader.read_peer_stat(0, slot, value);
        reader.read_peer_conn_stat(0, slot, value);
        reader.read_peer_active_conn_count(slot);
        reader.read_app_slot(slot, record);
        reader.read_app_header(slot, app);
        reader.read_app_stat(0, slot, small_value);
        reader.get_app_id_array(slot);
        reader.is_conn_valid(slot);
        reader.read_conn_header(slot, conn);
        reader.read_conn_so_header(slot, so_conn);
        reader.read_conn_stat(slot, 0, value);
        reader.read_conn_stat(0, slot, value);
        reader.read_conn_time(slot, opened, closed);
        reader.read_conn_peer_id(slot, number);
        reader.read_conn_stat_for_qlt(slot, qlt);
        reader.get_next_nack(slot, nack);
        reader.get_re_auto_bypass_memory_ptr(slot);
        reader.reset_peer_stat(slot);
        reader.reset_conn_stat(slot);
    }
    RE_stat_conn_for_qlt qlt;
    reader.read_conn_stat_for_qlt(0, qlt);
    reader.get_max_app_slots();
}

} // namespace

void exercise(RE_stat_reader& reader)
{
    p_statReader = &reader;
    show_every_report();
    reader.save_stats_binary("/dev/null");
    ask_for_what_is_not_there(reader);
    reader.reset_all();
    reader.clear_all();
    show_every_report();
    p_statReader = nullptr;
}
