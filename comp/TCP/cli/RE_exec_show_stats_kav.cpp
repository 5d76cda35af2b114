#include "RE_exec_show_stats_kav.h"

#include "RE_config_view.h"
#include "RE_conn_view.h"
#include "RE_global_view.h"
#include "RE_ip.h"
#include "RE_keyword_rules.h"
#include "RE_nack_view.h"
#include "RE_peer_view.h"
#include "RE_syslog.h"
#include "RE_top_app_log.h"
#include "RE_viewer_reader.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

RE_stat_reader* p_statReader = nullptr;

namespace {

constexpr int exit_success = 0;
constexpr int exit_failure = 1;

// The debug messages about addresses have these origins in the system log. Log filters match them, so they stay the
// same when the lines of this file move.
constexpr const char* log_file = "comp/TCP/cli/RE_exec_show_stats_kav";
constexpr int log_line_positional_client_ip = 2059;
constexpr int log_line_positional_server_ip = 2094;
constexpr int log_line_peer_ip = 1979;
constexpr int log_line_client_ip = 2173;
constexpr int log_line_server_ip = 2213;
constexpr int log_id_ip_trace = 690406;

int hexadecimal(const char* text)
{
    return low32(std::strtol(text, nullptr, 16));
}

bool has_debug_bit(const unsigned char* flags)
{
    return flags != nullptr && (*flags & RE_SYSLOG_DEBUG_ENABLED) != 0;
}

bool is_debug_enabled()
{
    return has_debug_bit(re_syslog_global_debug_enabled) || has_debug_bit(re_syslog_per_conn_debug_enabled);
}

// Whether the address can be a host's. Prints a message if it cannot.
bool accept_host_address(unsigned int ip)
{
    if (is_ip_martian(htonl(ip), 1)) {
        std::printf("Invalid host address %s.\n", ip_to_string(ip));
        return false;
    }
    return true;
}

// Parses a dotted address. log_line: the keyword's line number in the system log.
bool parse_ip(const char* value, int log_line, unsigned int& ip)
{
    ip = string_to_ip(value);
    if (is_debug_enabled()) {
        __re_syslog(log_file, log_line, KAV_GENERIC, RE_SYSLOG_DEBUG, log_id_ip_trace,
                    "argv[g+1]=%s, translate into %x, ip_string to %s\n", value, ip, ip_to_string(ip));
    }
    return accept_host_address(ip);
}

int fail_with_usage()
{
    show_usage();
    return exit_failure;
}

struct peer_arguments
{
    RE_mac_id peer_mac_id{};
    RE_mac_id* p_peer_mac_id = nullptr;
    unsigned int peer_ip = 0;
    int peer_id = -1;
    int ctx_id = -1;
    RE_show_type type = RE_SHOW_INFO;
};

bool take_mac_id(peer_arguments& arguments, char* value)
{
    if (std::strlen(value) > RE_mac_id::text_length) {
        value[RE_mac_id::text_length] = '\0';
    }
    if (!arguments.peer_mac_id.set(value)) {
        std::printf("invalid mac-id format: %s\n", value);
        show_usage();
        return false;
    }
    arguments.p_peer_mac_id = &arguments.peer_mac_id;
    return true;
}

// Unlike "conn", a refused address does not print the usage text.
bool take_peer_ip(peer_arguments& arguments, char* value)
{
    return parse_ip(value, log_line_peer_ip, arguments.peer_ip);
}

constexpr keyword_rule<peer_arguments> peer_rules[] = {
    {"mac-id", take_mac_id}, {"no", &peer_arguments::peer_id}, {"ctx-id", &peer_arguments::ctx_id},
    {"ip", take_peer_ip},    {"detail", RE_SHOW_DETAIL},       {"nack", RE_SHOW_NACK},
};

int run_peer(int argc, char** argv)
{
    peer_arguments arguments;
    if (!parse_keywords(argc, argv, peer_rules, "Invalid peer argument", arguments)) {
        return exit_failure;
    }
    show_peer(arguments.p_peer_mac_id, arguments.peer_ip, arguments.peer_id, arguments.ctx_id, arguments.type);
    return exit_success;
}

struct conn_arguments
{
    unsigned int client_ip = 0;
    unsigned int server_ip = 0;
    unsigned short client_port = 0;
    unsigned short server_port = 0;
    int conn_id = -1;
    int peer_id = -1;
    RE_show_type type = RE_SHOW_INFO;
    bool conn_active = false;
    bool conn_last = false;
};

void show_conn(const conn_arguments& arguments)
{
    show_conn(arguments.client_ip, arguments.server_ip, arguments.client_port, arguments.server_port, arguments.conn_id,
              arguments.peer_id, arguments.type, arguments.conn_active, arguments.conn_last);
}

template <auto ip, int log_line>
bool take_conn_ip(conn_arguments& arguments, char* value)
{
    const bool b_accepted = parse_ip(value, log_line, arguments.*ip);
    if (!b_accepted) {
        show_usage();
    }
    return b_accepted;
}

constexpr keyword_rule<conn_arguments> conn_rules[] = {
    {"client-ip", take_conn_ip<&conn_arguments::client_ip, log_line_client_ip>},
    {"id", &conn_arguments::conn_id},
    {"peer-no", &conn_arguments::peer_id},
    {"server-ip", take_conn_ip<&conn_arguments::server_ip, log_line_server_ip>},
    {"client-port", &conn_arguments::client_port},
    {"server-port", &conn_arguments::server_port},
    {"detail", RE_SHOW_DETAIL},
    {"nack", RE_SHOW_NACK},
    {"active", &conn_arguments::conn_active},
    {"last", &conn_arguments::conn_last},
};

int run_conn(int argc, char** argv)
{
    conn_arguments arguments;
    if (!parse_keywords(argc, argv, conn_rules, "Invalid conn argument", arguments)) {
        return exit_failure;
    }
    show_conn(arguments);
    return exit_success;
}

// The older form of "conn", as the appliance's shell generates it. Every word has a fixed place, numbers are
// hexadecimal, and a word that cannot be parsed is treated as not given. Places at or beyond argc are empty.
class positional_arguments
{
public:
    positional_arguments(int argc, char** argv) : m_argc(argc), m_argv(argv) {}

    bool is(int place, const char* keyword) const { return place < m_argc && is_keyword(m_argv[place], keyword); }

    // Returns the value after the keyword at `place`. Prints a message and returns null when it is missing.
    const char* value_of(int place) const
    {
        if (place + 1 < m_argc) {
            return m_argv[place + 1];
        }
        print_missing_value(m_argv[place]);
        return nullptr;
    }

private:
    int m_argc;
    char** m_argv;
};

// Parses an address that is one hexadecimal number in host order.
bool take_hexadecimal_ip(const positional_arguments& places, int place, unsigned int& ip)
{
    const char* const value = places.value_of(place);
    if (value == nullptr) {
        return false;
    }
    ip = static_cast<unsigned int>(std::strtoul(value, nullptr, 16));
    if (is_debug_enabled()) {
        const bool b_client = place == 2;
        __re_syslog(log_file, b_client ? log_line_positional_client_ip : log_line_positional_server_ip, KAV_GENERIC,
                    RE_SYSLOG_DEBUG, log_id_ip_trace,
                    b_client ? "argv[3]=%s, translate into %x, ip_string to %s\n"
                             : "argv[5]=%s, translate into %x, ip_string to %s\n",
                    value, ip, ip_to_string(ip));
    }
    return accept_host_address(ip);
}

bool take_hexadecimal(const positional_arguments& places, int place, int& number)
{
    const char* const value = places.value_of(place);
    if (value == nullptr) {
        return false;
    }
    number = hexadecimal(value);
    return true;
}

bool take_hexadecimal_port(const positional_arguments& places, int place, unsigned short& port)
{
    int number = 0;
    if (!take_hexadecimal(places, place, number)) {
        return false;
    }
    port = low16(number);
    return true;
}

int run_connection(int argc, char** argv)
{
    const positional_arguments places(argc, argv);
    conn_arguments arguments;
    if (places.is(2, "client-ip")) {
        if (!take_hexadecimal_ip(places, 2, arguments.client_ip)) {
            return exit_failure;
        }
    } else if (places.is(2, "id") && !take_hexadecimal(places, 2, arguments.conn_id)) {
        return exit_failure;
    }
    if (places.is(13, "peer-no") && !take_hexadecimal(places, 13, arguments.peer_id)) {
        return exit_failure;
    }
    if (places.is(4, "server-ip") && !take_hexadecimal_ip(places, 4, arguments.server_ip)) {
        return exit_failure;
    }
    if (places.is(6, "client-port") && !take_hexadecimal_port(places, 6, arguments.client_port)) {
        return exit_failure;
    }
    if (places.is(8, "server-port") && !take_hexadecimal_port(places, 8, arguments.server_port)) {
        return exit_failure;
    }
    if (places.is(10, "detail")) {
        arguments.type = RE_SHOW_DETAIL;
    } else if (places.is(10, "nack")) {
        arguments.type = RE_SHOW_NACK;
    }
    arguments.conn_active = places.is(11, "active");
    arguments.conn_last = places.is(12, "last");
    show_conn(arguments);
    return exit_success;
}

struct top_app_arguments
{
    char input_file_path[1024] = {};
    char kav_peer_id_string[256] = {};
    int top_id = 0;
    RE_show_type type = RE_SHOW_INFO;
};

// Copies the value and truncates it to fit. The rest of the array is filled with NUL.
template <auto text>
bool take_text(top_app_arguments& arguments, char* value)
{
    auto& array = arguments.*text;
    const std::size_t length = strnlen(value, sizeof array - 1);
    std::memcpy(array, value, length);
    std::memset(array + length, 0, sizeof array - length);
    return true;
}

constexpr keyword_rule<top_app_arguments> top_app_rules[] = {
    {"detail", RE_SHOW_DETAIL},
    {"top", &top_app_arguments::top_id},
    {"from-file", take_text<&top_app_arguments::input_file_path>},
    {"peer", take_text<&top_app_arguments::kav_peer_id_string>},
};

int run_top_app(int argc, char** argv)
{
    top_app_arguments arguments;
    if (!parse_keywords(argc, argv, top_app_rules, nullptr, arguments)) {
        return exit_failure;
    }
    show_top_app(arguments.input_file_path, arguments.kav_peer_id_string, arguments.type == RE_SHOW_DETAIL,
                 arguments.top_id);
    return exit_success;
}

int run_save_file(int argc, char** argv)
{
    if (argc == 2) {
        return fail_with_usage();
    }
    const int rv = p_statReader->save_stats_binary(argv[2]);
    if (rv < 0) {
        std::printf("KAV Statistics Reader: failed to write file %s, error code: %d\n", argv[2], rv);
        return exit_failure;
    }
    return exit_success;
}

int run_tech_support(int, char**)
{
    show_tech_support();
    return exit_success;
}

int run_nack(int, char**)
{
    show_nack_info(-1, -1);
    return exit_success;
}

int run_global_info(int, char**)
{
    show_global(false);
    return exit_success;
}

int run_global_detail(int, char**)
{
    show_global(true);
    return exit_success;
}

int run_config(int, char**)
{
    show_config(true);
    return exit_success;
}

int run_brief_config(int, char**)
{
    show_config(false);
    return exit_success;
}

int run_kav_bypass(int argc, char** argv)
{
    show_kav_bypass(argc > 2 && is_keyword(argv[2], "detail"));
    return exit_success;
}

struct command
{
    const char* word;
    int (*run)(int argc, char** argv);
};

// Commands on live statistics. The first word that begins the argument applies, so "connection" is before "conn".
constexpr command commands[] = {
    {"save-file", run_save_file}, {"tech-support", run_tech_support}, {"top-app", run_top_app},
    {"nack", run_nack},           {"global-info", run_global_info},   {"global-detail", run_global_detail},
    {"peer", run_peer},           {"connection", run_connection},     {"conn", run_conn},
    {"config", run_config},       {"brief-config", run_brief_config}, {"kav-bypass", run_kav_bypass},
};

int run_read_file(int argc, char** argv)
{
    if (argc == 2) {
        return fail_with_usage();
    }
    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_FILE, argv[2]));
    p_statReader = reader.get();
    if (reader == nullptr) {
        std::puts("KAV Statistics Reader: object not initialized");
        return exit_failure;
    }
    // Here a positive result is a success. With live statistics it is a failure.
    const int rv = reader->open();
    if (rv < 0) {
        std::printf("KAV Statistics Reader: failed to read file %s, error code: %d\n", argv[2], rv);
        return exit_failure;
    }
    std::puts("-------------------- kav global-detail");
    show_global(true);
    std::puts("-------------------- kav peer-detail");
    show_peer(nullptr, 0, -1, -1, RE_SHOW_DETAIL);
    return exit_success;
}

// Opens the reader before it looks at the command word, so without an engine even an unknown word fails.
int run_live(int argc, char** argv)
{
    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    p_statReader = reader.get();
    if (reader == nullptr) {
        std::puts("Reader object not initialized");
        return exit_failure;
    }
    if (reader->open() != 0) {
        std::printf("KAV Statistics failed OR KAV was not initialized by WEQ"); // no newline; scripts compare all of it
        return exit_failure;
    }
    for (const command& candidate : commands) {
        if (is_keyword(argv[1], candidate.word)) {
            return candidate.run(argc, argv);
        }
    }
    return exit_success;
}

int run_request(int argc, char** argv)
{
    if (argc < 2) {
        std::puts("Invalid args");
        return fail_with_usage();
    }
    re_syslog_init();
    return is_keyword(argv[1], "read-file") ? run_read_file(argc, argv) : run_live(argc, argv);
}

} // namespace

int exec_show_stats_kav(int argc, char** argv)
{
    const int status = run_request(argc, argv);
    // A report that could not be written is also an error.
    const bool b_written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    return b_written ? status : exit_failure;
}

void show_usage()
{
    // "brief-config" and the positional "connection" work although the usage text does not name them.
    std::puts("Usage:\n"
              "/sw/vantero/bin/exec_show_stats_kav [tech-support]\n"
              "        [global-info | global-detail | nack]\n"
              "        [peer [no x| mac-id x| ip x| ctx-id x| nack | detail] ]\n"
              "        [conn [id x|peer-no x|client-ip x|client-port x\n"
              "              |server-ip x|server-port x|last|active|detail|nack]]\n"
              "        [save-file output-filename]\n"
              "        [read-file input-filename]\n"
              "        [top-app [top x | detail | from-file <input-filename>\n"
              "              |peer <kav-peer-id-hash | kav-peer-id-string>]\n"
              "        [kav-bypass]\n"
              "        [config]");
}
